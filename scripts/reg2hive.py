#!/usr/bin/env python3
"""Writes the keys of regedit exports below one root as a hive file.

    scripts/reg2hive.py --root 'HKEY_LOCAL_MACHINE\\SOFTWARE' --out SOFTWARE a.reg [b.reg ...]

Reads what regedit writes (UTF-16LE with its mark, or UTF-8/ASCII; strings, dword:,
hex: and hex(N): values, lines continued with a backslash); keys outside ROOT are left out,
deletions are not applied. Tests build Windows volumes with it from the example machines'
exports (hivexregedit wants every parent key listed and no continued lines).
"""
import argparse
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import synthetic_registry as reg  # noqa: E402


def read_text(path):
    data = open(path, "rb").read()
    if data.startswith(b"\xff\xfe"):
        return data[2:].decode("utf-16-le")
    return data.decode("utf-8-sig")


def logical_lines(text):
    line = ""
    for raw in text.replace("\r\n", "\n").split("\n"):
        if line and raw.startswith("  "):
            raw = raw.lstrip()
        line += raw
        if line.endswith("\\") and "=hex" in line:
            line = line[:-1]
            continue
        yield line
        line = ""
    if line:
        yield line


def parse_string(text):
    out, i = [], 1
    while i < len(text) and text[i] != '"':
        if text[i] == "\\" and i + 1 < len(text):
            i += 1
        out.append(text[i])
        i += 1
    return "".join(out), text[i + 1:]


def parse_value(line):
    if line.startswith("@="):
        name, rest = "", line[2:]
    else:
        name, rest = parse_string(line)
        rest = rest[1:]  # "="
    if rest.startswith('"'):
        text, _ = parse_string(rest)
        return reg.sz(name, text)
    if rest.startswith("dword:"):
        return reg.dword(name, int(rest[6:], 16))
    if rest.startswith("hex"):
        kind = reg.REG_BINARY
        if rest.startswith("hex("):
            kind = int(rest[4:rest.index(")")], 16)
        digits = rest[rest.index(":") + 1:].replace(",", " ").split()
        return (name, kind, bytes(int(d, 16) for d in digits))
    return None  # "-": a deletion


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--root", required=True)
    parser.add_argument("--out", required=True)
    parser.add_argument("exports", nargs="*")
    args = parser.parse_args()
    root = args.root.upper().rstrip("\\")
    tree, key = {}, None
    for path in args.exports:
        for line in logical_lines(read_text(path)):
            line = line.strip()
            if line.startswith("[") and line.endswith("]"):
                name = line[1:-1]
                key = None
                if name.upper() == root:
                    key = ""
                elif name.upper().startswith(root + "\\"):
                    key = name[len(root) + 1:]
                if key is not None:
                    tree.setdefault(key, [])
            elif key is not None and (line.startswith('"') or line.startswith("@=")):
                value = parse_value(line)
                if value:
                    values = [v for v in tree[key] if v[0].upper() != value[0].upper()]
                    tree[key] = values + [value]
    reg.write_hive(args.out, tree)


if __name__ == "__main__":
    main()
