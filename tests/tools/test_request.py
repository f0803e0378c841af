"""request, against reply sockets of Python's."""

import base64
import json
import signal
import time
import unittest

import msgpack
import zmq

from support import BIN, LIMIT, SHORT, SLOW, Peer, ToolTest, eventually, events, qelnk


class Request(ToolTest):
    def echo(self):
        return Peer(self, zmq.REP, lambda frame: [frame])

    def ask(self, *words, **options):
        return qelnk("request", "127.0.0.1", *words, **options)

    def test_bodies(self):
        buffer = base64.b64encode(b"\x00\xff").decode()
        for body, line, frame, text, event in [
                ("json", '{"b": 1, "a": [1.0, null]}', b'{"b":1,"a":[1.0,null]}', '{"b":1,"a":[1.0,null]}',
                 {"b": 1, "a": [1.0, None]}),
                ("json", '{"$data":"?"}', b'{"$data":"?"}', '{"$data":"?"}', {"$data": "?"}),
                ("msgpack", '{"a":{"$data":"AP8="},"b":{"$map":[[1,2]]}}', msgpack.packb({"a": b"\x00\xff", "b": {1: 2}}),
                 '{"a":{"$data":"AP8="},"b":{"$map":[[1,2]]}}', {"a": {"$data": "AP8="}, "b": {"$map": [[1, 2]]}}),
                ("xml", '<a b="1">x</a>', None, '<a b="1">x</a>', None),
                ("string", " -5 \u00e4 ", " -5 \u00e4 ".encode(), " -5 \u00e4 ", " -5 \u00e4 "),
                ("data", buffer, b"\x00\xff", buffer, {"$data": buffer})]:
            with self.subTest(body=body, line=line):
                peer = self.echo()
                result = self.ask(peer.port, "--body", body, input=line + "\n")
                self.assertEqual((result.code, result.err), (0, ""))
                self.assertIn(text, result.out.decode())
                if frame is not None:
                    self.assertEqual(peer.messages, [frame])
                    self.assertEqual(result.out.decode(), text + "\n")
                reply = events(self.ask("--json", "--body", body, peer.port, input=line))
                self.assertEqual([list(event) for event in reply], [["event", "reply"]])
                self.assertEqual(reply[0]["reply"] if event else event, event)

    def test_lines_in_order(self):
        lines = [json.dumps({"n": n, "fill": "x" * (n * 997 % 5000)}, separators=(",", ":")) for n in range(200)]
        for more in ([], ["--sync"]):
            result = self.ask(self.echo().port, *more, input="\n".join(lines[:100]) + "\n\n" + "\n".join(lines[100:]))
            self.assertEqual((result.code, result.err), (0, ""))
            self.assertEqual(result.out.decode().splitlines(), lines)

    def test_large_message(self):
        line = json.dumps(["x" * (8 << 20)], separators=(",", ":"))
        self.assertEqual(self.ask(self.echo().port, "--timeout", LIMIT, input=line).out.decode(), line + "\n")

    def test_replies_are_flushed_one_by_one(self):
        peer = self.echo()
        process = self.start(BIN / "qelnk", "request", "localhost", peer.port)
        for line in (b"[1]\n", b"[2]\n"):
            process.stdin.write(line)
            process.stdin.flush()
            self.assertEqual(process.stdout.readline(), line)

    def test_malformed_lines(self):
        for body, line in [("json", "{"), ("json", "5"), ("msgpack", "5"), ("msgpack", '[{"$data":1}]'), ("xml", "<a>"),
                           ("data", "?")]:
            with self.subTest(body=body, line=line):
                good = {"xml": "<a/>", "data": "AAAA"}.get(body, '{"a":1}')
                result = self.ask(self.echo().port, "--body", body, input=f"{good}\n{line}\n{good}\n")
                self.assertEqual((result.code, len(result.out.splitlines())), (65, 1))
                self.assertRegex(result.err, r"^qelnk: line 2: .+\n$")

    def test_no_answer_in_time(self):
        mute = Peer(self, zmq.ROUTER, lambda frame: [])
        for more in ([], ["--sync"]):
            begun = time.monotonic()
            result = self.ask(mute.port, "--timeout", SHORT, *more, input="[1]\n[2]\n")
            self.assertEqual((result.code, result.out), (69, b""))
            self.assertIn("no answer", result.err)
            if not SLOW:
                self.assertLess(time.monotonic() - begun, 9, "the default is 10 seconds")
        # Given up before there was a connection, even the first may not have been sent.
        self.assertNotIn(b"[2]", mute.messages)

    def test_signals(self):
        for more in ([], ["--sync"]):
            for number in (signal.SIGINT, signal.SIGTERM):
                with self.subTest(more=more, number=number):
                    mute = Peer(self, zmq.ROUTER, lambda frame: [])
                    process = self.start(BIN / "qelnk", "request", "127.0.0.1", mute.port, *more)
                    process.stdin.write(b"[1]\n")
                    process.stdin.flush()
                    self.assertTrue(eventually(lambda: mute.messages))
                    process.send_signal(number)
                    self.assertEqual(process.wait(LIMIT), 1, "in the middle of a request")
                    process = self.start(BIN / "qelnk", "request", "127.0.0.1", mute.port, *more)
                    self.feed(process, b"\n")
                    process.send_signal(number)
                    self.assertEqual(process.wait(LIMIT), 0, "between requests")


if __name__ == "__main__":
    unittest.main()
