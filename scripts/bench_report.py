#!/usr/bin/env python3
"""Turns what the benchmarks wrote into tables: bench_report.py RESULTS [PAGE]

RESULTS is a folder with the files of scripts/bench.sh. The tables are printed; in PAGE each one replaces what stands between
its marker comments. Tables whose results are not there stay as they are.
"""

import json
import math
import os
import pathlib
import re
import statistics
import subprocess
import sys

import bench_plot

DOCUMENTS = {"small": "small map", "ports": "200 port maps", "numbers": "100,000 numbers", "strings": "20,000 strings",
             "buffer": "1 MiB buffer"}
JSON_PEERS = {"nlohmann": "nlohmann", "rapidjson-strict": "RapidJSON, exact", "rapidjson": "RapidJSON", "boost": "Boost.JSON",
              "boost-monotonic": "Boost.JSON, monotonic"}


def read_micro(path):
    """{row: {peer: nanoseconds on the core}}, medians of the repetitions."""
    times = {}
    if path.exists():
        for run in json.loads(path.read_text())["benchmarks"]:
            if run["run_type"] == "iteration":
                scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[run["time_unit"]]
                times.setdefault(run["run_name"], []).append(run["cpu_time"] * scale)
    rows = {}
    for name, samples in times.items():
        row, peer = name.rsplit("/", 1)
        rows.setdefault(row, {})[peer] = statistics.median(samples)
    return rows


def read_lines(path):
    """{row: {peer: {figure: number}}} of lines NAME PEER KEY=VALUE..."""
    rows = {}
    if path.exists():
        for line in path.read_text().splitlines():
            name, peer, *figures = line.split()
            rows.setdefault(name, {})[peer] = {key: float(value) for key, value in (f.split("=") for f in figures)}
    return rows


def duration(nanoseconds):
    for limit, unit, scale in ((1e3, "ns", 1), (1e6, "µs", 1e3), (1e9, "ms", 1e6)):
        if nanoseconds < limit:
            return f"{nanoseconds / scale:.3g} {unit}"
    return f"{nanoseconds / 1e9:.3g} s"


def verdict(value, goal, at_most=True):
    sign = "≤" if at_most else "≥"
    met = value <= goal if at_most else value >= goal
    return [f"{sign} {goal:g}", "met" if met else "**missed**"]


def table(headings, rows):
    lines = [headings, ["---"] + ["---:"] * (len(headings) - 2) + ["---"], *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)


def encoding_tables(results):
    micro, heap = read_micro(results / "encoding_bench.json"), read_lines(results / "heap_bench.txt")
    if not micro:
        return {}
    rows = []
    for group, title, peer, goal in (("decode", "MessagePack in", "msgpack-cxx", 1.0), ("encode", "MessagePack out", "msgpack-cxx", 0.7),
                                     ("json-in", "JSON in", "nlohmann", 0.3), ("json-out", "JSON out", "nlohmann", 0.6)):
        for document, words in DOCUMENTS.items():
            if times := micro.get(f"{group}/{document}"):
                ratio = times["qelnk"] / times[peer]
                rows.append([f"{title}, {words}", duration(times["qelnk"]), f"{duration(times[peer])} {peer}", f"{ratio:.2f}",
                             *verdict(ratio, goal)])
    tables = {"encoding": table(["what", "QELNetworkKit", "peer", "ratio", "goal", ""], rows)}
    rows = []
    for group, title in (("json-in", "JSON in"), ("json-out", "JSON out")):
        for document, words in DOCUMENTS.items():
            if times := micro.get(f"{group}/{document}"):
                best = min((peer for peer in times if peer != "qelnk"), key=times.get)
                ratio = times["qelnk"] / times[best]
                rows.append([f"{title}, {words}", *(duration(times[peer]) if peer in times else "" for peer in ("qelnk", *JSON_PEERS)),
                             JSON_PEERS[best], f"{ratio:.2f}", *verdict(ratio, 1.0)])
    tables["json"] = table(["what", "QELNetworkKit", *JSON_PEERS.values(), "best", "ratio", "goal", ""], rows)
    rows = []
    for document, words in DOCUMENTS.items():
        if peers := heap.get(f"heap/{document}"):
            bytes_each = {peer: figures["bytes_per_value"] for peer, figures in peers.items()}
            ratio = bytes_each["qelnk"] / bytes_each["msgpack-cxx"]
            rows.append([words, *(f"{bytes_each[peer]:,.4g}" if bytes_each[peer] < 1e4 else f"{bytes_each[peer]:,.0f}"
                                  for peer in ("qelnk", "msgpack-cxx", "nlohmann")),
                         f"{peers['qelnk']['blocks']:.0f} / {peers['msgpack-cxx']['blocks']:.0f} / {peers['nlohmann']['blocks']:.0f}",
                         f"{ratio:.2f}", *verdict(ratio, 1.0)])
    if rows:
        tables["heap"] = table(["document", "QELNetworkKit", "msgpack-cxx", "nlohmann", "blocks", "ratio to msgpack-cxx", "goal", ""],
                               rows)
    return tables


def request_tables(results):
    trips, lines = read_lines(results / "request_bench.txt"), read_lines(results / "pipeline_bench.txt")
    tables = {}
    kinds = {"callback": "to the callback", "waiting": "waiting", "waiting-with-callback": "waiting, with a callback too"}
    rows = []
    libraries = []
    for name, peers in trips.items():
        kind, cores, state = name.split("/")
        if kind == "libraries":
            times = [f"{peers[p]['median_us']:.1f} ({peers[p]['p99_us']:.0f})" for p in ("qelnk", "hand-written", "cppzmq", "czmq")]
            libraries.append([cores.replace("-", " "), *times, f"{peers['qelnk']['ratio']:.2f}", *verdict(peers["qelnk"]["ratio"], 1.1)])
            continue
        state = "back to back" if state == "busy" else f"after {state.removeprefix('after-').replace('ms', ' ms')} of rest"
        times = [f"{peers[p]['median_us']:.1f} ({peers[p]['p99_us']:.0f})" if p in peers else ""
                 for p in ("qelnk", "hand-written", "one-thread")]
        rows.append([f"{kinds[kind]}, {cores.replace('-', ' ')}, {state}", *times, f"{peers['qelnk']['ratio']:.2f}",
                     *verdict(peers["qelnk"]["ratio"], 1.1)])
    if rows:
        tables["request"] = table(["request", "QELNetworkKit", "by hand", "one thread", "ratio", "goal", ""], rows)
    if libraries:
        tables["request-libraries"] = table(["back to back", "QELNetworkKit", "libzmq", "cppzmq", "CZMQ", "ratio", "goal", ""], libraries)
    rows = []
    for name, peers in lines.items():
        if name.startswith("in-flight/"):
            rates = [f"{peers[p]['per_second']:,.0f}/s" for p in ("qelnk", "hand-written", "cppzmq", "czmq", "one-thread")]
            rows.append([name.split("/")[1].replace("-", " "), *rates, f"{peers['qelnk']['ratio']:.2f}",
                         *verdict(peers["qelnk"]["ratio"], 0.8, at_most=False)])
    if rows:
        tables["in-flight"] = table(["1,000 in flight", "QELNetworkKit", "by hand", "cppzmq", "CZMQ", "one thread", "ratio", "goal", ""], rows)
    rows = []
    for order in dict.fromkeys(name.split("/")[2] for name in lines if name.startswith("pending/")):
        costs = [lines[f"pending/{count}/{order}"]["qelnk"] for count in (10, 1000, 100000)]
        # With ten pending, what one costs is the waiting for each other of so many threads.
        growth = costs[2]["cpu_ns"] / costs[1]["cpu_ns"]
        rows.append([order.replace("-", " "), *(f"{duration(c['ns'])} ({duration(c['cpu_ns'])})" for c in costs), f"{growth:.2f}",
                     *verdict(growth, 1.5)])
    if rows:
        tables["pending"] = table(["replies", "10 pending", "1,000", "100,000", "growth", "goal", ""], rows)
    return tables


def server_tables(results):
    lines = read_lines(results / "server_bench.txt")
    tables, trips, loads = {}, [], []
    for name, peers in lines.items():
        _, kind, *details = name.split("/")
        ours = peers["qelnk"]
        if kind == "round-trip":
            cores, state = details
            state = "back to back" if state == "busy" else f"after {state.removeprefix('after-').replace('ms', ' ms')} of rest"
            trips.append([f"{cores.replace('-', ' ')}, {state}",
                          *(f"{peers[p]['median_us']:.1f} ({peers[p]['p99_us']:.0f})"
                            for p in ("qelnk", "hand-written", "qelnk-server-only", "one-thread")),
                          f"{ours['ratio']:.2f}", *verdict(ours["ratio"], 1.15)])
        else:
            what, cores, depth = details
            loads.append([f"{what}, {depth.removesuffix('-each')} under way each, {cores.replace('-', ' ')}",
                          *(f"{peers[p]['per_second']:,.0f}/s" for p in ("qelnk", "hand-written")),
                          *(f"{duration(peers[p]['cpu_ns'])} ({peers[p]['cpu_percent']:.0f} %)" for p in ("qelnk", "hand-written")),
                          f"{ours['ratio']:.2f}", *verdict(ours["ratio"], 0.8, at_most=False)])
    if trips:
        tables["server-request"] = table(["request", "QELNetworkKit", "by hand", "client by hand, our server", "one thread", "ratio",
                                          "goal", ""], trips)
    if loads:
        tables["server-load"] = table(["16 clients", "QELNetworkKit", "by hand", "our server's thread, one reply", "by hand", "ratio",
                                       "goal", ""], loads)
    return tables


def broadcast_tables(results):
    lines = read_lines(results / "broadcast_bench.txt")
    rates, delays, slow, idle, spread = [], [], [], [], []
    for name, peers in lines.items():
        _, kind, detail, *rest = name.split("/")
        ours = peers.get("qelnk")
        if kind == "rate":
            what = f"{detail.replace('64-bytes', '64 bytes').replace('4-kib', '4 KiB')}, {rest[0].replace('-', ' ')}"
            for peer, words, other in (("qelnk", "", "hand-written"), ("qelnk-subscriber", ", raw publisher", "hand-written"),
                                       ("qelnk-publisher", ", raw subscriber", "raw")):
                shown = (peer, other, "cppzmq", "czmq") if peer == "qelnk" else (peer, other)
                cells = [f"{peers[p]['per_second']:,.0f}/s ({duration(peers[p]['cpu_ns'])})" for p in shown]
                rates.append([what + words, *cells, *[""] * (4 - len(cells)), f"{peers[peer]['ratio']:.2f}", *verdict(peers[peer]["ratio"], 0.8, at_most=False)])
        elif kind == "paced":
            delays.append([detail.replace("-", " "), *(f"{peers[p]['median_us']:.0f} ({peers[p]['p99_us']:.0f})"
                                                       for p in ("qelnk", "hand-written", "qelnk-subscriber")),
                           f"{ours['ratio']:.2f}"])
        elif kind == "slow-callback":
            slow.append([detail.replace("64-bytes", "64 bytes").replace("4-kib", "4 KiB"), f"{ours['per_second']:,.0f}/s",
                         f"{ours['received']:,.0f}", f"{ours['dropped']:,.0f}", f"{ours['grown_kib']:,.0f} KiB",
                         f"{ours['grown_later_kib']:,.0f} KiB", *verdict(ours["grown_later_kib"], 1024)])
            slow[-1][-2] += " KiB"
        elif kind == "idle":
            for peer, words in (("qelnk", ""), ("raw", ", raw")):
                f = peers[peer]
                idle.append([detail + words, f"{f['cpu_percent']:.2f} %", f"{f['cpu_percent_each']:.3f} %",
                             f"{f['passes_each']:.0f}/s", f"{f['resident_kib_each']:,.0f} KiB", f"{f['descriptors_each']:.1f}"])
        elif kind == "spread":
            spread.append([detail, *(f"{peers[p]['per_second']:,.0f}/s ({duration(peers[p]['cpu_ns'])})"
                                     for p in ("qelnk", "hand-written", "raw")), f"{ours['ratio']:.2f}"])
    return {name: table(headings, rows) for name, headings, rows in (
        ("broadcast", ["messages", "QELNetworkKit", "by hand", "cppzmq", "CZMQ", "ratio", "goal", ""], rates),
        ("paced", ["20,000 a second", "QELNetworkKit", "by hand", "raw publisher, our subscriber", "ratio"], delays),
        ("slow-callback", ["messages", "sent", "called back", "dropped", "growth", "in the second half", "goal", ""], slow),
        ("idle-subscribers", ["subscribers", "of a core", "each", "passes each", "memory each", "descriptors each"], idle),
        ("spread", ["subscribers", "QELNetworkKit", "by hand", "by hand, no callback thread", "ratio"], spread)) if rows}


def legacy_tables(results):
    lines = read_lines(results / "legacy_bench.txt")
    words = {"ours": "", "ours-to-asio": ", Asio receives", "asio-to-ours": ", Asio sends"}
    ways, backlog, crowd = [], [], []
    for name, peers in lines.items():
        kind, detail = name.split("/")
        ours = peers["ours"]
        if kind in ("blocks", "strings"):
            what = "1 MiB blocks" if kind == "blocks" else "strings"
            for peer, which in words.items():
                if peer in peers:
                    rates = [f"{peers[p]['per_second']:,.0f}/s ({duration(peers[p]['cpu_ns'])})" for p in (peer, "asio", "bare")]
                    if peer != "ours":
                        rates[2] = ""
                    ways.append([f"{what}, {detail.replace('-', ' ')}{which}", *rates, f"{peers[peer]['ratio']:.2f}",
                                 *verdict(peers[peer]["ratio"], 0.8, at_most=False)])
        elif kind == "giant":
            rates = [f"{2**30 / peers[p]['median_us']:,.0f} MB/s" for p in ("ours", "asio")]
            ways.append(["one block of 1 GiB, two threads", *rates, "", f"{1 / ours['ratio']:.2f}",
                         *verdict(1 / ours["ratio"], 0.8, at_most=False)])
        elif kind == "backlog":
            backlog.append([detail.replace("MB", " MB"), f"{ours['cpu_ns_per_byte']:.2f} ns", f"{ours['ratio']:.2f}",
                            *verdict(ours["ratio"], 1.3)])
        elif kind == "connections":
            crowd.append([f"{int(detail):,} connections", f"{ours['seconds_to_accept']:.2f} s to accept and shake hands, "
                          f"{ours['KiB_each']:.1f} KiB each", *verdict(ours["KiB_each"], 8)])
        elif kind == "heartbeat":
            crowd.append([f"heartbeat to {int(detail):,} connections", f"{duration(ours['median_us'] * 1e3)}, bare loop "
                          f"{duration(peers['bare-loop']['median_us'] * 1e3)}: {ours['ratio']:.2f}", *verdict(ours["ratio"], 1.3)])
    return {name: table(headings, rows) for name, headings, rows in (
        ("legacy", ["one way", "QELNetworkKit", "Asio", "bare sockets", "ratio", "goal", ""], ways),
        ("legacy-backlog", ["backlog", "a byte costs", "growth", "goal", ""], backlog),
        ("legacy-crowd", ["what", "measured", "goal", ""], crowd)) if rows}


def daemon_tables(results):
    lines, micro = read_lines(results / "daemon_bench.txt"), read_micro(results / "log_bench.json")
    rows = []
    searches = []
    for name, peers in lines.items():
        kind, detail, *rest = name.split("/")
        figures = peers["qelnk"]
        if kind == "load":
            rows.append([f"mirror of 1,000 workflows with {figures['ports']:,.0f} ports in all", f"{figures['seconds']:.2f} s, "
                         f"{figures['resident_kib'] / 1024:.0f} MiB", *verdict(figures["seconds"], 5)])
        elif kind == "idle":
            rows.append(["idle client", f"{figures['passes_per_second']:.0f} passes a second, {figures['cpu_percent']:.2f} % of a core",
                         *verdict(figures["passes_per_second"], 60)])
        elif kind == "search":
            searches.append(figures["io_ns"])
            growth = searches[-1] / searches[0]
            rows.append([f"one push on the io thread, {detail.split('-')[0]} workflows", duration(figures["io_ns"]),
                         *verdict(growth, 2)])
            rows[-1][2] += " times the first"
        elif kind == "pushes" and "percent" in str(figures):
            rows.append([f"100,000 pushes a second, {rest[0].replace('-', ' ')}",
                         f"io thread {figures['io_percent']:.0f} %, callbacks {figures['callback_percent']:.0f} %, libzmq "
                         f"{figures['zmq_percent']:.0f} % of a core; callback after {figures['median_us']:.0f} µs (p99 "
                         f"{figures['p99_us']:.0f}); grown by {figures['grown_kib']:.0f} KiB",
                         *verdict(figures["per_second"], 99000, at_most=False)])
            rows[-1][2] = "all, no growth"
            if figures["grown_kib"] > 1024:
                rows[-1][3] = "**missed**"
        elif kind == "pushes":
            rows.append([f"pushes as fast as they can, none lost, {rest[0].replace('-', ' ')}",
                         f"{figures['per_second']:,.0f} a second; p99 {figures['p99_us'] / 1000:.0f} ms; at most {figures['grown_kib']:.0f} "
                         "KiB more", "", ""])
    if below := micro.get("log/below-level"):
        rows.append(["log line with a large description below the level in force",
                     f"{duration(below['qelnk'])} (one comparison {duration(below['one-comparison'])}; in force "
                     f"{duration(micro['log/at-level']['qelnk'])})", *verdict(below["qelnk"], 10)])
        rows[-1][2] += " ns"
    return {"daemon": table(["what", "measured", "goal", ""], rows)} if rows else {}


def network_tables(results):
    rows = []
    for name, peers in read_lines(results / "network_bench.txt").items():
        kind, detail = name.split("/")
        figures = peers["qelnk"]
        if kind == "interfaces":
            rows.append([f"interfaces, {detail.replace('-', ' ')}", f"{figures['ms']:.2f} ms (the dumps alone {peers['libnl']['ms']:.2f} ms)",
                         *verdict(figures["ms"], 10)])
        elif kind == "watches":
            rows.append([f"{detail} keep-alive watches", f"{figures['cpu_percent']:.2f} % of a core; "
                         f"{figures['descriptors']:.0f} descriptors, {figures['kib_each']:.0f} KiB each", *verdict(figures["cpu_percent"], 5)])
    return {"network": table(["what", "measured", "goal", ""], rows)} if rows else {}


def websocket_tables(results):
    rows = []
    names = {"round-trips": "texts of 64 bytes, there and back", "one-way": "1 MiB binary, one way",
             "echo": "1 MiB binary, there and back"}
    for name, peers in sorted(read_lines(results / "websocket_bench.txt").items(), key=lambda row: row[0].endswith("one-core")):
        _, what, cores = name.split("/")
        for manner, ours, bare in (("handed over", "ours", "beast-handing-over"),
                                   ("on one thread", "ours-one-thread", "beast-one-thread")):
            rates = [f"{peers[p]['per_second']:,.0f}/s ({duration(peers[p]['cpu_ns'])})" for p in (ours, bare)]
            ratio = peers[ours]["ratio"]
            rows.append([f"{names[what]}, {manner}" + (", on one core" if cores == "one-core" else ""), *rates, f"{ratio:.2f}",
                         *verdict(ratio, 0.9, at_most=False)])
    headings = ["WebSocket", "QELNetworkKit", "Beast", "ratio", "goal", ""]
    return {"websocket": table(headings, rows)} if rows else {}


def startup_tables(results):
    starts, idle = [], []
    names = {"nothing": "nothing", "request": "a client that has had one answer", "server": "a server", "publisher": "a publisher",
             "subscriber": "a subscriber", "daemon": "a daemon client", "legacy": "a legacy server with one connection",
             "websocket": "a WebSocket", "watch": "a keep-alive watch"}
    programs = {"empty": "an empty program", "libzmq": "with libzmq", "libraries": "with the libraries that ours needs", "ours": ""}
    for name, peers in read_lines(results / "startup_bench.txt").items():
        kind, what = name.split("/")
        if kind == "startup":
            words, goal = ("to main", 1.2) if what == "main" else ("from main to the first answer", 1.5)
            times = [f"{peers[p]['median_us'] / 1000:.2f} ({peers[p]['p99_us'] / 1000:.1f})" if p in peers else ""
                     for p in ("ours", "libraries", "libzmq", "empty")]
            starts.append([words, *times, f"{peers['ours']['ratio']:.2f}", *verdict(peers["ours"]["ratio"], goal)])
        else:
            for program, f in peers.items():
                idle.append([", ".join(part for part in (names[what], programs[program]) if part),
                             f"{f['resident_kib'] / 1024:.1f} MiB", f"{f['own_kib']:,.0f} KiB", f"{f['threads']:.0f}",
                             f"{f['cpu_percent']:.2f} %", f"{f['switches_per_second']:.1f}"])
    return {name: table(headings, rows) for name, headings, rows in (
        ("startup", ["ms", "QELNetworkKit", "its libraries alone", "libzmq alone", "empty", "ratio", "goal", ""], starts),
        ("idle", ["idle process", "memory", "its own", "threads", "of a core", "switches a second"], idle)) if rows}


CURVES = {"pending": "a request, so many pending and then answered", "subscribers": "a message to each of so many subscribers",
          "subscribers-made": "making a subscriber, until all hear", "connections-made": "a legacy connection made and ended",
          "heartbeat": "a heartbeat to each of so many connections", "workflows-mirrored": "mirroring a workflow of 10 ports",
          "workflows": "a push to each port of so many workflows", "ports-mirrored": "mirroring a port",
          "ports": "a push to each of so many ports", "request-bytes": "a byte of a request and its answer",
          "published-bytes": "a byte of a published message"}


def read_curves(results):
    """{curve: {peer: [(how many, microseconds for all of them)]}}"""
    curves = {}
    for name, peers in read_lines(results / "scale_bench.txt").items():
        _, curve, count = name.split("/")
        for peer, figures in peers.items():
            curves.setdefault(curve, {}).setdefault(peer, []).append((int(count), figures["us"]))
    return {curve: curves[curve] for curve in CURVES if curve in curves}


def slope(points):
    """The exponent of what all cost over how many there are, by least squares on logarithms; 1 is linear."""
    logarithms = [(math.log(count), math.log(cost)) for count, cost in points]
    return statistics.linear_regression(*zip(*logarithms)).slope


def scale_tables(results):
    rows = []
    for curve, peers in read_curves(results).items():
        for peer, points in peers.items():
            each = [f"{duration(cost * 1000 / count)} at {count:,}" for count, cost in (points[0], points[len(points) // 2], points[-1])]
            value = slope(points)
            goal = verdict(value, 1.1) if peer == "qelnk" else ["", ""]
            rows.append([CURVES[curve] if peer == "qelnk" else "", "QELNetworkKit" if peer == "qelnk" else "by hand", *each,
                         f"{value:.2f}", f"{slope(points[-2:]):.2f}", *goal])
    headings = ["what one costs", "", "least", "", "most", "slope", "last step", "goal", ""]
    return {"scale": table(headings, rows)} if rows else {}


def machine():
    cpu = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    compiler = subprocess.run(["c++", "--version"], capture_output=True, text=True).stdout.splitlines()
    return (f"{cpu.group(1) if cpu else 'unknown processor'}, {len(os.sched_getaffinity(0))} cores; Linux {os.uname().release}; "
            f"{compiler[0] if compiler else 'unknown compiler'}, `-O2`")


def main(results, page=None):
    results = pathlib.Path(results)
    tables = {**encoding_tables(results), **request_tables(results), **server_tables(results), **broadcast_tables(results),
              **daemon_tables(results), **legacy_tables(results), **network_tables(results), **websocket_tables(results),
              **startup_tables(results), **scale_tables(results)}
    for name, text in tables.items():
        print(f"\n{name}\n{text}")
    if not page:
        return
    path = pathlib.Path(page)
    text = path.read_text()
    for name, content in {**tables, "machine": machine()}.items():
        text, found = re.subn(rf"(<!-- {name} -->\n).*?(<!-- end -->)", lambda match: f"{match[1]}{content}\n{match[2]}", text,
                              flags=re.S)
        if not found:
            sys.exit(f"{page} has no place for {name}")
    path.write_text(text)
    bench_plot.main(path, path.with_suffix(".svg"))
    if curves := read_curves(results):
        drawn = {CURVES[curve]: {peer: (points, slope(points)) for peer, points in peers.items()} for curve, peers in curves.items()}
        path.with_name("scale.svg").write_text(bench_plot.curves(drawn))


if __name__ == "__main__":
    main(*sys.argv[1:])
