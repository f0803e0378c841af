"""serve, publish, subscribe and monitor, against sockets of Python's."""

import base64
import json
import signal
import time
import unittest

import msgpack
import zmq
from zmq.utils.monitor import recv_monitor_message

from support import AMPLE, BIN, LIMIT, SHORT, Peer, ToolTest, eventually, events, qelnk

BUFFER = base64.b64encode(b"\x00\xff").decode()
# body, a message as a line, as a frame, and as --json shows it
BODIES = [("json", '{"b":1,"a":[1.0,null]}', b'{"b":1,"a":[1.0,null]}', {"b": 1, "a": [1.0, None]}),
          ("msgpack", '{"a":{"$data":"AP8="}}', msgpack.packb({"a": b"\x00\xff"}), {"a": {"$data": "AP8="}}),
          ("xml", "<a b=\"1\">x</a>", b"<a b=\"1\">x</a>", None),
          ("string", " -5 \u00e4 ", " -5 \u00e4 ".encode(), " -5 \u00e4 "),
          ("data", BUFFER, b"\x00\xff", {"$data": BUFFER})]


class Messaging(ToolTest):
    def setUp(self):
        super().setUp()
        self.context = zmq.Context()
        self.addCleanup(self.context.destroy, linger=0)

    def socket(self, type, port=None):
        """A socket of our own, connected to a port, or bound to one that it returns too."""
        socket = self.context.socket(type)
        self.addCleanup(socket.close, 0)
        socket.rcvtimeo = socket.sndtimeo = LIMIT * 1000
        if port:
            socket.connect(f"tcp://127.0.0.1:{port}")
            return socket
        return socket, socket.bind_to_random_port("tcp://127.0.0.1")

    def listening(self, *words):
        """A command that listens on a port, which is returned too."""
        process = self.start(BIN / "qelnk", words[0], 0, "--json", *words[1:])
        event = json.loads(process.stdout.readline())
        self.assertEqual(list(event), ["event", "port"])
        self.assertEqual(event["event"], "listening")
        return process, event["port"]

    def line(self, process):
        return json.loads(process.stdout.readline())

    def end(self, process, by=signal.SIGTERM):
        """Ends a command as a user would: its exit code and what is left of its output."""
        if process.stdin.closed or process.returncode is not None:
            return super().end(process)
        if by:
            process.send_signal(by)
        result = self.finish(process)
        self.assertEqual((result.code, result.err), (0, ""))
        return result

    def test_serve(self):
        for body, line, frame, event in BODIES:
            with self.subTest(body=body):
                process, port = self.listening("serve", "--body", body, "--echo")
                peer = self.socket(zmq.REQ, port)
                for _ in range(3):
                    peer.send(frame)
                    self.assertIn(frame, peer.recv())
                    request = self.line(process)
                    self.assertEqual(list(request), ["event", "request"])
                    self.assertEqual(request["request"] if event else event, event)
                self.end(process)
        process, port = self.listening("serve", "--body", "string", "--reply", "always this")
        peer = self.socket(zmq.REQ, port)
        peer.send(b"?")
        self.assertEqual(peer.recv(), b"always this")
        self.end(process, None)  # the end of standard input

    def test_serve_tells_when_it_falls_silent(self):
        process, port = self.listening("serve", "--echo", "--stay")
        peer = self.socket(zmq.REQ, port)
        peer.send(b"{")
        self.assertIn(b"takes no further", process.stderr.readline())
        process.stdin.close()
        self.assertIsNone(process.poll())
        process.terminate()
        self.assertEqual(process.wait(LIMIT), 0)

    def test_publish(self):
        for body, line, frame, _ in BODIES:
            with self.subTest(body=body):
                process, port = self.listening("publish", "--body", body, "--wait", 2)
                subscribers = [self.socket(zmq.SUB, port) for _ in range(2)]
                process.stdin.write(f"{line}\n{line}\n".encode())
                process.stdin.flush()
                for subscriber in subscribers:
                    subscriber.subscribe(b"")
                    subscriber.subscribe(b"more")  # one that subscribes twice is one
                for subscriber in subscribers:
                    self.assertIn(frame, subscriber.recv())
                    self.assertIn(frame, subscriber.recv())
                published = self.line(process)
                self.assertEqual(list(published), ["event", "bytes"])
                self.assertGreaterEqual(published["bytes"], len(frame))
                self.end(process, None)

    def test_publish_loses_nothing(self):
        process, port = self.listening("publish", "--body", "string", "--wait", 3, "--timeout", LIMIT)
        receivers = [self.start(BIN / "qelnk", "subscribe", "localhost", port, "--body", "string", "--count", 20000)
                     for _ in range(3)]
        text = "".join(f"{n}\n" for n in range(20000))
        process.communicate(text.encode(), timeout=LIMIT)
        for receiver in receivers:
            self.assertEqual(receiver.stdout.read().decode(), text)
            self.assertEqual(receiver.wait(LIMIT), 0)

    def test_publish_waits_no_longer_than_the_timeout(self):
        result = qelnk("publish", 0, "--wait", 1, "--timeout", SHORT, input="[1]\n")
        self.assertEqual(result.code, 69)
        self.assertIn("0 of 1 subscribers", result.err)
        # A subscriber that does not read holds the others up for the timeout.
        process, port = self.listening("publish", "--body", "data", "--wait", 1, "--timeout", AMPLE)
        stuck = self.socket(zmq.SUB, port)
        stuck.subscribe(b"")
        line = base64.b64encode(b"x" * 10000) + b"\n"
        _, err = process.communicate(line * 5000, timeout=LIMIT)
        self.assertEqual(process.returncode, 69)
        self.assertIn(b"does not read", err)

    def test_subscribe(self):
        for body, line, frame, event in BODIES:
            with self.subTest(body=body):
                peer, port = self.socket(zmq.XPUB)
                process = self.start(BIN / "qelnk", "subscribe", "localhost", port, "--body", body, "--count", 2, "--json")
                self.assertEqual(self.line(process), {"event": "connected"})
                self.assertEqual(peer.recv(), b"\1")
                for _ in range(3):
                    peer.send(frame)
                message = self.line(process)
                self.assertEqual(list(message), ["event", "message"])
                self.assertEqual(message["message"] if event else event, event)
                self.end(process, None)
                self.assertEqual(peer.recv(), b"\0")  # before the next subscribes: the peer tells of the first and the last
                process = self.start(BIN / "qelnk", "subscribe", "127.0.0.1", port, "--body", body, "--stay")
                process.stdin.close()
                self.assertEqual(peer.recv(), b"\1")
                peer.send(frame)
                self.assertIn(line.encode(), process.stdout.readline())
                process.send_signal(signal.SIGINT)
                self.assertEqual(process.wait(LIMIT), 0)

    def test_filters(self):
        peer, port = self.socket(zmq.XPUB)
        process = self.start(BIN / "qelnk", "subscribe", "127.0.0.1", port, "--body", "string", "--filter", "a", "--filter",
                             "\u00e4", "--filter-int", "-2", "--count", 2)
        wanted = {b"\1a", b"\1\xc3\xa4", b"\1\xfe\xff\xff\xff"}
        self.assertEqual({peer.recv() for _ in range(3)}, wanted)
        for frame in ("x", "axe", "b", "\u00e4 b"):
            peer.send(frame.encode())
        self.assertEqual(self.end(process, None).out.decode(), "axe\n\u00e4 b\n")

    def test_publisher_that_comes_back(self):
        peer, port = self.socket(zmq.XPUB)
        process = self.start(BIN / "qelnk", "subscribe", "127.0.0.1", port, "--body", "string", "--json", "--log-level", "info")
        self.line(process)
        peer.recv()
        peer.close()
        lines = iter(lambda: process.stderr.readline().decode(), "")
        self.assertTrue(any("at least 5 seconds, re-connecting" in line for line in lines))
        self.assertEqual(self.line(process), {"event": "connected"})
        peer = self.context.socket(zmq.XPUB)
        peer.bind(f"tcp://127.0.0.1:{port}")
        peer.recv()
        peer.send(b"back")
        self.assertEqual(self.line(process), {"event": "message", "message": "back"})
        peer.close(linger=0)
        process.terminate()
        self.assertEqual(process.wait(LIMIT), 0)

    def test_monitor(self):
        """Names and order are those of ZeroMQ's own monitor on a socket of ours."""
        peer, port = self.socket(zmq.REP)
        ours = self.context.socket(zmq.REQ)
        monitor = ours.get_monitor_socket(zmq.EVENT_ALL & 2047)
        self.addCleanup(monitor.close, 0)
        self.addCleanup(ours.close, 0)
        ours.connect(f"tcp://127.0.0.1:{port}")
        process = self.start(BIN / "qelnk", "monitor", "127.0.0.1", port, "--count", 5, "--json")
        seen = [self.line(process) for _ in range(2)]
        expected = [recv_monitor_message(monitor) for _ in range(2)]
        peer.close(linger=0)
        expected += [recv_monitor_message(monitor) for _ in range(3)]
        seen += [json.loads(line) for line in self.finish(process).out.splitlines()]
        self.assertEqual([event["mask"] for event in seen], [int(event["event"]) for event in expected])
        names = {1: "Connected", 2: "Connect Delayed", 4: "Connect Retried", 128: "Close", 512: "Disconnected"}
        for event in seen:
            self.assertEqual(event, {"event": "monitor", "mask": event["mask"], "name": names[event["mask"]]})
        self.assertEqual(process.returncode, 0)

    def test_what_cannot_be(self):
        peer, port = self.socket(zmq.REP)
        for words, code, text in [(("serve", port, "--echo"), 1, "in use"), (("publish", port), 1, "in use"),
                                  (("serve", 0), 64, "--echo or --reply"), (("serve", 0, "--echo", "--reply", "1"), 64, "--echo"),
                                  (("serve", 0, "--reply", "5"), 65, ""), (("serve", 65536, "--echo"), 64, "PORT"),
                                  (("subscribe", "localhost", 0), 64, "PORT"),
                                  (("subscribe", "localhost", 1, "--filter-int", "x"), 64, "--filter-int"),
                                  (("subscribe", "no such host", 1), 1, "cannot connect"),
                                  (("monitor", "no such host", 1), 1, "cannot connect")]:
            with self.subTest(words=words):
                result = qelnk(*words)
                self.assertEqual((result.code, result.out), (code, b""))
                self.assertIn(text, result.err)
        result = qelnk("publish", 0, "--json", input="[1]\n{\n")
        self.assertEqual(result.code, 65)
        self.assertEqual(len(events(result, "published")), 1)
        self.assertIn("line 2: ", result.err)


if __name__ == "__main__":
    unittest.main()
