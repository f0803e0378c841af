"""A headless browser, driven over its own debugging pipe as a person would drive it: with a mouse and a keyboard."""

import base64
import json
import os
import pathlib
import select
import shutil
import subprocess
import tempfile
import time

from support import LIMIT, eventually


class Browser:
    def __init__(self, test):
        program = shutil.which("chromium-headless-shell") or shutil.which("chromium")
        if program is None:
            raise FileNotFoundError("no headless browser: scripts/setup.sh installs one")
        profile = tempfile.mkdtemp(prefix="qelnk-browser-")
        test.addCleanup(shutil.rmtree, profile, ignore_errors=True)
        commands, self.commands = os.pipe()
        self.answers, answers = os.pipe()
        # Without a sandbox, which neither the super-user nor every container has: the only page is this project's own.
        words = [program, "--no-sandbox", "--headless", "--remote-debugging-pipe", f"--user-data-dir={profile}", "--no-first-run",
                 "--disable-gpu", "--disable-dev-shm-usage", "--disable-background-networking", "about:blank"]
        # The browser takes commands from descriptor 3 and answers on descriptor 4.
        self.process = subprocess.Popen(["bash", "-c", f'exec "$@" 3<&{commands} 4>&{answers}', "bash", *words],
                                        pass_fds=(commands, answers), env={**os.environ, "HOME": profile},
                                        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        test.addCleanup(self.close)
        os.close(commands)
        os.close(answers)
        self.received, self.number, self.session = b"", 0, None
        self.problems = []  # what the page's script threw, and what the browser complained about
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Log"):
            self.call(f"{domain}.enable")

    def close(self):
        self.process.kill()
        self.process.wait()
        os.close(self.commands)
        os.close(self.answers)

    def call(self, method, **parameters):
        self.number += 1
        message = {"id": self.number, "method": method, "params": parameters}
        if self.session:
            message["sessionId"] = self.session
        os.write(self.commands, json.dumps(message).encode() + b"\0")
        end = time.monotonic() + LIMIT
        while True:
            answer = self.receive(end)
            if answer.get("id") == self.number:
                if "error" in answer:
                    raise RuntimeError(f"{method}: {answer['error']}")
                return answer["result"]
            if answer.get("method") == "Runtime.exceptionThrown":
                self.problems.append(answer["params"]["exceptionDetails"])
            elif answer.get("method") == "Log.entryAdded":
                self.problems.append(answer["params"]["entry"])

    def receive(self, end):
        while b"\0" not in self.received:
            if not select.select([self.answers], [], [], max(0, end - time.monotonic()))[0]:
                raise TimeoutError("the browser does not answer")
            chunk = os.read(self.answers, 1 << 16)
            if not chunk:
                raise EOFError("the browser has ended")
            self.received += chunk
        message, _, self.received = self.received.partition(b"\0")
        return json.loads(message)

    def open(self, url):
        self.call("Page.navigate", url=url)

    def size(self, width, height):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)

    def look(self, expression):
        """The value of an expression of the page's language."""
        result = self.call("Runtime.evaluate", expression=expression, returnByValue=True)
        if "exceptionDetails" in result:
            raise RuntimeError(str(result["exceptionDetails"]))
        return result["result"].get("value")

    def text(self, selector):
        return self.look(f"document.querySelector({json.dumps(selector)})?.textContent")

    def texts(self, selector):
        return self.look(f"[...document.querySelectorAll({json.dumps(selector)})].map(e => e.textContent)")

    def sees(self, selector, text):
        return eventually(lambda: text in (self.text(selector) or ""))

    def click(self, selector):
        place = self.look(f"""(() => {{
            const element = document.querySelector({json.dumps(selector)});
            element.scrollIntoView({{block: 'center', behavior: 'instant'}});
            const box = element.getBoundingClientRect();
            return [box.x + box.width / 2, box.y + box.height / 2];
        }})()""")
        for kind in ("mousePressed", "mouseReleased"):
            self.call("Input.dispatchMouseEvent", type=kind, x=place[0], y=place[1], button="left", clickCount=1)

    def type(self, selector, text):
        """Replaces what a field says."""
        self.click(selector)
        self.look("document.activeElement.select()")
        self.call("Input.insertText", text=text)

    def choose(self, selector, file):
        """Gives a file field a file."""
        found = self.call("Runtime.evaluate", expression=f"document.querySelector({json.dumps(selector)})")
        self.call("DOM.setFileInputFiles", files=[str(file)], objectId=found["result"]["objectId"])

    def picture(self, path):
        pathlib.Path(path).write_bytes(base64.b64decode(self.call("Page.captureScreenshot", format="png")["data"]))
