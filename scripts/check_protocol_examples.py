#!/usr/bin/env python3
"""Checks the byte examples of docs/daemon-protocol.md: check_protocol_examples.py BUILD-FOLDER [--capture]

The bytes of each example have to be, to `qelnk unpack`, the JSON shown above them, and each command of the client has to have a
request among them. With --capture the examples are first taken anew: a client drives the simulated daemon through a proxy that
keeps what passes.
"""

import json
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
PAGE = ROOT / "docs/daemon-protocol.md"
PROJECT = {"name": "Show", "workflows": [{"id": "w1", "name": "Mixer", "execute": True, "ports": [
    {"id": "p1", "name": "Level", "portType": "input", "portValueType": "doub", "value": 0.0},
    {"id": "p2", "name": "Meter", "portType": "output", "portValueType": "doub", "value": 0.0, "follow": "p1"}]}]}
SCRIPT = ["start-workflow Mixer", "start", "set Mixer Level 0.5", "watch Mixer Meter --count 1 --for 8", "stop-workflow Mixer", "stop",
          "save copy.prj", "load show.prj", "quit"]


def unpacked(qelnk, message):
    return subprocess.run([qelnk, "unpack"], input=message, capture_output=True, check=True).stdout.decode().strip()


def dissected(message):
    """Lines "HEX  meaning" of the values in a message, containers and what they hold."""
    lines, at = [], 0

    def value(depth):
        nonlocal at
        first = message[at]
        size, text, inner = 1, "", 0
        if first <= 0x7F:
            text = str(first)
        elif first <= 0x8F:
            inner, text = 2 * (first & 15), f"map of {first & 15}"
        elif first <= 0x9F:
            inner, text = first & 15, f"list of {first & 15}"
        elif first <= 0xBF:
            size = 1 + (first & 31)
            text = json.dumps(message[at + 1:at + size].decode())
        elif first in (0xC0, 0xC2, 0xC3):
            text = {0xC0: "nil", 0xC2: "false", 0xC3: "true"}[first]
        elif first == 0xCB:
            size, text = 9, repr(struct.unpack(">d", message[at + 1:at + 9])[0])
        elif first == 0xD9:
            size = 2 + message[at + 1]
            text = json.dumps(message[at + 2:at + size].decode())
        else:
            raise ValueError(f"no example has had the form {first:02x} so far")
        lines.append((" " * (2 * depth) + message[at:at + size].hex(" "), text))
        at += size
        for _ in range(inner):
            value(depth + 1)

    value(0)
    assert at == len(message)
    width = min(62, max(len(left) for left, _ in lines))
    return [f"{left:<{width}}  # {right}" for left, right in lines]


def example(qelnk, kind, message):
    return "\n".join(["```text", f"{kind} {unpacked(qelnk, message)}", *dissected(message), "```"])


def passing_messages(binaries):
    """What passes between a client and the simulated daemon: (from the client?, bytes) in order."""
    import zmq
    folder = pathlib.Path("/tmp/studio")  # the page shows it
    folder.mkdir()
    try:
        (folder / "show.prj").write_text(json.dumps(PROJECT))
        daemon = subprocess.Popen([binaries / "orlin-sim", "-ffpath", ".", "-tcp", "0", "show.prj"], cwd=folder, stdout=subprocess.PIPE,
                                  text=True)
        port = int(daemon.stdout.readline().split()[-1])
        context = zmq.Context()
        front, back = context.socket(zmq.ROUTER), context.socket(zmq.DEALER)
        front_port = front.bind_to_random_port("tcp://127.0.0.1")
        back.connect(f"tcp://127.0.0.1:{port}")
        client = subprocess.Popen([binaries / "qelnk", "daemon", "--connect", f"localhost:{front_port}", "shell"], text=True,
                                  stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
        client.stdin.write("\n".join(SCRIPT) + "\n")
        client.stdin.close()
        messages, address = [], None
        poller = zmq.Poller()
        poller.register(front, zmq.POLLIN)
        poller.register(back, zmq.POLLIN)
        while client.poll() is None or poller.poll(0):
            for socket, _ in poller.poll(100):
                frames = socket.recv_multipart()
                if socket is front:
                    address = frames[0]
                    back.send(frames[-1])
                    if b"\xb2registerPortUpdate" in frames[-1]:  # somebody else makes it change
                        subprocess.Popen([binaries / "qelnk", "daemon", "--connect", f"localhost:{port}", "set", "Mixer", "Level", "0.75"],
                                         stdout=subprocess.DEVNULL)
                else:
                    front.send_multipart([address, frames[-1]])
                messages.append((socket is front, frames[-1]))
        context.destroy(linger=1000)
        daemon.wait(10)
    finally:
        shutil.rmtree(folder)
    return messages


def capture(binaries):
    qelnk = binaries / "qelnk"
    requests, replies, pushes = {}, {}, []
    for is_request, message in passing_messages(binaries):
        value = json.loads(unpacked(qelnk, message))
        if is_request:
            requests.setdefault(value["command"], (value["messageID"], message))
        elif "messageID" in value:
            replies[value["messageID"]] = message
        else:
            pushes.append(message)

    def filled(match):
        name = match.group(1)
        if name == "portValueUpdate":
            parts = [example(qelnk, "push", pushes[0])]
        else:
            identifier, request = requests[name]
            parts = [example(qelnk, "request", request)]
            if identifier in replies and name != "quit":
                parts.append(example(qelnk, "response", replies[identifier]))
        return f"<!-- bytes: {name} -->\n" + "\n\n".join(parts) + "\n<!-- end -->"

    PAGE.write_text(re.sub(r"<!-- bytes: (\w+) -->\n.*?<!-- end -->", filled, PAGE.read_text(), flags=re.DOTALL))


def check(qelnk):
    shown = set()
    count = 0
    for kind, text, block in re.findall(r"```text\n(request|response|push) (\{.*)\n((?:.*\n)*?)```", PAGE.read_text()):
        message = bytes.fromhex("".join(line.split("#")[0] for line in block.splitlines()))
        count += 1
        if unpacked(qelnk, message) != text:
            sys.exit(f"{PAGE.name}: these bytes are not what is shown:\n{text}\nbut\n{unpacked(qelnk, message)}")
        if kind != "response":
            shown.add(json.loads(text)["command"])
    sources = "".join(path.read_text() for path in (ROOT / "daemon").glob("*.cpp"))
    known = set(re.findall(r'"((?:get|start|stop|open|save|set|register|unregister)[A-Z]\w+|quit|portValueUpdate)"', sources))
    if shown != known:
        sys.exit(f"{PAGE.name}: examples {sorted(shown)}, but the client's commands are {sorted(known)}")
    print(f"{count} examples are what their bytes say, one at least for each of {len(known)} commands")


def main():
    binaries = pathlib.Path(sys.argv[1]).resolve() / "bin"
    if "--capture" in sys.argv:
        capture(binaries)
    check(os.fspath(binaries / "qelnk"))


if __name__ == "__main__":
    main()
