"""daemon and demo: against a daemon of Python's that shows each request, and against orlin-sim."""

import json
import os
import pathlib
import signal
import socket
import subprocess
import time
import unittest

from support import (AMPLE, BIN, LIMIT, PROJECT, SHORT, SLOW, FakeDaemon, ToolTest, daemons_of, eventually, events,
                     is_running, port, port_of, push, qelnk, reply, state_of)


class OnTheWire(ToolTest):
    """What the verbs send, and how they take answers that no real daemon should give."""

    def drive(self, daemon, *words, **options):
        return qelnk("daemon", "--connect", f"127.0.0.1:{daemon.port}", *words, **options)

    def test_requests(self):
        value = {"id": "in", "value": -5}
        for words, sent in [
                (["show"], []),
                (["start"], [("startProject", None), ("getWorkflows", None)]),
                (["stop"], [("stopProject", None), ("getWorkflows", None)]),
                (["start-workflow", "Flow"], [("startWorkflow", {"id": "w"})]),
                (["stop-workflow", "Flow"], []),
                (["set", "Flow", "In", "-5"], [("setPortValue", value)]),
                (["set", "w", "in", '{"$data":"AA=="}', "In", "text"],
                 [("setPortValue", {"id": "in", "value": b"\0"}), ("setPortValue", {"id": "in", "value": "text"})]),
                (["set", "Flow", "--", "In", "--x"], [("setPortValue", {"id": "in", "value": "--x"})]),
                (["trigger", "Flow", "Go"], [("setPortValue", {"id": "go", "value": True})]),
                (["trigger", "Flow", "On"],
                 [("setPortValue", {"id": "on", "value": True}), ("setPortValue", {"id": "on", "value": False})]),
                (["load", "x.prj"], [("openProject", {"name": "x.prj"}), ("getProject", None), ("getWorkflows", None),
                                     ("getExposedPorts", {"id": "w"})]),
                (["save"], [("saveProject", {"name": "/fake.prj"})]),
                (["save", "y.prj"], [("saveProject", {"name": "y.prj"})]),
                (["quit"], [("quit", None)])]:
            with self.subTest(words):
                daemon = FakeDaemon(self)
                result = self.drive(daemon, *words)
                self.assertEqual((result.code, result.err), (0, ""))
                self.assertTrue(eventually(lambda: daemon.sent() == sent), daemon.sent())
                commands = [request["command"] for request in daemon.requests[:3]]
                self.assertEqual(commands, ["getProject", "getWorkflows", "getExposedPorts"])
                for number, request in enumerate(daemon.requests):
                    self.assertEqual(request["messageID"], number)
                    self.assertIsInstance(request["timestamp"], float)
                    self.assertAlmostEqual(request["timestamp"], time.time() * 1000, delta=60_000)

    def test_ports_by_identifier(self):
        """Of several ports with one name, and of ports without any, the one that was asked for."""
        ports = [port("in", "Same", "input", "int_", 0), port("go", "Same", "input", "trig", False),
                 port("on", None, "input", "bool", False), port("out", "Same", "output", "int_", 0),
                 port("more", "Same", "output", "int_", 0), port("last", None, "output", "int_", 0)]

        def respond(request):
            if request["command"] == "getExposedPorts":
                return [reply(request, {"data": ports})]
            if request["command"] == "registerPortUpdate" and request["data"]["id"] == "last":
                return [reply(request, None), push("in", 1), push("last", 2)]
            return None

        for words, shown, sent in [
                (["trigger", "Flow", "go"], [("go", True)], [("setPortValue", {"id": "go", "value": True})]),
                (["trigger", "Flow", "on"], [("on", False)],
                 [("setPortValue", {"id": "on", "value": True}), ("setPortValue", {"id": "on", "value": False})]),
                (["watch", "Flow", "more", "--for", "0.01"], [],
                 [(command, {"id": "more"}) for command in ("registerPortUpdate", "unregisterPortUpdate")]),
                (["watch", "Flow", "last", "--count", "1"], [("last", 2)],
                 [(command, {"id": "last"}) for command in ("registerPortUpdate", "unregisterPortUpdate")])]:
            with self.subTest(words):
                daemon = FakeDaemon(self, respond)
                result = self.drive(daemon, *words, "--json")
                self.assertEqual((result.code, result.err), (0, ""))
                self.assertEqual([(e.get("id", e.get("port")), e["value"]) for e in events(result)], shown)
                self.assertEqual(daemon.sent(), sent)

    def test_watch_prints_each_push(self):
        """A burst, with a push for a port that nobody watches; what is printed is each value, not the latest."""
        def burst(request):
            if request["command"] != "registerPortUpdate" or request["data"]["id"] != "more":
                return None
            return [reply(request, None)] + [push("more", 9), push("other", 1)] + [push("out", n) for n in range(50)]
        daemon = FakeDaemon(self, burst)
        result = self.drive(daemon, "watch", "Flow", "Out", "More", "--count", "50", "--json")
        self.assertEqual((result.code, result.err), (0, ""))
        expected = [("More", 9)] + [("Out", n) for n in range(49)]
        self.assertEqual([(e["port"], e["value"]) for e in events(result, "update")], expected)
        self.assertEqual(sorted((c, d["id"]) for c, d in daemon.sent()),
                         [("registerPortUpdate", "more"), ("registerPortUpdate", "out"),
                          ("unregisterPortUpdate", "more"), ("unregisterPortUpdate", "out")])

    def test_silence(self):
        for silent, words in [("getProject", ["show"]), ("getExposedPorts", ["show"]), ("setPortValue", ["set", "Flow", "In", "1"]),
                              ("startWorkflow", ["start-workflow", "Flow"]), ("openProject", ["load", "x"]),
                              ("saveProject", ["save"]), ("registerPortUpdate", ["watch", "Flow", "Out"])]:
            with self.subTest(silent):
                daemon = FakeDaemon(self, lambda request: [] if request["command"] == silent else None)
                result = self.drive(daemon, *words, "--timeout", SHORT)
                self.assertEqual((result.code, result.out), (69, b""))
                self.assertRegex(result.err, rf"(?m)^qelnk: no answer from 127.0.0.1:\d+ within {SHORT} s$")

    def test_nobody_there(self):
        with socket.socket() as closed:
            closed.bind(("127.0.0.1", 0))
            result = qelnk("daemon", "--connect", f"127.0.0.1:{closed.getsockname()[1]}", "show", "--timeout", SHORT)
        self.assertEqual(result.code, 69)

    def test_refusals(self):
        for command, answer, words, text in [
                ("setPortValue", {"data": None}, ["set", "Flow", "In", "1"], "not confirm"),
                ("setPortValue", {"data": None, "error": "too loud"}, ["set", "Flow", "In", "1"], "too loud"),
                ("openProject", {"error": "no such file"}, ["load", "x"], "no such file"),
                ("startProject", {"data": None, "error": "busy"}, ["start"], "busy")]:
            with self.subTest(text):
                daemon = FakeDaemon(self, lambda request: [{"messageID": request["messageID"], **answer}]
                                    if request["command"] == command else None)
                result = self.drive(daemon, *words)
                self.assertEqual((result.code, result.out), (1, b""))
                self.assertIn(text, result.err)

    def test_unknown_names_send_nothing(self):
        for words, named in [(["start-workflow", "Nope"], "Nope"), (["set", "Flow", "Nope", "1"], "Nope"),
                             (["set", "Flow", "In", "1", "Nope", "1"], "Nope"), (["trigger", "Flow", "In"], "int_"),
                             (["watch", "Flow", "In"], "input")]:
            with self.subTest(words):
                daemon = FakeDaemon(self)
                result = self.drive(daemon, *words)
                self.assertEqual((result.code, result.out, daemon.sent()), (1, b"", []))
                self.assertIn(named, result.err)

    def test_signal_in_the_middle(self):
        daemon = FakeDaemon(self, lambda request: [] if request["command"] == "startProject" else None)
        process = self.start(BIN / "qelnk", "daemon", "--connect", f"127.0.0.1:{daemon.port}", "start")
        self.assertTrue(eventually(lambda: daemon.sent()))
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(LIMIT), 1)


class WithSimulator(ToolTest):
    def drive(self, port, *words, **options):
        return qelnk("daemon", "--connect", f"localhost:{port}", *words, **options)

    def test_show(self):
        _, port = self.sim()
        shown = events(self.drive(port, "show", "--json"))
        file = str(self.folder / "Studio.prj")
        self.assertEqual(shown[0], {"event": "project", "name": "Studio", "file": file, "running": False})
        self.assertEqual([e for e in shown if e["event"] == "workflow"],
                         [{"event": "workflow", "id": "w1", "name": "Mixer", "executing": False, "executeOnRun": True},
                          {"event": "workflow", "id": "w2", "name": "Clock", "executing": False, "executeOnRun": False}])
        ports = {e["id"]: e for e in shown if e["event"] == "port"}
        self.assertEqual(list(ports), [p["id"] for w in PROJECT["workflows"] for p in w["ports"]])
        self.assertEqual(ports["p1"], {"event": "port", "workflow": "Mixer", "id": "p1", "name": "Level",
                                       "direction": "input", "valueType": "doub", "value": 0.5, "text": "0.500000"})
        self.assertEqual([(ports[id]["value"], ports[id]["text"]) for id in ("p3", "p6", "p7", "p8", "p9")],
                         [(False, "F"), ("Untitled", "Untitled"), (["a", 1], ""), (None, ""), (0, "0")])
        text = self.drive(port, "show").out.decode()
        lines = text.splitlines()
        self.assertIn("Studio", lines[0])
        self.assertLess(text.index("Mixer"), text.index("Level"))
        columns = {line.index(type) for line in lines for type in ("doub", "trig", "str_", "arry", "colr") if type in line}
        self.assertEqual(len(columns), 1, "the columns of a workflow's ports are aligned")

    def test_verbs(self):
        _, port = self.sim()
        self.assertTrue(events(self.drive(port, "start", "--json"))[0]["running"])
        self.assertTrue(events(self.drive(port, "show", "--json"), "workflow")[0]["executing"])
        self.assertFalse(events(self.drive(port, "stop-workflow", "Mixer", "--json"))[0]["executing"])
        self.assertTrue(events(self.drive(port, "--json", "start-workflow", "w2"))[0]["executing"])
        result = self.drive(port, "set", "Mixer", "Level", "-0.25", "Title", "Evening news", "p7", "[1.5]", "--json")
        self.assertEqual([(e["event"], e["name"], e["value"]) for e in events(result)],
                         [("port", "Level", -0.25), ("port", "Title", "Evening news"), ("port", "Names", [1.5])])
        self.assertTrue(events(self.drive(port, "trigger", "Mixer", "Take", "--json"))[0]["value"])
        self.assertFalse(events(self.drive(port, "trigger", "Mixer", "Mute", "--json"))[0]["value"])
        self.assertEqual(self.drive(port, "set", "Mixer", "Names", "1").code, 1)
        counted = self.drive(port, "watch", "Clock", "Frames", "--count", "4", "--json")
        values = [e["value"] for e in events(counted, "update")]
        self.assertEqual(values, list(range(values[0], values[0] + 4)))
        self.assertFalse(events(self.drive(port, "stop", "--json"))[0]["running"])

    def test_load_and_save(self):
        _, port = self.sim()
        self.project("Other.prj", name="Other", workflows=[])
        self.drive(port, "set", "Mixer", "Level", "0.125")
        copy = events(self.drive(port, "save", "Copy.prj", "--json"))[0]
        self.assertEqual((copy["event"], copy["file"]), ("project", str(self.folder / "Copy.prj")))
        saved = json.loads((self.folder / "Copy.prj").read_text())
        self.assertEqual((saved["note"], saved["workflows"][0]["ports"][0]["value"]), (PROJECT["note"], 0.125))
        self.assertEqual(self.drive(port, "load", "Missing.prj").code, 1)
        self.assertEqual(events(self.drive(port, "load", "Other.prj", "--json"))[0]["name"], "Other")
        self.assertEqual(events(self.drive(port, "save", "--json"))[0]["file"], str(self.folder / "Other.prj"))
        shown = events(self.drive(port, "show", "--json"))
        self.assertEqual([e["event"] for e in shown], ["project"])
        self.assertEqual(self.drive(port, "save", "no/such/folder").code, 1)

    def test_watch_ends(self):
        _, port = self.sim()
        self.drive(port, "start-workflow", "Clock")
        self.assertEqual(self.drive(port, "watch", "Mixer", "Meter", "--for", "0.2").out, b"")
        for number in (signal.SIGINT, signal.SIGTERM):
            process = self.start(BIN / "qelnk", "daemon", "--connect", f"localhost:{port}", "watch", "Clock", "Frames")
            self.assertRegex(process.stdout.readline(), rb"^Clock +Frames +\d+\n$")
            process.send_signal(number)
            self.assertEqual(process.wait(LIMIT), 0)
        process = self.start(BIN / "qelnk", "daemon", "--connect", f"localhost:{port}", "watch", "Clock", "Frames")
        process.stdout.readline()
        process.stdout.close()  # nobody reads on
        self.assertEqual(process.wait(LIMIT), 1)
        self.assertEqual(process.stderr.read(), b"")

    def test_the_log_goes_to_standard_error(self):
        _, port = self.sim()
        self.drive(port, "start-workflow", "Clock")
        words = ["watch", "Clock", "Frames", "--count", "1"]
        self.assertEqual(self.drive(port, *words).err, "")
        self.assertIn("without matching message", self.drive(port, *words, "--log-level", "error").err)
        self.assertEqual(self.drive(port, *words, "--log-level", "off").err, "")
        self.assertIn("connect", self.drive(port, *words, "--log-level", "info").err)
        self.assertIn("getWorkflows", self.drive(port, "show", "--log-level", "debug").err)

    def test_quit(self):
        sim, port = self.sim()
        self.assertEqual(events(self.drive(port, "quit", "--json")), [{"event": "quit"}])
        self.assertEqual(sim.wait(LIMIT), 0)

    def test_shell(self):
        sim, port = self.sim()
        lines = r"""
            # a comment
            set Mixer Title "Late \"night\" \`news\` \$5 \n"   # and another
            set 'Mixer' Title 'a "b" \c' Level 0.75
            set Mixer Title ""
            set Nope Title x
            set Mixer 'Title
            watch Mixer
            shell
            trigger Mixer Take
            start-workflow Clock
            watch Clock Frames --count 2
            show"""
        result = self.drive(port, "shell", "--json", input=lines)
        self.assertEqual(result.code, 1)
        self.assertEqual([line.split(":")[1] for line in result.err.splitlines()], [" line 6", " line 7", " line 8", " line 9"])
        shown = [(e["event"], e.get("value")) for e in events(result)]
        self.assertEqual(shown[:5], [("port", r'Late "night" `news` $5 \n'), ("port", r'a "b" \c'), ("port", 0.75),
                                     ("port", ""), ("port", True)])
        self.assertEqual([e["event"] for e in events(result)][5:9], ["workflow", "update", "update", "project"])
        good = self.drive(port, "shell", input="help\nstart\nquit\n")
        self.assertEqual((good.code, good.err), (0, ""))
        self.assertIn("start-workflow WORKFLOW", good.out.decode())
        self.assertEqual(sim.wait(LIMIT), 0)

    def test_shell_goes_on_after_an_unanswered_line(self):
        daemon = FakeDaemon(self, lambda request: [] if request["command"] == "startProject" else None)
        result = self.drive(daemon.port, "shell", "--timeout", AMPLE, "--json", input="start\nset Flow In 2\nload x\n")
        self.assertEqual(result.code, 1)
        self.assertEqual([e["event"] for e in events(result)], ["port", "project"])
        self.assertIn("line 1: no answer", result.err)

    def test_workflows_that_the_project_starts_and_stops(self):
        _, port = self.sim()
        for lines in ("start\nstop-workflow Mixer\n", "start-workflow Mixer\nstop\nstart-workflow Mixer\n"):
            told = events(self.drive(port, "shell", "--json", input=lines), "workflow")[-1]["executing"]
            is_so = events(self.drive(port, "show", "--json"), "workflow")[0]["executing"]
            self.assertEqual((told, is_so), ("start-workflow" in lines,) * 2)

    def test_shell_and_signals(self):
        _, port = self.sim()
        process = self.start(BIN / "qelnk", "daemon", "--connect", f"localhost:{port}", "shell")
        process.stdin.write(b"start\n")
        process.stdin.flush()
        process.stdout.readline()
        process.terminate()
        self.assertEqual(process.wait(LIMIT), 0)


class Launched(ToolTest):
    def spawn(self, project, *words, **options):
        return qelnk("daemon", "--spawn", project, *words, **options)

    def test_verb_of_a_launched_daemon(self):
        project = self.project()
        result = self.spawn(project, "show", "--json")
        self.assertEqual((result.code, result.err), (0, ""))
        self.assertEqual(events(result)[0]["name"], "Studio")
        result = self.spawn(project, "shell", "--json", "--heap", "64",
                            input="start\nset Mixer Level 1.0\nwatch Clock Frames --for 0.1\n")
        self.assertEqual((result.code, result.err, [e["event"] for e in events(result)]), (0, "", ["project", "port"]))
        self.assertEqual(self.spawn(project, "quit", "--json").out, b'{"event":"quit"}\n')
        self.assertEqual(self.spawn(project, "start-workflow", "Nope").code, 1)
        self.assertEqual(daemons_of(self.folder), [])

    def test_keep(self):
        result = self.spawn(self.project(), "--keep", "show", "--json")
        kept = events(result, "kept")[0]
        self.addCleanup(subprocess.run, ["kill", str(kept["pid"])], stderr=subprocess.DEVNULL)
        self.assertEqual((result.code, list(kept)), (0, ["event", "port", "pid"]))
        self.assertEqual(daemons_of(self.folder), [kept["pid"]])
        self.assertEqual(qelnk("daemon", "--connect", f"localhost:{kept['port']}", "quit").code, 0)
        self.assertTrue(eventually(lambda: not is_running(kept["pid"])))

    def test_what_cannot_be_launched(self):
        broken = self.folder / "Broken.prj"
        broken.write_text("{")
        for words, code, text in [
                (["--spawn", self.folder / "Missing.prj", "show"], 1, "Missing.prj"),
                (["--spawn", broken, "show"], 1, "exit code 1"),
                (["--spawn", self.project(), "--bundle", self.folder, "show"], 71, "java")]:
            with self.subTest(text):
                result = qelnk("daemon", *words, "--timeout", 2 * LIMIT)
                self.assertEqual((result.code, result.out), (code, b""))
                self.assertIn(text, result.err)

    def test_taken_port(self):
        """Another daemon's port: that one is left alone."""
        sim, port = self.sim()
        result = self.spawn(self.project("Other.prj"), "--base-port", port, "quit")
        self.assertEqual(result, (1, b"", f"qelnk: port {port}: Address already in use\n"))
        self.assertEqual(qelnk("daemon", "--connect", f"localhost:{port}", "show").code, 0)
        self.assertIsNone(sim.poll())

    def test_what_the_daemon_is_given(self):
        with socket.socket() as free:
            free.bind(("", 0))
            port = free.getsockname()[1]
        project = self.project()
        result = self.spawn(project, "--base-port", port, "--web", "2", "--keep", "show", "--json")
        kept = events(result, "kept")[0]
        self.addCleanup(subprocess.run, ["kill", str(kept["pid"])])
        self.assertEqual(kept["port"], port)
        words = pathlib.Path(f"/proc/{kept['pid']}/cmdline").read_text().split("\0")
        self.assertEqual(words[words.index("-ffpath"):],
                         ["-ffpath", str(BIN / "Orlin Daemon/tools"), "-tcp", str(port), "-web", "2", str(project), ""])

    def test_signals_quit_the_daemon_first(self):
        process = self.start(BIN / "qelnk", "daemon", "--spawn", self.project(), "watch", "Clock", "Frames")
        self.assertTrue(eventually(lambda: daemons_of(self.folder)))
        port = port_of(daemons_of(self.folder)[0])
        qelnk("daemon", "--connect", f"localhost:{port}", "start-workflow", "Clock")
        self.assertRegex(process.stdout.readline(), rb"^Clock +Frames")
        process.terminate()
        self.assertEqual(process.wait(LIMIT), 0)
        self.assertEqual(daemons_of(self.folder), [])

        process = self.start(BIN / "qelnk", "daemon", "--spawn", self.project(), "shell")
        process.stdin.write(b"start\n")
        process.stdin.flush()
        self.assertIn(b"running", process.stdout.readline())
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(LIMIT), 0)
        self.assertEqual(daemons_of(self.folder), [])

    def test_signal_to_the_daemon_as_well(self):
        """As a terminal's Ctrl-C does; the daemon has ended before the tool gets to know of its own signal."""
        for words, line in [(["shell"], b"start\n"), (["watch", "Clock", "Frames"], b"")]:
            with self.subTest(words):
                process = self.start(BIN / "qelnk", "daemon", "--spawn", self.project(), *words)
                try:
                    process.stdin.write(line)
                    process.stdin.flush()
                    self.assertTrue(eventually(lambda: daemons_of(self.folder)))
                    daemon = daemons_of(self.folder)[0]
                    other = ["daemon", "--connect", f"localhost:{port_of(daemon)}"]
                    qelnk(*other, "start-workflow", "Clock")
                    process.stdout.readline()
                    qelnk(*other, "stop-workflow", "Clock")
                    self.assertTrue(eventually(lambda: state_of(process.pid) == "S"), "it waits")
                    process.send_signal(signal.SIGSTOP)
                    self.assertTrue(eventually(lambda: state_of(process.pid) == "T"))
                    for pid in (process.pid, daemon):
                        os.kill(pid, signal.SIGINT)
                    self.assertTrue(eventually(lambda: not is_running(daemon)))
                    process.send_signal(signal.SIGCONT)
                    result = self.finish(process)
                    self.assertEqual((result.code, result.err), (0, ""))
                finally:  # one that failed is not to be taken for the next one
                    process.kill()
                    for pid in daemons_of(self.folder):
                        os.kill(pid, signal.SIGKILL)

    def test_signal_while_connecting(self):
        process = self.start(BIN / "qelnk", "daemon", "--spawn", self.project(), "show",
                             env={"ORLIN_SIM_OPTIONS": "--drop-replies 1000"})
        self.assertTrue(eventually(lambda: daemons_of(self.folder)))
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(LIMIT), 1)
        self.assertEqual(daemons_of(self.folder), [])

    def test_daemons_that_fail(self):
        for options, verb, code, text in [("--drop-replies 1000", ["show", "--timeout", SHORT], 69, "no answer"),
                                          ("--exit-after 2", ["show"], 1, "has ended"),
                                          ("--exit-after 5", ["watch", "Mixer", "Meter"], 1, "has ended"),
                                          ("--exit-after 5", ["trigger", "Mixer", "Mute"], 1, "has ended"),
                                          ("--garbage-every 1", ["start"], 0, ""),
                                          ("--delay 50", ["start"], 0, "")]:
            with self.subTest(options):
                result = self.spawn(self.project(), *verb, env={"ORLIN_SIM_OPTIONS": options})
                self.assertEqual(result.code, code, result.err)
                self.assertIn(text, result.err)
                self.assertEqual(daemons_of(self.folder), [])

    def test_a_daemon_that_does_not_quit_is_terminated(self):
        bundle = self.folder / "Stubborn" / "daemon.app"
        java = bundle / "Contents/PlugIns/jdk1.8.0_131.jdk/Contents/Home/jre/bin/java"
        java.parent.mkdir(parents=True)
        java.write_text("#!/bin/sh\nexec sleep 1000\n")
        java.chmod(0o755)
        result = self.spawn(self.project(), "--bundle", bundle, "show", "--timeout", SHORT)
        self.assertEqual(result.code, 69)
        self.assertRegex(result.err, r"no answer(.|\n)*terminated")


class Demo(ToolTest):
    def test_demo(self):
        begun = time.monotonic()
        result = qelnk("demo", "--json", env={"TMPDIR": str(self.folder)})
        self.assertEqual((result.code, result.err), (0, ""))
        if not SLOW:
            self.assertLess(time.monotonic() - begun, 10)
        updates = [(e["port"], e["value"]) for e in events(result, "update")]
        for pushed in [("Meter", 0.75), ("Caption", "Evening news"), ("On air", True)]:
            self.assertIn(pushed, updates)
        self.assertGreaterEqual(len([1 for port, _ in updates if port == "Frames"]), 5)
        self.assertEqual(list(self.folder.iterdir()), [], "its project is gone")
        self.assertTrue([1 for step in events(result, "step") if "nothing is left running" in step["text"]])
        self.assertEqual(sorted(e["peer"]["appID"].split(".")[-1] for e in events(result, "ready")),
                         ["connect", "ingest", "playout", "playout"])
        self.assertEqual(sorted(e["text"] for e in events(result, "string")),
                         ["clip 7 is ingested", "on air: Evening news", "on air: Evening news", "take next"])
        blocks = events(result, "binary")
        self.assertEqual((len(blocks), blocks[0]), (2, blocks[1]))
        self.assertGreaterEqual(len(events(result, "heartbeat")), 6)
        self.assertEqual(len(events(result, "terminated")), 2)

    def test_demo_without_answers_fails(self):
        for options, words in [("--drop-replies 5", ["--timeout", SHORT]), ("--exit-after 8", [])]:
            result = qelnk("demo", *words, env={"TMPDIR": str(self.folder), "ORLIN_SIM_OPTIONS": options})
            self.assertEqual(result.code, 1)
            self.assertIn("did not happen", result.err)
            self.assertEqual(daemons_of(self.folder), [])


if __name__ == "__main__":
    unittest.main()
