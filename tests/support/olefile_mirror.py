"""Writes what olefile reads in a compound file as a directory tree.

usage: python3 olefile_mirror.py FILE OUTDIR

Every storage becomes a directory and every stream a file, named the way
moxole names them: each name in UTF-8, with control characters (below
U+0020, U+007F to U+009F), '/' and '\\' written \\xHH, the first dot of
"." and ".." escaped, and the empty name written \\x00.  One line per entry
is printed: TYPE<TAB>PATH<TAB>SIZE, TYPE being D or F.  Exits 3 when a name
holds a surrogate (no file name can carry it) or when two names become one.
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
        code = ord(ch)
        if code < 0x20 or 0x7F <= code < 0xA0 or ch in "/\\" or (dots and i == 0):
            out.append("\\x%02x" % code)
        else:
            out.append(ch)
    return "".join(out)


def main():
    path, outdir = sys.argv[1], sys.argv[2]
    ole = olefile.OleFileIO(path)
    entries = ole.listdir(streams=True, storages=True)
    for entry in entries:
        if any(0xD800 <= ord(ch) < 0xE000 for part in entry for ch in part):
            sys.exit(3)
    for entry in sorted(entries, key=len):
        names = [escape(part).encode("utf-8") for part in entry]
        rel = b"/".join(names)
        target = os.path.join(outdir.encode("utf-8"), *names)
        kind = ole.get_type(entry)
        if os.path.lexists(target):
            sys.exit(3)
        if kind == olefile.STGTY_STORAGE:
            os.makedirs(target, exist_ok=True)
            sys.stdout.buffer.write(b"D\t%s\t0\n" % rel)
        elif kind == olefile.STGTY_STREAM:
            os.makedirs(os.path.dirname(target), exist_ok=True)
            data = ole.openstream(entry).read()
            with open(target, "wb") as f:
                f.write(data)
            sys.stdout.buffer.write(b"F\t%s\t%d\n" % (rel, len(data)))
    ole.close()


if __name__ == "__main__":
    main()
