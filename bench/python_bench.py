"""moxolefio's Python package against olefile, in one run.

    PYTHONPATH=build/python /usr/bin/python3 bench/python_bench.py [--quick] [--rounds N]

Cases: every file of the corpus opened and every stream read; the
document of 100 000 mini streams (1000 storages of 100 streams of 1 to
4095 bytes) opened and read whole; a 512 MiB stream read in 1 MiB pieces
against the same bytes read from a plain file with Python's open(); the
memory a 1 GiB stream read in 1 MiB pieces takes above the interpreter.
Large streams are in version 4 files (4096-byte sectors) and, for the
512 MiB case, in a version 3 file too.
Documents are written once by the package itself into MOX_BENCH_DIR
(default /tmp/moxolefio-pybench) and kept for later runs.  Each figure is the
median of its rounds; the two readers take turns round by round.
"""

import argparse
import gc
import os
import random
import shutil
import statistics
import subprocess
import sys
import time

import olefile

import moxolefio

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
MIB = 1 << 20


def corpus_files():
    top = os.environ.get('MOX_CORPUS_DIR') or os.path.join(TOP, '..', 'shared', 'corpus')
    files = []
    for folder, _, names in os.walk(top):
        for name in names:
            path = os.path.join(folder, name)
            if os.path.dirname(os.path.relpath(path, top)):
                files.append(path)
    return sorted(files)


def read_everything(module, path):
    """Opens a file and reads every stream whole; what cannot be read is
    stepped over, by both readers alike."""
    total = 0
    try:
        ole = module.OleFileIO(path)
    except Exception:
        return 0
    for name in ole.listdir():
        try:
            total += len(ole.openstream(name).read())
        except Exception:
            pass
    ole.close()
    return total


def timed(call):
    gc.collect()
    start = time.perf_counter()
    result = call()
    return time.perf_counter() - start, result


def turns(rounds, cases):
    """Runs each (name, call) once per round, in turns; the median time of each."""
    times = {name: [] for name, _ in cases}
    results = {}
    for _ in range(rounds):
        for name, call in cases:
            seconds, results[name] = timed(call)
            times[name].append(seconds)
    return {name: statistics.median(t) for name, t in times.items()}, results


def made(out, fill):
    """The document at `out`, written by `fill(ole)` through the package's
    own writer, unless an earlier run left it there."""
    if not os.path.exists(out):
        if not moxolefio.EDITING:
            sys.exit('this build of moxolefio reads only: it cannot make the documents')
        with moxolefio.create(out + '.part', version=int(out.rsplit('-v', 1)[1][0])) as ole:
            fill(ole)
        os.rename(out + '.part', out)
    return out


def pattern_file(path, size):
    block = random.Random(size).randbytes(MIB)
    with open(path, 'wb') as f:
        for k in range(size // MIB):
            f.write(block[k % 251:] + block[:k % 251])


def mini_streams_doc(workdir, storages, per_storage):
    def fill(ole):
        rng = random.Random(100000)
        payload = rng.randbytes(4096)
        for s in range(storages):
            for k in range(per_storage):
                ole.write_stream('Storage%04d/Stream%03d' % (s, k), payload[:rng.randint(1, 4095)])
    return made(os.path.join(workdir, 'mini-%dx%d-v3.cfb' % (storages, per_storage)), fill)


def large_stream_doc(workdir, size, version):
    """A document of one stream 'Big' and a plain file of the same bytes."""
    plain = os.path.join(workdir, 'plain-%d.bin' % size)
    if not os.path.exists(plain):
        pattern_file(plain + '.part', size)
        os.rename(plain + '.part', plain)

    def fill(ole):
        ole.write_stream('Big', b'')
        with open(plain, 'rb') as src, ole.openstream('Big') as big:
            shutil.copyfileobj(src, big, 8 * MIB)
    return made(os.path.join(workdir, 'large-%d-v%d.cfb' % (size, version)), fill), plain


def settle(*paths):
    """Rewrites each file with the same copy, so that the document and the
    plain file come into the page cache the same way: how a file was
    written (here: the package's commit, Python's write()) changes how fast
    the kernel copies it out again, by up to 2x on the machine measured."""
    for path in paths:
        shutil.copyfile(path, path + '.settle')
        os.replace(path + '.settle', path)


def read_in_pieces(fp, piece):
    total = 0
    while True:
        data = fp.read(piece)
        if not data:
            return total
        total += len(data)


def memory_child(path, size):
    """Run in a fresh interpreter: the peak above the interpreter's own
    size while a stream of `size` bytes is read in 1 MiB pieces."""
    code = (
        'import moxolefio, sys\n'
        'def status(key):\n'
        '    for line in open("/proc/self/status"):\n'
        '        if line.startswith(key): return int(line.split()[1]) * 1024\n'
        'base = status("VmRSS:")\n'
        'ole = moxolefio.OleFileIO(sys.argv[1])\n'
        's = ole.openstream("Big")\n'
        'n = 0\n'
        'while True:\n'
        '    d = s.read(1 << 20)\n'
        '    if not d: break\n'
        '    n += len(d)\n'
        'assert n == int(sys.argv[2]), n\n'
        'print(base, status("VmHWM:"))\n')
    out = subprocess.run([sys.executable, '-c', code, path, str(size)], check=True, capture_output=True,
                         text=True, env=dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path))).stdout
    base, peak = map(int, out.split())
    return base, peak


def row(case, unit, ours, theirs, ratio, note=''):
    print('%-52s %-5s %12s %12s %8s  %s' % (case, unit, ours, theirs, ratio, note))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split('\n\n')[0])
    parser.add_argument('--rounds', type=int, default=5)
    parser.add_argument('--quick', action='store_true', help='small documents, 2 rounds: a smoke run')
    args = parser.parse_args()
    rounds = 2 if args.quick else args.rounds
    workdir = os.environ.get('MOX_BENCH_DIR', '/tmp/moxolefio-pybench')
    os.makedirs(workdir, exist_ok=True)

    print('moxolefio %s (editing: %s), olefile %s, Python %s' % (
        moxolefio.__version__, moxolefio.EDITING, olefile.__version__, sys.version.split()[0]))
    row('case', 'unit', 'moxolefio', 'olefile', 'speedup', 'note')

    files = corpus_files()
    if files:
        medians, results = turns(rounds, [
            ('olefile', lambda: sum(read_everything(olefile, f) for f in files)),
            ('moxolefio', lambda: sum(read_everything(moxolefio, f) for f in files))])
        row('corpus: open every file, read every stream', 'ms', '%.1f' % (medians['moxolefio'] * 1e3),
            '%.1f' % (medians['olefile'] * 1e3), '%.1fx' % (medians['olefile'] / medians['moxolefio']),
            '%d files, %.1f MB read (olefile %.1f MB)' % (len(files), results['moxolefio'] / 1e6,
                                                          results['olefile'] / 1e6))

    storages, per = (100, 100) if args.quick else (1000, 100)
    doc = mini_streams_doc(workdir, storages, per)
    # olefile needs tens of seconds here: it runs once, moxolefio in rounds.
    their_time, their_bytes = timed(lambda: read_everything(olefile, doc))
    medians, results = turns(rounds, [('moxolefio', lambda: read_everything(moxolefio, doc))])
    assert results['moxolefio'] == their_bytes
    row('%d mini streams: open, read whole' % (storages * per), 's', '%.3f' % medians['moxolefio'],
        '%.2f' % their_time, '%.0fx' % (their_time / medians['moxolefio']),
        '%.1f MB in %d storages' % (their_bytes / 1e6, storages))

    size = (64 if args.quick else 512) * MIB
    for version in (4, 3):
        doc, plain = large_stream_doc(workdir, size, version)
        settle(doc, plain)

        def ours():
            with moxolefio.OleFileIO(doc) as ole:
                return read_in_pieces(ole.openstream('Big'), MIB)

        def builtin():
            with open(plain, 'rb') as f:
                return read_in_pieces(f, MIB)

        ours(), builtin()  # both in the page cache
        medians, results = turns(rounds, [('open()', builtin), ('moxolefio', ours)])
        assert results['moxolefio'] == results['open()'] == size
        row('%d MiB stream in 1 MiB pieces, version %d' % (size // MIB, version), 'MB/s',
            '%.0f' % (size / medians['moxolefio'] / 1e6), '%.0f' % (size / medians['open()'] / 1e6),
            '%.2fx' % (medians['open()'] / medians['moxolefio']),
            'second column: the same bytes from a plain file with open()')

    size = (128 if args.quick else 1024) * MIB
    doc, plain = large_stream_doc(workdir, size, 4)
    base, peak = memory_child(doc, size)
    row('%d MiB stream in 1 MiB pieces: memory' % (size // MIB), 'MiB', '%.1f' % ((peak - base) / MIB), '-', '-',
        'peak RSS above the interpreter (%.1f MiB)' % (base / MIB))


if __name__ == '__main__':
    main()
