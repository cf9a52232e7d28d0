#!/usr/bin/env python3
"""Prints what olefile's getproperties returns for every property stream
(a stream whose name starts with "\\x05") of one compound file.

Usage: olefile_properties.py FILE

For each stream, a line "S <entry number>", then one line per property
olefile returns, tab-separated:
    P <id> <kind> <value>
kind is int, bool (0 or 1), none, bytes (hex) or str (hex of UTF-8, with
unpaired surrogates as U+FFFD; olefile gives CLSIDs as str too).  For
FILETIME properties, olefile's convert_time=True result follows as
    T <id> <ISO date and time with microseconds>
or "T <id> -" when olefile cannot convert it.
Exits with 2 when olefile is not installed, 1 when it cannot open the file.
"""
import datetime
import logging
import sys

try:
    import olefile
except ImportError:
    sys.exit(2)


def describe(value):
    if value is None:
        return "none", ""
    if isinstance(value, bool):
        return "bool", "1" if value else "0"
    if isinstance(value, int):
        return "int", str(value)
    if isinstance(value, bytes):
        return "bytes", value.hex()
    if isinstance(value, str):
        return "str", value.encode("utf-8", "replace").hex()
    raise TypeError("unexpected value %r" % (value,))


def walk(ole, entry, path, out):
    for kid in entry.kids:
        kid_path = path + [kid.name]
        if kid.entry_type == olefile.STGTY_STORAGE:
            walk(ole, kid, kid_path, out)
        elif kid.entry_type == olefile.STGTY_STREAM and kid.name.startswith("\x05"):
            out.append("S\t%d" % kid.sid)
            plain = ole.getproperties(kid_path)
            converted = ole.getproperties(kid_path, convert_time=True)
            for pid in sorted(plain):
                kind, text = describe(plain[pid])
                out.append("P\t%d\t%s\t%s" % (pid, kind, text))
                if isinstance(converted.get(pid), datetime.datetime):
                    out.append("T\t%d\t%s" % (pid, converted[pid].strftime("%Y-%m-%dT%H:%M:%S.%f")))
                elif pid not in converted:
                    out.append("T\t%d\t-" % pid)


def main():
    # Defects olefile tolerates are logged; keep them off standard output.
    logging.disable(logging.CRITICAL)
    try:
        ole = olefile.OleFileIO(sys.argv[1])
    except Exception as error:  # olefile raises many kinds
        print(error, file=sys.stderr)
        sys.exit(1)
    out = []
    walk(ole, ole.root, [], out)
    ole.close()
    print("\n".join(out))


if __name__ == "__main__":
    main()
