"""The examples that want a daemon, a web server or service discovery."""

import json
import os
import pathlib
import socket
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "tests" / "tools"))
from avahi import Discovery
from support import BUNDLE, ToolTest, daemons_of, qelnk

EXAMPLES = pathlib.Path(os.environ["QELNK_EXAMPLES"])
PROJECT = ROOT / "examples" / "studio.prj"


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Examples(ToolTest):
    def run_example(self, name, *words, env=None):
        result = self.finish(self.start(EXAMPLES / name, *words, env=env))
        return result.code, result.out.decode(), result.err

    def test_drive_daemon(self):
        code, out, err = self.run_example("drive_daemon", BUNDLE, self.copy_of_project(), free_port())
        self.assertEqual(code, 0, err)
        self.assertEqual(out.splitlines()[-1], "Meter is now 0.750000")
        self.assertEqual(daemons_of(self.folder), [])

        other = self.project(workflows=[])
        self.assertEqual(self.run_example("drive_daemon", BUNDLE, other, free_port())[0], 1)
        self.assertEqual(self.run_example("drive_daemon", self.folder, other, free_port())[0], 1)

    def copy_of_project(self):
        return self.project(**json.loads(PROJECT.read_text()))

    def test_web_socket(self):
        sim, port = self.sim(self.copy_of_project(), "-web", "0")
        web = int(sim.stdout.readline().split()[-1])
        self.assertEqual(qelnk("daemon", "--connect", f"localhost:{port}", "start-workflow", "Clock").code, 0)
        code, out, err = self.run_example("web_socket", f"ws://localhost:{web}")
        self.assertEqual((code, out.splitlines()[0]), (0, "open"), err)
        messages = [json.loads(line) for line in out.splitlines()[1:4]]
        for answer in (m for m in messages if "messageID" in m):
            self.assertEqual((answer["messageID"], answer["data"]["name"]), (1, "Studio"))
        numbers = [m["data"]["value"] for m in messages if "messageID" not in m]
        self.assertEqual(numbers, list(range(numbers[0], numbers[0] + len(numbers))))

        self.assertEqual(self.run_example("web_socket", f"ws://localhost:{free_port()}")[0], 1)

    def test_discovery(self):
        code, out, err = self.run_example("discovery", env=Discovery(self).env)
        self.assertEqual(code, 0, err)
        self.assertEqual([out.splitlines()[n] for n in (0, -1)], ['published as "Studio A"', "its room is 12"])

    def test_discovery_says_that_there_is_none(self):
        process = self.start(EXAMPLES / "discovery", env={"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={self.folder}/none"})
        self.assertTrue(any(b"avahi-daemon: is it running?" in line for line in process.stderr))


if __name__ == "__main__":
    unittest.main()
