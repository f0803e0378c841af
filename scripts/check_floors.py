#!/usr/bin/env python3
"""Checks that every file includes only its own floor's folder, or a lower floor, and that tools and the soak use public headers alone."""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
# Lower floors have lower numbers; those of the same number stand side by side and do not know each other.
FLOORS = {"platform": 0, "encoding": 1, "messaging": 2, "legacy": 2, "netutil": 2, "daemon": 3, "tools": 4, "soak": 5}
PUBLIC = {
    "platform": "Export Mutex Clock RunLoop Queue Log UserSettings Process NetService Version ByteStream QELProjectTimecode",
    "encoding": "Value Error PQODictionary XMLDocument JSON MPMessagePack cmp",
    "messaging": "ZMQException ZMQContext ZMQSocket QELNKContext QELNKEncryption QELNKSocket QELNKMessage QELNKClient QELNKServer "
                 "QELNKPublisher QELNKSubscriber QELNKMonitor",
    "legacy": "QELNKLegacyStreamThread QELNKLegacyStream QELNKLegacySerializer QELNKLegacyClient QELNKLegacyServer "
              "QELNKLegacyService",
    "netutil": "QELNKNetworkInterface QELNKNetworkInterfaceDiscovery qelNKPing QELNKPingleton QELNKWebSocket",
    "daemon": "QELNKOrlinPort QELNKOrlinWorkflow QELNKKORVALConstants QELNKKORVALClient QELNKOrlinDaemon"
    " QELNKKORVALDaemonClient QELNKOrlinDaemonSpawner",
    "tools": "QELNetworkKit",
}
HOME = {name: floor for floor, names in PUBLIC.items() for name in names.split()}
INCLUDE = re.compile(r'^\s*#\s*include\s*[<"]([^>"]+)[>"]', re.M)


def floor_of(include: str, source: pathlib.Path) -> str | None:
    if include.startswith("QELNetworkKit/"):
        name = pathlib.PurePath(include).stem
        if name not in HOME:
            return f"?{include}"
        return HOME[name]
    first = include.split("/")[0]
    return first if first in FLOORS and "/" in include else None


def main() -> int:
    problems = []
    files = [p for floor in FLOORS for p in (ROOT / floor).rglob("*") if p.suffix in {".h", ".cpp", ".c"}]
    files += (ROOT / "include" / "QELNetworkKit").glob("*.h")
    for path in sorted(files):
        relative = path.relative_to(ROOT)
        own = HOME.get(path.stem, "?") if relative.parts[0] == "include" else relative.parts[0]
        if own == "?":
            problems.append(f"{relative}: a public header that belongs to no floor")
            continue
        for include in INCLUDE.findall(path.read_text()):
            other = floor_of(include, path)
            if other is None or other == own:
                continue
            if other.startswith("?"):
                problems.append(f"{relative}: {include} belongs to no floor")
            elif own in ("tools", "soak") and not include.startswith("QELNetworkKit/"):
                problems.append(f"{relative}: a host includes {include}, which is not public")
            elif FLOORS[other] >= FLOORS[own]:
                problems.append(f"{relative}: {own} includes {include}, which belongs to {other}")
    print("\n".join(problems) or f"{len(files)} files keep to their floors")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
