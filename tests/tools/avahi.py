"""A service discovery daemon on a bus of its own, in a network namespace of its own where there is only the loopback
interface. Programs reach it from outside, by the bus's socket: addresses of the loopback interface are the same there."""

import os
import pathlib
import shutil
import signal
import subprocess
import tempfile

from support import eventually

BUS = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>system</type><listen>unix:path={folder}/bus</listen><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><allow own="*"/><allow send_destination="*" eavesdrop="false"/>
<allow send_type="method_call"/><allow send_type="signal"/><allow send_type="method_return"/><allow send_type="error"/>
<allow receive_type="method_call"/><allow receive_type="signal"/><allow receive_type="method_return"/>
<allow receive_type="error"/></policy></busconfig>
"""

DAEMON = """[server]
host-name=alpha
allow-interfaces=lo
ratelimit-interval-usec=1000000
ratelimit-burst=1000
[wide-area]
enable-wide-area=no
[publish]
publish-hinfo=no
publish-workstation=no
"""

# The daemon wants a folder of its own below /run.
NAMESPACE = ("mount -t tmpfs tmpfs /run && mkdir /run/avahi-daemon && mount -t sysfs sysfs /sys && ip link set lo up && "
             "exec avahi-daemon --no-drop-root --no-chroot --no-proc-title --no-rlimits -f {folder}/avahi.conf")


class Discovery:
    """The daemon and its bus, which end with the test, or with this process at the latest."""

    def __init__(self, test):
        if os.geteuid() != 0:
            test.skipTest("needs a network namespace of its own, which only root can make")
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="qelnk-avahi-"))
        test.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.log = open(self.folder / "log", "w")
        test.addCleanup(self.log.close)
        self.env = {"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={self.folder}/bus"}
        self.processes = []
        test.addCleanup(self.end)
        (self.folder / "bus.conf").write_text(BUS.format(folder=self.folder))
        (self.folder / "avahi.conf").write_text(DAEMON)
        self.start("dbus-daemon", "--nofork", "--nopidfile", f"--config-file={self.folder}/bus.conf")
        test.assertTrue(eventually((self.folder / "bus").exists))
        self.start("unshare", "-nm", "sh", "-c", NAMESPACE.format(folder=self.folder))

    def start(self, *words):
        process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *words], stdin=subprocess.DEVNULL, stdout=self.log,
                                   stderr=self.log, env={**os.environ, **self.env})
        self.processes.append(process)
        return process

    def stop(self, process):
        process.send_signal(signal.SIGTERM)
        process.wait()

    def browse(self, type):
        """What the system's own browser finds: NAME, port and TXT entries of each service."""
        # It waits for ever where a service goes while its address is being asked for: then another one has to look.
        for left in reversed(range(3)):
            try:
                out = subprocess.run(["avahi-browse", "-rpt", type], env={**os.environ, **self.env}, capture_output=True,
                                     timeout=20).stdout.decode()
                break
            except subprocess.TimeoutExpired:
                if not left:
                    raise
        rows = [line.split(";", 9) for line in out.splitlines() if line.startswith("=")]
        return {(row[3], int(row[8]), frozenset(row[9].strip('"').split('" "'))) for row in rows}

    def end(self):
        for process in reversed(self.processes):
            process.kill()
            process.wait()
