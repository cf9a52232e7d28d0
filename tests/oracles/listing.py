#!/usr/bin/env python3
"""Lists a compound file as an independent reader sees it.

Usage: listing.py olefile|gsf|olecf FILE [SCRATCH_DIR]

Prints one line per storage or stream below the root, sorted:
    <kind> <size> <sha256 of the bytes> <path with / between names>
kind is "d" for a storage and "f" for a stream, or "-" where the tool cannot
tell the two apart: olecf never can (a storage shows as an empty item), and
gsf lists a storage without children as an empty file.  Exit status 2 when
the tool is not available, 1 when it fails.
"""
import hashlib
import os
import shutil
import subprocess
import sys


def line(kind, data, path):
    return "%s %d %s %s" % (kind, len(data), hashlib.sha256(data).hexdigest(), path)


def with_olefile(path):
    try:
        import olefile
    except ImportError:
        sys.exit(2)
    out = []
    # Any defect olefile can name, however small, fails the listing.
    ole = olefile.OleFileIO(path, raise_defects=olefile.DEFECT_INCORRECT)
    for parts in ole.listdir(streams=True, storages=True):
        name = "/".join(parts)
        if ole.get_type(parts) == olefile.STGTY_STORAGE:
            out.append(line("d", b"", name))
        else:
            out.append(line("f", ole.openstream(parts).read(), name))
    ole.close()
    return out


def with_gsf(path):
    if shutil.which("gsf") is None:
        sys.exit(2)
    listing = subprocess.run(["gsf", "list", path], check=True, capture_output=True).stdout
    out = []
    for raw in listing.decode("latin-1").splitlines()[1:]:
        fields = raw.split(None, 2)
        if len(fields) != 3 or fields[2] == "*root*":
            continue
        kind, _, name = fields
        if kind == "d":
            out.append(line("d", b"", name))
        else:
            data = subprocess.run(["gsf", "cat", path, name], check=True,
                                  capture_output=True).stdout
            out.append(line("f" if data else "-", data, name))
    return out


def with_olecf(path, scratch):
    if shutil.which("olecfexport") is None:
        sys.exit(2)
    target = os.path.join(scratch, "olecf")
    subprocess.run(["olecfexport", "-t", target, path], check=True, capture_output=True)
    # olecfexport adds ".export" to the target; every item is a folder
    # holding its bytes in StreamData.bin and its children as folders.
    root = target + ".export"
    out = []
    for folder, children, files in os.walk(root):
        if folder == root:
            continue
        with open(os.path.join(folder, "StreamData.bin"), "rb") as f:
            data = f.read()
        out.append(line("-", data, os.path.relpath(folder, root)))
    shutil.rmtree(root)
    return out


def main():
    tool, path = sys.argv[1], sys.argv[2]
    if tool == "olefile":
        out = with_olefile(path)
    elif tool == "gsf":
        out = with_gsf(path)
    elif tool == "olecf":
        out = with_olecf(path, sys.argv[3])
    else:
        sys.exit(1)
    for item in sorted(out):
        print(item)


if __name__ == "__main__":
    main()
