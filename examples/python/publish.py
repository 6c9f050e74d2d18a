#!/usr/bin/env python3
# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
"""Publishes an instance as docs/node_format.md says, without halden, until the end of its input:

    publish.py HOSTS[/CHROOT] SERVICE HOST PORT     with kazoo, Debian's python3-kazoo
    publish.py --test-vector                        prints the test vector of docs/node_format.md
"""
import functools
import os
import socket
import sys
import threading
import time
import uuid


def varint(number):
    """As protocol buffers write numbers: seven bits a byte, the lowest first."""
    out = bytearray()
    while number > 0x7F:
        out.append(number & 0x7F | 0x80)
        number >>= 7
    out.append(number)
    return bytes(out)


def number(field, value):
    return varint(field << 3) + varint(value) if value else b""


def text(field, value):
    data = value if isinstance(value, bytes) else value.encode()
    return varint(field << 3 | 2) + varint(len(data)) + data if data else b""


def message(field, *parts):
    data = b"".join(parts)
    return varint(field << 3 | 2) + varint(len(data)) + data


def instance(service, host, ports=(), version="", weight=0, degraded=False, start_time_ms=0, attributes=()):
    """A ServiceInstanceData. `ports` and `attributes` are pairs of name and value."""
    return b"".join(
        [text(1, service), text(2, host)]
        + [message(3, text(1, name), number(2, port)) for name, port in ports]
        + [text(4, version), number(5, weight), number(6, int(degraded)), number(7, start_time_ms)]
        + [message(8, text(1, key), text(2, value)) for key, value in attributes])


def node(payload, account, host, pid, writer):
    """The bytes of a node: a ZNodeData with an uncompressed payload."""
    return text(2, payload) + message(3, text(1, account), text(2, host), number(3, pid), text(4, writer))


def partition(instance_id):
    return "%02x" % functools.reduce(lambda a, b: a ^ b, instance_id.bytes)


def path(service, instance_id):
    return "/halden/services/%s/%s/%s" % (service, partition(instance_id), instance_id)


class Publisher:
    """Keeps one node true: in every new session, and when others delete it."""

    def __init__(self, client, service, instance_id, data):
        self.client, self.path, self.data = client, path(service, instance_id), data
        self.pause, self.rival = 0.1, None
        self.changed = threading.Event()
        client.add_listener(lambda state: self.changed.set())  # a new session begins without its nodes

    def put(self):
        """What there is to wait for a change of: "published", or "waiting"; nothing when it is to be tried again."""
        from kazoo import exceptions
        stat = self.client.exists(self.path, watch=lambda event: self.changed.set())
        if stat is None:
            try:  # with its data in one call: watchers read it as soon as it is there
                self.client.create(self.path, self.data, ephemeral=True, makepath=True)
            except exceptions.NodeExistsError:
                pass  # somebody was faster
            return None
        session = self.client.client_id
        if session is None:  # lost since
            return None
        if stat.ephemeralOwner != session[0]:
            if stat.ephemeralOwner == self.rival:
                return "waiting"  # it took its node back: so it lives, and has this id too
            self.rival = stat.ephemeralOwner  # of an earlier session that died, or of somebody who sees it go
            try:
                self.client.delete(self.path, version=stat.version)
            except (exceptions.NoNodeError, exceptions.BadVersionError):
                pass
            return None
        if self.client.get(self.path)[0] != self.data:
            self.client.set(self.path, self.data)
        return "published"

    def run(self, ended):
        from kazoo import exceptions
        from kazoo.handlers.threading import KazooTimeoutError
        while not ended.is_set():
            self.changed.clear()
            try:
                done = self.put()
            except (exceptions.KazooException, KazooTimeoutError):
                done = None  # no connection, or no permission: tried again
            if done:
                print(done, self.path, flush=True)
                self.pause = 0.1
                self.changed.wait()
            else:
                time.sleep(self.pause)
                self.pause = min(2 * self.pause, 10)


def test_vector():
    instance_id = uuid.UUID("01234567-89ab-4cde-8f01-23456789abcd")
    payload = instance("orders", "h1.example", [("", 8080), ("admin", 9090)], version="1.2", weight=2,
                       start_time_ms=1700000000000, attributes=[("zone", "a")])
    print("id        ", instance_id)
    print("path      ", path("orders", instance_id))
    digits = node(payload, "orders", "h1", 4711, "example/1").hex()
    for i in range(0, len(digits), 64):
        print("bytes     ", digits[i:i + 64])


def main():
    if sys.argv[1:] == ["--test-vector"]:
        return test_vector()
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    from kazoo.client import KazooClient
    hosts, service, host, port = sys.argv[1:]
    if not host or not service or "/" in service or not port.isdigit() or not 1 <= int(port) <= 65535:
        sys.exit("expected a HOST, a SERVICE without '/', and a PORT from 1 to 65535")
    payload = instance(service, host, [("", int(port))], start_time_ms=int(time.time() * 1000))
    data = node(payload, str(os.geteuid()), socket.gethostname(), os.getpid(), "publish.py/1")
    client = KazooClient(hosts=hosts, timeout=30)
    client.start(timeout=30)
    publisher, ended = Publisher(client, service, uuid.uuid4(), data), threading.Event()
    thread = threading.Thread(target=publisher.run, args=(ended,))
    thread.start()
    sys.stdin.read()
    ended.set()
    publisher.changed.set()
    thread.join()
    client.stop()  # ends the session: its nodes go at once
    client.close()


if __name__ == "__main__":
    main()
