#!/usr/bin/env python3
"""Compiles the C++ in the documents (*.md, docs/*.md), in one run of the compiler, and follows the links among them.

    scripts/check_docs_code.py [COMPILER]

Every block that begins with ```cpp is looked at. One that has a main() stands alone. Any other is compiled as the body
of a function; its #include lines go to the top of the file. What a reader need not see stands in a comment before it:

    <!-- cpp-setup
    auto server = QELNKServer::create(QELNKContext::sharedContext());
    -->

are lines that are put before a block's own, inside the function. A block behind

    <!-- cpp-from examples/host_glib.cpp -->

has to stand in that file, with any indentation; the build compiles it there.

A link to a file or to a heading has to lead somewhere; the web is not asked.
"""

import pathlib
import re
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
BLOCK = re.compile(r"(?:<!-- (?P<kind>cpp-\w+)(?P<given>(?:(?!-->).)*)-->\s*)?"
                   r"^ *```cpp\n(?P<code>.*?)^ *```$", re.M | re.S)
LINK = re.compile(r"\]\((?!https?:)([^)#\s]*)(?:#([^)\s]*))?\)")
INCLUDE = re.compile(r"^#\s*include\b.*$", re.M)


def stripped(text):
    return [line.strip() for line in text.strip().splitlines()]


def stands_in(code, file):
    """Whether the lines of a block are lines of the file, one behind the other."""
    lines, wanted = stripped(file.read_text()), stripped(code)
    return any(lines[at:at + len(wanted)] == wanted for at in range(len(lines)))


def headings(file):
    """The names by which links reach the headings of a document."""
    text = re.sub(r"^```.*?^```", "", file.read_text(), flags=re.M | re.S)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in re.findall(r"^#+ (.*)$", text, re.M)}


def broken_links(file):
    text = re.sub(r"^ *```.*?^ *```", lambda code: "\n" * code[0].count("\n"), file.read_text(), flags=re.M | re.S)
    for link in LINK.finditer(text):
        path, heading = link.groups()
        target = file.parent / path if path else file
        if not target.exists() or heading and heading not in headings(target):
            yield f"{file.relative_to(ROOT)}:{text.count(chr(10), 0, link.start()) + 1}: {link[0][1:]} leads nowhere"


class Source:
    """One file of all blocks, in a namespace each."""

    def __init__(self):
        self.includes = ["#include <QELNetworkKit/QELNetworkKit.h>"]
        self.lines = []
        self.blocks = 0

    def without_includes(self, code):
        self.includes += INCLUDE.findall(code)
        return INCLUDE.sub("", code)

    def add(self, code, setup, place):
        self.blocks += 1
        self.lines.append(f"namespace block_{self.blocks} {{")
        is_program = re.search(r"^int main\(", code, re.M)
        if not is_program:
            self.lines.append("[[maybe_unused]] static void block() {")
        for text, (file, line) in ((setup, place("given")), (code, place("code"))):
            self.lines += [f'#line {line} "{file}"', self.without_includes(text)]
        self.lines.append("}" if is_program else "}\n}")

    def text(self):
        return "\n".join([*dict.fromkeys(self.includes), *self.lines, ""])


def main():
    compiler = sys.argv[1] if len(sys.argv) > 1 else "c++"
    source, problems, copies = Source(), [], 0
    for file in [*sorted(ROOT.glob("*.md")), *sorted((ROOT / "docs").glob("*.md"))]:
        text, name = file.read_text(), file.relative_to(ROOT)
        problems += broken_links(file)
        found = list(BLOCK.finditer(text))
        if len(found) != len(re.findall(r"^ *```cpp", text, re.M)):
            problems.append(f"{name}: a block of C++ does not end")
        if sum(bool(block["kind"]) for block in found) != text.count("<!-- cpp-"):
            problems.append(f"{name}: a comment for a block of C++ is not followed by one")
        for block in found:
            def place(group):
                return name, text.count("\n", 0, max(block.start(group), 0)) + 1
            kind, given = block["kind"], block["given"] or ""
            if kind == "cpp-from":
                copies += 1
                origin = ROOT / given.strip()
                if not origin.is_file() or not stands_in(block["code"], origin):
                    problems.append(f"{name}:{place('code')[1]}: this does not stand in {given.strip()}")
            elif kind in (None, "cpp-setup"):
                source.add(block["code"], given, place)
            else:
                problems.append(f"{name}:{place('code')[1]}: {kind} is not known")
    with tempfile.NamedTemporaryFile("w", suffix=".cpp") as unit:
        unit.write(source.text())
        unit.flush()
        done = subprocess.run([compiler, "-std=c++20", "-Wall", "-Wno-unused", "-Wno-return-type", "-Werror", "-fsyntax-only",
                               f"-I{ROOT / 'include'}", unit.name])
    if problems:
        print("\n".join(problems), file=sys.stderr)
    if problems or done.returncode:
        return 1
    print(f"{source.blocks} blocks of C++ in the documents compile, {copies} are as in the examples, no link is broken")
    return 0


if __name__ == "__main__":
    sys.exit(main())
