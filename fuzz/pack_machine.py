#!/usr/bin/env python3
"""Packs a recorded machine folder into one input of whole_machine_fuzz.

    fuzz/pack_machine.py FOLDER OUT [--skip NAME ...]

Each file becomes a record: name length (1 byte), its path relative to FOLDER with '/',
data length (4 bytes, little-endian), data. README.md files are left out.
"""
import argparse
import os
import struct
import sys


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("folder")
    parser.add_argument("out")
    parser.add_argument("--skip", action="append", default=[], help="a relative path to leave out")
    args = parser.parse_args()
    records = []
    for root, dirs, files in os.walk(args.folder):
        dirs.sort()
        for name in sorted(files):
            path = os.path.join(root, name)
            relative = os.path.relpath(path, args.folder).replace(os.sep, "/")
            if name == "README.md" or relative in args.skip:
                continue
            encoded = relative.encode("ascii")
            if len(encoded) > 255:
                sys.exit(f"{relative}: name longer than 255 bytes")
            with open(path, "rb") as f:
                data = f.read()
            records.append(bytes([len(encoded)]) + encoded + struct.pack("<I", len(data)) + data)
    with open(args.out, "wb") as f:
        f.write(b"".join(records))


if __name__ == "__main__":
    main()
