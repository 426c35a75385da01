#!/usr/bin/env python3
"""The task board end to end, with curl and clients of Python.

    WENDREL_TASKBOARD=... python3 test_taskboard.py [Class[.test]]
"""

import hashlib
import http.client
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.append(str(HERE.parents[1] / "support"))
from live_client import LiveClient
from processes import LIMIT_SECONDS, Process, free_port

PROGRAM = os.environ.get("WENDREL_TASKBOARD", "wendrel-taskboard")
PASSWORD = "correct horse, battery"
CONTENT = hashlib.shake_256(b"taskboard").digest(3 * 1024 * 1024)


class Board:
    """The program with the user ann, on a directory of its own."""

    def __init__(self, test, *options):
        self.test = test
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="taskboard-"))
        test.addCleanup(shutil.rmtree, self.directory)
        self.add_user("ann", PASSWORD)
        self.options = options
        self.cookie = None
        self.start()

    def add_user(self, name, password):
        done = subprocess.run([PROGRAM, "--data", str(self.directory), "--add-user", name], input=password + "\n",
                              text=True, capture_output=True, timeout=LIMIT_SECONDS, check=False)
        self.test.assertEqual((done.returncode, done.stdout + done.stderr), (0, ""))

    def start(self):
        self.port = free_port()
        self.process = Process(PROGRAM, "--data", str(self.directory), "--port", str(self.port), *self.options)
        self.test.addCleanup(self.process.kill)
        self.process.wait_line(r"http://127\.0\.0\.1:")

    def stop(self):
        self.test.assertEqual(self.process.stop(), 0, self.process.text())

    def ask(self, method, target, value=None, headers=None):
        """Status, JSON of the body, and the response."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=LIMIT_SECONDS)
        try:
            more = {"Cookie": self.cookie} if self.cookie else {}
            body = None
            if value is not None:
                body = value if isinstance(value, str) else json.dumps(value)
                more["Content-Type"] = "application/json"
            connection.request(method, target, body, {**more, **(headers or {})})
            response = connection.getresponse()
            text = response.read()
            kind = response.getheader("Content-Type", "")
            return response.status, json.loads(text) if "json" in kind else text, response
        finally:
            connection.close()

    def log_in(self, name="ann", password=PASSWORD):
        status, value, response = self.ask("POST", "/api/login", {"name": name, "password": password})
        if status == 200:
            self.cookie = response.getheader("Set-Cookie").partition(";")[0]
        return status, value, response

    def curl(self, target, *arguments):
        done = subprocess.run(["curl", "-sS", "--noproxy", "*", "-b", self.cookie or "", "-w", "%{http_code}",
                               f"http://127.0.0.1:{self.port}{target}", *map(str, arguments)],
                              capture_output=True, timeout=LIMIT_SECONDS, check=True)
        return int(done.stdout[-3:]), done.stdout[:-3]

    def live(self):
        return LiveClient(self.port, LIMIT_SECONDS, headers=f"Cookie: {self.cookie}\r\n")


class Login(unittest.TestCase):
    def setUp(self):
        self.board = Board(self)

    def tearDown(self):
        self.board.stop()

    def test_everything_but_the_page_is_for_users(self):
        self.assertEqual(self.board.ask("GET", "/")[0], 200)
        requests = (("GET", "/api/session"), ("GET", "/api/tasks"), ("POST", "/api/tasks"), ("GET", "/api/tasks/1"),
                    ("PATCH", "/api/tasks/1"), ("DELETE", "/api/tasks/1"), ("POST", "/api/tasks/1/files"),
                    ("GET", "/api/files/1"), ("GET", "/events"))
        for cookie in (None, "session=", "session=ann", "session=YW5u.1.AAAA"):
            self.board.cookie = cookie
            for method, target in requests:
                with self.subTest(f"{method} {target}", cookie=cookie):
                    status, value, _ = self.board.ask(method, target, {} if method == "PATCH" else None)
                    self.assertEqual((status, value["detail"]), (401, "Please log in."))
        self.assertRaisesRegex(AssertionError, "HTTP/1.1 401", self.board.live)

    def test_login_gives_a_cookie_that_scripts_do_not_see(self):
        status, value, response = self.board.log_in()
        self.assertEqual((status, value), (200, {"user": "ann"}))
        attributes = response.getheader("Set-Cookie").split("; ")[1:]
        self.assertIn("HttpOnly", attributes)
        self.assertIn("SameSite=Lax", attributes)
        self.assertEqual(self.board.ask("GET", "/api/session")[1], {"user": "ann"})

    def test_wrong_names_and_passwords_are_refused_alike(self):
        for name, password in (("ann", "wrong"), ("ann", ""), ("bob", PASSWORD), ("", ""), ("ann' OR 1=1 --", "x")):
            with self.subTest(name=name, password=password):
                status, value, response = self.board.log_in(name, password)
                self.assertEqual((status, value["detail"]), (401, "Name or password are wrong."))
                self.assertIsNone(response.getheader("Set-Cookie"))

    def test_guesses_are_limited(self):
        statuses = {self.board.log_in("ann", "wrong")[0] for _ in range(40)}
        self.assertEqual(statuses, {401, 429})

    def test_malformed_logins_are_the_clients_errors(self):
        for value in ("[]", "7", '{"name": "ann"}', '{"name": 1, "password": 2}', "{"):
            with self.subTest(value):
                self.assertEqual(self.board.ask("POST", "/api/login", value)[0], 400)

    def test_logout_takes_the_cookie_away(self):
        self.board.log_in()
        status, _, response = self.board.ask("POST", "/api/logout")
        self.assertEqual(status, 204)
        self.assertIn("Max-Age=0", response.getheader("Set-Cookie"))

    def test_session_survives_a_restart(self):
        self.board.log_in()
        self.board.stop()
        self.board.start()
        self.assertEqual(self.board.ask("GET", "/api/session")[0], 200)

    def test_password_can_be_changed(self):
        self.board.add_user("ann", "another")
        self.assertEqual(self.board.log_in()[0], 401)
        self.assertEqual(self.board.log_in("ann", "another")[0], 200)

    def test_empty_password_is_refused(self):
        done = subprocess.run([PROGRAM, "--data", str(self.board.directory), "--add-user", "ann"], stdin=subprocess.DEVNULL,
                              text=True, capture_output=True, timeout=LIMIT_SECONDS, check=False)
        self.assertEqual((done.returncode, done.stderr), (1, "wendrel-taskboard: no password on standard input\n"))
        self.assertEqual(self.board.log_in()[0], 200)

    def test_others_cannot_read_the_database(self):
        for path in self.board.directory.glob("tasks.sqlite*"):
            self.assertEqual(path.stat().st_mode & 0o077, 0, path)

    def test_passwords_are_not_stored(self):
        self.assertEqual(self.board.log_in()[0], 200)
        for path in self.board.directory.glob("tasks.sqlite*"):
            self.assertNotIn(PASSWORD.encode(), path.read_bytes())


class Tasks(unittest.TestCase):
    def setUp(self):
        self.board = Board(self, "--max-file", "4M")
        self.board.log_in()

    def tearDown(self):
        self.board.stop()

    def add(self, title, **more):
        status, value, response = self.board.ask("POST", "/api/tasks", {"title": title, **more})
        self.assertEqual(status, 201, value)
        self.assertEqual(response.getheader("Location"), f"/api/tasks/{value['id']}")
        return value["id"]

    def titles(self, query=""):
        return [task["title"] for task in self.board.ask("GET", f"/api/tasks{query}")[1]["tasks"]]

    def attach(self, task, path, name="report.bin"):
        return self.board.curl(f"/api/tasks/{task}/files", "-F", f"file=@{path};filename={name}")

    def test_task_is_added_moved_and_removed(self):
        first, second = self.add("Tea"), self.add("Äpfel & <b>", state="doing")
        self.assertEqual(self.board.ask("GET", f"/api/tasks/{first}")[1],
                         {"id": first, "title": "Tea", "state": "open", "author": "ann", "files": []})
        self.assertEqual(self.titles(), ["Tea", "Äpfel & <b>"])
        self.assertEqual(self.titles("?state=doing"), ["Äpfel & <b>"])
        self.assertEqual(self.titles("?page=2"), [])
        self.assertEqual(self.board.ask("PATCH", f"/api/tasks/{first}", {"state": "done"})[0], 204)
        self.assertEqual(self.titles("?state=done"), ["Tea"])
        self.assertEqual(self.board.ask("DELETE", f"/api/tasks/{second}")[0], 204)
        self.assertEqual(self.board.ask("GET", f"/api/tasks/{second}")[0], 404)

    def test_wrong_requests_get_their_status(self):
        task = self.add("Tea")
        rows = (("POST", "/api/tasks", {"title": ""}, 422), ("POST", "/api/tasks", {"title": "x" * 501}, 422),
                ("POST", "/api/tasks", {"title": "x", "state": "lost"}, 422), ("POST", "/api/tasks", {"title": 7}, 400),
                ("POST", "/api/tasks", "[]", 400), ("PATCH", f"/api/tasks/{task}", {"state": "lost"}, 422),
                ("PATCH", "/api/tasks/99", {"state": "done"}, 404), ("DELETE", "/api/tasks/99", None, 404),
                ("GET", "/api/tasks/x", None, 400), ("GET", "/api/tasks/0", None, 400),
                ("GET", "/api/tasks?page=0", None, 400), ("GET", "/api/tasks?state=lost", None, 400),
                ("GET", "/api/files/99", None, 404), ("PUT", "/api/tasks", None, 405))
        for method, target, value, status in rows:
            with self.subTest(f"{method} {target} {value}"):
                self.assertEqual(self.board.ask(method, target, value)[0], status)
        self.assertEqual(self.titles(), ["Tea"])

    def test_attachment_comes_back_as_it_was(self):
        task = self.add("Tea")
        source = self.board.directory / "source"
        source.write_bytes(CONTENT)
        self.assertEqual(self.attach(task, source, "Jahres bericht ä.pdf"), (204, b""))
        [file] = self.board.ask("GET", f"/api/tasks/{task}")[1]["files"]
        self.assertEqual((file["name"], file["bytes"]), ("Jahres bericht ä.pdf", len(CONTENT)))
        status, body, response = self.board.ask("GET", f"/api/files/{file['id']}")
        self.assertEqual((status, body), (200, CONTENT))
        disposition = response.getheader("Content-Disposition")
        self.assertTrue(disposition.startswith("attachment;"), disposition)
        self.assertIn("filename*=UTF-8''Jahres%20bericht%20%C3%A4.pdf", disposition)
        self.assertEqual(response.getheader("Content-Type"), "application/octet-stream")
        self.assertEqual(self.board.curl(f"/api/files/{file['id']}", "-r", "1000-1999"), (206, CONTENT[1000:2000]))
        self.assertEqual(response.getheader("X-Content-Type-Options"), "nosniff")
        self.assertEqual(self.board.ask("DELETE", f"/api/tasks/{task}")[0], 204)
        self.assertEqual(self.board.ask("GET", f"/api/files/{file['id']}")[0], 404)
        self.assertEqual(os.listdir(self.board.directory / "files"), [])

    def test_nothing_is_left_of_a_refused_attachment(self):
        task = self.add("Tea")
        source = self.board.directory / "source"
        source.write_bytes(CONTENT * 2)
        self.assertEqual(self.attach(task, source)[0], 413)
        self.assertEqual(self.attach(99, source)[0], 404)
        self.assertEqual(self.board.ask("GET", f"/api/tasks/{task}")[1]["files"], [])
        self.assertEqual(os.listdir(self.board.directory / "files"), [])

    def test_names_of_attachments_do_not_leave_the_directory(self):
        task = self.add("Tea")
        source = self.board.directory / "source"
        source.write_bytes(b"x")
        self.assertEqual(self.attach(task, source, "../../../evil\\..\\name")[0], 204)
        [file] = self.board.ask("GET", f"/api/tasks/{task}")[1]["files"]
        self.assertNotRegex(file["name"], r"[/\\]")
        self.assertEqual(os.listdir(self.board.directory / "files"), [str(file["id"])])

    def test_changes_are_told_by_websocket_and_events(self):
        live = self.board.live()
        self.addCleanup(live.close)
        events = http.client.HTTPConnection("127.0.0.1", self.board.port, timeout=LIMIT_SECONDS)
        self.addCleanup(events.close)
        events.request("GET", "/events", headers={"Cookie": self.board.cookie})
        stream = events.getresponse()
        self.assertEqual((stream.status, stream.getheader("Content-Type")), (200, "text/event-stream"))

        def next_event():
            while True:
                line = stream.readline().decode()
                assert line, "the stream has ended"
                if line.startswith("data: "):
                    return json.loads(line[6:])

        task = self.add("Tea")
        self.board.ask("PATCH", f"/api/tasks/{task}", {"state": "doing"})
        self.board.ask("DELETE", f"/api/tasks/{task}")
        expected = {"id": task, "title": "Tea", "state": "open", "author": "ann", "files": []}
        for receive in (lambda: json.loads(live.receive()), next_event):
            self.assertEqual(receive(), {"changed": expected})
            self.assertEqual(receive(), {"changed": {**expected, "state": "doing"}})
            self.assertEqual(receive(), {"removed": task})
        # Both end with the server, which does not wait for them.
        self.board.process.send(15)
        self.assertIsNone(live.receive())
        self.assertEqual(live.close_code, 1001)
        self.assertEqual(self.board.process.wait_end(), 0)
        self.board.start()

    def test_tasks_survive_a_restart(self):
        self.add("Tea")
        self.board.stop()
        self.board.start()
        self.assertEqual(self.titles(), ["Tea"])


class Program(unittest.TestCase):
    def test_commands_of_getting_started(self):
        page = (HERE.parents[2] / "docs/getting-started.md").read_text()
        section = page.partition("## A whole application")[2].partition("\n## ")[0]
        start, commands = re.findall(r"```console\n(.*?)```", section, re.S)
        self.assertIn("--add-user ann", start)
        board = Board(self)
        board.add_user("ann", "a long password")
        count = 0
        for command, expected in re.findall(r"^\$ (.*)\n((?:[^$].*\n)*)", commands, re.M):
            done = subprocess.run(["bash", "-o", "pipefail", "-c", command.replace(":8181", f":{board.port}")],
                                  cwd=board.directory, capture_output=True, text=True, timeout=LIMIT_SECONDS,
                                  check=False)
            self.assertEqual((done.returncode, done.stdout.strip(), done.stderr), (0, expected.strip(), ""), command)
            count += 1
        self.assertEqual(count, 7)
        board.stop()

    def test_missing_directory_is_an_error(self):
        done = subprocess.run([PROGRAM, "--data", "/nonexistent"], capture_output=True, text=True,
                              timeout=LIMIT_SECONDS, check=False)
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("/nonexistent", done.stderr)

    def test_damaged_database_is_an_error(self):
        with tempfile.TemporaryDirectory() as directory:
            pathlib.Path(directory, "tasks.sqlite").write_bytes(b"no database" * 1000)
            done = subprocess.run([PROGRAM, "--data", directory], capture_output=True, text=True,
                                  timeout=LIMIT_SECONDS, check=False)
        self.assertEqual((done.returncode, done.stderr), (1, "wendrel-taskboard: database: file is not a database\n"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
