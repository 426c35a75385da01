#!/usr/bin/env python3
"""Changes behind and in a proxy of deploy/ while clients use it: a reload, and restarts of two instances.

    WENDREL_PROXY=nginx WENDREL_FILEDROP=.../wendrel-filedrop /usr/bin/python3 test_changes.py [Class[.test]]
"""

import hashlib
import http.client
import json
import os
import pathlib
import sys
import threading
import unittest

sys.path.append(str(pathlib.Path(__file__).parents[2] / "support"))
import filedrop_server as filedrop
from filedrop_server import MIB, SERVER
from instances import Instance, Load, admin_of, second_instance
from live_client import LiveClient
from processes import LIMIT_SECONDS, wait_until
from support import Proxy, find_program

PROXY = os.environ.get("WENDREL_PROXY", "nginx")
RELOADS = 5
LARGE = 64 * MIB  # more than fits between server and client


class Reload(filedrop.ServerCase):
    """`nginx -s reload`: earlier workers finish their requests, new ones accept the next connections."""

    def setUp(self):
        super().setUp()
        self.start()
        self.small = os.urandom(1000)
        (self.directory / "small").write_bytes(self.small)
        self.large = filedrop.make_sparse(self.directory / "large", LARGE)
        self.proxy = Proxy(PROXY, self.server.port).wait_ready()
        self.addCleanup(self.end_proxy)
        self.server.port = self.proxy.port  # for transfers

    def end_proxy(self):
        log = self.proxy.log()
        self.assertEqual(self.proxy.stop(), 0, log)
        for word in ("[emerg]", "[alert]", "[crit]", "[error]"):
            self.assertNotIn(word, log)

    def names_in_message(self, client):
        return {file["name"] for file in json.loads(client.receive())["files"]}

    def test_no_request_transfer_or_stream_fails(self):
        admin = admin_of(self.proxy)
        upload = self.upload("upload", 2 * MIB)
        upload.send(b"1" * MIB)
        wait_until(self.temporary, "the upload has begun")
        download = self.download("large")
        live = LiveClient(self.proxy.port, LIMIT_SECONDS)
        self.addCleanup(live.close)
        self.assertIn("small", self.names_in_message(live))
        with Load(self.proxy.port, "/files/small", self.small, repeats=True) as load:
            for _ in range(RELOADS):
                load.wait_step()
                first_workers = admin.reload()
            load.wait_step()
        self.assertEqual(load.failures(), [])
        print(f"{RELOADS} reloads: {load.successful()} requests succeeded, {load.repeated()} repeated")

        upload.send(b"2" * MIB)
        self.assertEqual(upload.finish(), 201)
        self.assertEqual((self.directory / "upload").read_bytes(), b"1" * MIB + b"2" * MIB)
        self.assertEqual(hashlib.sha256(download.read_rest()).hexdigest(), filedrop.sha256(self.large))
        while "upload" not in self.names_in_message(live):
            pass  # a list from before
        for client in (upload, download, live):
            client.close()
        wait_until(lambda: not first_workers & set(self.proxy.children()), "earlier workers have ended")


class Uploader(threading.Thread):
    """Uploads files of 1 MiB under new names until `ends` is set.

    With `repeats` it repeats an upload until it succeeds.
    """

    def __init__(self, port, name, repeats):
        super().__init__(daemon=True)
        self.port = port
        self.prefix = name
        self.repeats = repeats
        self.ends = threading.Event()
        self.hashes = {}  # of uploads that the server has confirmed
        self.failures = []

    def run(self):
        number = 0
        while not self.ends.is_set():
            content = os.urandom(MIB)
            name = f"{self.prefix}-{number}"
            number += 1
            while not self.upload(name, content):
                if not self.repeats or self.ends.is_set():
                    break

    def upload(self, name, content):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=LIMIT_SECONDS)
        try:
            connection.request("PUT", f"/files/{name}", content)
            response = connection.getresponse()
            response.read()
            if response.status in (200, 201):
                self.hashes[name] = hashlib.sha256(content).hexdigest()
                return True
            self.failures.append(f"{response.status}")
        except (OSError, http.client.HTTPException) as error:
            self.failures.append(f"{type(error).__name__} {error}")
        finally:
            connection.close()
        return False


class RollingUploads(filedrop.ServerCase):
    """Two filedrops, each with a directory of its own, restarted one after the other."""

    ROUNDS = 2
    UPLOADERS = 3
    UPLOADS_PER_STEP = 6

    def setUp(self):
        super().setUp()
        self.instances = {}
        for server in ("application", "second"):
            directory = self.work / server
            directory.mkdir()
            instance = Instance(lambda port, directory=directory: (
                SERVER, "--directory", directory, "--port", port, "--stop-timeout", f"{2 * LIMIT_SECONDS}s"))
            self.addCleanup(instance.process.kill)
            self.instances[server] = instance
        first, second = (instance.port for instance in self.instances.values())
        self.proxy = Proxy(PROXY, first, lambda text: second_instance(text, PROXY, second)).wait_ready()
        self.addCleanup(self.proxy.stop)
        self.admin = admin_of(self.proxy)
        self.admin.wait_checked()

    def restart_all(self, drain, repeats):
        """Failures of uploads; every confirmed upload is whole in one of the directories."""
        uploaders = [Uploader(self.proxy.port, f"file-{number}", repeats) for number in range(self.UPLOADERS)]

        def count():
            return sum(len(uploader.hashes) for uploader in uploaders)

        def wait_step():
            end = count() + self.UPLOADS_PER_STEP
            wait_until(lambda: count() >= end, "uploads succeed")

        for uploader in uploaders:
            uploader.start()
        try:
            for server, instance in list(self.instances.items()) * self.ROUNDS:
                wait_step()
                if drain:
                    self.admin.take_out(server, instance.port)
                instance.restart()
                if drain:
                    self.admin.put_back(server, instance.port)
            wait_step()
        finally:
            for uploader in uploaders:
                uploader.ends.set()
            for uploader in uploaders:
                uploader.join(LIMIT_SECONDS)
        self.assertFalse(any(uploader.is_alive() for uploader in uploaders), "a client does not end")
        for instance in self.instances.values():
            self.assertEqual(instance.process.stop(), 0, instance.process.text())
        for uploader in uploaders:
            for name, digest in uploader.hashes.items():
                found = {filedrop.sha256(self.work / server / name) for server in self.instances
                         if (self.work / server / name).exists()}
                self.assertIn(digest, found, name)
        failures = [text for uploader in uploaders for text in uploader.failures]
        print(f"{PROXY}: {2 * self.ROUNDS} restarts, {count()} uploads succeeded, {len(failures)} failed: "
              f"{ {text: failures.count(text) for text in set(failures)} }")
        return failures

    def test_no_upload_fails_if_instances_are_drained(self):
        self.assertEqual(self.restart_all(drain=True, repeats=False), [])

    def test_confirmed_uploads_are_whole_without_draining(self):
        self.restart_all(drain=False, repeats=True)


if __name__ == "__main__":
    if not find_program(PROXY):
        print(f"{PROXY} is missing")
        sys.exit(77)
    filedrop.main()
