"""orlin-sim's page in a real browser, with clients of the command port beside it."""

import json
import pathlib
import socket
import unittest

from browser import Browser
from support import BIN, LIMIT, ToolTest, eventually, port as described, qelnk
from test_sim import Client

SAMPLE = pathlib.Path(__file__).resolve().parents[2] / "tools" / "orlin-sim" / "sample.prj"
CLOCK = '[data-workflow="w-clock"]'


def row(id):
    return f"[data-port={json.dumps(id)}]"


def labelled(label):
    return f"[aria-label={json.dumps(label)}]"


class Page(ToolTest):
    def setUp(self):
        super().setUp()
        self.browser = Browser(self)
        self.browser.size(1000, 800)

    def page(self, project=SAMPLE):
        """A simulator, its command port and its web port, and the page in the browser."""
        sim, port, web = self.web(project)
        self.browser.open(f"http://localhost:{web}/")
        self.assertTrue(self.browser.sees("#connection", "Connected"))
        return sim, port, web

    def listens(self, web):
        """Starts a simulator whose web port has been used before, which somebody may have for a moment."""
        self.start(BIN / "orlin-sim", "-ffpath", "tools", "-tcp", "0", "-web", str(web), SAMPLE).stdout.readline()
        try:
            socket.create_connection(("127.0.0.1", web)).close()
        except ConnectionRefusedError:
            return False
        return True

    def set(self, label, text):
        self.browser.type(labelled(label), text)
        self.browser.click(labelled(f"Set {label}"))
        self.assertTrue(eventually(lambda: not self.browser.look("document.querySelector('[aria-busy=true]')?.tagName")))

    def test_the_whole_project_is_there(self):
        self.page()
        project = json.loads(SAMPLE.read_text())
        ports = [port for workflow in project["workflows"] for port in workflow["ports"]]
        self.assertEqual(self.browser.text("h1"), project["name"])
        self.assertEqual(self.browser.texts("h2"), [workflow["name"] for workflow in project["workflows"]])
        kinds = [f"{port['name']}{port['portType']} · {port['portValueType']} · {port['id']}" for port in ports]
        self.assertEqual(self.browser.texts("li .name"), kinds)
        unnamed = "[...document.querySelectorAll('input, textarea, button')].filter(e => !e.getAttribute('aria-label') && e.id !== 'run')"
        self.assertEqual(self.browser.look(unnamed + ".length"), 0)
        for width in (320, 1000):
            self.browser.size(width, 700)
            self.assertLessEqual(self.browser.look("document.documentElement.scrollWidth"), width)
        colours = []
        for scheme in ("light", "dark"):
            self.browser.call("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": scheme}])
            colours.append(self.browser.look("getComputedStyle(document.body).backgroundColor"))
        self.assertNotEqual(*colours)
        self.assertEqual(self.browser.problems, [])

    def test_inputs_of_every_type_reach_clients(self):
        _, port, _ = self.page()
        client = Client(self, port)
        kinds = ("bool", "trig", "int", "long", "indx", "doub", "str", "arry", "colr", "imag", "tico", "strc", "bytb")
        for kind in kinds:
            client.ask("registerPortUpdate", {"id": f"out-{kind}"})
        picture = self.folder / "logo"
        picture.write_bytes(b"\0\1\xff")
        self.browser.click(labelled("Mute of Types"))
        self.assertEqual(client.push(), ("out-bool", True))
        self.browser.click(labelled("Trigger Take of Types"))
        self.assertEqual(client.push(), ("out-trig", True))
        for kind, label, text, value in [
                ("int", "Channel", "-12", -12), ("long", "Media position", "-9007199254740995", -9007199254740995),
                ("indx", "Preset", "3", 3), ("doub", "Level", "0.25", 0.25), ("doub", "Level", "-1e3", -1000.0),
                ("doub", "Level", "-inf", float("-inf")),
                ("str", "Title", 'Späte "Nachrichten"\n2', 'Späte "Nachrichten"\n2'),
                ("arry", "Playlist", '[1, ["two"]]', [1, ["two"]]), ("colr", "Background", "#00ff7f", "#00ff7f"),
                ("tico", "In point", "10:00:01:00 25", "10:00:01:00 25"), ("strc", "Layout", '{"x": null}', {"x": None}),
                ("bytb", "Subtitles", '{"$data": "AAEC"}', b"\0\1\2")]:
            with self.subTest(label):
                self.set(f"{label} of Types", text)
                self.assertEqual(client.push(), (f"out-{kind}", value))
        self.assertTrue(self.browser.sees(row("out-long") + " .value", "-9007199254740995"), "beyond 53 bits, and exact")
        self.browser.choose(labelled("file for Logo of Types"), picture)
        self.assertTrue(eventually(lambda: self.browser.look(f"document.querySelector({json.dumps(labelled('Logo of Types'))}).value")
                                   == '{"$data":"AAH/"}'))
        self.browser.click(labelled("Set Logo of Types"))
        self.assertEqual(client.push(), ("out-imag", b"\0\1\xff"))
        self.assertTrue(self.browser.sees(row("out-imag") + " .value", "3 bytes"))
        self.assertEqual(self.browser.problems, [])

    def test_what_does_not_fit_is_said(self):
        self.page()
        for id, label, text, problem in [("in-doub", "Level", "loud", "a number"), ("in-int", "Channel", "4294967296", "32 bits"),
                                         ("in-arry", "Playlist", "{}", "a list"), ("in-str", "Title", "x" * 1100000, "1 MiB")]:
            with self.subTest(label):
                self.set(f"{label} of Types", text)
                self.assertTrue(self.browser.sees(row(id) + " .bad", problem))
        self.set("Level of Types", "0.75")
        self.assertTrue(self.browser.sees(row("out-doub") + " .value", "0.75"))
        self.assertEqual(self.browser.text(row("in-doub") + " .bad"), "")

    def test_what_is_typed_meanwhile_stays(self):
        _, port, _ = self.page()
        client = Client(self, port)
        title = f"document.querySelector({json.dumps(labelled('Title of Types'))})"
        self.browser.look(f"""(() => {{
            const field = {title}, type = text => {{ field.value = text; field.dispatchEvent(new Event('input')); }};
            type('first');
            field.form.requestSubmit();
            type('second');
        }})()""")
        self.assertTrue(self.browser.sees(row("out-str") + " .value", "first"))
        client.ask("setPortValue", {"id": "in-str", "value": "third"})
        self.assertTrue(self.browser.sees(row("in-str") + " .value", "third"))
        self.assertEqual(self.browser.look(title + ".value"), "second")
        self.browser.click(labelled("Set Title of Types"))
        self.assertTrue(self.browser.sees(row("out-str") + " .value", "second"))
        self.browser.click(labelled("Title of Types"))
        client.ask("setPortValue", {"id": "in-str", "value": "fourth"})
        self.assertTrue(self.browser.sees(row("in-str") + " .value", "fourth"))
        self.assertEqual(self.browser.look(title + ".value"), "second", "somebody is about to type there")
        self.browser.click("h1")
        self.assertTrue(eventually(lambda: self.browser.look(title + ".value") == "fourth"))

    def test_a_file_that_is_too_large(self):
        self.page()
        large = self.folder / "large"
        large.write_bytes(bytes(1 << 20))
        self.browser.choose(labelled("file for Logo of Types"), large)
        self.assertTrue(self.browser.sees(row("in-imag") + " .bad", "768 KiB"))

    def test_live_beside_qelnk(self):
        _, port, _ = self.page()
        daemon = ("daemon", "--connect", f"localhost:{port}")
        watcher = self.start(BIN / "qelnk", *daemon, "--json", "watch", "Followers", "Meter", "--count", "1")
        client = Client(self, port)

        def arrives():  # again and again: nothing tells when the watcher has registered
            client.ask("setPortValue", {"id": "in-doub", "value": 0.5})
            self.set("Level of Types", "0.375")
            return watcher.poll() is not None

        self.assertTrue(eventually(arrives))
        event = json.loads(self.finish(watcher).out)
        self.assertEqual(event["port"], "Meter")
        self.assertEqual(qelnk(*daemon, "set", "Types", "Level", "0.125").code, 0)
        for id in ("in-doub", "out-doub"):
            self.assertTrue(self.browser.sees(row(id) + " .value", "0.125"))
        self.assertEqual(self.browser.look(f"document.querySelector({json.dumps(labelled('Level of Types'))}).value"), "0.125")

        self.assertEqual(self.browser.text(row("out-frames") + " .value"), "0")
        self.browser.click(labelled("Start Clock"))
        self.assertTrue(self.browser.sees(f"{CLOCK} .good", "executing"))
        self.assertTrue(eventually(lambda: int(self.browser.text(row("out-frames") + " .value")) >= 3))
        self.assertEqual([w["status"] for w in client.ask("getWorkflows")["data"]], [False, False, True])
        client.ask("stopWorkflow", {"id": "w-clock"})
        self.assertTrue(self.browser.sees(CLOCK, "idle"))
        self.browser.click("#run")
        self.assertTrue(self.browser.sees("#state", "running"))
        self.assertTrue(self.browser.sees('[data-workflow="w-types"] .good', "executing"))
        client.ask("stopProject")
        self.assertTrue(self.browser.sees("#state", "stopped"))
        client.ask("openProject", {"name": str(self.project())})
        self.assertTrue(self.browser.sees("h1", "Studio"))
        self.assertEqual(self.browser.texts("h2"), ["Mixer", "Clock"])

    def test_it_comes_back_by_itself(self):
        sim, _, web = self.page()
        self.browser.type(labelled("Title of Types"), "half typed")
        sim.terminate()
        self.assertEqual(sim.wait(LIMIT), 0)
        self.assertTrue(self.browser.sees("#connection", "Disconnected"))
        self.assertTrue(self.browser.look("document.querySelector('[type=submit]').matches(':disabled')"))
        self.assertTrue(eventually(lambda: self.listens(web)))
        self.assertTrue(self.browser.sees("#connection", "Connected"))
        self.browser.click(labelled("Set Title of Types"))
        self.assertTrue(self.browser.sees(row("out-str") + " .value", "half typed"))

    def test_hostile_names_are_harmless(self):
        attack = "</script><img src=x onerror='hacked = 1'><script>hacked = 1</script>\" {{nonce}} ]&"
        ports = [described(attack + "in", attack, "input", "str_", attack),
                 described(attack + "out", attack, "output", "str_", attack, follow=attack + "in"),
                 described("__proto__", "constructor", "input", "colr", attack)]
        self.page(self.project(name=attack, workflows=[{"id": attack, "name": attack, "ports": ports}]))
        self.assertEqual((self.browser.text("h1"), self.browser.text("h2")), (attack, attack))
        self.set(f"{attack} of {attack}", attack + "2")
        self.assertTrue(self.browser.sees(row(attack + "out") + " .value", attack + "2"))
        self.browser.click(labelled(f"Start {attack}"))
        self.assertTrue(self.browser.sees("section .good", "executing"))
        self.assertEqual(self.browser.look("[typeof hacked, document.images.length, document.scripts.length]"),
                         ["undefined", 0, 1])
        self.assertEqual(self.browser.problems, [])


if __name__ == "__main__":
    unittest.main()
