#!/usr/bin/env python3
"""What Doxygen reads in a header's place: reference_filter.py HEADER

In our headers one comment may stand above several declarations that belong together. Doxygen sees only the first of them, so
that the comment is repeated for those directly below that are overloads of it or its setter; in C also for the others of the
same paragraph. Everything else has to have a comment of its own, or Doxygen finds it. Lines keep their numbers.
"""

import re
import sys


def name_of(declaration):
    """The name that a declaration declares; empty where it is none of a function."""
    text = re.sub(r"template\s*<.*?>\s|requires\s*\(.*?\)\)\s|QELNK_EXPORT|explicit|static|virtual", "", declaration)
    found = re.search(r"(operator\s*[^\s(]+|~?\w+)\s*\(", text)
    is_other = declaration.startswith(("using ", "friend ", "struct ", "class ", "enum ")) or "= delete" in declaration
    is_constructor = found and not text[:found.start()].replace("constexpr", "").strip()
    return found.group(1) if found and not is_other and not is_constructor else ""


def same(first, second, is_c):
    """Whether the comment of `first` is meant for `second` too."""
    if not first or not second:
        return False
    return is_c or first == second or second == "set" + re.sub("^is(?=[A-Z])", "", first)[:1].upper() + first[1:]


def filtered(lines, is_c):
    comment, documented, previous = [], [], ""  # gathered now; of the declaration above; that declaration's name
    index = 0
    while index < len(lines):
        line = lines[index]
        stripped = line.strip()
        index += 1
        if stripped.startswith("///") and not stripped.startswith("///<"):
            comment.append(stripped[3:].strip())
            continue
        if not stripped or stripped.startswith(("//", "#", "}")) or stripped.endswith(":"):
            comment, documented, previous = [], [], ""
            continue
        first, text = index - 1, stripped
        is_scope = text.startswith(("class ", "struct ", "namespace ", "typedef struct", "typedef union", "QELNK_EXTERN", "extern \"C\""))
        while index < len(lines):  # to the end of the declaration, or to where its body begins
            bare = re.sub(r"//.*|\"[^\"]*\"", "", text)
            balanced = bare.count("(") == bare.count(")") and bare.count("{") == bare.count("}")
            if re.search(r"[;{}]\s*$", bare) if is_scope else balanced and re.search(r"[;}]\s*$", bare):
                break
            text += "\n" + re.sub(r"//.*", "", lines[index].strip())
            index += 1
        name = name_of(text)
        if comment:
            documented, previous = comment, name
        elif documented and same(previous, name, is_c):
            indent = line[:len(line) - len(line.lstrip())]
            lines[first] = indent + "/** " + " ".join(documented).replace("*/", "") + " */ " + stripped
        elif not is_c:
            documented, previous = [], ""
        comment = []
    lines[0] = "/** @file */ " + lines[0]  # without it Doxygen leaves out what stands outside of classes
    return lines


def main():
    header = sys.argv[1]
    with open(header, encoding="utf-8") as file:
        print("\n".join(filtered(file.read().split("\n"), header.endswith("cmp.h"))), end="")


if __name__ == "__main__":
    main()
