"""legacy listen and legacy connect, against peers made of plain sockets that know the bytes of the protocol alone."""

import base64
import hashlib
import json
import os
import random
import re
import signal
import socket
import struct
import subprocess
import threading
import time
import unittest

from avahi import Discovery
from support import AMPLE, BIN, LIMIT, SHORT, ToolTest, eventually, events, qelnk

HANDSHAKE = b"handshake\0host studio\0ipv4 10.1.2.3\0appID org.example.peer\0"
PEER = {"hostName": "studio", "ipv4": "10.1.2.3", "appID": "org.example.peer", "address": None}
BLOCK = random.Random(4).randbytes(100_000)  # holds zeros and everything else
SMALL = BLOCK[:10_000]
TYPE = "_qelnktool._tcp"


def handshake_of(app):
    """What the tool opens with."""
    name = re.escape(re.sub(r"\.local$", "", socket.gethostname()).encode())
    return re.compile(rb"handshake\0host " + name + rb"\0ipv4 (\d+\.\d+\.\d+\.\d+|localhost)\0appID " + app + rb"\0")


def command(**fields):
    return json.dumps(fields).encode() + b"\n"


def binary(data, type="T", fenced=False):
    return command(binary={"contentType": type, "data": base64.b64encode(data).decode(), "fenced": fenced})


class Wire:
    """One end of a connection."""

    def __init__(self, connection):
        self.socket = connection
        connection.settimeout(LIMIT)
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def send(self, data):
        self.socket.sendall(data)

    def dribble(self, data):
        for byte in data:
            self.send(bytes([byte]))

    def receive(self, count):
        """So many bytes; fewer when the other end has closed, and then this end closes too."""
        parts = []
        while count > 0:
            parts.append(self.socket.recv(min(count, 1 << 20)))
            count -= len(parts[-1])
            if not parts[-1]:
                self.close()
                break
        return b"".join(parts)

    def slowly(self):
        """All bytes up to the end, taken slowly, while there is always something on its way to the other end."""
        parts = [b"-"]
        while parts[-1]:
            self.send(b"still here\0")
            time.sleep(0.001)
            parts.append(self.socket.recv(10_000))
        self.close()
        return b"".join(parts[1:])

    def strings(self, count):
        """The bytes up to the zero that ends so many strings."""
        data = b""
        while data.count(b"\0") < count and (byte := self.socket.recv(1)):
            data += byte
        return data

    def close(self):
        self.socket.close()

    def reset(self):
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.close()


class LegacyTest(ToolTest):
    def legacy(self, *words, env=None):
        # Peers of Python's send heartbeats only where a test is about them.
        watch = ("--set", "heartbeatProblemTimeout=0") if words[0] == "connect" else ()
        return self.start(BIN / "qelnk", "legacy", words[0], *watch, *words[1:], "--json", env=env)

    def event(self, process, name=None):
        """The next event, or the next of that name."""
        while line := process.stdout.readline():
            event = json.loads(line)
            if name in (None, event["event"]):
                return event
        self.fail(f"no {name or 'event'}: {process.stderr.read().decode()}")

    def give(self, process, data):
        process.stdin.write(data)
        process.stdin.flush()

    def done(self, process, code=0, err=""):
        result = self.finish(process)
        self.assertEqual(result.code, code, result.err)
        self.assertIn(err, result.err)
        if not err:
            self.assertEqual(result.err, "")
        return events(result)

    def done_by_itself(self, process):
        """The events up to the end of a command whose input has not ended."""
        told = [json.loads(line) for line in process.stdout]
        self.assertEqual(process.wait(LIMIT), 0)
        return told

    def listen(self, *words, env=None):
        process = self.legacy("listen", *words, env=env)
        event = self.event(process)
        self.assertEqual(list(event), ["event", "port"])
        return process, event["port"]

    def client(self, port, host="127.0.0.1", shakes=True):
        """A peer that has connected; its handshake sent and the tool's received."""
        wire = Wire(socket.create_connection((host, port), LIMIT))
        self.addCleanup(wire.close)
        if shakes:
            wire.send(HANDSHAKE)
            self.assertEqual(wire.strings(4).count(b"\0"), 4)
        return wire

    def server(self):
        """A socket that listens, and its port."""
        listener = socket.create_server(("127.0.0.1", 0))
        listener.settimeout(LIMIT)
        self.addCleanup(listener.close)
        return listener, listener.getsockname()[1]

    def accept(self, listener, shakes=True):
        wire = Wire(listener.accept()[0])
        self.addCleanup(wire.close)
        if shakes:
            wire.strings(4)
            wire.send(HANDSHAKE)
        return wire


class Listen(LegacyTest):
    def test_a_terminal_obeys_no_peer(self):
        terminal, end = os.openpty()
        self.addCleanup(os.close, terminal)
        process = subprocess.Popen([BIN / "qelnk", "legacy", "listen"], stdin=subprocess.PIPE, stdout=end)
        os.close(end)
        self.addCleanup(process.stdin.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        shown = b""

        def read_up_to(text):
            nonlocal shown
            while text not in shown:
                shown += os.read(terminal, 4096)

        read_up_to(b"\n")
        peer = self.client(int(shown.split()[-1]))
        peer.send(b"title \x1b]0;x\x07 \xc2\x9b1m\ttwo\nlines \xc3\xa4\0last\0")
        read_up_to(b"last\r\n")
        self.assertIn("title \ufffd]0;x\ufffd \ufffd1m\ttwo\r\nlines \u00e4\r\nlast", shown.decode())

    def test_bytes(self):
        for options, app in (("playout", rb"com\.kestrova\.playout"), ("ingest", rb"com\.kestrova\.ingest")):
            for host, address in (("127.0.0.1", "127.0.0.1"), ("::1", "::1")):
                with self.subTest(options=options, host=host):
                    process, port = self.listen("--options", options, "--wait", 1)
                    self.give(process, b"waits for the first\n")
                    peer = self.client(port, host, shakes=False)
                    self.assertRegex(peer.strings(4), handshake_of(app))
                    peer.dribble(HANDSHAKE)
                    self.assertEqual(self.event(process), {"event": "ready", "peer": {**PEER, "address": address}})
                    self.give(process, b"5\n \xc3\xa4 \n" + command(string="{}") + binary(b"p\0q", "a b") + binary(BLOCK) +
                              command(heartbeat={"timecode": "10:59:59:24 25", "info": "on air"}) +
                              command(heartbeat={"timecode": "10:59:59:24 25"}))
                    wanted = (b"waits for the first\x005\0 \xc3\xa4 \0{}\0!bin! 3 a b\0p\0q\0!bin! 100000 T\0" + BLOCK +
                              b"\0heartbeat 10:59:59:24 25 on air\0heartbeat 10:59:59:24 25\0")
                    self.assertEqual(peer.receive(len(wanted)), wanted)
                    process.stdin.close()
                    self.assertEqual(peer.receive(1), b"")
                    self.assertEqual(process.wait(LIMIT), 0)

    def test_what_a_peer_sends(self):
        """Split anywhere, it is the same."""
        sent = (b"one\0\0two\0heartbeat 01:02:03:04 25 with two words\0heartbeat 01:02:03:04 25\0heartbeat a b c\0"
                b"!bin! 4 T\0a\0b\0\0" + "thr\u00e4\u20ac\0".encode() + b"bad\xff\0 handshake\0{\"string\":1}\0last\0")
        wanted = [("string", "one"), ("string", "two"), ("heartbeat", "01:02:03:04 25", "with two words"),
                  ("heartbeat", "01:02:03:04 25", None), ("heartbeat", "a b c", None), ("string", "thr\u00e4\u20ac"),
                  ("string", " handshake"), ("string", '{"string":1}'), ("string", "last")]
        for options in ("playout", "ingest"):
            process, port = self.listen("--options", options, "--log-level", "off")
            chance = random.Random(options)
            for attempt in range(20):
                peer = self.client(port)
                self.event(process, "ready")
                cuts = sorted(chance.sample(range(len(sent)), 5)) if attempt else range(1, len(sent))
                for start, end in zip([0, *cuts], [*cuts, len(sent)]):
                    peer.send(sent[start:end])
                told = [tuple(self.event(process).values()) for _ in wanted]
                self.assertEqual(told, wanted)
                peer.close()
                self.assertEqual(self.event(process), {"event": "terminated"})
            process.stdin.close()
            self.assertEqual(process.wait(LIMIT), 0)

    def test_hostile_peers_harm_nobody(self):
        process, port = self.listen("--stay", "--log-level", "off")
        good = self.client(port)
        self.event(process, "ready")
        attacks = [b"!bin! -5 x\0" + BLOCK, b"!bin! 99999999999999999999 x\0" + BLOCK, b"!bin! 2147483647 x\0" + BLOCK,
                   b"!bin! many x\0", b"!bin!  \0", b"!bin! 5\0", b"heartbeat \0", b"\xff\xfe\0", b"\0" * 5000,
                   b"never a zero" * 100_000, b"handshake\0host \0ipv4\0appID \0" * 1000]
        stalled = [self.client(port, shakes=False) for _ in range(5)]
        for number, attack in enumerate(attacks):
            for end in (Wire.close, Wire.reset, lambda wire: wire.socket.shutdown(socket.SHUT_WR)):
                peer = self.client(port, shakes=number % 2 == 0)
                peer.send(attack)
                end(peer)
            good.send(b"%d\0" % number)
            self.assertEqual(self.event(process, "string"), {"event": "string", "text": str(number)})
            self.give(process, b"%d\n" % number)
            self.assertEqual(good.strings(1), b"%d\0" % number)
        stalled[0].reset()
        good.send("".join(f"flood {number}\0" for number in range(20_000)).encode())
        for number in range(20_000):
            self.assertEqual(self.event(process, "string")["text"], f"flood {number}")
        process.send_signal(signal.SIGTERM)
        self.assertEqual(good.receive(1), b"")
        self.assertFalse([event for event in self.done(process) if event["event"] not in ("terminated", "ready")])

    def test_two_hundred_at_once(self):
        for options in ("playout", "ingest"):
            process, port = self.listen("--options", options, "--wait", 200, "--timeout", LIMIT, "--heartbeat", 3600)
            self.give(process, b"to all\n")
            peers = [self.client(port, shakes=False) for _ in range(200)]
            for peer in peers:
                peer.send(HANDSHAKE)
            self.give(process, binary(BLOCK))
            for number, peer in enumerate(peers):
                peer.strings(4)
                wanted = b"to all\0!bin! 100000 T\0" + BLOCK + b"\0"
                self.assertEqual(peer.receive(len(wanted)), wanted)
                peer.send(b"from %d\0" % number)
            told = [self.event(process) for _ in range(400)]
            self.assertEqual(sum(event["event"] == "ready" for event in told), 200)
            self.assertEqual({event.get("text") for event in told} - {None}, {f"from {n}" for n in range(200)})
            process.stdin.close()
            self.assertEqual({peer.receive(1) for peer in peers}, {b""})
            self.assertEqual(process.wait(LIMIT), 0)

    def test_one_that_does_not_read(self):
        """It holds nobody up, and loses its connection once it is far behind."""
        process, port = self.listen("--wait", 2, "--timeout", AMPLE)
        stuck, good = self.client(port), self.client(port)
        block = BLOCK * 160
        wanted = b"!bin! 16000000 T\0" + block + b"\0"
        feeder = threading.Thread(target=self.give, args=(process, binary(block) * 6 + b"end\n"))
        feeder.start()
        self.assertTrue(good.receive(6 * len(wanted) + 4) == wanted * 6 + b"end\0")
        feeder.join()
        self.event(process, "terminated")
        self.assertLess(len(stuck.receive(6 * len(wanted))), 6 * len(wanted))
        process.stdin.close()
        self.assertEqual(good.receive(1), b"")
        self.assertEqual(process.wait(LIMIT), 0)
        self.assertIn(b"does not read", process.stderr.read())
        # At the end of the input it is waited for as long.
        process, port = self.listen("--wait", 1, "--timeout", AMPLE)
        stuck = self.client(port)
        self.give(process, binary(block))
        self.done(process, 69, "does not read")

    def test_a_slow_peer_gets_everything(self):
        process, port = self.listen("--wait", 1, "--timeout", 3600)
        peer = self.client(port)
        self.feed(process, binary(BLOCK * 50))
        process.stdin.close()
        self.assertTrue(peer.slowly() == b"!bin! 5000000 T\0" + BLOCK * 50 + b"\0")
        self.assertEqual({event["event"] for event in self.done_by_itself(process)}, {"ready", "string"})

    def test_heartbeats_and_the_end(self):
        process, port = self.listen("--heartbeat", 0.05)
        peer = self.client(port)
        for _ in range(3):
            hours, minutes, seconds, frames = re.fullmatch(rb"heartbeat (\d\d):(\d\d):(\d\d):(\d\d) 25\0",
                                                           peer.strings(1)).groups()
            now = time.localtime()
            day = 24 * 3600
            off = now.tm_hour * 3600 + now.tm_min * 60 + now.tm_sec - int(hours) * 3600 - int(minutes) * 60 - int(seconds)
            self.assertLess(min(off % day, -off % day), LIMIT)
            self.assertLess(int(frames), 25)
        self.give(process, b"last\n" + command(disconnect=True) + b"not this\n")
        rest = peer.receive(1 << 20)
        self.assertEqual(re.sub(rb"heartbeat [^\0]*\0", b"", rest), b"last\0")
        self.assertEqual(process.wait(LIMIT), 0)
        for by in (signal.SIGINT, signal.SIGTERM):
            process, port = self.listen("--stay")
            self.client(port)
            process.stdin.close()
            self.event(process, "ready")
            process.send_signal(by)
            self.assertEqual(process.wait(LIMIT), 0)

    def test_what_cannot_be(self):
        taken, port = self.server()
        listen = ("legacy", "listen")
        for words, code, text in [((*listen, "--port", port), 1, "in use (QELNKTCPServerErrorDomain 1)"),
                                  ((*listen, "--bind", "192.0.2.99"), 1, "(QELNKTCPServerErrorDomain 1)"),
                                  ((*listen, "--bind", "::1"), 64, "--bind"), ((*listen, "--port", -1), 64, "--port"),
                                  ((*listen, "--options", "connect"), 64, "--options"), ((*listen, "--txt", "a=b"), 64, "--type"),
                                  ((*listen, "--type", TYPE, "--txt", "=b"), 64, "--txt"), ((*listen, "x"), 64, "too many"),
                                  (("legacy",), 64, "legacy listen or legacy connect"), (("legacy", "x"), 64, "legacy listen")]:
            with self.subTest(words=words):
                result = qelnk(*words)
                self.assertEqual((result.code, result.out), (code, b""))
                self.assertIn(text, result.err)
        result = qelnk(*listen, "--wait", 1, "--timeout", SHORT, input="x\n")
        self.assertEqual(result.code, 69)
        self.assertIn("0 of 1 connections", result.err)


class Connect(LegacyTest):
    def test_bytes(self):
        for options in ("playout", "connect", "ingest"):
            with self.subTest(options=options):
                listener, port = self.server()
                process = self.legacy("connect", "localhost", port, "--options", options)
                self.give(process, b"one\n[2]\n\n" + binary(SMALL, "a b", True) + command(string="two\nlines") +
                          command(heartbeat={"timecode": "10:59:59:24 25", "info": "on air"}))
                process.stdin.close()
                peer = self.accept(listener, shakes=False)
                self.assertRegex(peer.strings(4), handshake_of(rb"com\.kestrova\." + options.encode()))
                peer.socket.settimeout(float(SHORT))
                self.assertRaises(TimeoutError, peer.receive, 1)  # not before the handshake
                peer.socket.settimeout(LIMIT)
                peer.dribble(HANDSHAKE)
                wanted = (b"one\0[2]\0\0!bin! 10000 a b\0" + SMALL + b"\0two\nlines\0heartbeat 10:59:59:24 25 on air\0")
                self.assertEqual(peer.receive(1 << 20), wanted)
                self.assertEqual(self.event(process), {"event": "ready", "peer": PEER})
                self.assertEqual(process.wait(LIMIT), 0)

    def test_what_a_peer_sends(self):
        for options in ("playout", "ingest"):
            with self.subTest(options=options):
                listener, port = self.server()
                process = self.legacy("connect", "127.0.0.1", port, "--options", options, "--stay", "--log-level", "off")
                peer = self.accept(listener)
                peer.dribble(b"!bin! 3 a b\0p\0q\0one\0")
                for at in range(0, len(BLOCK), 7777):
                    peer.send((b"" if at else b"!bin! 100000 \0") + BLOCK[at:at + 7777])
                peer.send(b"\0bad\xff\0heartbeat 01:02:03:04 25 live\0")
                self.assertEqual([self.event(process) for _ in range(5)], [
                    {"event": "ready", "peer": PEER},
                    {"event": "binary", "contentType": "a b", "length": 3, "sha256": hashlib.sha256(b"p\0q").hexdigest()},
                    {"event": "string", "text": "one"},
                    {"event": "binary", "contentType": "", "length": len(BLOCK), "sha256": hashlib.sha256(BLOCK).hexdigest()},
                    {"event": "heartbeat", "timecode": "01:02:03:04 25", "info": "live"}])
                peer.send(b"!bin! -1 x\0" + BLOCK)
                (peer.reset if options == "ingest" else peer.close)()
                if options == "playout":
                    self.assertEqual(self.done_by_itself(process), [{"event": "terminated", "willReconnect": False}])
                else:
                    self.assertEqual(self.event(process), {"event": "terminated", "willReconnect": True})
                    process.terminate()
                    self.assertEqual(process.wait(LIMIT), 0)

    def test_fence_and_a_peer_that_does_not_read(self):
        block = BLOCK * 100
        listener, port = self.server()
        process = self.legacy("connect", "127.0.0.1", port)
        peer = self.accept(listener)
        self.event(process, "ready")
        self.feed(process, binary(block, "first", True) + binary(BLOCK, "second", True) + binary(BLOCK, "third"))
        self.assertEqual(self.event(process), {"event": "dropped", "contentType": "second"})
        wanted = b"!bin! 10000000 first\0" + block + b"\0!bin! 100000 third\0" + BLOCK + b"\0"
        self.assertTrue(peer.receive(len(wanted)) == wanted)
        self.give(process, binary(BLOCK, "fourth", True))
        process.stdin.close()
        self.assertEqual(peer.receive(len(wanted)), b"!bin! 100000 fourth\0" + BLOCK + b"\0")
        self.assertEqual(process.wait(LIMIT), 0)
        process = self.legacy("connect", "127.0.0.1", port, "--timeout", AMPLE)
        peer = self.accept(listener)
        self.give(process, binary(block))
        self.done(process, 69, "does not read")
        # What was not written when the other side ended is no success.
        process = self.legacy("connect", "127.0.0.1", port)
        peer = self.accept(listener)
        self.feed(process, binary(block))
        peer.receive(100)
        peer.close()
        self.done(process, 1, "were not written")

    def test_a_slow_peer_gets_everything(self):
        listener, port = self.server()
        process = self.legacy("connect", "127.0.0.1", port, "--timeout", 3600)
        peer = self.accept(listener)
        self.feed(process, binary(BLOCK * 50))
        process.stdin.close()
        self.assertTrue(peer.slowly() == b"!bin! 5000000 T\0" + BLOCK * 50 + b"\0")
        self.assertEqual({event["event"] for event in self.done_by_itself(process)}, {"ready", "string"})

    def test_no_connection(self):
        listener, port = self.server()
        words = ("connect", "127.0.0.1", port)
        process = self.legacy(*words, "--timeout", SHORT)
        self.accept(listener, shakes=False)
        self.assertEqual(self.done(process, 69, "timed out"), [{"event": "connectError", "code": 3, "willRetry": False}])
        process = self.legacy(*words)
        self.accept(listener, shakes=False).close()
        self.assertEqual(self.done(process, 69, "before it was ready"), [{"event": "terminated", "willReconnect": False}])
        listener.close()
        self.assertEqual(self.done(self.legacy(*words), 69, "refused"),
                         [{"event": "connectError", "code": 4, "willRetry": False}])
        process = self.legacy(*words, "--set", "maxRetryAttempts=2", "--set", "autoRetryInterval=0.02", "--timeout", SHORT)
        self.assertEqual([event["willRetry"] for event in self.done(process, 69, "no connection")], [True, True, False])

    def test_comes_back(self):
        listener, port = self.server()
        listener.close()
        process = self.legacy("connect", "127.0.0.1", port, "--options", "connect", "--set", "autoRetryInterval=0.02", "--set",
                              "autoConnectDelay=0.02", "--timeout", AMPLE, "--app-id", "org.example.\u00e4")
        self.give(process, b"first\n")
        self.assertEqual(self.event(process), {"event": "connectError", "code": 4, "willRetry": True})
        listener = socket.create_server(("127.0.0.1", port))
        listener.settimeout(LIMIT)
        self.addCleanup(listener.close)
        peer = self.accept(listener, shakes=False)
        self.assertRegex(peer.strings(4), handshake_of("org\\.example\\.\u00e4".encode()))
        peer.send(HANDSHAKE)
        self.assertEqual(peer.strings(1), b"first\0")
        self.event(process, "ready")
        peer.reset()
        self.assertEqual(self.event(process), {"event": "terminated", "willReconnect": True})
        self.feed(process, b"second\n")
        self.accept(listener, shakes=False).close()  # of this nothing is told
        peer = self.accept(listener)
        self.assertEqual(peer.strings(1), b"second\0")
        peer.send(b"back\0")
        self.assertEqual([self.event(process)["event"] for _ in range(3)], ["ready", "ready", "string"])
        process.stdin.close()
        self.assertEqual(peer.receive(1), b"")
        self.assertEqual(process.wait(LIMIT), 0)

    def test_lost_heartbeats(self):
        listener, port = self.server()
        process = self.legacy("connect", "127.0.0.1", port, "--set", "heartbeatProblemTimeout=-0.5", "--set",
                              "heartbeatDisconnectTimeout=-1.5")
        peer = self.accept(listener)
        self.assertEqual(self.event(process, "lostHeartbeat"), {"event": "lostHeartbeat", "lost": True})
        peer.send(b"heartbeat 01:02:03:04 25\0")
        self.assertEqual(self.event(process), {"event": "lostHeartbeat", "lost": False})
        self.assertEqual([event["event"] for event in self.done_by_itself(process)],
                         ["heartbeat", "lostHeartbeat", "terminated"])

    def test_input(self):
        """What comes before a line that cannot be is written."""
        listener, port = self.server()
        for line in (b"{}", b'{"x":1}', b'{"string":1}', b'{"string":"a\\u0000b"}', b'{"string":"a","txt":{}}', b"a\0b", b"\xff",
                     b'{"binary":{"data":"AA=="}}', b'{"binary":{"contentType":"T","data":"?"}}',
                     b'{"binary":{"contentType":"T","data":"","fence":true}}', b'{"heartbeat":{"info":"a"}}',
                     b'{"disconnect":false}', b'{"txt":{"a":"b"}}'):
            with self.subTest(line=line):
                process = self.legacy("connect", "127.0.0.1", port, "--stay", "--log-level", "off")
                peer = self.accept(listener)
                self.give(process, b"before\n" + line + b"\nbehind\n")
                self.assertEqual(peer.receive(100), b"before\0")
                self.done(process, 65, "line 2: ")
        process = self.legacy("connect", "127.0.0.1", port, "--stay")
        peer = self.accept(listener)
        self.give(process, b"before\n{no object}\n" + command(disconnect=True) + b"behind\n")
        self.assertEqual(peer.receive(100), b"before\0{no object}\0")
        self.assertEqual(process.wait(LIMIT), 0)

    def test_what_cannot_be(self):
        connect = ("legacy", "connect")
        there = (*connect, "localhost", 1)
        for words, code, text in [(connect, 64, "HOST PORT"), ((*connect, "localhost"), 64, "HOST PORT"),
                                  ((*there, "--service", "s", "--type", TYPE), 64, "HOST PORT"),
                                  ((*connect, "--service", "s"), 64, "--type"), ((*connect, "--service", "s", "--type", ""), 64, "--type"),
                                  (("legacy", "listen", "--type", "x"), 64, "--type"), ((*connect, "localhost", 0), 64, "PORT"),
                                  ((*there, "--options", "x"), 64, "--options"), ((*there, "--set", "writeSize"), 64, "--set"),
                                  ((*there, "--set", "x=1"), 64, "--set"), ((*there, "--set", "writeSize=true"), 64, "whole number"),
                                  ((*there, "--set", "attemptReconnect=1"), 64, "true or false"),
                                  ((*connect, "host.invalid", 1), 69, "before it was ready")]:
            with self.subTest(words=words):
                result = qelnk(*words, "--log-level", "off")
                self.assertEqual(result.code, code, result.err)
                self.assertIn(text, result.err)


class Services(LegacyTest):
    def setUp(self):
        super().setUp()
        self.discovery = Discovery(self)

    def found(self):
        return self.discovery.browse(TYPE)

    def test_published(self):
        process, port = self.listen("--type", TYPE, "--name", "Studio A", "--txt", "k=v", "--txt", "flag",
                                    env=self.discovery.env)
        self.assertEqual(self.event(process), {"event": "published", "name": "Studio A", "type": TYPE, "port": port})
        self.assertEqual(self.found(), {("Studio\\032A", port, frozenset({"k=v", "flag"}))})
        other, other_port = self.listen("--type", TYPE, "--name", "Studio A", env=self.discovery.env)
        self.assertEqual(self.event(other)["name"], "Studio A #2")
        client = self.legacy("connect", "--service", "Studio A", "--type", TYPE, "--stay", env=self.discovery.env)
        told = [self.event(client) for _ in range(2)]
        self.assertIn({"event": "txt", "record": {"k": "v", "flag": None}}, told)
        self.give(process, command(txt={"k": "w", "n": ""}))
        self.assertEqual(self.event(client), {"event": "txt", "record": {"k": "w", "n": ""}})
        self.give(client, b"by its name\n")
        self.assertEqual(self.event(process, "string")["text"], "by its name")
        process.stdin.close()
        self.assertEqual(process.wait(LIMIT), 0)
        self.assertEqual([event["event"] for event in self.done(client)], ["terminated"])
        self.assertTrue(eventually(lambda: len(self.found()) == 1))

    def test_found(self):
        listener, port = self.server()
        publish = ("avahi-publish", "-f", "-s", "Studio B", TYPE, str(port))
        publisher = self.discovery.start(*publish, "k=v")
        self.assertTrue(eventually(self.found))
        process = self.legacy("connect", "--service", "Studio B", "--type", TYPE, env=self.discovery.env)
        peer = self.accept(listener)
        told = [self.event(process) for _ in range(2)]
        self.assertEqual({event["event"] for event in told}, {"ready", "txt"})
        self.assertIn({"event": "txt", "record": {"k": "v"}}, told)
        self.discovery.stop(publisher)
        self.discovery.start(*publish, "k=w")
        self.assertEqual(self.event(process, "txt")["record"], {"k": "w"})
        self.give(process, b"still there\n")
        self.assertEqual(peer.strings(1), b"still there\0")
        process.stdin.close()
        self.assertEqual(process.wait(LIMIT), 0)
        result = qelnk("legacy", "connect", "--service", "nobody", "--type", TYPE, env=self.discovery.env)
        self.assertEqual((result.code, result.out), (69, b""))
        self.assertIn("was not found", result.err)


if __name__ == "__main__":
    unittest.main()
