#!/usr/bin/env python3
"""Lists a compound file as an independent reader sees it.

Usage: listing.py olefile|gsf|olecf|poi|cfb|moxole FILE [SCRATCH_DIR]

Prints one line per storage or stream below the root, sorted:
    <kind> <size> <sha256 of the bytes> <path with / between names>
kind is "d" for a storage and "f" for a stream, or "-" where the tool cannot
tell the two apart: olecf never can (a storage shows as an empty item), and
gsf lists a storage without children as an empty file.  Exit status 2 when
the tool is not available, 1 when it fails.

poi runs Apache POI through a small Java reader compiled into SCRATCH_DIR
on first use; cfb runs SheetJS cfb (npm, installed in node_modules beside
this script); moxole runs this library's command-line host, which reads
through the 22-slot ABI (MOXOLE_PROGRAM names it), its 8-bit names read as
Latin-1.
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
    for raw in listing.decode("utf-8", "surrogateescape").splitlines()[1:]:
        fields = raw.split(None, 2)
        if len(fields) != 3 or fields[2] == "*root*":
            continue
        kind, _, name = fields
        if kind == "d":
            out.append(line("d", b"", name))
        else:
            data = subprocess.run(["gsf", "cat", path, os.fsencode(name)], check=True,
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
        # olecfexport writes control characters of names as \xHH.
        out.append(line("-", data, unescape(os.path.relpath(folder, root))))
    shutil.rmtree(root)
    return out


HERE = os.path.dirname(os.path.abspath(__file__))


def run_lines(argv, env=None):
    result = subprocess.run(argv, check=True, capture_output=True, env=env)
    return result.stdout.decode("utf-8").splitlines()


def with_poi(path, scratch):
    jars = ["/usr/share/java/poi.jar", "/usr/share/java/commons-collections4.jar",
            "/usr/share/java/commons-math3.jar"]
    if shutil.which("javac") is None or not os.path.exists(jars[0]):
        sys.exit(2)
    classes = os.path.join(scratch, "poi-classes")
    if not os.path.exists(os.path.join(classes, "PoiListing.class")):
        os.makedirs(classes, exist_ok=True)
        subprocess.run(["javac", "-cp", jars[0], "-d", classes,
                        os.path.join(HERE, "PoiListing.java")], check=True, capture_output=True)
    return run_lines(["java", "-cp", ":".join([classes] + jars), "PoiListing", path])


def with_cfb(path):
    if shutil.which("node") is None or not os.path.isdir(os.path.join(HERE, "node_modules", "cfb")):
        sys.exit(2)
    return run_lines(["node", os.path.join(HERE, "cfb_listing.js"), path])


def unescape(text):
    out, i = [], 0
    while i < len(text):
        if text.startswith("\\x", i) and i + 4 <= len(text):
            out.append(chr(int(text[i + 2:i + 4], 16)))
            i += 4
        else:
            out.append(text[i])
            i += 1
    return "".join(out)


def with_moxole(path):
    program = os.environ.get("MOXOLE_PROGRAM", "")
    if not os.path.exists(program):
        sys.exit(2)
    out = []
    for raw in run_lines([program, "ls", "-lR", path]):
        kind, size, name = raw.split(None, 2)
        if kind == "storage":
            out.append(line("d", b"", unescape(name)))
        else:
            data = subprocess.run([program, "cat", path, name], check=True,
                                  capture_output=True).stdout
            out.append(line("f", data, unescape(name)))
    return out


def main():
    tool, path = sys.argv[1], sys.argv[2]
    if tool == "olefile":
        out = with_olefile(path)
    elif tool == "gsf":
        out = with_gsf(path)
    elif tool == "olecf":
        out = with_olecf(path, sys.argv[3])
    elif tool == "poi":
        out = with_poi(path, sys.argv[3])
    elif tool == "cfb":
        out = with_cfb(path)
    elif tool == "moxole":
        out = with_moxole(path)
    else:
        sys.exit(1)
    for item in sorted(out):
        print(item)


if __name__ == "__main__":
    main()
