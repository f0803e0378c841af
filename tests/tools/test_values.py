"""pack, unpack and the conventions of the command line."""

import json
import math
import struct
import subprocess
import unittest

import msgpack

from support import BIN, LIMIT, ToolTest, qelnk


class Values(ToolTest):
    # Each JSON text and what it stands for.
    VALUES = [
        ("null", None), ("true", True), ("0", 0), ("-1", -1), ("127", 127), ("128", 128), ("-32", -32), ("-33", -33),
        ("255", 255), ("65536", 65536), ("-2147483649", -2147483649), ("18446744073709551615", 2**64 - 1),
        ("-9223372036854775808", -(2**63)), ("1.0", 1.0), ("-0.0", -0.0), ("0.1", 0.1), ("1e+300", 1e300),
        ('"\u00e4\\n\U0001f600"', "\u00e4\n\U0001f600"), ('""', ""), ("[]", []), ("{}", {}),
        ('{"b":1,"a":[null,{"c":[]}]}', {"b": 1, "a": [None, {"c": []}]}),
        ('{"$data":"AAH/"}', b"\x00\x01\xff"), ('{"$data":"AA=="}', b"\x00"), ('{"$data":""}', b""),
        ('{"$double":"inf"}', math.inf), ('{"$double":"-inf"}', -math.inf),
        ('{"$map":[[1,"a"],["b",{"$data":"eA=="}]]}', {1: "a", "b": b"x"}),
        ('{"$map":[["$data","AAAA"]]}', {"$data": "AAAA"}), ('{"$map":[["$map",[]]]}', {"$map": []}),
        ('{"$data":"AAAA","more":1}', {"$data": "AAAA", "more": 1}),
    ]

    def test_both_ways(self):
        for text, value in self.VALUES:
            with self.subTest(text):
                self.assertEqual(qelnk("pack", input=text), (0, msgpack.packb(value), ""))
                unpacked = qelnk("unpack", input=msgpack.packb(value))
                self.assertEqual((unpacked.code, unpacked.err), (0, ""))
                self.assertEqual(unpacked.out.decode(), text + "\n")

    def test_nan_and_narrow_floats(self):
        self.assertTrue(math.isnan(msgpack.unpackb(qelnk("pack", input='{"$double":"nan"}').out)))
        self.assertEqual(qelnk("unpack", input=msgpack.packb(math.nan)).out, b'{"$double":"nan"}\n')
        self.assertEqual(float(qelnk("unpack", input=b"\xca" + struct.pack(">f", 0.1)).out),
                         struct.unpack(">f", struct.pack(">f", 0.1))[0])
        self.assertEqual(qelnk("unpack", input=b"\xca" + struct.pack(">f", 2)).out, b"2.0\n")

    def test_order_of_keys(self):
        text = '{"cherry":1,"Banana":2,"apple":{"z":1,"Y":2}}'
        self.assertEqual(list(msgpack.unpackb(qelnk("pack", input=text).out)), ["cherry", "Banana", "apple"])
        ordered = msgpack.unpackb(qelnk("pack", "--sort-keys", input=text).out)
        self.assertEqual(list(ordered), ["apple", "Banana", "cherry"])
        self.assertEqual(list(ordered["apple"]), ["Y", "z"])
        self.assertEqual(qelnk("unpack", "--ordered", input=msgpack.packb(json.loads(text))).out.decode(), text + "\n")

    def test_malformed_json(self):
        for text in ["", " ", "{", "1 2", '{"a":1}x', "nul", "'a'", '"\\ud800"', "18446744073709551616",
                     '{"$data":"AAA"}', '{"$data":"AB=="}', '{"$data":"A A="}', '{"$data":1}', '{"$double":"1"}',
                     '{"$map":[[1]]}', '{"$map":{}}', '[{"$map":[1]}]']:
            with self.subTest(text):
                result = qelnk("pack", input=text)
                self.assertEqual((result.code, result.out), (65, b""))
                self.assertRegex(result.err, r"^qelnk: .+\n$")

    def test_malformed_messagepack(self):
        for data, code in [(b"", 200), (b"\xc1", 201), (b"\xd4\x01\x02", 201), (b"\x92\x01", 200), (b"\xd9\xc8abc", 298),
                           (b"\x93" + b"\xa3ab", 206), (b"\x91\xc4\x04abc", 202)]:
            with self.subTest(data):
                result = qelnk("unpack", input=data)
                self.assertEqual((result.code, result.out), (65, b""))
                self.assertRegex(result.err, r"^MPMessagePack error \d+: .+\n$")
                if data != b"\xc1":
                    self.assertIn(f"error {code}:", result.err)

    def test_depth_costs_no_stack(self):
        for opening, inner in [(b"\x91", b"\xc0"), (b"\x81\x01", b"\xc0")]:
            result = qelnk("unpack", input=opening * 300_000 + inner)
            self.assertIn(result.code, (0, 65))
        self.assertEqual(qelnk("pack", input="[" * 300_000).code, 65)

    def test_rest_behind_the_object_is_told(self):
        result = qelnk("unpack", input=b"\x01\x02\x03")
        self.assertEqual((result.code, result.out), (0, b"1\n"))
        self.assertIn("2 bytes", result.err)


class Conventions(ToolTest):
    COMMANDS = ["pack", "unpack", "request", "daemon", "demo"]

    def test_help_and_version(self):
        overview = qelnk("--help")
        self.assertEqual((overview.code, overview.err), (0, ""))
        for command in self.COMMANDS:
            self.assertIn(f"  {command} ", overview.out.decode())
            help = qelnk(command, "--help")
            self.assertEqual((help.code, help.err), (0, ""))
            self.assertIn(f"usage: qelnk {command}", help.out.decode())
            for option in ("--json", "--timeout", "--log-level"):
                self.assertIn(option, help.out.decode())
        version = qelnk("--version")
        self.assertEqual((version.code, version.err), (0, ""))
        self.assertRegex(version.out.decode(), r"^QELNetworkKit \d+\.\d+\.\d+\n$")

    def test_usage_errors(self):
        for words, named in [
                ([], "no command"), (["serve", "0"], "serve"), (["pack", "--what"], "--what"), (["pack", "-x"], "-x"),
                (["pack", "more"], "more"), (["request", "localhost"], "PORT"), (["request", "localhost", "0"], "0"),
                (["request", "localhost", "http"], "http"), (["request", "a", "1", "--body", "bson"], "bson"),
                (["request", "a", "1", "--timeout", "0"], "--timeout"), (["request", "a", "1", "--timeout"], "--timeout"),
                (["pack", "--log-level", "loud"], "loud"), (["pack", "--sort-keys=1"], "--sort-keys"),
                (["daemon", "--connect", "a:1"], "VERB"), (["daemon", "show"], "--connect"),
                (["daemon", "--connect", "a:1", "dance"], "dance"), (["daemon", "--connect", "a", "show"], "HOST:PORT"),
                (["daemon", "--connect", "a:1", "--spawn", "x", "show"], "--spawn"),
                (["daemon", "--connect", "a:1", "--keep", "show"], "--keep"),
                (["daemon", "--connect", "a:1", "show", "--count", "1"], "--count"),
                (["daemon", "--connect", "a:1", "show", "more"], "more"),
                (["daemon", "--connect", "a:1", "set", "W", "P"], "VALUE"),
                (["daemon", "--connect", "a:1", "set", "W", "P", "1", "Q"], "Q"),
                (["daemon", "--connect", "a:1", "watch", "W", "P", "--count", "x"], "--count"),
        ]:
            with self.subTest(words):
                result = qelnk(*words)
                self.assertEqual((result.code, result.out), (64, b""))
                self.assertRegex(result.err, r"^qelnk: [^\n]+ --help\n$")
                self.assertIn(named, result.err)

    def test_output_that_fails(self):
        with open("/dev/full", "wb") as full:
            done = subprocess.run([BIN / "qelnk", "unpack"], input=b"\x01", stdout=full, stderr=subprocess.PIPE)
        self.assertEqual(done.returncode, 71)
        self.assertIn(b"No space left", done.stderr)
        process = self.start(BIN / "qelnk", "unpack")
        process.stdout.close()
        process.stdin.write(b"\x01")
        process.stdin.close()
        self.assertEqual(process.wait(LIMIT), 1)
        self.assertEqual(process.stderr.read(), b"")

    def test_signal_while_reading(self):
        process = self.start(BIN / "qelnk", "pack")
        self.feed(process, b"[1,")
        process.terminate()
        self.assertEqual(process.wait(LIMIT), 1)


if __name__ == "__main__":
    unittest.main()
