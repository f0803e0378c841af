"""What the tests of the tools share: running the programs, and peers on the other end of the wire."""

import array
import collections
import fcntl
import json
import os
import pathlib
import shutil
import subprocess
import tempfile
import termios
import threading
import time
import unittest

import msgpack
import zmq

BIN = pathlib.Path(os.environ["QELNK_BIN"])
BUNDLE = BIN / "Orlin Daemon" / "orlin Daemon.app"
SLOW = "QELNK_SANITIZED" in os.environ
LIMIT = 360 if SLOW else 60  # seconds, after which something hangs
SHORT = "2" if SLOW else "0.3"  # a time-out that is waited for; nothing may depend on what happens within it
AMPLE = "12" if SLOW else "2"  # the same, where everything that answers has to do so within it

Result = collections.namedtuple("Result", "code out err")


def qelnk(*words, input=b"", env=None):
    """Runs qelnk to its end."""
    if isinstance(input, str):
        input = input.encode()
    done = subprocess.run([BIN / "qelnk", *map(str, words)], input=input, capture_output=True, timeout=LIMIT,
                          env={**os.environ, **(env or {})})
    return Result(done.returncode, done.stdout, done.stderr.decode())


def events(result, name=None):
    found = [json.loads(line) for line in result.out.splitlines()]
    return [event for event in found if name in (None, event["event"])]


def eventually(condition):
    end = time.monotonic() + LIMIT
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.01)
    return True


def state_of(pid):
    """The letter of the process's state, "Z" also for one that is gone."""
    try:
        return pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0]
    except OSError:
        return "Z"


def is_running(pid):
    return state_of(pid) != "Z"


def port_of(pid):
    """The command port of a daemon."""
    words = pathlib.Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")
    return int(words[words.index(b"-tcp") + 1])


def daemons_of(folder):
    """The processes that have a project file of that folder on their command line."""
    found = []
    for entry in pathlib.Path("/proc").iterdir():
        if entry.name.isdigit():
            try:
                words = (entry / "cmdline").read_bytes().split(b"\0")
            except OSError:
                continue
            if b"-ffpath" in words and any(word.startswith(os.fsencode(folder)) for word in words):
                found.append(int(entry.name))
    return [pid for pid in found if is_running(pid)]


class ToolTest(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="qelnk-test-"))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)

    def start(self, *command, env=None):
        """Starts a program, which is ended with the test."""
        process = subprocess.Popen([str(word) for word in command], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, env={**os.environ, **(env or {})})
        self.addCleanup(self.end, process)
        return process

    def feed(self, process, input):
        """Gives a program input, and returns when it has taken it. By then it has its signal handlers; under the thread
        sanitizer a signal that comes while they are being installed can get lost."""
        process.stdin.write(input)
        process.stdin.flush()
        left = array.array("i", [0])
        self.assertTrue(eventually(lambda: fcntl.ioctl(process.stdin, termios.FIONREAD, left) == 0 and left[0] == 0))

    @staticmethod
    def end(process):
        if process.poll() is None:
            process.kill()
        process.wait()
        for stream in (process.stdin, process.stdout, process.stderr):
            stream.close()

    def finish(self, process):
        out, err = process.communicate(timeout=LIMIT)
        return Result(process.returncode, out, err.decode())

    def project(self, file="Studio.prj", **changes):
        """Writes a project file and returns its path."""
        path = self.folder / file
        path.write_text(json.dumps({**PROJECT, **changes}))
        return path

    def sim(self, project=None, *faults):
        """Starts a simulated daemon and returns its process and port."""
        process = self.start(BIN / "orlin-sim", "-ffpath", "tools", "-tcp", "0", *faults, project or self.project())
        line = process.stdout.readline().decode()
        self.assertRegex(line, r"^listening on port \d+$")
        return process, int(line.split()[-1])

    def web(self, project=None):
        """The same with its web server; returns that port, too."""
        process, port = self.sim(project, "-web", "0")
        line = process.stdout.readline().decode()
        self.assertRegex(line, r"^web clients on port \d+$")
        return process, port, int(line.split()[-1])


def port(id, name, direction, type, value, **more):
    return {"id": id, "name": name, "portType": direction, "portValueType": type, "value": value, **more}


PROJECT = {
    "name": "Studio",
    "note": "not known to the daemon",
    "workflows": [
        {"id": "w1", "name": "Mixer", "execute": True, "ports": [
            port("p1", "Level", "input", "doub", 0.5),
            port("p2", "Meter", "output", "doub", 0.5, follow="p1"),
            port("p3", "Take", "input", "trig", False),
            port("p4", "Mute", "input", "bool", False),
            port("p5", "Muted", "output", "bool", False, follow="p4"),
            port("p6", "Title", "input", "str_", "Untitled"),
            port("p7", "Names", "input", "arry", ["a", 1]),
            port("p8", "Colour", "input", "colr", None)]},
        {"id": "w2", "name": "Clock", "ports": [
            port("p9", "Frames", "output", "int_", 0, every=20)]},
    ],
}


class Peer(threading.Thread):
    """A ZeroMQ socket of our own on a free port, which hands each message to a function that returns the answers."""

    def __init__(self, test, type, answer):
        super().__init__(daemon=True)
        self.answer = answer
        self.messages = []
        self.context = zmq.Context()
        self.socket = self.context.socket(type)
        self.socket.linger = 0
        self.port = self.socket.bind_to_random_port("tcp://127.0.0.1")
        self.stopped = threading.Event()
        test.addCleanup(self.stop)
        self.start()

    def run(self):
        while not self.stopped.is_set():
            if self.socket.poll(20):
                frames = self.socket.recv_multipart()
                self.messages.append(frames[-1])
                for answer in self.answer(frames[-1]):
                    self.socket.send_multipart(frames[:-1] + [answer])
        self.socket.close()
        self.context.term()

    def stop(self):
        self.stopped.set()
        self.join()


class FakeDaemon(Peer):
    """A daemon that answers with a small mirror unless `override`, which gets each request, returns answers."""

    MIRROR = {
        "getProject": {"name": "Fake", "file": "/fake.prj", "status": False},
        "getWorkflows": [{"id": "w", "name": "Flow", "status": False, "execute": True}],
        "getExposedPorts": {"data": [port("in", "In", "input", "int_", 1), port("go", "Go", "input", "trig", False),
                                     port("on", "On", "input", "bool", False), port("out", "Out", "output", "int_", 0),
                                     port("more", "More", "output", "int_", 0)]},
    }

    def __init__(self, test, override=lambda request: None):
        self.override = override
        super().__init__(test, zmq.ROUTER, self.respond)

    def respond(self, payload):
        request = msgpack.unpackb(payload)
        answers = self.override(request)
        if answers is None:
            command = request["command"]
            data = self.MIRROR.get(command)
            if command == "setPortValue":
                data = {"value": request["data"]["value"]}
            answers = [reply(request, data)] if command != "quit" else []
        return [msgpack.packb(answer) for answer in answers]

    @property
    def requests(self):
        return [msgpack.unpackb(message) for message in self.messages]

    def sent(self):
        """The commands after the mirror's, with their data."""
        return [(request["command"], request.get("data")) for request in self.requests[3:]]


def reply(request, data, **more):
    return {"messageID": request["messageID"], "data": data, **more}


def push(id, value):
    return {"command": "portValueUpdate", "data": {"id": id, "value": value}}

