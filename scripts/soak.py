#!/usr/bin/env python3
"""Supervises a soak: soak.py BUILD MINUTES [SEED] [--plot FILE] [--folder DIR]; mostly by way of scripts/soak.sh.

It starts a studio in a process group of its own: a host, which is observed, and its peers, which it kills, stops and starts
again as the seed says. Whoever kills a peer besides, does no harm: that is seen, and explains what it explains. Now and
then all rest, and then the host has to be as small as it was before.
"""

import argparse
import collections
import csv
import json
import os
import pathlib
import random
import re
import selectors
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

import soak_plot

# What is judged, and how strictly.
WARM_UP, BUSY = 12, (10, 25)  # seconds under load before the first rest, and between two in short and in long runs
REST_LIMIT = 45  # seconds to come to rest: a request may take 3, a watch ends within 4, a closed WebSocket within 5
RSS_GROWTH = (1.05, 2 << 20)  # factor and bytes, from the middle third of all rests to the last: what the allocator keeps varies
HEAP_GROWTH = (1.02, 128 << 10)  # the same for what is really in use, which hardly varies
BUSY_GROWTH = (1.15, 8 << 20)  # the same for the memory under load
LAG_LIMIT = 1500  # milliseconds for which the host's main thread may be held up
AFTER = 10  # seconds after a fault's end in which it still explains failures: deadlines, silences and retries end by then
STALL = 0.7  # seconds for which the supervisor itself was not served, so that nobody else was either

# Whose faults explain what a part of the host reports. A part of a peer is explained by the faults of that peer alone.
EXPLAINS = {"clients": {"replier"}, "subscribers": {"publisher"}, "legacy-clients": {"studio"}, "daemon": {"sim"},
            "web-sockets": {"sim"}, "launched": {"launched"}}
# Error lines on a log, and whose faults explain them; "*" is no failure at all.
LINES = [
    (r"QELNKClient got response without matching message", {"*"}),  # a daemon's pushes, and answers that come too late
    (r"QELNKSubscriber drops messages from", {"*"}),  # there is a slow one in each process
    (r"QELNKOrlinDaemonSpawner: .* ended by signal (9|15|2)\b", {"*"}),  # somebody killed it
    (r"QELNKKORVALClient could not load", {"sim", "launched"}),
    (r"QELNKWebSocket .* has (failed|not sent its last)", {"sim"}),
    (r"QELNKLegacyStream ends the connection: more than", {"players", "studio"}),
]
SANITIZERS = re.compile(r"ERROR: AddressSanitizer|WARNING: ThreadSanitizer|runtime error: |ERROR: LeakSanitizer|FATAL: ")


class Peer:
    """A process of the studio, which may be started several times."""

    def __init__(self, name, words, *, talks=True):
        self.name, self.words, self.talks = name, words, talks
        self.process = None
        self.isReady = self.isQuiet = self.isStopped = False
        self.restart = None  # when it is to be started again
        self.proceed = None  # when it is to be continued
        self.heap = None
        self.counts = {}
        self.pending = b""

    def isAlive(self):
        return self.process is not None and self.process.poll() is None


class Fault:
    def __init__(self, peer, kind, begin):
        self.peer, self.kind, self.begin, self.end = peer, kind, begin, None

    def explains(self, moment):
        return self.begin - 1 <= moment <= (self.end or float("inf")) + AFTER


def free_ports(count, rng):
    """Ports that no connection gets by itself, so that they are still free when a peer is started again."""
    low = int(pathlib.Path("/proc/sys/net/ipv4/ip_local_port_range").read_text().split()[0])
    found = []
    while len(found) < count:
        first = rng.randrange(max(1100, low - 12000), low - 100)
        probe = socket.socket()
        try:
            probe.bind(("0.0.0.0", first))
            if first not in found:
                found.append(first)
        except OSError:
            pass
        probe.close()
    return found


def guard():
    """Leads the process group, and ends all of it as soon as this process is gone, whatever ended it."""
    reading, writing = os.pipe()
    leader = os.fork()
    if leader == 0:
        os.setpgid(0, 0)
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, signal.SIG_IGN)
        os.closerange(0, reading)
        os.closerange(reading + 1, 256)
        os.read(reading, 1)
        os.killpg(0, signal.SIGKILL)
    os.close(reading)
    try:
        os.setpgid(leader, leader)
    except PermissionError:
        pass
    return leader, writing


class Studio:
    def __init__(self, build, minutes, seed, folder):
        self.build, self.minutes, self.seed, self.folder = build.resolve(), minutes, seed, folder
        self.sanitizer = next((s for s in ("asan", "tsan") if s in build.name), None)
        self.pace = {"asan": 3, "tsan": 8}.get(self.sanitizer, 1)
        self.faultRandom, self.otherRandom = random.Random(seed), random.Random(seed + 1)
        self.faults, self.events, self.samples, self.rests, self.findings, self.stalls = [], [], [], [], [], []
        self.lags = []
        self.selector = selectors.DefaultSelector()
        self.byProcess = {}
        self.passers, self.passed = [], collections.Counter()
        self.nextSample = self.nextFault = self.nextPasser = 0
        self.isBusy = False
        self.lastTurn = time.time()
        self.sims = 0
        self.baseline = {}
        self.cpuMark = None
        # Each thread keeps a few freed pieces of each size to itself, which would count as in use.
        self.environment = {**os.environ, "GLIBC_TUNABLES": "glibc.malloc.tcache_count=0"}
        if self.sanitizer == "tsan":
            suppressions = self.build.parent.parent / "cmake/tsan.supp"
            self.environment["TSAN_OPTIONS"] = f"suppressions={suppressions} history_size=7"
        self.group, self.guardPipe = guard()
        self.makePeers()

    # The studio.

    def makePeers(self):
        program = str(self.build / "bin/qelnk-soak")
        ports = free_ports(9, self.otherRandom)
        server, replier, publisher, outer, legacy, studio, sim, self.web, spawned = ports
        self.ports = dict(zip("server replier publisher outer legacy studio sim web spawned".split(), ports))
        bundle = self.build / "bin/Orlin Daemon/orlin Daemon.app"
        self.project = self.folder / "studio.prj"
        self.template = json.loads((pathlib.Path(__file__).parent.parent / "soak/studio.prj").read_text())
        launched = self.folder / "launched.prj"
        launched.write_text(json.dumps(self.template))
        common = [program, f"pace={self.pace}"]

        def part(*words):
            return [*common, f"seed={self.otherRandom.randrange(1 << 30)}", *words]

        fewer = 4 if self.sanitizer == "tsan" else 1
        self.host = Peer("host", part(f"server={server}", f"clients={replier}:6", f"publisher={publisher}",
                                      f"subscribers={outer}:6", f"legacy-server={legacy}", f"legacy-clients={studio}:{100 // fewer}",
                                      f"daemon={sim}:{self.web}", f"launched={spawned}:{bundle},{launched}",
                                      f"web-sockets={self.web}:5", "watches=0:4"))
        self.steady = Peer("steady", part(f"clients={server}:2", f"subscribers={publisher}:3", f"legacy-clients={legacy}:{40 // fewer}"))
        self.mortal = [
            Peer("sim", [str(self.build / "bin/orlin-sim"), "-tcp", str(sim), "-web", str(self.web), str(self.project)], talks=False),
            Peer("replier", part(f"server={replier}")),
            Peer("requester", part(f"clients={server}:4")),
            Peer("publisher", part(f"publisher={outer}")),
            Peer("subscriber", part(f"subscribers={publisher}:4")),
            Peer("players", part(f"legacy-clients={legacy}:{60 // fewer}")),
            Peer("studio", part(f"legacy-server={studio}")),
        ]
        self.peers = [self.host, *self.mortal, self.steady]

    def start(self, peer):
        if peer.name == "sim":  # each is told from the others by the name of its project
            self.sims += 1
            self.template["name"] = f"Studio {self.sims}"
            self.project.write_text(json.dumps(self.template))
        with open(self.folder / f"{peer.name}.log", "ab") as log:
            peer.process = subprocess.Popen(peer.words, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=log, env=self.environment,
                                            process_group=self.group)
        peer.isReady, peer.isQuiet, peer.isStopped, peer.restart, peer.proceed, peer.pending = not peer.talks, False, False, None, None, b""
        os.set_blocking(peer.process.stdout.fileno(), False)
        self.selector.register(peer.process.stdout, selectors.EVENT_READ, peer)
        (self.folder / "pids" / peer.name).write_text(f"{peer.process.pid}\n")

    def say(self, peer, word):
        if peer.talks and peer.isAlive():
            try:
                peer.process.stdin.write(word.encode() + b"\n")
                peer.process.stdin.flush()
            except BrokenPipeError:
                pass

    def note(self, text):
        print(f"{self.clock():>7}  {text}", flush=True)

    def clock(self, moment=None):
        seconds = (moment or time.time()) - self.begin
        return f"{int(seconds // 60)}:{seconds % 60:04.1f}"

    def find(self, what, moment=None):
        moment = moment or time.time()
        self.findings.append((moment, what))
        if len(self.findings) <= 20:
            self.note(f"FINDING at {self.clock(moment)}: {what}")

    # One turn of everything that goes on.

    def pump(self, seconds, until=lambda: False):
        """Serves all for so long, or until something holds; returns whether it does."""
        end = time.time() + seconds
        while not until():
            now = time.time()
            if now >= end:
                return False
            if now - self.lastTurn > STALL:
                self.stalls.append((self.lastTurn, now))
            self.lastTurn = now
            self.sample(now)
            self.reap(now)
            if self.isBusy:
                self.hurt(now)
            self.passBy(now)
            for key, _ in self.selector.select(min(0.1, end - now)):
                self.read(key.data, key.fileobj)
        return True

    def read(self, peer, stream):
        chunk = stream.read1(1 << 16)
        if not chunk:
            self.selector.unregister(stream)
            stream.close()
            return
        if stream is not peer.process.stdout:
            return  # last words of an earlier process of that name
        *lines, peer.pending = (peer.pending + chunk).split(b"\n")
        for line in lines:
            try:
                event = json.loads(line)
            except ValueError:
                continue  # what a simulator prints, or a line that ended with its process
            self.take(peer, event)

    def take(self, peer, event):
        name = event.pop("event")
        if name == "ready":
            peer.isReady = True
            for fault in self.faults:
                if fault.peer == peer.name and fault.end is None:
                    fault.end = time.time()
            if self.isBusy:
                self.say(peer, "go")
        elif name == "quiet":
            peer.isQuiet = True
        elif name == "heap":
            peer.heap = event["bytes"]
        elif name == "counts":
            peer.counts = event
            if peer is self.host:
                self.lags.append((event["t"], event["lag"]))
        elif name == "fault":
            fault = Fault(event["peer"], event["kind"], event["t"])
            fault.end = event["t"]
            self.faults.append(fault)
        elif name == "note":
            self.note(f"{peer.name}: {event['what']}")
        elif name in ("finding", "failure"):
            self.events.append((event["t"], name, peer.name, event["part"], event["what"]))
            if name == "finding" and len(self.events) < 200000:
                self.find(f"{peer.name}, {event['part']}: {event['what']}", event["t"])

    def reap(self, now):
        """Starts again what has ended, whoever ended it."""
        for peer in self.peers:
            if peer.restart is not None and now >= peer.restart:
                self.start(peer)
                if not peer.talks:
                    self.close(peer)
            elif peer.restart is None and peer.process is not None and not peer.isAlive():
                self.ended(peer, now)
            if peer.proceed is not None and now >= peer.proceed:
                peer.process.send_signal(signal.SIGCONT)
                peer.proceed, peer.isStopped = None, False
                self.close(peer)

    def close(self, peer):
        """The peer is back: its faults end, or did a moment ago."""
        for fault in self.faults:
            if fault.peer == peer.name and fault.end is None:
                fault.end = time.time()

    def ended(self, peer, now):
        code = peer.process.returncode
        isKilled = code in (0, -signal.SIGKILL, -signal.SIGTERM, -signal.SIGINT, -signal.SIGHUP)
        if peer in (self.host, self.steady) or not isKilled:
            raise Broken(f"{peer.name} has ended with {code}")
        if not any(fault.peer == peer.name and fault.end is None for fault in self.faults):
            self.note(f"{peer.name} was killed by another hand")
            self.faults.append(Fault(peer.name, "kill", now - 1))
        peer.restart, peer.proceed = now, None

    # Faults, and those who come by.

    def hurt(self, now):
        if now < self.nextFault:
            return
        rng = self.faultRandom
        self.nextFault = now + rng.uniform(0.5, 5)
        peer, kind = rng.choice(self.mortal), rng.choice(("kill", "kill", "terminate", "stop", "stop"))
        length = rng.uniform(0.2, 7) if kind == "stop" else rng.choice((0, rng.uniform(0, 4)))
        if not peer.isAlive() or not peer.isReady or peer.isStopped:
            return
        self.faults.append(Fault(peer.name, kind, now))
        self.note(f"{kind:<9} {peer.name} for {length:.1f} s")
        if kind == "stop":
            peer.process.send_signal(signal.SIGSTOP)
            peer.isStopped, peer.proceed = True, now + length
        else:
            peer.process.send_signal(signal.SIGKILL if kind == "kill" else signal.SIGTERM)
            peer.process.wait()
            peer.restart = now + length

    def passBy(self, now):
        """Short-lived peers of another program; some are killed while they are at it."""
        for passer in self.passers[:]:
            if passer.process.poll() is None:
                if now > passer.killAt:
                    passer.process.kill()
                    passer.process.wait()
                    passer.isKilled = True
                    if passer.isOverdue:
                        self.events.append((now, "failure", passer.peer, "qelnk", f"{passer.words} does not end"))
                else:
                    continue
            self.passers.remove(passer)
            self.passed["killed" if passer.isKilled else "done"] += 1
            passer.output.seek(0)
            output = passer.output.read().decode(errors="replace")
            passer.output.close()
            if not passer.isKilled and (passer.process.returncode != 0 or not output.strip()):
                self.events.append((passer.begin, "failure", passer.peer, "qelnk",
                                    f"{passer.words} ended with {passer.process.returncode}: {output[-300:]}"))
        if not self.isBusy or now < self.nextPasser:
            return
        rng = self.otherRandom
        self.nextPasser = now + rng.uniform(1, 5) * (3 if self.sanitizer else 1)
        text = json.dumps({"client": 1 << 52 | self.passed.total() << 8 | len(self.passers), "number": 1}) + "\n"
        peer, words, text = rng.choice((
            ("host", f"request 127.0.0.1 {self.ports['server']} --body msgpack", text),
            ("host", f"subscribe 127.0.0.1 {self.ports['publisher']} --count 20", ""),
            ("sim", f"daemon --connect 127.0.0.1:{self.ports['sim']} show", ""),
            ("sim", f"ws ws://127.0.0.1:{self.web} --count 3", '{"command":"getProject","messageID":1}\n' * 3)))
        passer = Passer()
        passer.peer, passer.words, passer.begin, passer.isKilled = peer, "qelnk " + words, now, False
        passer.isOverdue = rng.random() > 0.3
        passer.killAt = now + (40 if passer.isOverdue else rng.uniform(0.01, 0.4))
        passer.output = tempfile.TemporaryFile()  # however much it prints, it waits for nobody
        passer.process = subprocess.Popen([str(self.build / "bin/qelnk"), *words.split()], stdin=subprocess.PIPE,
                                          stdout=passer.output, stderr=subprocess.STDOUT, env=self.environment, process_group=self.group)
        try:
            passer.process.stdin.write(text.encode())
            passer.process.stdin.close()
        except BrokenPipeError:
            pass
        self.passers.append(passer)

    # Looking at the processes.

    def sample(self, now):
        if now < self.nextSample:
            return
        self.nextSample = now + 1
        for peer in self.peers:  # somebody else may stop one as well
            if peer.isAlive() and peer.proceed is None and state(peer.process.pid) == "T" and not peer.isStopped:
                peer.isStopped = True
                self.faults.append(Fault(peer.name, "stop", now - 1))
                self.note(f"{peer.name} was stopped by another hand")
            elif peer.isAlive() and peer.proceed is None and peer.isStopped and state(peer.process.pid) != "T":
                peer.isStopped = False
                self.close(peer)
        if not self.host.isAlive():
            return
        look = {"t": now, "busy": self.isBusy, **looks(self.host.process.pid)}
        isNew = self.host.counts.pop("t", None) is not None
        look.update({key: self.host.counts.get(key) if isNew else None for key in ("p50", "p99")})
        self.samples.append(look)

    def rest(self, goesOn=True):
        """Lets all come to rest and looks at the host and at the peer that is never hurt."""
        self.isBusy = False
        for peer in self.mortal:
            if peer.restart is not None:
                peer.restart = time.time()
            if peer.proceed is not None:
                peer.proceed = time.time()
        talking = [peer for peer in self.peers if peer.talks]
        self.pump(20, lambda: all(peer.isReady and peer.isAlive() for peer in self.peers) and not self.passers)
        for peer in talking:
            peer.isQuiet = False
            self.say(peer, "rest")
        if not self.pump(REST_LIMIT, lambda: all(peer.isQuiet or peer.isStopped for peer in talking)):
            for peer in talking:
                if not peer.isQuiet:
                    self.find(f"{peer.name} does not come to rest")
        if not any(peer.isStopped for peer in talking):
            for peer in (self.host, self.steady):
                self.measureAtRest(peer)
        if goesOn:
            self.work()

    def work(self):
        self.isBusy = True
        self.nextFault = time.time() + self.faultRandom.uniform(1, 3)
        for peer in self.peers:
            self.say(peer, "go")

    def measureAtRest(self, peer):
        pid, seen = peer.process.pid, None
        isFirst = peer.name not in self.baseline
        steadySince = time.time()

        def isBack():
            nonlocal seen, steadySince
            look = looks(pid)
            if seen is None or (look["threads"], look["descriptors"]) != (seen["threads"], seen["descriptors"]):
                steadySince = time.time()
            seen = look
            if isFirst:
                return time.time() - steadySince > 6
            return all(look[key] <= self.baseline[peer.name][key] for key in ("threads", "descriptors"))

        if not self.pump(20, isBack) and not isFirst:
            base = self.baseline[peer.name]
            self.find(f"{peer.name} at rest has {seen['threads']} threads and {seen['descriptors']} descriptors, "
                      f"it had {base['threads']} and {base['descriptors']}")
            self.keepDetails(peer)
        if isFirst:
            self.baseline[peer.name] = {}
            self.keepDetails(peer)
        for key in ("threads", "descriptors"):
            self.baseline[peer.name][key] = min(seen[key], self.baseline[peer.name].get(key, seen[key]))
        peer.heap = None
        self.say(peer, "heap")
        self.pump(5, lambda: peer.heap is not None)
        self.rests.append({"t": time.time(), "peer": peer.name, "heap": peer.heap, **looks(pid)})

    def keepDetails(self, peer):
        """Which threads and descriptors there are."""
        folder = pathlib.Path(f"/proc/{peer.process.pid}")
        lines = [f"{peer.name} at {self.clock()}"]
        for task in folder.glob("task/*/comm"):
            lines.append("thread " + attempt(task.read_text).strip())
        for link in folder.glob("fd/*"):
            lines.append("descriptor " + attempt(lambda: os.readlink(link)))
        counted = collections.Counter(re.sub(r"\d+", "N", line) for line in lines[1:])
        with open(self.folder / "at-rest.txt", "a") as file:
            file.write("\n".join([lines[0], *(f"{count:5} {line}" for line, count in sorted(counted.items()))]) + "\n\n")

    # The run.

    def run(self):
        self.begin = time.time()
        (self.folder / "pids").mkdir()
        for peer in self.peers:
            self.start(peer)
        if not self.pump(60, lambda: all(peer.isReady for peer in self.peers)):
            raise Broken("the studio has not started: " + ", ".join(p.name for p in self.peers if not p.isReady))
        end = self.begin + self.minutes * 60
        self.work()
        busy = min(max(self.minutes * 60 / 10, BUSY[0]), BUSY[1])
        self.pump(min(WARM_UP, self.minutes * 15))
        self.rest()
        while self.isBusy:
            self.pump(min(busy, max(3, end - time.time())))
            self.rest(goesOn=time.time() < end)
        self.finish()

    def finish(self):
        self.isBusy = False
        for peer in self.peers:
            if peer.talks:
                self.say(peer, "end")
            else:
                peer.process.terminate()
        deadline = time.time() + 60
        while any(peer.isAlive() for peer in self.peers) and time.time() < deadline:
            for key, _ in self.selector.select(0.1):
                self.read(key.data, key.fileobj)
        for peer in self.peers:
            if peer.isAlive():
                self.find(f"{peer.name} does not end")
            elif peer.process.returncode != 0:
                self.find(f"{peer.name} ended with {peer.process.returncode}")

    def close_all(self):
        os.close(self.guardPipe)
        os.waitpid(self.group, 0)

    # The judgement.

    def explained(self, process, part, moment):
        if any(begin - 1 <= moment <= end + AFTER for begin, end in self.stalls):
            return True
        peers = EXPLAINS.get(part, set()) if process == "host" else set()
        peers = peers | {process}
        return any(fault.peer in peers and fault.explains(moment) for fault in self.faults)

    def judgeEvents(self):
        unexplained = 0
        for moment, kind, process, part, what in self.events:
            if kind == "failure" and not self.explained(process, part, moment):
                self.find(f"{process}, {part}: {what}", moment)
                unexplained += 1
        return sum(event[1] == "failure" for event in self.events), unexplained

    def judgeLogs(self):
        lines = unexplained = reports = 0
        for log in sorted(self.folder.glob("*.log")):
            for line in open(log, errors="replace"):
                if SANITIZERS.search(line):
                    reports += 1
                    self.find(f"{log.name}: {line.strip()}")
                found = re.match(r"([\d.]+) error (.*)", line)
                if not found:
                    continue
                lines += 1
                moment, text = float(found[1]), found[2]
                if not self.lineIsExplained(log.stem, text, moment):
                    unexplained += 1
                    self.find(f"{log.stem} logged: {text}", moment)
        return lines, unexplained, reports

    def lineIsExplained(self, process, text, moment):
        for pattern, peers in LINES:
            if re.search(pattern, text):
                return "*" in peers or any(f.peer in peers | {process} and f.explains(moment) for f in self.faults)
        return False

    def judgeGrowth(self, what, values, allowed, needed=6):
        """The median of the last third against that of the one before: a leak grows on, what is kept for reuse does not."""
        if self.sanitizer:
            return f"{what}: not judged with a sanitizer", None
        if len(values) < needed:
            return f"{what}: {len(values)} looks are too few to judge", None
        third = len(values) // 3
        before, last = statistics.median(values[-2 * third:-third]), statistics.median(values[-third:])
        limit = before * allowed[0] + allowed[1]
        text = f"{what}: {before / 2**20:.2f} MiB in the middle third, {last / 2**20:.2f} in the last"
        if last > limit:
            self.find(f"{text}; {limit / 2**20:.2f} are allowed")
        return text, last <= limit

    def judge(self):
        rows = []
        for name in ("host", "steady"):
            rests = [rest for rest in self.rests if rest["peer"] == name]
            rows.append(self.judgeGrowth(f"{name}, memory at rest", [rest["memory"] for rest in rests], RSS_GROWTH))
            rows.append(self.judgeGrowth(f"{name}, heap in use at rest", [rest["heap"] for rest in rests if rest["heap"]], HEAP_GROWTH))
            if rests:
                text = " and ".join(f"{min(r[key] for r in rests)} to {max(r[key] for r in rests)} {key}" for key in ("threads", "descriptors"))
                isBack = not any(f"{name} at rest has" in what for _, what in self.findings)
                rows.append((f"{name}, at {len(rests)} rests: {text}", isBack))
        busy = [sample for sample in self.samples if sample["busy"]]
        rows.append(self.judgeGrowth("host, memory under load", [sample["memory"] for sample in busy], BUSY_GROWTH, needed=60))
        if self.sanitizer:  # what it makes slow is late without a fault
            self.stalls += [(moment - lag / 1000 - 1, moment) for moment, lag in self.lags if lag > STALL * 1000]
        held = 0
        for moment, lag in self.lags:
            isStalled = any(begin - 1 <= moment <= end + 2 for begin, end in self.stalls)
            held = max(held, 0 if isStalled else lag)
            if not self.sanitizer and not isStalled and lag > LAG_LIMIT:
                self.find(f"the host's main thread was held up for {lag:.0f} ms", moment)
        rows.append((f"host, main thread held up for {held:.0f} ms at most", None if self.sanitizer else held <= LAG_LIMIT))
        broken = sum(event[1] == "finding" for event in self.events)
        rows.append((f"messages lost, doubled, out of order or changed: {broken}", broken == 0))
        failures, unexplained = self.judgeEvents()
        rows.append((f"failures: {failures}, of which no fault explains {unexplained}", unexplained == 0))
        lines, unexplained, reports = self.judgeLogs()
        rows.append((f"error lines on the logs: {lines}, of which no fault explains {unexplained}", unexplained == 0))
        if self.sanitizer:
            rows.append((f"reports of the sanitizer: {reports}", reports == 0))
        # What nobody did cannot have gone well either.
        counts = self.host.counts
        done = ["answered", "served", "published", "received", "written", "read", "ready", "texts"]
        if self.minutes >= 1:
            done += ["pushes", "compared", "launched", "blocks"] + ([] if self.sanitizer else ["dropped"])
        idle = [key for key in done if not counts.get(key)]
        if idle:
            self.find(f"the host has none of: {', '.join(idle)}")
        return rows

    def summary(self, rows):
        lines = [f"soak of {self.minutes:g} min with seed {self.seed} ({self.build.name})"]
        kinds = collections.Counter(fault.kind for fault in self.faults)
        lines.append(f"  faults: {', '.join(f'{count} {kind}' for kind, count in sorted(kinds.items())) or 'none'}; "
                     f"{len(self.stalls)} stalls of the machine")
        totals = collections.Counter()
        for key, value in self.host.counts.items():
            if isinstance(value, int):
                totals[key] += value
        names = {"answered": "requests answered", "failed": "failed", "served": "served", "published": "messages published",
                 "received": "received", "dropped": "dropped and counted", "written": "legacy strings written", "read": "read",
                 "blocks": "blocks", "ready": "connections", "pushes": "values pushed", "compared": "mirrors compared",
                 "launched": "daemons launched", "texts": "WebSocket texts", "opened": "WebSockets", "watched": "watches"}
        lines.append("  host: " + ", ".join(f"{totals[key]} {name}" for key, name in names.items()))
        lines.append(f"  passers-by: {self.passed['done']} done, {self.passed['killed']} killed")
        busy = [s for s in self.samples if s["busy"]]
        p50, p99 = ([s[key] for s in busy if s[key] is not None] for key in ("p50", "p99"))
        if p50:
            lines.append(f"  latency of requests: median {statistics.median(p50):.0f} µs, "
                         f"99th percentile {statistics.median(p99):.0f} µs (the median second)")
        if len(busy) > 1:
            cpu = (busy[-1]["cpu"] - busy[0]["cpu"]) / (busy[-1]["t"] - busy[0]["t"])
            lines.append(f"  host: {cpu * 100:.0f} % of a core, {max(s['threads'] for s in busy)} threads and "
                         f"{max(s['descriptors'] for s in busy)} descriptors at most")
        marks = {True: "ok    ", False: "FAILED", None: "      "}
        lines += [f"  {marks[isGood]}  {text}" for text, isGood in rows]
        lines += [f"  finding at {self.clock(moment)}: {what}" for moment, what in sorted(self.findings)[:100]]
        lines.append(f"  {len(self.findings)} findings; logs, samples and plot are in {self.folder}")
        return "\n".join(lines) + "\n"

    def write(self, rows, plot):
        text = self.summary(rows)
        (self.folder / "summary.txt").write_text(text)
        for name, looks in (("samples", self.samples), ("rests", self.rests)):
            if looks:
                with open(self.folder / f"{name}.csv", "w", newline="") as file:
                    writer = csv.DictWriter(file, looks[-1])
                    writer.writeheader()
                    writer.writerows({**look, "t": round(look["t"] - self.begin, 2)} for look in looks)
        if self.samples:
            svg = soak_plot.drawing(self)
            for target in filter(None, (self.folder / "soak.svg", plot)):
                pathlib.Path(target).write_text(svg)
        print(text, end="", flush=True)


class Passer:
    """A run of qelnk."""


class Broken(Exception):
    """The soak cannot go on."""


def attempt(look):
    try:
        return look()
    except OSError:
        return "gone"


def state(pid):
    return attempt(pathlib.Path(f"/proc/{pid}/stat").read_text).rpartition(") ")[2][:1]


def looks(pid):
    """Memory of its own in bytes, threads, descriptors, and seconds on a processor."""
    status = dict(line.split(":", 1) for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines())
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(") ")[2].split()
    return {"memory": int(status["RssAnon"].split()[0]) << 10, "threads": int(status["Threads"]),
            "descriptors": len(os.listdir(f"/proc/{pid}/fd")), "cpu": (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")}


def interrupted(*_):
    raise KeyboardInterrupt


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("minutes", type=float)
    parser.add_argument("seed", type=int, nargs="?", default=None)
    parser.add_argument("--plot", help="where to write the plot besides")
    parser.add_argument("--folder", type=pathlib.Path, help="where logs go, build/soak/... unless told")
    arguments = parser.parse_args()
    seed = arguments.seed if arguments.seed is not None else random.randrange(1 << 16)
    folder = arguments.folder or arguments.build.parent / "soak" / f"{time.strftime('%Y%m%d-%H%M%S')}-seed{seed}"
    folder = folder.resolve()
    folder.mkdir(parents=True)
    print(f"seed {seed}; each peer's process ID is in {folder}/pids", flush=True)
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):  # whoever started this may have had them ignored
        signal.signal(number, interrupted)
    studio = Studio(arguments.build, arguments.minutes, seed, folder)
    isWhole = False
    try:
        studio.run()
        isWhole = True
    except Broken as problem:
        studio.find(str(problem))
    except KeyboardInterrupt:
        print("interrupted", flush=True)
        studio.close_all()
        return 130
    studio.close_all()
    studio.write(studio.judge() if isWhole else [], arguments.plot if not studio.findings else None)
    return 1 if studio.findings else 0


if __name__ == "__main__":
    sys.exit(main())
