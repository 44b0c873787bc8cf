#!/usr/bin/env python3
"""strip_commands.py IN OUTDIR: a copy of a compilation database that clang's tools understand.

GCC and Clang do not know the same warnings, and the compiler launcher is none of the analysis's
business.
"""
import json
import os
import sys


def main() -> int:
    source, folder = sys.argv[1:3]
    with open(source, encoding="utf-8") as stream:
        entries = json.load(stream)
    for entry in entries:
        words = entry["command"].split()
        while words and not os.path.basename(words[0]).startswith(("g++", "c++", "clang", "gcc", "cc")) \
                or os.path.basename(words[0]) == "ccache":
            words.pop(0)
        entry["command"] = " ".join(w for w in words if not w.startswith("-fsanitize"))
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "compile_commands.json"), "w", encoding="utf-8") as stream:
        json.dump(entries, stream)
    return 0


if __name__ == "__main__":
    sys.exit(main())
