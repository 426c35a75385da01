#!/usr/bin/env python3
"""Tests the rules of terms.py: the misuse is found, the honest use is not."""

import unittest

import comments
import terms


class Terms(unittest.TestCase):
    def test_find_a_rejected_term_wherever_it_stands(self):
        for text, term in (
                ("the answer is sent", "answer"), ("void sendAnswer();", "answer"),
                ("answer_limit = 3", "answer"), ("kAnswerBytes", "answer"), ("Unanswered", "answer"),
                ("ANSWERS = 2", "answer"), ("class RequestKeeper", "keeper"), ("SpareBlocks", "spare"),
                ("no room for it", "room"), ("kHeaderRoomBytes", "room"), ("two blanks", "blank"),
                ("a time-out of 3 s", "time-out"), ("kNoTimeOut", "time-out"),
                ("time_out = 3", "time-out"), ("it was taken in.", "taken in"),
                ("a stand-in for it", "stand-in"), ("class StandIn", "stand-in"),
                ("const int kMostRecords = 3;", "most in a constant"),
                ("MOST_FAILURES = 3", "most in a constant"),
                ("kSpinPeriodMs", "period in a constant"), ("LOOK_S = 1", "look in a constant"),
                ("the client goes away", "goes away"), ("the Nth failure", "Nth failure"),
                ("namespace faults", "fault"), ("std::mutex gate;", "gate")):
            with self.subTest(text):
                self.assertIn(term, terms.terms_in("src/a.cpp", text))

    def test_leave_honest_uses_alone(self):
        for text in ("a blank line", "most requests", "at least 3", "the longest name",
                     "it times out", "timed out after 3 s", "kTimeoutMs", "negate", "propagate",
                     "closed with 1001 (going away)", "is taken into account", "mendacious",
                     "page faults", "keep-alive", "look at the period", "Almost",
                     "a room of the chat", "journalctl -u demo"):
            with self.subTest(text):
                self.assertEqual(terms.terms_in("src/a.cpp", text), [])

    def test_count_every_occurrence(self):
        self.assertEqual(terms.terms_in("a.md", "an answer, then answers"), ["answer", "answer"])

    def test_search_the_path_too(self):
        hits, _ = terms.hits_in("src/RequestKeeper.h", "")
        self.assertEqual([(hit.line, hit.term) for hit in hits], [(0, "keeper")])

    def test_say_place_term_and_replacement(self):
        hits, _ = terms.hits_in("a.md", "One\nThe answer.\n")
        self.assertEqual(str(hits[0]).splitlines()[0],
                         'a.md:2: "answer", write: response, respond, reply')

    def test_allow_only_for_a_reason(self):
        for allowed in terms.ALLOWED:
            self.assertTrue(allowed.reason)
            self.assertIn(allowed.term, terms.ADVICE)

    def test_allow_a_text_of_the_product_to_the_letter(self):
        name = "tests/unit/kit/Application.cpp"
        self.assertEqual(terms.terms_in(name, '"The request was not answered."'), [])
        self.assertEqual(terms.terms_in(name, "// The request is not answered."), ["answer"])


class Limits(unittest.TestCase):
    def setUp(self):
        self.hits, self.length = terms.hits_in("a.md", "the answer, a door\nWhat counts is said\n")

    def test_pass_at_the_recorded_number(self):
        record = {"a.md": {"answer": 1, "door": 1, "what": 1}}
        self.assertEqual(terms.excess(self.hits, self.length, record), set())

    def test_fail_above_the_recorded_number_and_without_a_record(self):
        record = {"a.md": {"answer": 1}}
        self.assertEqual(terms.excess(self.hits, self.length, record), {"door", "what"})

    def test_count_the_whole_tree_so_that_a_file_can_be_renamed(self):
        record = {"old.md": {"answer": 1, "door": 1, "what": 1}}
        self.assertEqual(terms.excess(self.hits, self.length, record), set())

    def test_show_the_occurrences_of_files_with_more_than_recorded(self):
        record = {"a.md": {"answer": 1, "what": 1}}
        above = terms.excess(self.hits, self.length, record)
        self.assertEqual([hit.term for hit in terms.new_hits(self.hits, above, record)], ["door"])

    def test_tolerate_a_rate_of_what_below_the_limit(self):
        hits, _ = terms.hits_in("a.md", "what")
        self.assertEqual(terms.excess(hits, 10000, {}), set())
        self.assertEqual(terms.excess(hits, 1000, {}), {"what"})


class Prose(unittest.TestCase):
    def test_is_the_comments_of_a_program_and_the_text_of_a_page(self):
        for name, text, prose in (
                ("a.cpp", 'f("// no"); // yes\nint a = 1\'000; /* two\nlines */ g(\'"\');\n',
                 [(1, "// yes"), (2, "/* two"), (3, "lines */")]),
                ("a.py", '"""Module."""\nA = "no"  # yes\ndef f():\n    """Text."""\n    return "no"\n',
                 [(1, '"""Module."""'), (2, "# yes"), (4, '"""Text."""')]),
                ("a.sh", '#!/bin/sh\n# yes\necho "$#" no # yes\n', [(2, "# yes"), (3, "# yes")]),
                ("a.html", "<p>no</p>\n<!-- yes -->\n", [(2, "<!-- yes -->")]),
                ("a.txt", "no", []),
        ):
            with self.subTest(name):
                self.assertEqual(list(comments.of(name, text)), prose)

    def test_leaves_out_the_code_of_a_page(self):
        page = "Yes `no` [yes](no).\n```\nno\n```\nYes\n"
        self.assertEqual([(number, " ".join(line.split()))
                          for number, line in comments.of("a.md", page) if line.strip()],
                         [(1, "Yes [yes ."), (5, "Yes")])


if __name__ == "__main__":
    unittest.main()
