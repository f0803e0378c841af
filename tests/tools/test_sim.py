"""orlin-sim over the wire, without the library on the other end."""

import json
import signal
import subprocess
import time
import unittest

import msgpack
import zmq

from support import BIN, BUNDLE, LIMIT, ToolTest, eventually, port as described


class Client:
    def __init__(self, test, port, type=zmq.DEALER, **options):
        context = zmq.Context.instance()
        self.socket = context.socket(type)
        self.socket.linger = 0
        for name, value in options.items():
            setattr(self.socket, name, value)
        self.socket.connect(f"tcp://127.0.0.1:{port}")
        self.number = 0
        test.addCleanup(self.socket.close)

    def send(self, command, data=None):
        self.number += 1
        request = {"command": command, "timestamp": 0.0, "messageID": self.number}
        self.socket.send(msgpack.packb({**request, **({"data": data} if data is not None else {})}))
        return self.number

    def receive(self):
        if not self.socket.poll(LIMIT * 1000):
            raise TimeoutError("nothing came")
        return self.socket.recv()

    def ask(self, command, data=None):
        number = self.send(command, data)
        answer = msgpack.unpackb(self.receive())
        assert answer["messageID"] == number, answer
        return answer

    def answered(self, count):
        """The numbers of the requests that the next answers are to."""
        return [msgpack.unpackb(self.receive())["messageID"] for _ in range(count)]

    def push(self):
        message = msgpack.unpackb(self.receive())
        assert set(message) == {"command", "data"} and message["command"] == "portValueUpdate", message
        return message["data"]["id"], message["data"]["value"]


class Simulator(ToolTest):
    def test_commands(self):
        _, port = self.sim()
        client = Client(self, port)
        project = {"name": "Studio", "file": str(self.folder / "Studio.prj"), "status": False}
        self.assertEqual(client.ask("getProject")["data"], project)
        self.assertEqual(client.ask("getWorkflows")["data"],
                         [{"id": "w1", "name": "Mixer", "status": False, "execute": True},
                          {"id": "w2", "name": "Clock", "status": False, "execute": False}])
        self.assertEqual(client.ask("getExposedPorts", {"id": "w2"})["data"]["data"],
                         [described("p9", "Frames", "output", "int_", 0)])
        client.ask("startProject")
        self.assertTrue(client.ask("getProject")["data"]["status"])
        self.assertEqual([w["status"] for w in client.ask("getWorkflows")["data"]], [True, False])
        client.ask("stopWorkflow", {"id": "w1"})
        self.assertFalse(client.ask("getWorkflows")["data"][0]["status"])
        for command, data in [("noSuchCommand", None), ("setPortValue", {"id": "x", "value": 1}), ("setPortValue", None),
                              ("getExposedPorts", {"id": "x"}), ("startWorkflow", 5), ("registerPortUpdate", {"id": "p1"}),
                              ("openProject", {"name": "missing.prj"}), ("setPortValue", {"id": "p7", "value": 1})]:
            answer = client.ask(command, data)
            self.assertIsNone(answer["data"])
            self.assertIsInstance(answer["error"], str)
        self.assertEqual(client.ask("getProject")["data"]["name"], "Studio")

    def test_values_take_the_port_s_type(self):
        _, port = self.sim()
        client = Client(self, port)
        for id, given, taken in [("p1", 1, 1.0), ("p1", "0.5x", 0.5), ("p4", 2, True), ("p4", "no", False),
                                 ("p9", 2**32 + 7, 7), ("p6", 5, "5"), ("p8", [1, b"x"], [1, b"x"])]:
            value = client.ask("setPortValue", {"id": id, "value": given})["data"]["value"]
            self.assertEqual((value, type(value)), (taken, type(taken)))

    def test_pushes_for_several_clients(self):
        _, port = self.sim()
        first, second, gone = (Client(self, port) for _ in range(3))
        for client in (first, second, gone):
            client.ask("registerPortUpdate", {"id": "p2"})
        gone.socket.close()
        first.ask("setPortValue", {"id": "p1", "value": 0.25})
        self.assertEqual((first.push(), second.push()), (("p2", 0.25), ("p2", 0.25)))
        second.ask("unregisterPortUpdate", {"id": "p2"})
        first.ask("setPortValue", {"id": "p1", "value": 0.75})
        self.assertEqual(first.push(), ("p2", 0.75))
        second.ask("getProject")  # whose answer would come behind a push

    def test_a_slow_reader_gets_every_reply(self):
        _, port = self.sim()
        client = Client(self, port, rcvhwm=1, rcvbuf=4096)
        client.ask("setPortValue", {"id": "p6", "value": "x" * 4000})
        numbers = [client.send("getExposedPorts", {"id": "w1"}) for _ in range(5000)]
        numbers.append(client.send("saveProject", {"name": "Served.prj"}))
        self.assertTrue(eventually((self.folder / "Served.prj").exists))
        self.assertEqual(client.answered(len(numbers)), numbers)

    def test_counter(self):
        _, port = self.sim()
        client = Client(self, port)
        client.ask("registerPortUpdate", {"id": "p9"})
        self.assertEqual(client.socket.poll(100), 0, "it rests while its workflow does")
        client.ask("startWorkflow", {"id": "w2"})
        self.assertEqual([client.push() for _ in range(5)], [("p9", n) for n in range(1, 6)])

    def test_frames_that_are_no_requests(self):
        sim, port = self.sim()
        client = Client(self, port)
        for frame in (b"", b"\xc1", b"\x91\x01", b"\x81"):
            client.socket.send(frame)
        client.socket.send_multipart([b"a", b"b", b"\xc1"])
        self.assertEqual(client.ask("getProject")["data"]["name"], "Studio")
        self.assertEqual(Client(self, port, zmq.REQ).ask("getProject")["data"]["name"], "Studio")
        sim.terminate()
        self.assertEqual(sim.wait(LIMIT), 0)
        self.assertEqual(sim.stderr.read().count(b"left out"), 5)

    def test_faults(self):
        _, port = self.sim(None, "--drop-replies", "2", "--garbage-every", "3")
        client = Client(self, port)
        client.send("getProject")
        client.send("getProject")
        client.send("getProject")
        with self.assertRaises(Exception):
            msgpack.unpackb(client.receive())
        self.assertEqual(msgpack.unpackb(client.receive())["messageID"], 3)
        self.assertEqual(client.ask("getProject")["messageID"], 4)

        _, port = self.sim(None, "--delay", "150")
        client = Client(self, port)
        begun = time.monotonic()
        numbers = [client.send("getProject") for _ in range(3)]
        self.assertEqual(client.answered(3), numbers)
        self.assertGreaterEqual(time.monotonic() - begun, 0.15)

        sim, port = self.sim(None, "--delay", "86400000")
        client = Client(self, port)
        numbers = [client.send("getProject"), client.send("quit")]
        self.assertEqual(client.answered(2), numbers)
        self.assertEqual(sim.wait(LIMIT), 0)

        sim, port = self.sim(None, "--exit-after", "2")
        client = Client(self, port)
        client.ask("getProject")
        client.ask("getProject")
        self.assertEqual(sim.wait(LIMIT), 1)

    def test_command_line(self):
        _, taken = self.sim()
        bad = self.folder / "Bad.prj"
        bad.write_text(json.dumps({"name": "Bad", "workflows": [{"id": "w", "name": "W", "ports": [
            described("p", "P", "output", "int_", 0, follow="nobody")]}]}))
        for words, code, text in [
                (["-tcp", taken, self.project()], 1, "Address already in use"), (["-tcp", "0", bad], 1, "nobody"),
                (["-tcp", "0", self.folder / "none"], 1, "none"), (["-tcp", "0"], 64, "project"),
                ([bad], 64, "-tcp"), (["-tcp", "0", "--what", "1", bad], 64, "--what")]:
            with self.subTest(text):
                done = subprocess.run([BIN / "orlin-sim", *map(str, words)], capture_output=True, timeout=LIMIT)
                self.assertEqual(done.returncode, code)
                self.assertIn(text.encode(), done.stderr)

    def test_bundle(self):
        """The bundle's runtime takes what it would take for the real daemon."""
        java = BUNDLE / "Contents/PlugIns/jdk1.8.0_131.jdk/Contents/Home/jre/bin/java"
        process = self.start(java, "-Xmx64m", "-Dpluginroot=x", "-Dpluginmask=", "-noverify", "-jar",
                             BUNDLE / "Contents/Java/orlin-Daemon.jar", "-ffpath", BUNDLE.parent / "tools", "-tcp", "0",
                             "-web", "0", self.project())
        port = int(process.stdout.readline().split()[-1])
        client = Client(self, port)
        self.assertEqual(client.ask("getProject")["data"]["name"], "Studio")
        self.assertIsNone(client.ask("quit")["data"])
        self.assertEqual(process.wait(LIMIT), 0)
        self.assertRegex(process.stdout.read(), rb"^web clients on port \d+$")
        self.assertTrue((BUNDLE.parent / "tools").is_dir())
        self.assertEqual(subprocess.run([java, "-version"], stderr=subprocess.DEVNULL).returncode, 1)


if __name__ == "__main__":
    unittest.main()
