"""ws, against Python's WebSocket server, and orlin-sim's own server for WebSocket clients."""

import asyncio
import http.client
import json
import re
import signal
import socket
import ssl
import subprocess
import threading
import unittest

import websockets

from support import BIN, LIMIT, SHORT, ToolTest, eventually, events, port as described, qelnk
from test_sim import Client


class Server:
    """Serves connections with a coroutine, on a thread of its own, until the test ends."""

    def __init__(self, test, serve, tls=None):
        self.messages = []
        started = threading.Event()

        async def main():
            self.loop, self.end = asyncio.get_running_loop(), asyncio.Event()

            async def handler(connection, path=None):
                await serve(self, connection)

            async with websockets.serve(handler, "localhost", 0, ssl=tls, max_size=None, compression="deflate",
                                        close_timeout=1, family=socket.AF_INET) as server:
                self.port = server.sockets[0].getsockname()[1]
                started.set()
                await self.end.wait()

        self.thread = threading.Thread(target=asyncio.run, args=[main()])
        self.thread.start()
        test.addCleanup(self.close)
        test.assertTrue(started.wait(LIMIT))

    def close(self):
        self.loop.call_soon_threadsafe(self.end.set)
        self.thread.join()

    def url(self, scheme="ws"):
        return f"{scheme}://localhost:{self.port}/"


async def echo(server, connection):
    async for message in connection:
        server.messages.append(message)
        await connection.send(message)


async def farewell(server, connection):
    server.messages.append(await connection.recv())
    await connection.send("good bye")
    await connection.close(4001, "over")


async def keep(server, connection):
    async for message in connection:
        server.messages.append(message)
    server.messages.append(connection.close_code)


class WebSocket(ToolTest):
    def test_echo(self):
        server = Server(self, echo)
        result = qelnk("ws", server.url(), "--count", "2", input="one\n\u00e4 two")
        self.assertEqual((result.code, result.out.decode(), result.err), (0, "one\n\u00e4 two\n", ""))
        self.assertEqual(server.messages, ["one", "\u00e4 two"])
        result = qelnk("ws", "--json", server.url(), "--count", "1", input='{"a": 1}\n')
        self.assertEqual(events(result), [{"event": "open"}, {"event": "text", "text": '{"a": 1}'}])

    def test_files_follow_the_lines(self):
        first, second = self.folder / "first", self.folder / "second"
        first.write_bytes(bytes(range(256)) * 20000)
        second.write_bytes(b"")
        server = Server(self, keep)
        result = qelnk("ws", server.url(), "--binary", first, "--binary", second, input="line\n" * 1000)
        self.assertEqual((result.code, result.out, result.err), (0, b"", ""))
        self.assertTrue(eventually(lambda: len(server.messages) == 1003))
        self.assertEqual(server.messages, ["line"] * 1000 + [first.read_bytes(), b"", 1000])
        result = qelnk("ws", server.url(), "--binary", self.folder / "none")
        self.assertEqual(result.code, 71)
        self.assertIn("none", result.err)

    def test_peer_closes(self):
        server = Server(self, farewell)
        result = qelnk("ws", "--json", server.url(), "--stay", input="hello\n")
        self.assertEqual((result.code, result.err), (0, ""))
        self.assertEqual(events(result), [{"event": "open"}, {"event": "text", "text": "good bye"}])
        process = self.start(BIN / "qelnk", "ws", server.url())
        process.stdin.write(b"hello\n")
        process.stdin.flush()
        self.assertEqual(process.wait(LIMIT), 0, "with its input still open")
        result = qelnk("ws", "--log-level", "info", server.url(), "--stay", input="hello\n")
        self.assertIn(f"webSocket - {server.url()}, didCloseWithCode - 4001, reason - over, wasClean: 1", result.err)

    def test_failures(self):
        with socket.create_server(("127.0.0.1", 0)) as mute:
            port = mute.getsockname()[1]
            result = qelnk("ws", "--json", "--timeout", SHORT, f"ws://127.0.0.1:{port}", input="x\n")
            self.assertEqual((result.code, events(result)), (1, [{"event": "closed"}]))
            self.assertIn("it was not open within", result.err)
        for url, text in [(f"ws://127.0.0.1:{port}", "Connection refused"), ("http:/x", "this is no URL")]:
            result = qelnk("ws", url, "--stay")
            self.assertEqual((result.code, result.out), (1, b""))
            self.assertIn(text, result.err)

        async def abort(server, connection):
            await connection.recv()
            connection.transport.abort()

        result = qelnk("ws", "--json", Server(self, abort).url(), "--stay", input="x\n")
        self.assertEqual((result.code, events(result)), (1, [{"event": "open"}, {"event": "closed"}]))
        self.assertEqual(qelnk("ws").code, 64)

    def test_encrypted(self):
        key, certificate = self.folder / "key", self.folder / "certificate"
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                        "-keyout", key, "-out", certificate, "-days", "2", "-subj", "/CN=localhost", "-addext",
                        "subjectAltName=DNS:localhost"], check=True, capture_output=True)
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        tls.load_cert_chain(certificate, key)
        server = Server(self, echo, tls)
        for more in ([], ["--ca", certificate]):
            result = qelnk("ws", server.url("wss"), "--count", "1", *more, input="x" * 300000)
            self.assertEqual((result.code, len(result.out), result.err), (0, 300001, ""))
        result = qelnk("ws", server.url("wss"), "--strict", input="x")
        self.assertEqual((result.code, result.out), (1, b""))
        self.assertIn("self-signed certificate", result.err)
        self.assertEqual(qelnk("ws", server.url("https"), "--count", "1", input="x").code, 0)

    def test_signals(self):
        server = Server(self, keep)
        for number in (signal.SIGINT, signal.SIGTERM):
            process = self.start(BIN / "qelnk", "ws", server.url(), "--stay")
            self.feed(process, b"x\n")
            self.assertTrue(eventually(lambda: "x" in server.messages))
            process.send_signal(number)
            self.assertEqual(process.wait(LIMIT), 0)
            self.assertTrue(eventually(lambda: server.messages[-1:] == [1000]), "closed in good order")
            server.messages.clear()


class SimulatorWithWeb(ToolTest):
    def test_each_change_goes_to_every_client(self):
        sim, port, web = self.web()
        clients = [self.start(BIN / "qelnk", "ws", "--json", f"ws://localhost:{web}", "--stay") for _ in range(3)]
        for client in clients:
            self.assertEqual(json.loads(client.stdout.readline()), {"event": "open"})
        daemon = Client(self, port)
        daemon.ask("setPortValue", {"id": "p1", "value": 0.25})
        daemon.ask("setPortValue", {"id": "p4", "value": True})
        for client in clients:
            texts = [json.loads(json.loads(client.stdout.readline())["text"]) for _ in range(2)]
            self.assertEqual(texts, [{"command": "portValueUpdate", "data": {"id": "p2", "value": 0.25}},
                                     {"command": "portValueUpdate", "data": {"id": "p5", "value": True}}])
        daemon.send("quit")
        self.assertEqual(sim.wait(LIMIT), 0)
        for client in clients:
            self.assertEqual(client.wait(LIMIT), 0)

    def test_a_client_that_does_not_read_delays_nobody(self):
        texts = [described("in", "In", "input", "str_", ""), described("out", "Out", "output", "str_", "", follow="in")]
        sim, port, web = self.web(self.project(workflows=[{"id": "w", "name": "Flow", "ports": texts}]))
        with socket.socket() as slow:
            slow.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            slow.connect(("127.0.0.1", web))
            slow.sendall(b"GET / HTTP/1.1\r\nHost: x\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
                         b"Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n\r\n")
            self.assertTrue(slow.recv(12).startswith(b"HTTP/1.1 101"))
            daemon = Client(self, port)
            for _ in range(600):  # more than is kept for a client and than sockets hold
                daemon.ask("setPortValue", {"id": "in", "value": "x" * 65536})
            self.assertEqual(qelnk("ws", f"ws://localhost:{web}").code, 0)
        sim.terminate()
        self.assertEqual(sim.wait(LIMIT), 0)
        self.assertIn(b"too slow", sim.stderr.read())

    def test_one_text_may_be_larger_than_all_that_is_kept(self):
        _, port, web = self.web()
        large = bytes(13 << 20)  # and a third more in base64
        Client(self, port).ask("setPortValue", {"id": "p8", "value": large})

        async def conversation(connection, ask, read):
            for _ in range(2):
                ports = (await ask("watch"))["data"]["workflows"][0]["ports"]
                self.assertEqual(len(ports[7]["value"]["$data"]), (len(large) + 2) // 3 * 4)

        self.talk(web, conversation)

    @staticmethod
    def talk(web, conversation, origin=None):
        """Runs a conversation with the simulator as a WebSocket client, and returns what it returns."""

        async def run():
            async with websockets.connect(f"ws://localhost:{web}/any/path", origin=origin, max_size=None) as connection:
                async def ask(command, data=None):
                    await connection.send(json.dumps({"command": command, "messageID": command, "data": data}))
                    return await read()

                async def read():
                    return json.loads(await asyncio.wait_for(connection.recv(), LIMIT))

                return await conversation(connection, ask, read)

        return asyncio.run(run())

    def test_commands(self):
        sim, port, web = self.web()
        daemon = Client(self, port)
        daemon.ask("registerPortUpdate", {"id": "p2"})

        async def conversation(connection, ask, read):
            for text, number in [("hello", None), ("[]", None), ('{"command": 1}', None), ('{"messageID": 7}', 7),
                                 ('{"command":"setPortValue","messageID":8,"data":{"id":"p8","value":{"$data":"?"}}}', 8)]:
                await connection.send(text)
                answer = await read()
                self.assertEqual((answer["messageID"], answer["data"], type(answer["error"])), (number, None, str))
            await connection.send(b"\0")  # which is passed over
            answer = await ask("setPortValue", {"id": "p1", "value": 0.25})
            self.assertEqual(answer, {"messageID": "setPortValue", "data": {"id": "p1", "value": 0.25}})
            self.assertEqual((await read())["data"]["id"], "p2", "who does not watch hears of outputs alone")
            self.assertEqual(daemon.push(), ("p2", 0.25))
            seen = (await ask("watch"))["data"]
            self.assertEqual(seen["project"], daemon.ask("getProject")["data"])
            ports = [workflow.pop("ports") for workflow in seen["workflows"]]
            self.assertEqual(seen["workflows"], daemon.ask("getWorkflows")["data"])
            self.assertEqual(ports, [daemon.ask("getExposedPorts", {"id": id})["data"]["data"] for id in ("w1", "w2")])
            for command, data in [("nothing", None), ("setPortValue", {"id": "p7", "value": 1}), ("startWorkflow", None),
                                  ("registerPortUpdate", {"id": "p1"})]:
                answer = await ask(command, data)
                self.assertEqual((answer["messageID"], answer["data"], type(answer["error"])), (command, None, str))
            daemon.ask("setPortValue", {"id": "p8", "value": [b"\0\xff", float("inf")]})
            value = [{"$data": "AP8="}, {"$double": "inf"}]
            self.assertEqual(await read(), {"command": "portValueUpdate", "data": {"id": "p8", "value": value}})
            self.assertEqual((await ask("setPortValue", {"id": "p8", "value": value}))["data"]["value"], value)
            await read()
            daemon.ask("startProject")
            news = await read()
            self.assertEqual((news["command"], news["data"]["project"]["status"]), ("projectUpdate", True))
            self.assertEqual([(w["status"], "ports" in w) for w in news["data"]["workflows"]],
                             [(True, False), (False, False)])
            self.project("Other.prj", name="Other", workflows=[])
            await ask("openProject", {"name": "Other.prj"})
            self.assertEqual((await read())["data"]["project"]["name"], "Other")
            self.assertEqual(await ask("quit"), {"messageID": "quit", "data": None})
            self.assertEqual(sim.wait(LIMIT), 0)

        self.talk(web, conversation)

    def test_pages_of_other_sites_only_listen(self):
        _, port, web = self.web()
        daemon = Client(self, port)

        def says(host):
            async def conversation(connection, ask, read):
                answer = await ask("setPortValue", {"id": "p4", "value": True})
                if "error" not in answer:
                    return "taken"
                self.assertIn("error", await ask("watch"))
                daemon.ask("setPortValue", {"id": "p1", "value": 0.75})
                self.assertEqual((await read())["data"], {"id": "p2", "value": 0.75})
                return "refused"

            return self.talk(web, conversation, origin=host)

        for origin in ("http://evil.example", f"http://evil.example:{web}", "http://localhost", f"https://localhost:{web}",
                       f"http://127.0.0.1:{web}", "null", f"http://localhost:{web}.evil.example"):
            with self.subTest(origin):
                self.assertEqual(says(origin), "refused")
        self.assertIs(daemon.ask("getExposedPorts", {"id": "w1"})["data"]["data"][3]["value"], False)
        self.assertEqual(says(f"http://localhost:{web}"), "taken")
        # Whoever has a name of his own point here has page and server in common with it.
        with socket.create_connection(("127.0.0.1", web)) as rebound:
            rebound.sendall(f"GET / HTTP/1.1\r\nHost: evil.example:{web}\r\nOrigin: http://evil.example:{web}\r\n"
                            "Connection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
                            "Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n\r\n".encode())
            stream = rebound.makefile("rb")
            while stream.readline() != b"\r\n":
                pass
            text = b'{"command":"startProject"}'
            rebound.sendall(bytes([0x81, 0x80 | len(text), 0, 0, 0, 0]) + text)
            length = stream.read(2)[1]
            self.assertIn(b'"error"', stream.read(int.from_bytes(stream.read(2), "big") if length == 126 else length))
        self.assertFalse(daemon.ask("getProject")["data"]["status"])

    def test_http(self):
        _, _, web = self.web()
        silent = socket.create_connection(("127.0.0.1", web))
        self.addCleanup(silent.close)
        silent.settimeout(LIMIT)

        def answer(request):
            """Status, headers and body of the answer to a request, after which the connection ends."""
            with socket.create_connection(("127.0.0.1", web), timeout=LIMIT) as connection:
                connection.sendall(request)
                response = http.client.HTTPResponse(connection)
                response.begin()
                body = response.read()
                self.assertEqual(connection.recv(1), b"")
                return response.status, response.headers, body

        host = b"Host: localhost\r\n"
        status, headers, body = answer(b"GET /?x HTTP/1.1\r\n" + host + b"\r\n")
        self.assertEqual((status, headers["Content-Type"], headers["Cache-Control"]),
                         (200, "text/html; charset=utf-8", "no-store"))
        self.assertTrue(body.startswith(b"<!DOCTYPE html>") and body.rstrip().endswith(b"</html>"))
        nonce = re.search(r"script-src 'nonce-([0-9a-f]{32})'", headers["Content-Security-Policy"])[1]
        self.assertEqual(body.count(f'nonce="{nonce}"'.encode()), 2)
        self.assertNotIn(nonce.encode(), answer(b"GET / HTTP/1.1\r\n" + host + b"\r\n")[2], "another one each time")
        self.assertNotRegex(body, rb"https?://|{{")
        with socket.create_connection(("127.0.0.1", web), timeout=LIMIT) as connection:
            connection.sendall(b"HEAD / HTTP/1.1\r\n" + host + b"\r\n")
            head, _, rest = connection.makefile("rb").read().partition(b"\r\n\r\n")
            self.assertEqual(rest, b"")
            self.assertIn(f"Content-Length: {len(body)}".encode(), head)
        for request, status in [
                (b"GET /other HTTP/1.1\r\n" + host + b"\r\n", 404), (b"GET / HTTP/1.1\r\n\r\n", 400),
                (b"POST / HTTP/1.1\r\n" + host + b"Content-Length: 5\r\n\r\nhello", 405), (b"what?\r\n\r\n", 400),
                (b"GET / HTTP/1.1\r\n" + host + b"X: " + b"x" * 20000 + b"\r\n\r\n", 431),
                (b"PUT / HTTP/1.1\r\n" + host + b"Content-Length: 99999999\r\n\r\n" + b"x" * 100000, 413)]:
            with self.subTest(request[:30]):
                code, headers, _ = answer(request)
                self.assertEqual(code, status)
                self.assertEqual(headers["Allow"], "GET, HEAD" if status == 405 else None)
        self.assertEqual(silent.recv(1), b"", "who sends nothing is let go")

    def test_ports(self):
        _, _, taken = self.web()
        done = subprocess.run([BIN / "orlin-sim", "-tcp", "0", "-web", str(taken), self.project()], capture_output=True,
                              timeout=LIMIT)
        self.assertEqual((done.returncode, done.stdout), (1, b""))
        self.assertIn(f"on port {taken}: Address already in use", done.stderr.decode())


if __name__ == "__main__":
    unittest.main()
