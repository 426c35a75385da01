#!/usr/bin/env python3
"""Tests which changes of a source file are mutants.

    python3 test_mutants.py [Class[.test]]
"""

import glob
import os
import unittest

import mutants
import report

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def changes(source):
    found = mutants.find_mutants("file.cpp", source)
    return [source[: m.start] + m.after + source[m.end :] for m in found]


def in_function(*lines):
    return "int f(int a, int b)\n{\n    " + "\n    ".join(lines) + "\n}\n"


def bodies(*lines):
    """The changed bodies of a function with these lines, on one line each."""
    found = []
    for changed in changes(in_function(*lines)):
        found.append(" ".join(changed.split("{\n", 1)[1].rsplit("\n}", 1)[0].split()))
    return found


class Mutants(unittest.TestCase):
    def test_change_an_operator_with_spaces_around_it(self):
        self.assertEqual(bodies("a <= b;"), [";", "a < b;", "a > b;"])
        self.assertEqual(bodies("a == b;"), [";", "a != b;"])
        self.assertEqual(bodies("g() && b;"), [";", "g() || b;"])
        self.assertEqual(bodies("a += b;"), [";", "a -= b;"])
        self.assertEqual(bodies("++a;"), [";", "--a;"])
        self.assertEqual(bodies("!a;"), [";", "a;"])
        self.assertEqual(bodies("std::min(a, b);"), [";", "std::max(a, b);"])

    def test_leave_templates_references_and_pointers_alone(self):
        for line in ("std::vector<int> c;", "int& c = a;", "int* c = &a;", "auto&& c = a;"):
            self.assertEqual(bodies(line), [], line)

    def test_change_a_number_to_its_neighbours_and_to_nothing(self):
        self.assertEqual(
            bodies("int c = 0x1Fu;"), ["int c = 0x20u;", "int c = 0x1eu;", "int c = 0x0u;"]
        )
        self.assertEqual(bodies("int c = 017;"), ["int c = 020;", "int c = 016;", "int c = 00;"])
        self.assertEqual(bodies("int c = 1;"), ["int c = 2;", "int c = 0;"])
        self.assertEqual(bodies("int c = 0;"), ["int c = 1;"])
        self.assertEqual(bodies("bool c = true;"), ["bool c = false;"])

    def test_leave_comments_texts_and_directives_alone(self):
        source = '// 1 + 1\n/* 2\n3 */\n#define A 1 + \\\n 2\nconst char* a = "1 + 1";\n'
        self.assertEqual(changes(source), [])
        self.assertEqual(bodies("char c = '1';"), [])

    def test_delete_a_statement_but_no_declaration(self):
        self.assertEqual(bodies("call(a);"), [";"])
        self.assertEqual(bodies("delete c;"), [";"])
        self.assertEqual(bodies("qvMutexLocker locker(c);"), [])
        self.assertEqual(bodies("return a;"), ["return {};"])
        self.assertEqual(bodies("return;"), [";"])
        self.assertEqual(bodies("return nullptr;"), [])

    def test_negate_a_condition_once(self):
        self.assertIn("if (!(a)) { }", bodies("if (a) {", "}"))
        self.assertEqual(bodies("if (a == b) {", "}"), ["if (a != b) { }"])
        self.assertEqual(bodies("if (!a) {", "}"), ["if (a) { }"])
        self.assertEqual(bodies("if (const int* c = g()) {", "}"), [])
        self.assertIn("!(a) ? b : c;", bodies("a ? b : c;"))

    def test_go_into_every_kind_of_statement(self):
        for line in (
            "if (a) g(); else h();",
            "for (;;) g();",
            "while (a) { g(); }",
            "do { g(); } while (a);",
            "switch (a) { case A: g(); break; default: break; }",
            "try { g(); } catch (...) { throw; }",
            "{ { g(); } }",
        ):
            deleted = [body for body in bodies(line) if "g()" not in body]
            self.assertEqual(len(deleted), 1, line)

    def test_know_the_function(self):
        source = "\n".join((
            "namespace n",
            "{",
            "constexpr int k = 2;",
            "struct S { int m = 3; int get() const { return m; } };",
            "S::S() : m(4)",
            "{",
            "}",
            "S::~S() { g(); }",
            "bool S::operator==(int a) { return a == 5; }",
            "S& S::operator=(int a) { value = a + 1; return *this; }",
            "}",
        ))
        found = mutants.find_mutants("file.cpp", source)
        self.assertEqual(
            list(dict.fromkeys(m.function for m in found)),
            [mutants.CONSTANTS, "get", "S::S", "S::~S", "S::operator==", "S::operator="],
        )

    def test_come_in_turns_and_in_the_same_order_for_a_seed(self):
        source = in_function(*["call(1 + 2);"] * 9) + "int g() { return h(); }\n"
        found = mutants.find_mutants("file.cpp", source)
        order = mutants.in_turns(found, 7)
        self.assertEqual(sorted(m.key for m in order), sorted(m.key for m in found))
        self.assertEqual({m.function for m in order[:2]}, {"f", "g"})
        self.assertEqual(order, mutants.in_turns(found, 7))
        self.assertNotEqual(order, mutants.in_turns(found, 8))

    def test_are_in_every_source_file(self):
        files = glob.glob(os.path.join(ROOT, "src", "*", "*.cpp"))
        self.assertGreater(len(files), 20)
        for path in files:
            with open(path, encoding="utf-8") as file:
                self.assertTrue(mutants.find_mutants(path, file.read()), path)

    def test_of_the_survivors_exist(self):
        known = set()
        for path in glob.glob(os.path.join(ROOT, "src", "**", "*"), recursive=True):
            if path.endswith((".cpp", ".h")):
                with open(path, encoding="utf-8") as file:
                    found = mutants.find_mutants(os.path.relpath(path, ROOT), file.read())
                known.update(report.table_row(vars(mutant)) for mutant in found)
        with open(os.path.join(ROOT, "tests/mutation/survivors.md"), encoding="utf-8") as file:
            rows = [line for line in file if line.startswith("| `src/")]
        self.assertGreater(len(rows), 0)
        stale = [row for row in rows if not any(row.startswith(start) for start in known)]
        self.assertEqual(stale, [], "the code has changed: adapt or delete these rows")


if __name__ == "__main__":
    unittest.main()
