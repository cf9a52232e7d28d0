"""Writes what olefile reads in a compound file as a directory tree.

usage: python3 olefile_mirror.py FILE OUTDIR

Every storage becomes a directory and every stream a file, named the way
moxole names them: each name is reduced to the low byte of each character
(as the library under test stores names), then control bytes, bytes from
0x7F up, '/' and '\\' are written \\xHH, the first dot of "." and ".." is
escaped, and the empty name is \\x00.  One line per entry is printed:
TYPE<TAB>PATH<TAB>SIZE, TYPE being D or F.  Exits 3 when a name cannot be
reduced that way (a character beyond the 16-bit range) or when two names
become one once reduced.
"""
import os
import sys

import olefile


def escape(name):
    if name == "":
        return "\\x00"
    out = []
    dots = name in (".", "..")
    for i, ch in enumerate(name):
        byte = ord(ch)
        if byte < 0x20 or byte >= 0x7F or ch in "/\\" or (dots and i == 0):
            out.append("\\x%02x" % byte)
        else:
            out.append(ch)
    return "".join(out)


def main():
    path, outdir = sys.argv[1], sys.argv[2]
    ole = olefile.OleFileIO(path)
    entries = ole.listdir(streams=True, storages=True)
    for entry in entries:
        if any(ord(ch) > 0xFFFF for part in entry for ch in part):
            sys.exit(3)
    for entry in sorted(entries, key=len):
        low = [escape("".join(chr(ord(ch) & 0xFF) for ch in part))
               for part in entry]
        rel = "/".join(low)
        target = os.path.join(outdir, *low)
        kind = ole.get_type(entry)
        if os.path.lexists(target):
            sys.exit(3)
        if kind == olefile.STGTY_STORAGE:
            os.makedirs(target, exist_ok=True)
            print("D\t%s\t0" % rel)
        elif kind == olefile.STGTY_STREAM:
            os.makedirs(os.path.dirname(target), exist_ok=True)
            data = ole.openstream(entry).read()
            with open(target, "wb") as f:
                f.write(data)
            print("F\t%s\t%d" % (rel, len(data)))
    ole.close()


if __name__ == "__main__":
    main()
