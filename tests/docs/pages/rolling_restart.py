"""Two instances of examples/hello behind a proxy of deploy/, restarted one after the other under load.

    rolling_restart.py nginx|haproxy HELLO [ROUNDS [plain|drain]]

Clients send requests all the time, on persistent and on new connections. Prints how many succeeded and
failed; ends with 1 when one failed. With `plain` only the `server` line of those that deploy/ has for several
instances is activated, and failures are only printed. With `drain` likewise, but each instance is taken out
of the proxy first, and clients repeat a request if their persistent connection is closed before a response.
"""

import pathlib
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path += [str(HERE.parents[1] / "support"), str(HERE.parents[1] / "integration" / "proxies")]
from instances import Instance, Load, admin_of, second_instance
from support import Proxy, find_program


def run(name, program, rounds, way):
    instances = {server: Instance(lambda port: [program, f"127.0.0.1:{port}"]) for server in ("application", "second")}
    try:
        return run_with(name, instances, rounds, way)
    finally:
        for instance in instances.values():
            instance.process.kill()


def restart_all(load, admin, instances, drain):
    """Restarts each instance; returns the longest time that one took."""
    took = []
    for server, instance in instances:
        load.wait_step()
        begin = time.monotonic()
        if drain:
            admin.take_out(server, instance.port)
        instance.restart()
        if drain:
            admin.put_back(server, instance.port)
        took.append(time.monotonic() - begin)
    load.wait_step()
    return max(took)


def run_with(name, instances, rounds, way):
    first, second = (instance.port for instance in instances.values())
    proxy = Proxy(name, first, lambda text: second_instance(text, name, second, way in ("plain", "drain")))
    try:
        proxy.wait_ready()
        admin = admin_of(proxy)
        admin.wait_checked()
        with Load(proxy.port, "/hello/you", b"Hello, you!\n", repeats=way == "drain") as load:
            longest = restart_all(load, admin, list(instances.items()) * rounds, way == "drain")
    finally:
        log = proxy.log()
        proxy.stop()
    codes = [instance.process.stop() for instance in instances.values()]
    failures = load.failures()
    print(f"{name}: {2 * rounds} restarts of {longest:.2f} s at most, {load.successful()} requests succeeded, "
          f"{load.repeated()} repeated, {len(failures)} failed")
    for text in sorted(set(failures)):
        print(f"  {failures.count(text)} times {text}")
    assert codes == [0, 0], codes
    if failures and way != "plain":
        print(log[-3000:])
        return 1
    return 0


def main():
    name, program, *rest = sys.argv[1:]
    if not find_program(name):
        print(f"{name} is missing")
        return 77
    return run(name, program, int(rest[0]) if rest else 3, rest[1] if rest[1:] else "")


if __name__ == "__main__":
    sys.exit(main())
