"""qelnk interfaces, in networks of its own."""

import json
import os
import signal
import subprocess
import unittest

from support import BIN, LIMIT, ToolTest, qelnk

USAGE = """\
usage: ping [-AaDdfnoQqRrv] [-b boundif] [-c count] [-G sweepmaxsize] [-g sweepminsize]
            [-h sweepincrsize] [-i wait] [-l preload] [-M mask | time] [-m ttl]
            [-p pattern] [-S src_addr] [-s packetsize] [-t timeout]
            [-W waittime] [-z tos] host
       ping [-AaDdfLnoQqRrv] [-c count] [-I iface] [-i wait] [-l preload]
            [-M mask | time] [-m ttl] [-p pattern] [-S src_addr]
            [-s packetsize] [-T ttl] [-t timeout] [-W waittime]
            [-z tos] mcast-group
"""
UP = "ip link add ve1 type veth peer name ve0 && ip link set ve0 up && ip link set ve1 up && ip address add 10.1.2.3/24 dev ve0"


class Network(ToolTest):
    def inside(self, *commands):
        """What commands print, and their exit code, in a network namespace with its own view of the system."""
        if os.geteuid() != 0:
            self.skipTest("needs a network namespace of its own, which only root can make")
        script = " && ".join(["mount -t sysfs sysfs /sys", "ip link set lo up", *commands])
        done = subprocess.run(["unshare", "-nm", "sh", "-c", script], capture_output=True, text=True, timeout=LIMIT,
                              env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nowhere", "PATH": f"{BIN}:{os.environ['PATH']}"})
        return done.stdout, done.returncode

    def events(self, *commands):
        output, code = self.inside(*commands)
        self.assertEqual(code, 0)
        return [json.loads(line) for line in output.splitlines()]

    def test_interfaces(self):
        first, second = self.events(UP, "sleep 0.2", "qelnk interfaces --json")
        self.assertEqual({**first, "deviceUUID": ""},
                         {"event": "interface", "deviceName": "ve0", "userDefinedName": "ve0", "currentIPv4": "10.1.2.3",
                          "deviceUUID": "", "ipAddressAsUInt32": 0x0A010203})
        self.assertEqual((second["deviceName"], second["currentIPv4"], second["ipAddressAsUInt32"]), ("ve1", "", 0))
        self.assertEqual([e["deviceName"] for e in self.events(UP, "qelnk interfaces --json --active")], ["ve0"])
        route = "ip route add default via 10.1.2.99"
        self.assertEqual([e["deviceName"] for e in self.events(UP, route, "qelnk interfaces --json --primary")], ["ve0"])
        best, = self.events(UP, f"qelnk interfaces --json --best {second['deviceUUID']}")
        self.assertEqual(best["deviceName"], "ve0")  # the wanted one has no address
        output, code = self.inside(UP, "sleep 0.2", "qelnk interfaces")
        self.assertEqual([line.split()[:2] for line in output.splitlines()],
                         [["DEVICE", "ADDRESS"], ["ve0", "10.1.2.3"], ["ve1", "-"]])

    def test_none(self):
        self.assertEqual(self.events("qelnk interfaces --json"), [])
        self.assertEqual(self.inside("qelnk interfaces --primary"), ("", 1))
        loopback, = self.events("qelnk interfaces --json --best gone")
        self.assertEqual((loopback["deviceName"], loopback["currentIPv4"], loopback["deviceUUID"]),
                         ("lo0", "127.0.0.1", "localhost"))
        self.assertEqual(self.inside("qelnk interfaces --primary --active")[1], 64)

    def test_ping(self):
        result = qelnk("ping")
        self.assertEqual((result.code, result.out, result.err), (64, b"", USAGE))
        self.assertEqual(qelnk("ping", "--help").code, 64)
        self.assertEqual(qelnk("ping", "-c", "x", "127.0.0.1").err, "qelnk: invalid count of packets to transmit: `x'\n")
        self.assertEqual(self.inside("qelnk ping no.host.invalid")[1], 68)
        self.assertEqual(qelnk("--bogus", "ping", "127.0.0.1").code, 64)
        output, code = self.inside("qelnk ping -n -c 1 -s 100 127.0.0.1")
        self.assertEqual(code, 0)
        self.assertRegex(output, r"\APING 127\.0\.0\.1 \(127\.0\.0\.1\): 100 data bytes\nintvl 1\.0\n"
                                 r"108 bytes from 127\.0\.0\.1: icmp_seq=0 ttl=64 time=[\d.]+ ms\n"
                                 r"\n--- 127\.0\.0\.1 ping statistics ---\n"
                                 r"1 packets transmitted, 1 packets received, 0\.0% packet loss\n"
                                 r"round-trip min/avg/max/stddev = [\d.]+/[\d.]+/[\d.]+/0\.000 ms\n\Z")
        silence = "echo 1 >/proc/sys/net/ipv4/icmp_echo_ignore_all"
        self.assertEqual(self.inside(silence, "qelnk ping 127.0.0.1"),
                         ("PING 127.0.0.1 (127.0.0.1): 56 data bytes\nintvl 1.0\nESCAPE!\n", 1))
        self.assertEqual(self.inside(silence, "qelnk ping -q -t 1 127.0.0.1")[1], 2)

    def test_ping_is_interrupted(self):
        if os.geteuid() != 0:
            self.skipTest("needs the right to ping, which only root is sure to have")
        process = self.start(BIN / "qelnk", "ping", "-n", "127.0.0.1")
        for line in process.stdout:
            if b"icmp_seq=0" in line:
                break
        process.send_signal(signal.SIGQUIT)
        self.assertRegex(process.stderr.readline().decode(),
                         r"^\r\d+/\d+ packets received \([\d.]+%\) [\d.]+ min / [\d.]+ avg / [\d.]+ max$")
        process.send_signal(signal.SIGINT)
        result = self.finish(process)
        self.assertEqual(result.code, 0)
        # The last request may have gone out just before, and its reply not have come.
        self.assertRegex(result.out.decode(), r"\d+ packets transmitted, [1-9]\d* packets received, [\d.]+% packet loss")

    def test_watch(self):
        self.assertEqual(qelnk("watch", "localhost").code, 64)
        seen = self.events(
            UP, "{ unshare -n sleep 600 & other=$!; }", "trap 'kill $other $(jobs -p)' EXIT",
            "while [ $(readlink /proc/$other/ns/net) = $(readlink /proc/self/ns/net) ]; do sleep 0.01; done",
            "ip link set ve1 netns $other",
            "nsenter -n -t $other sh -c 'ip link set ve1 up && ip address add 10.1.2.4/24 dev ve1'",
            "{ qelnk watch --json 10.1.2.4 10.1.2.4 & watch=$!; }", "until ss -H -w -a | grep -q 10.1.2.4; do sleep 0.01; done",
            "ip address add 10.1.2.5/25 dev ve0", "ip address del 10.1.2.3/24 dev ve0",  # which ends nothing
            "sleep 5", """echo '{"event": "down"}'""", "nsenter -n -t $other ip link set ve1 down", "wait $watch")
        self.assertEqual(seen, [{"event": "watching", "ip": "10.1.2.4"}, {"event": "down"},
                                {"event": "unreachable", "ip": "10.1.2.4"}])


if __name__ == "__main__":
    unittest.main()
