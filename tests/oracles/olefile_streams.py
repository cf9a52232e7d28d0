#!/usr/bin/env python3
"""Lists every stream olefile reads in one compound file.

Usage: olefile_streams.py FILE
Prints one line per stream reachable from the root: the directory entry
number and the SHA-256 of the bytes olefile returns, separated by a tab.
Exits with 2 when olefile is not installed, 1 when it cannot open the file.
"""
import hashlib
import sys

try:
    import olefile
except ImportError:
    sys.exit(2)


def walk(ole, entry, path, out):
    for kid in entry.kids:
        kid_path = path + [kid.name]
        if kid.entry_type == olefile.STGTY_STREAM:
            data = ole.openstream(kid_path).read()
            out.append((kid.sid, hashlib.sha256(data).hexdigest()))
        elif kid.entry_type == olefile.STGTY_STORAGE:
            walk(ole, kid, kid_path, out)


def main():
    try:
        ole = olefile.OleFileIO(sys.argv[1])
    except Exception:  # any refusal is just "cannot open" to the caller
        return 1
    streams = []
    walk(ole, ole.root, [], streams)
    for sid, digest in streams:
        print(f"{sid}\t{digest}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
