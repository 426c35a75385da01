#!/usr/bin/env python3
"""filedrop as its users meet it: one process, real sockets, curl as the client.

    WENDREL_FILEDROP=build/release/examples/filedrop/wendrel-filedrop \
        python3 test_filedrop.py [Class[.test]]
"""

import hashlib
import http.client
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys

sys.path.append(str(pathlib.Path(__file__).parents[2] / "support"))
from filedrop_server import (MIB, SERVER, TEMPORARY_PREFIX, Server, ServerCase, main, make_sparse, sha256)
from live_client import LiveClient
from processes import LIMIT_SECONDS, SANITIZED, free_port, wait_until

LARGE = 64 * MIB if SANITIZED else 1024 * MIB
MEMORY_LIMIT = 32 * MIB
SLOW = "256K"  # bytes a second of curl: 64 MiB take longer than any test waits


class Transfers(ServerCase):
    def check_memory(self):
        if not SANITIZED:
            peak = self.server.peak_memory()
            print(f"peak resident memory: {peak / MIB:.1f} MiB", file=sys.stderr)
            self.assertLess(peak, MEMORY_LIMIT)

    def test_large_file_down_in_constant_memory(self):
        self.start()
        source = make_sparse(self.directory / "large.bin", LARGE)
        target = self.work / "target"
        response = self.curl("/files/large.bin", "-o", target)
        self.assertEqual(response.status, 200, response)
        self.assertEqual(response.headers["content-length"], str(LARGE))
        self.assertEqual(sha256(target), sha256(source))
        self.check_memory()

    def test_large_files_up(self):
        self.start()
        source = make_sparse(self.work / "source", LARGE // 4)
        expected = sha256(source)
        self.assertEqual(self.curl("/files/declared", "-T", source).status, 201)
        with open(source, "rb") as stream:
            curl = self.spawn_curl("-T", "-", "-o", os.devnull, "-w", "%{http_code}",
                                   self.server.url + "/files/chunked", stdin=stream)
            output, error = curl.communicate(timeout=4 * LIMIT_SECONDS)
        self.assertEqual(output, b"201", error)
        for name in ("declared", "chunked"):
            self.assertEqual(sha256(self.directory / name), expected, name)

    # The client sends as fast as it can: at any speed of the disk no more than a queue of fixed
    # size waits for it.
    def test_large_file_up_in_constant_memory(self):
        self.start()
        block = os.urandom(MIB)
        for size in (LARGE // 4, None):
            with self.subTest(size=size):
                upload = self.upload("large.bin", size)
                digest = hashlib.sha256()
                for _ in range(LARGE // 4 // MIB):
                    upload.send(block)
                    digest.update(block)
                self.assertIn(upload.finish(), (200, 201))
                self.assertEqual(sha256(self.directory / "large.bin"), digest.hexdigest())
        self.check_memory()

    def test_fifty_parallel_downloads_in_bounded_memory(self):
        self.start()
        (self.directory / "a").write_bytes(os.urandom((4 if SANITIZED else 16) * MIB))
        targets = [self.work / f"target-{number}" for number in range(50)]
        for curl in [self.spawn_curl("-o", target, self.server.url + "/files/a") for target in targets]:
            _, error = curl.communicate(timeout=4 * LIMIT_SECONDS)
            self.assertEqual(curl.returncode, 0, error)
        self.check_memory()
        expected = sha256(self.directory / "a")
        for target in targets:
            self.assertEqual(sha256(target), expected, target)

    def test_fifty_parallel_transfers(self):
        self.start()
        size = (1 if SANITIZED else 8) * MIB
        sources = []
        for number in range(50):
            source = self.work / f"source-{number}"
            source.write_bytes(os.urandom(size + number))
            sources.append(source)

        def all_of(runs):
            for number, run in enumerate(runs):
                output, error = run.communicate(timeout=4 * LIMIT_SECONDS)
                self.assertEqual(run.returncode, 0, (number, error))
                yield output

        uploads = [self.spawn_curl("-T", source, "-o", os.devnull, "-w", "%{http_code}",
                                   f"{self.server.url}/files/file-{number}")
                   for number, source in enumerate(sources)]
        self.assertEqual(set(all_of(uploads)), {b"201"})
        self.assertEqual(self.names(), sorted(f"file-{number}" for number in range(50)))

        downloads = [self.spawn_curl("-o", self.work / f"target-{number}", "-w", "%{http_code}",
                                     f"{self.server.url}/files/file-{number}")
                     for number in range(50)]
        self.assertEqual(set(all_of(downloads)), {b"200"})
        for number, source in enumerate(sources):
            self.assertEqual(sha256(self.work / f"target-{number}"), sha256(source), number)

    def test_sizes_around_a_chunk(self):
        self.start()
        for size in (0, 1, 2, 65535, 65536, 65537, 131071, 131072, 131073, 3 * MIB + 1):
            with self.subTest(size=size):
                content = os.urandom(size)
                self.assertEqual(self.put("/files/sized", content).status // 100, 2)
                self.assertEqual((self.directory / "sized").read_bytes(), content)
                response = self.curl("/files/sized")
                self.assertEqual(response.status, 200)
                self.assertEqual(response.headers["content-length"], str(size))
                self.assertEqual(response.body, content)

    def test_replacing_a_file(self):
        self.start()
        self.assertEqual(self.put("/files/a", b"old").status, 201)
        self.assertEqual(self.put("/files/a", b"newer").status, 200)
        self.assertEqual(self.curl("/files/a").body, b"newer")
        self.assertEqual(self.names(), ["a"])

    def test_download_goes_on_while_its_file_is_replaced(self):
        self.start()
        content = os.urandom(16 * MIB)
        (self.directory / "a").write_bytes(content)
        download = self.download("a")
        self.assertEqual(self.put("/files/a", b"new").status, 200)
        self.assertTrue(download.read_rest() == content)
        self.assertEqual(self.curl("/files/a").body, b"new")

    def test_requests_on_one_connection(self):
        self.start()
        (self.directory / "a").write_bytes(b"one")
        url = self.server.url + "/files/a"
        done = subprocess.run(
            ["curl", "-sS", "--noproxy", "*", "-w", "%{num_connects}\n", url, "-o", os.devnull,
             url, "-I", "-o", os.devnull, url, "-o", os.devnull], capture_output=True, check=True)
        self.assertEqual(done.stdout.split().count(b"1"), 1, done.stdout)

    def test_head_has_the_length_and_no_body(self):
        self.start()
        (self.directory / "a.txt").write_bytes(b"x" * 3000000)
        response = self.curl("/files/a.txt", "-I")
        self.assertEqual(response.status, 200)
        self.assertEqual(response.headers["content-length"], "3000000")
        self.assertEqual(response.headers["content-type"], "text/plain; charset=utf-8")
        self.assertEqual(response.headers["accept-ranges"], "bytes")
        self.assertEqual(self.curl("/files/none", "-I").status, 404)

    def test_deleting(self):
        self.start()
        (self.directory / "a").write_bytes(b"one")
        response = self.curl("/files/a", "-X", "DELETE")
        self.assertEqual((response.status, response.body), (204, b""))
        self.assertEqual(self.names(), [])
        self.assertEqual(self.curl("/files/a", "-X", "DELETE").status, 404)
        self.assertEqual(self.curl("/files/a").status, 404)


class Interface(ServerCase):
    def test_list_of_files(self):
        self.start()
        self.assertEqual(self.curl("/api/files").json(), {"files": []})
        (self.directory / "b \"quoted\".txt").write_bytes(b"12345")
        (self.directory / "a\u00e9").write_bytes(b"")
        (self.directory / "bad\udcff").write_bytes(b"")
        os.mkdir(self.directory / "inner")
        os.utime(self.directory / "b \"quoted\".txt", ns=(0, 784887151250000000))
        response = self.curl("/api/files")
        self.assertEqual(response.status, 200)
        self.assertEqual(response.headers["content-type"], "application/json")
        files = response.json()["files"]
        self.assertEqual([file["name"] for file in files], ["a\u00e9", "b \"quoted\".txt"])
        self.assertEqual(files[1], {"name": "b \"quoted\".txt", "size": 5,
                                    "modified": "1994-11-15T08:12:31.250Z"})

    def test_status_counts(self):
        self.start()
        before = self.status()
        self.assertRegex(before["version"], r"^3\.0\.0\.\d+$")
        self.assertGreaterEqual(before["uptimeSeconds"], 0)
        self.assertIn("libmicrohttpd", " ".join(before["thirdParty"]).lower())
        self.assertTrue(all(before["thirdParty"].values()), before)
        self.assertEqual(self.put("/files/a", b"x" * 1000).status, 201)
        self.assertEqual(len(self.curl("/files/a").body), 1000)
        after = self.status()
        self.assertEqual(after["requests"] - before["requests"], 3)
        self.assertEqual(after["bytesIn"] - before["bytesIn"], 1000)
        wait_until(lambda: self.status()["bytesOut"] - before["bytesOut"] >= 1000,
                   "the download is counted")
        wait_until(lambda: self.status()["openRequests"] == 1, "only the one that asks is open")

    def test_status_shows_open_requests(self):
        self.start()
        make_sparse(self.directory / "a", 64 * MIB)
        download = self.download("a")
        wait_until(lambda: self.status()["openRequests"] == 2, "both requests are open")
        download.close()
        wait_until(lambda: self.status()["openRequests"] == 1, "the request of a client that has left ends")

    def test_page(self):
        self.start()
        response = self.curl("/")
        self.assertEqual(response.status, 200)
        self.assertEqual(response.headers["content-type"], "text/html; charset=utf-8")
        self.assertIn(b"<h1>filedrop</h1>", response.body)
        policy = response.headers["content-security-policy"]
        self.assertIn("default-src 'none'", policy)
        self.assertNotIn("unsafe", policy)
        nonce = policy.split("script-src 'nonce-")[1].split("'")[0]
        self.assertEqual(response.body.count(f'nonce="{nonce}"'.encode()), 2)
        self.assertNotEqual(policy, self.curl("/").headers["content-security-policy"])
        self.assertEqual(self.curl("/", "-I").status, 200)

    def test_every_response_has_the_safety_headers(self):
        self.start()
        (self.directory / "evil.html").write_bytes(b"<script>alert(1)</script>")
        for target in ("/", "/api/files", "/api/status", "/files/evil.html", "/files/none", "/nothing"):
            with self.subTest(target=target):
                response = self.curl(target)
                self.assertEqual(response.headers["x-content-type-options"], "nosniff")
                self.assertIn("default-src 'none'", response.headers["content-security-policy"])
                self.assertEqual(response.headers["referrer-policy"], "no-referrer")
        file = self.curl("/files/evil.html")
        self.assertEqual(file.headers["content-disposition"], 'attachment; filename="evil.html"')
        self.assertIn("sandbox", file.headers["content-security-policy"])

    def test_unknown_addresses_and_methods(self):
        self.start()
        response = self.curl("/nothing")
        self.assertEqual(response.status, 404)
        self.assertTrue(response.json()["detail"])
        response = self.curl("/api/files", "-X", "DELETE")
        self.assertEqual(response.status, 405)
        self.assertEqual(set(response.headers["allow"].split(", ")) - {"OPTIONS"}, {"GET", "HEAD"})
        response = self.curl("/files/a", "-X", "POST", "-d", "x")
        self.assertEqual(response.status, 405)
        self.assertEqual(set(response.headers["allow"].split(", ")) - {"OPTIONS"},
                         {"GET", "HEAD", "PUT", "DELETE"})
        self.assertEqual(self.names(), [])


class Names(ServerCase):
    def setUp(self):
        super().setUp()
        (self.work / "secret").write_bytes(b"secret")
        (self.directory / "inside").write_bytes(b"inside")
        inner = self.directory / "inner"
        inner.mkdir()
        (inner / "file").write_bytes(b"inner")
        (self.directory / "link-out").symlink_to("../secret")
        (self.directory / "link-absolute").symlink_to(self.work / "secret")
        (self.directory / "link-in").symlink_to("inside")
        (self.directory / "link-up").symlink_to("..")
        (self.directory / "link-dangling").symlink_to("../created")
        self.before = self.names()
        self.start()

    def tearDown(self):
        self.assertEqual(self.names(), self.before)
        self.assertEqual((self.work / "secret").read_bytes(), b"secret")
        self.assertEqual((self.directory / "inside").read_bytes(), b"inside")
        self.assertEqual((self.directory / "inner" / "file").read_bytes(), b"inner")
        self.assertTrue((self.directory / "link-out").is_symlink())
        self.assertFalse((self.work / "created").exists())

    def check_refused(self, targets, statuses):
        for target in targets:
            for method in ("GET", "HEAD", "PUT", "DELETE"):
                with self.subTest(target=target, method=method):
                    if method == "PUT":
                        response = self.curl(target, "-X", "PUT", "--data-binary", "intruder")
                    elif method == "HEAD":
                        response = self.curl(target, "-I")
                    else:
                        response = self.curl(target, "-X", method)
                    self.assertIn(response.status, statuses, response)
                    self.assertNotIn(b"secret", response.body)
                    self.assertNotIn(b"root:", response.body)
                    if method != "HEAD":
                        self.assertTrue(response.json()["title"])

    def test_ways_out_of_the_directory(self):
        self.check_refused((
            "/files/../secret", "/files/..%2Fsecret", "/files/..%2fsecret", "/files/%2e%2e/secret",
            "/files/%2e%2e%2fsecret", "/files/%2E%2E%2Fsecret", "/files/%2e%2e", "/files/..",
            "/files/.", "/files/%2e", "/files/%2Fetc%2Fpasswd", "/files//etc/passwd",
            "/files/..%2f..%2f..%2f..%2fetc%2fpasswd", "/../../../etc/passwd", "/files/../../etc/passwd",
            "/files/inner/file", "/files/inner%2Ffile", "/files/./inside", "/files/inner/../inside",
            "/files/%2e%2e%00", "/files/", "/files", "/files/inside/"), (400, 404, 405))

    def test_control_characters_and_bad_utf8(self):
        self.check_refused((
            "/files/a%00b", "/files/%00", "/files/inside%00", "/files/inside%00.txt", "/files/a%0ab",
            "/files/a%0d%0ab", "/files/a%1bb", "/files/a%7fb", "/files/a%c2%80b", "/files/%ff",
            "/files/%c0%ae%c0%ae%2fsecret", "/files/%c0%ae%c0%ae", "/files/%e0%80%ae", "/files/%ed%a0%80",
            "/files/%f4%90%80%80", "/files/%zz", "/files/%"), (400,))

    def test_names_too_long(self):
        self.check_refused(("/files/" + "n" * 256, "/files/" + "%E6%96%87" * 86), (400,))

    def test_names_of_unfinished_uploads(self):
        self.check_refused((f"/files/{TEMPORARY_PREFIX}0123", f"/files/%2e{TEMPORARY_PREFIX[1:]}x"), (400,))

    def test_links_and_directories(self):
        targets = ("/files/link-out", "/files/link-absolute", "/files/link-in", "/files/link-up",
                   "/files/link-dangling", "/files/inner")
        for target in targets:
            with self.subTest(target=target):
                self.assertEqual(self.curl(target).status, 404)
                self.assertEqual(self.curl(target, "-I").status, 404)
                self.assertEqual(self.curl(target, "-X", "DELETE").status, 404)
                response = self.put(target, b"intruder")
                self.assertEqual(response.status, 409, response)
                self.assertTrue(response.json()["detail"])
        listed = [file["name"] for file in self.curl("/api/files").json()["files"]]
        self.assertEqual(listed, ["inside"])

    def test_unusual_names_come_back_as_they_were(self):
        rows = (
            ("two%20words.txt", "two words.txt"), ("100%25", "100%"), ("a%2Bb+c", "a+b+c"),
            ("%E6%96%87%E4%BB%B6", "\u6587\u4ef6"), ("%F0%9F%8E%89", "\U0001f389"), ("...", "..."),
            (".hidden", ".hidden"), ("-rf", "-rf"), ("a%5Cb", "a\\b"), ("q%3Fx%23y", "q?x#y"),
            ("%3Cimg%20src%3Dx%20onerror%3Dalert(1)%3E", "<img src=x onerror=alert(1)>"),
            ("%22%27%3B%26", "\"';&"), ("%252e%252e", "%2e%2e"), ("n" * 255, "n" * 255),
            ("e%CC%81", "e\u0301"), ("a%3Ab", "a:b"), ("~", "~"))
        for target, name in rows:
            with self.subTest(name=name):
                self.assertEqual(self.put("/files/" + target, name.encode()).status, 201)
                self.assertEqual((self.directory / name).read_bytes(), name.encode())
                self.assertIn(name, [file["name"] for file in self.curl("/api/files").json()["files"]])
                response = self.curl("/files/" + target)
                self.assertEqual((response.status, response.body), (200, name.encode()))
                self.assertEqual(self.curl("/files/" + target, "-X", "DELETE").status, 204)

    def test_download_keeps_a_name_outside_ascii(self):
        self.put("/files/%C3%A9t%C3%A9%20%22x%22.txt", b"summer")
        response = self.curl("/files/%C3%A9t%C3%A9%20%22x%22.txt")
        self.assertEqual(response.headers["content-disposition"],
                         'attachment; filename="_t_ _x_.txt"; '
                         "filename*=UTF-8''%C3%A9t%C3%A9%20_x_.txt")
        self.curl("/files/%C3%A9t%C3%A9%20%22x%22.txt", "-X", "DELETE")


class Conditions(ServerCase):
    CONTENT = bytes(range(256)) * 1024

    def setUp(self):
        super().setUp()
        (self.directory / "a.bin").write_bytes(self.CONTENT)
        os.utime(self.directory / "a.bin", ns=(0, 784887151250000000))
        self.start()
        whole = self.curl("/files/a.bin")
        self.assertEqual((whole.status, whole.body), (200, self.CONTENT))
        self.etag = whole.headers["etag"]
        self.modified = whole.headers["last-modified"]

    def get(self, *headers, method=()):
        arguments = []
        for header in headers:
            arguments += ["-H", header]
        return self.curl("/files/a.bin", *method, *arguments)

    def check_whole(self, response):
        self.assertEqual(response.status, 200, response)
        self.assertEqual(response.body, self.CONTENT)
        self.assertNotIn("content-range", response.headers)

    def check_part(self, response, first, last):
        self.assertEqual(response.status, 206, response)
        self.assertEqual(response.headers["content-range"], f"bytes {first}-{last}/{len(self.CONTENT)}")
        self.assertEqual(response.headers["content-length"], str(last - first + 1))
        self.assertEqual(response.headers["etag"], self.etag)
        self.assertEqual(response.body, self.CONTENT[first:last + 1])

    def check_not_modified(self, response):
        self.assertEqual((response.status, response.body), (304, b""), response)
        self.assertEqual(response.headers["etag"], self.etag)
        self.assertEqual(response.headers["last-modified"], self.modified)

    def test_validators(self):
        self.assertEqual(self.modified, "Tue, 15 Nov 1994 08:12:31 GMT")
        self.assertRegex(self.etag, r'^"[0-9a-f.-]+"$')
        head = self.get(method=("-I",))
        self.assertEqual(head.headers["etag"], self.etag)
        self.put("/files/a.bin", self.CONTENT)
        self.assertNotEqual(self.curl("/files/a.bin").headers["etag"], self.etag)

    def test_if_none_match(self):
        for value in (self.etag, f"W/{self.etag}", f'"x", {self.etag}', f'"x,y",{self.etag}', "*"):
            with self.subTest(value=value):
                self.check_not_modified(self.get(f"If-None-Match: {value}"))
                self.assertEqual(self.get(f"If-None-Match: {value}", method=("-I",)).status, 304)
        for value in ('"other"', self.etag.strip('"'), '"x", W/"y"'):
            with self.subTest(value=value):
                self.check_whole(self.get(f"If-None-Match: {value}"))
        self.check_whole(self.get('If-None-Match: "other"', f"If-Modified-Since: {self.modified}"))

    def test_if_modified_since(self):
        for value in (self.modified, "Tue, 15 Nov 1994 08:12:32 GMT",
                      "Tuesday, 15-Nov-94 08:12:31 GMT", "Tue Nov 15 08:12:31 1994"):
            with self.subTest(value=value):
                self.check_not_modified(self.get(f"If-Modified-Since: {value}"))
        for value in ("Tue, 15 Nov 1994 08:12:30 GMT", "yesterday", "0"):
            with self.subTest(value=value):
                self.check_whole(self.get(f"If-Modified-Since: {value}"))

    def test_a_304_leaves_the_connection_usable(self):
        url = self.server.url + "/files/a.bin"
        done = subprocess.run(
            ["curl", "-sS", "--noproxy", "*", "-H", f"If-None-Match: {self.etag}",
             "-w", "%{http_code} %{num_connects}\n", url, url, "-I", url],
            capture_output=True, check=True)
        ends = [line for line in done.stdout.decode().splitlines() if line.startswith("304 ")]
        self.assertEqual(ends, ["304 1", "304 0", "304 0"], done.stdout)

    def test_single_ranges(self):
        size = len(self.CONTENT)
        for value, first, last in (
                ("0-0", 0, 0), ("0-99", 0, 99), ("100-", 100, size - 1), ("-1", size - 1, size - 1),
                ("-100", size - 100, size - 1), ("65535-65537", 65535, 65537),
                (f"0-{size - 1}", 0, size - 1), (f"0-{size}", 0, size - 1), (f"-{size + 1}", 0, size - 1),
                (f"{size - 1}-", size - 1, size - 1)):
            with self.subTest(value=value):
                self.check_part(self.get(f"Range: bytes={value}"), first, last)

    def test_ranges_beyond_the_end(self):
        size = len(self.CONTENT)
        for value in (f"{size}-", f"{size}-{size + 5}", "-0", "99999999999999999999-"):
            with self.subTest(value=value):
                response = self.get(f"Range: bytes={value}")
                self.assertEqual(response.status, 416)
                self.assertEqual(response.headers["content-range"], f"bytes */{size}")
                self.assertTrue(response.json()["detail"])

    def test_several_ranges(self):
        response = self.get("Range: bytes=0-1,500-501")
        self.assertEqual(response.status, 206)
        kind, _, boundary = response.headers["content-type"].partition("; boundary=")
        self.assertEqual(kind, "multipart/byteranges")
        parts = response.body.split(f"--{boundary}".encode())
        self.assertEqual([part.partition(b"\r\n\r\n")[2] for part in parts[1:-1]],
                         [self.CONTENT[:2] + b"\r\n", self.CONTENT[500:502] + b"\r\n"])

    def test_other_conditions(self):
        self.check_whole(self.get(f"If-Match: {self.etag}"))
        self.assertEqual(self.get('If-Match: "other"').status, 412)
        self.check_whole(self.get(f"If-Unmodified-Since: {self.modified}"))
        self.assertEqual(self.get("If-Unmodified-Since: Tue, 15 Nov 1994 08:12:30 GMT").status, 412)

    def test_ranges_that_are_malformed(self):
        for value in ("bytes=5-1", "bytes=x", "bytes=", "lines=0-1", "0-1"):
            with self.subTest(value=value):
                self.check_whole(self.get(f"Range: {value}"))

    def test_if_range(self):
        for value in (self.etag, self.modified):
            with self.subTest(value=value):
                self.check_part(self.get("Range: bytes=5-9", f"If-Range: {value}"), 5, 9)
        for value in ('"other"', f"W/{self.etag}", "Tue, 15 Nov 1994 08:12:32 GMT",
                      "Tue, 15 Nov 1994 08:12:30 GMT"):
            with self.subTest(value=value):
                self.check_whole(self.get("Range: bytes=5-9", f"If-Range: {value}"))

    def test_a_known_tag_goes_before_a_range(self):
        self.check_not_modified(self.get("Range: bytes=5-9", f"If-None-Match: {self.etag}"))

    def test_range_counts_for_get_alone(self):
        response = self.get("Range: bytes=5-9", method=("-I",))
        self.assertEqual(response.status, 200)
        self.assertEqual(response.headers["content-length"], str(len(self.CONTENT)))

    def test_curl_resumes_a_download(self):
        target = self.work / "target"
        target.write_bytes(self.CONTENT[:100000])
        response = self.curl("/files/a.bin", "-C", "-", "-o", target)
        self.assertEqual((response.code, response.status), (0, 206))
        self.assertEqual(target.read_bytes(), self.CONTENT)


class Limits(ServerCase):
    options = ("--max-upload", "1M")

    def test_limit_is_the_last_size_taken(self):
        self.start()
        self.assertEqual(self.put("/files/a", b"x" * MIB).status, 201)
        self.assertEqual(self.put("/files/b", b"x" * (MIB + 1)).status, 413)
        self.assertEqual(self.put("/files/a", b"x" * (MIB + 1)).status, 413)
        self.assertEqual(self.names(), ["a"])
        self.assertEqual((self.directory / "a").stat().st_size, MIB)

    def test_declared_length_is_refused_before_anything_is_written(self):
        self.start()
        upload = self.upload("a", 3 * MIB)
        for _ in range(3):
            upload.send(bytes(MIB - 1))
            # The refusal is sent after the body.
            wait_until(lambda: self.status()["openRequests"] == 2, "the upload is all that is open")
            self.assertEqual(self.names(), [])
        upload.send(bytes(3))
        self.assertEqual(upload.finish(), 413)
        self.assertEqual(self.names(), [])
        self.assertEqual(self.status()["bytesIn"], 0)

    def test_chunked_body_is_cut_at_the_limit(self):
        self.start()
        for size, status in ((MIB, 201), (MIB + 1, 413), (5 * MIB, 413)):
            with self.subTest(size=size):
                response = self.curl("/files/a", "-T", "-", data=b"x" * size)
                self.assertEqual(response.status, status, response)
                self.assertEqual(self.names(), ["a"])
                self.assertEqual((self.directory / "a").stat().st_size, MIB)
        self.assertIn("1 MiB", response.json()["detail"])


class DiskFull(ServerCase):
    def setUp(self):
        super().setUp()
        if os.geteuid() != 0:
            self.skipTest("only root can mount a small file system")
        mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=8m", "tmpfs", str(self.directory)],
                                 capture_output=True, check=False)
        if mounted.returncode != 0:
            self.skipTest("cannot mount a tmpfs here: " + mounted.stderr.decode().strip())
        self.addCleanup(subprocess.run, ["umount", str(self.directory)], check=True)

    def test_full_disk_leaves_nothing_behind(self):
        self.start()
        kept = os.urandom(2 * MIB)
        self.assertEqual(self.put("/files/kept", kept).status, 201)
        for arguments in ((), ("-H", "Transfer-Encoding: chunked")):
            for name, before in (("new", ["kept"]), ("kept", ["kept"])):
                with self.subTest(name=name, arguments=arguments):
                    response = self.put(f"/files/{name}", os.urandom(16 * MIB), *arguments)
                    self.assertEqual(response.status, 507, response)
                    self.assertTrue(response.json()["detail"])
                    self.assertEqual(self.names(), before)
        self.assertEqual(self.curl("/files/kept").body, kept)
        self.assertEqual(self.put("/files/small", b"fits").status, 201)
        self.assertEqual(self.names(), ["kept", "small"])


class Live(ServerCase):
    def connect(self):
        client = LiveClient(self.server.port, LIMIT_SECONDS)
        self.addCleanup(client.close)
        return client

    def names(self, client):
        """The names in the next list."""
        message = client.receive()
        self.assertIsNotNone(message, "the connection ended")
        return [file["name"] for file in json.loads(message)["files"]]

    def test_list_comes_at_once_and_after_each_change(self):
        (self.directory / "first").write_bytes(b"1")
        self.start()
        client = self.connect()
        self.assertEqual(client.receive().encode(), self.curl("/api/files").body)
        self.put("/files/second", b"2")
        self.assertEqual(self.names(client), ["first", "second"])
        self.curl("/files/first", "-X", "DELETE")
        self.assertEqual(self.names(client), ["second"])

    def test_what_happens_in_the_directory_is_told_too(self):
        self.start()
        client = self.connect()
        self.assertEqual(self.names(client), [])
        (self.directory / "from elsewhere").write_bytes(b"x")
        self.assertEqual(self.names(client), ["from elsewhere"])

    def test_everybody_is_told_once(self):
        self.start()
        clients = [self.connect() for _ in range(30)]
        for client in clients:
            self.assertEqual(self.names(client), [])
        self.put("/files/a", b"x")
        self.put("/files/b", b"x")
        for client in clients:
            names = self.names(client)
            # Two changes in quick succession may be told as one.
            if names != ["a", "b"]:
                self.assertEqual(names, ["a"])
                self.assertEqual(self.names(client), ["a", "b"])

    def test_hundreds_listen_without_a_worker(self):
        self.start("--workers", "1")
        clients = [self.connect() for _ in range(300)]
        self.assertEqual(self.put("/files/a", b"x").status, 201)
        for client in clients:
            while self.names(client) != ["a"]:
                pass  # a list from before
        self.assertEqual(self.curl("/api/files").status, 200)

    def test_clients_that_vanish_leave_the_others_served(self):
        self.start()
        for _ in range(10):
            client = self.connect()
            client.finish_sending()
        client = self.connect()
        self.assertEqual(self.names(client), [])
        self.put("/files/a", b"x")
        self.assertEqual(self.names(client), ["a"])

    def test_listeners_that_have_left_are_forgotten(self):
        self.start()
        for _ in range(20):
            self.connect().close()
        wait_until(lambda: self.status()["listeners"] == 0, "no listener is left")
        wait_until(lambda: sum('"GET /live HTTP/1.1" 101 ' in line for line in self.server.errors) == 20,
                   "their lines in the log")

    def test_a_request_that_asks_for_no_websocket_is_told(self):
        self.start()
        response = self.curl("/live")
        self.assertEqual(response.status, 426, response)
        self.assertEqual(response.headers["upgrade"], "websocket")

    def test_pages_of_other_sites_get_no_list(self):
        self.start()
        handshake = ("-H", "Upgrade: websocket", "-H", "Connection: Upgrade", "-H", "Sec-WebSocket-Version: 13",
                     "-H", "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==", "-H", "Origin: http://evil.test")
        self.assertEqual(self.curl("/live", *handshake).status, 403)

    def test_a_page_that_sends_is_disconnected(self):
        self.start()
        client = self.connect()
        self.assertEqual(self.names(client), [])
        client.send("x" * 1025)
        self.assertIsNone(client.receive())
        self.assertEqual(client.close_code, 1009)

    def test_stop_ends_open_connections(self):
        self.start()
        clients = [self.connect() for _ in range(20)]
        for client in clients:
            self.assertEqual(self.names(client), [])
        clients[0].finish_sending()
        self.assertEqual(self.server.stop(), 0)
        for client in clients[1:]:
            self.assertIsNone(client.receive())
        self.assertNotIn("cut off", "".join(self.server.errors))
        self.server = None


class Losses(ServerCase):
    def test_killed_client_leaves_nothing_of_its_upload(self):
        self.start()
        source = make_sparse(self.work / "source", 64 * MIB)
        for name in ("new", "old"):
            with self.subTest(name=name):
                (self.directory / "old").write_bytes(b"old")
                curl = self.spawn_curl("-T", source, "--limit-rate", SLOW,
                                       f"{self.server.url}/files/{name}")
                self.wait_for_part_of_an_upload()
                curl.send_signal(signal.SIGKILL)
                curl.communicate()
                wait_until(lambda: not self.temporary(), "the unfinished upload is removed")
                self.assertEqual(self.names(), ["old"])
                self.assertEqual((self.directory / "old").read_bytes(), b"old")
        wait_until(lambda: self.status()["openRequests"] == 1, "no request is left")

    def wait_for_part_of_an_upload(self):
        def part():
            return [name for name in self.temporary()
                    if (self.directory / name).stat().st_size > 0]
        wait_until(part, "part of the upload is on disk")

    def test_client_that_declares_more_than_it_sends(self):
        self.start()
        with socket.create_connection(("127.0.0.1", self.server.port), LIMIT_SECONDS) as client:
            client.sendall(b"PUT /files/a HTTP/1.1\r\nHost: x\r\nContent-Length: 1000000\r\n\r\n")
            client.sendall(b"x" * 500000)
            wait_until(self.temporary, "the upload has begun")
        wait_until(lambda: not self.temporary(), "the unfinished upload is removed")
        self.assertEqual(self.names(), [])

    def test_many_killed_clients(self):
        self.start()
        source = make_sparse(self.work / "source", 64 * MIB)
        curls = [self.spawn_curl("-T", source, "--limit-rate", SLOW,
                                 f"{self.server.url}/files/file-{number}") for number in range(20)]
        wait_until(lambda: len(self.temporary()) == 20, "all uploads have begun")
        for curl in curls:
            curl.send_signal(signal.SIGKILL)
        wait_until(lambda: self.names() == [], "every unfinished upload is removed")
        wait_until(lambda: self.status()["openRequests"] == 1, "no request is left")
        self.assertEqual(self.put("/files/after", b"x").status, 201)

    def test_killed_server_cleans_up_when_it_starts_again(self):
        self.start()
        source = make_sparse(self.work / "source", 64 * MIB)
        self.spawn_curl("-T", source, "--limit-rate", SLOW, self.server.url + "/files/a")
        self.wait_for_part_of_an_upload()
        self.server.send(signal.SIGKILL)
        self.assertEqual(self.server.wait_end(), -signal.SIGKILL)
        self.server = None
        self.assertEqual(len(self.temporary()), 1)
        self.start()
        self.assertEqual(self.names(), [])

    def test_file_that_shrinks_while_it_is_sent(self):
        self.start()
        make_sparse(self.directory / "a", 64 * MIB)
        download = self.download("a")
        os.truncate(self.directory / "a", 1 * MIB)
        # The client knows that a part is missing.
        self.assertRaises((http.client.IncompleteRead, ConnectionResetError), download.read_rest)
        wait_until(lambda: self.status()["openRequests"] == 1, "no request is left")

    def test_slow_uploads_take_no_worker(self):
        self.start("--workers", "1")
        (self.directory / "small").write_bytes(b"x" * 262144)
        uploads = [self.upload(f"slow-{number}", 2000) for number in range(200)]
        for upload in uploads:
            upload.send(bytes(1000))
        wait_until(lambda: len(self.temporary()) == len(uploads), "all uploads have begun")
        self.assertEqual(self.curl("/").status, 200)
        self.assertEqual(len(self.curl("/files/small").body), 262144)
        self.assertEqual(self.put("/files/new", b"x" * MIB).status, 201)
        self.assertEqual(len(self.temporary()), len(uploads))
        for upload in uploads:
            upload.send(bytes(1000))
        self.assertEqual({upload.finish() for upload in uploads}, {201})
        self.assertEqual(self.names(), sorted([f"slow-{number}" for number in range(200)] + ["new", "small"]))

    def test_downloads_take_no_worker(self):
        self.start("--workers", "1")
        make_sparse(self.directory / "large", 64 * MIB)
        downloads = [self.download("large") for _ in range(20)]
        self.assertEqual(self.curl("/api/files").status, 200)
        self.assertEqual(self.put("/files/new", b"x").status, 201)
        for download in downloads:
            download.close()
        wait_until(lambda: self.status()["openRequests"] == 1, "no request is left")

    def test_client_that_closes_before_its_bytes_are_read(self):
        self.start()
        for _ in range(5):
            with socket.create_connection(("127.0.0.1", self.server.port), LIMIT_SECONDS) as client:
                client.sendall(b"PUT /files/a HTTP/1.1\r\nHost: x\r\nContent-Length: 100000000\r\n\r\n"
                               + b"x" * 3000000)
        wait_until(lambda: self.status()["openRequests"] == 1, "no request is left")
        self.assertEqual(self.names(), [])


class Process(ServerCase):
    def run_server(self, *arguments):
        return subprocess.run([SERVER, *map(str, arguments)], capture_output=True, text=True,
                              timeout=LIMIT_SECONDS, check=False)

    def check_one_line(self, done, *parts):
        self.assertEqual(done.returncode, 1, done)
        self.assertEqual(done.stdout, "")
        self.assertEqual(len(done.stderr.splitlines()), 1, done.stderr)
        for part in parts:
            self.assertIn(part, done.stderr)

    def test_port_in_use(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            port = taken.getsockname()[1]
            done = self.run_server("--directory", self.directory, "--port", port)
        self.check_one_line(done, f"cannot listen on 127.0.0.1:{port}", "in use")

    def test_listens_on_endpoints(self):
        path = self.work / "socket"
        self.server = Server(self.directory, endpoints=("127.0.0.1:0", f"unix:{path}"))
        self.addCleanup(self.end_server)
        url = re.fullmatch(r"Serving '.+' at (http://127\.0\.0\.1:[1-9]\d*)/\n", self.server.next_line())
        self.assertTrue(url)
        self.assertIn(f"unix:{path}", self.server.next_line())
        for arguments in (("", url[1]), ("--unix-socket", path, "http://localhost")):
            done = subprocess.run(["curl", "-sS", "--noproxy", "*", *filter(None, arguments[:-1]),
                                   str(arguments[-1]) + "/api/files"], capture_output=True, text=True,
                                  check=True, timeout=LIMIT_SECONDS)
            self.assertEqual(json.loads(done.stdout), {"files": []})

    def test_impossible_endpoint(self):
        done = self.run_server("--directory", self.directory, "--listen", "nowhere")
        self.assertEqual((done.returncode, done.stdout), (1, ""), done)
        self.assertIn("--listen: \"nowhere\": no port", done.stderr)

    def test_unusable_directories(self):
        file = self.work / "file"
        file.write_bytes(b"")
        for directory, reason in ((self.work / "none", "No such file or directory"),
                                  (file, "Not a directory"),
                                  ("/proc", "cannot write to directory '/proc'")):
            with self.subTest(directory=directory):
                done = self.run_server("--directory", directory, "--port", free_port())
                self.check_one_line(done, str(directory), reason)

    def test_directory_that_is_served_already(self):
        self.start()
        done = self.run_server("--directory", self.directory, "--port", free_port())
        self.check_one_line(done, str(self.directory), "served by another filedrop")

    def test_unusable_log_file(self):
        (self.work / "file").write_bytes(b"")
        done = self.run_server("--directory", self.directory, "--port", free_port(),
                               "--log-file", self.work / "file" / "log")
        self.check_one_line(done, str(self.work / "file" / "log"))

    def test_version_and_help(self):
        done = self.run_server("--version")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertRegex(done.stdout, r"^wendrel-filedrop 3\.0\.0\.\d+\n$")
        done = self.run_server("--help")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        for option in ("--directory", "--port", "--all-interfaces", "--listen", "--threads", "--workers",
                       "--max-upload", "--log-file", "--log-level", "--stop-timeout", "--stop-delay", "--version",
                       "--help"):
            self.assertIn(option, done.stdout)

    def test_mistakes_on_the_command_line(self):
        for arguments in (("--port", "0"), ("--port", "65536"), ("--port", "x"), ("--threads", "0"),
                          ("--workers", "0"), ("--max-upload", "lots"), ("--log-level", "loud"),
                          ("--stop-timeout", "-1s"), ("--unknown",), ("extra",),
                          ("--listen", "127.0.0.1:0", "--port", "8181"),
                          ("--listen", "127.0.0.1:0", "--all-interfaces")):
            with self.subTest(arguments=arguments):
                done = self.run_server(*arguments)
                self.assertEqual((done.returncode, done.stdout), (1, ""), done)
                self.assertTrue(done.stderr)

    def test_idle_server_stops_on_either_signal(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(number=number):
                self.start()
                self.assertEqual(self.curl("/").status, 200)
                self.server.send(number)
                self.assertEqual(self.server.wait_end(), 0)
                self.server = None

    def test_download_is_finished_after_sigterm(self):
        self.start("--stop-timeout", f"{LIMIT_SECONDS}s")
        content = os.urandom(16 * MIB)
        (self.directory / "a").write_bytes(content)
        download = self.download("a")
        self.server.send(signal.SIGTERM)
        self.wait_until_stopping()
        self.assertTrue(download.read_rest() == content)
        self.assertEqual(self.server.wait_end(), 0)
        self.server = None

    def test_upload_is_finished_after_sigterm(self):
        self.start("--stop-timeout", f"{LIMIT_SECONDS}s")
        content = os.urandom(4 * MIB)
        upload = self.upload("a", len(content))
        upload.send(content[:MIB])
        wait_until(self.temporary, "the upload has begun")
        self.server.send(signal.SIGTERM)
        self.wait_until_stopping()
        upload.send(content[MIB:])
        self.assertEqual(upload.finish(), 201)
        self.assertEqual(self.server.wait_end(), 0)
        self.server = None
        self.assertTrue((self.directory / "a").read_bytes() == content)

    def test_transfers_that_take_too_long_are_cut_off(self):
        self.start("--stop-timeout", "1s")
        make_sparse(self.directory / "a", 64 * MIB)
        download = self.download("a")
        upload = self.upload("b", MIB)
        upload.send(bytes(1000))
        wait_until(self.temporary, "the upload has begun")
        self.server.send(signal.SIGTERM)
        self.assertEqual(self.server.wait_end(), 0)
        self.server = None
        self.assertRaises((http.client.IncompleteRead, ConnectionResetError), download.read_rest)
        self.assertRaises(ConnectionError, upload.finish)
        self.assertEqual(self.names(), ["a"])

    # A second signal ends the delay.
    def test_serves_on_during_the_delay(self):
        self.start("--stop-delay", "24h")
        self.server.send(signal.SIGTERM)
        for _ in range(20):
            self.assertEqual(self.curl("/").status, 200)
        self.server.send(signal.SIGTERM)
        self.assertEqual(self.server.wait_end(), 0)
        self.server = None

    def test_second_signal_stops_at_once(self):
        self.start("--stop-timeout", "24h")
        make_sparse(self.directory / "a", 64 * MIB)
        self.download("a")
        self.server.send(signal.SIGTERM)
        self.wait_until_stopping()
        self.server.send(signal.SIGTERM)
        self.assertEqual(self.server.wait_end(), 0)
        self.server = None

    def wait_until_stopping(self):
        wait_until(lambda: any("Stopping on" in line for line in self.server.errors), "the stop begins")

    def test_log_file_has_one_line_a_request(self):
        log = self.work / "log"
        self.start("--log-file", log)
        self.put("/files/a", b"12345")
        self.curl("/files/a")
        self.curl("/files/x%5cn2026%20forged")
        server, self.server = self.server, None
        self.assertEqual(server.stop(), 0)
        self.assertEqual(server.errors, [])
        # A line is written after its response: that of a later request may come first.
        lines = re.findall(r'"(PUT|GET) (.+) HTTP/1\.1" (\d+) \d+ "', log.read_text())
        self.assertCountEqual(lines, [("PUT", "/files/a", "201"), ("GET", "/files/a", "200"),
                                      ("GET", "/files/x%5cn2026%20forged", "404")])

    def test_log_level_leaves_out_what_is_below(self):
        self.start("--log-level", "error")
        self.curl("/files/none")
        server, self.server = self.server, None
        self.assertEqual(server.stop(), 0)
        self.assertEqual(server.errors, [])


if __name__ == "__main__":
    main()
