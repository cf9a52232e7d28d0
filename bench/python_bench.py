"""moxolefio's Python package against olefile, in one run.

    PYTHONPATH=build/python /usr/bin/python3 bench/python_bench.py [--quick] [--rounds N]

Cases: every file of the corpus opened and every stream read; the
document of 100 000 mini streams (1000 storages of 100 streams of 1 to
4095 bytes) opened and read whole; a 512 MiB stream read in 1 MiB pieces
against the same bytes read from a plain file with Python's open(); the
memory a 1 GiB stream read in 1 MiB pieces takes above the interpreter.
Documents are written once by ``moxole pack`` into MOX_BENCH_DIR (default
/tmp/moxolefio-pybench) and kept for later runs.  Each figure is the
median of its rounds; the two readers take turns round by round.
"""

import argparse
import gc
import os
import random
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


def moxole():
    path = os.environ.get('MOXOLE_PROGRAM') or os.path.join(TOP, 'build', 'moxole')
    if not os.access(path, os.X_OK):
        sys.exit('moxole is not built: cmake --build build --target moxole moxolefio')
    return path


def packed(out, fill):
    """The document at `out`, made with moxole pack from the folder `fill`
    writes, unless an earlier run left it there."""
    if os.path.exists(out):
        return out
    folder = out + '.d'
    subprocess.run(['rm', '-rf', folder], check=True)
    os.makedirs(folder)
    fill(folder)
    subprocess.run([moxole(), 'pack', folder, out + '.part'], check=True)
    os.rename(out + '.part', out)
    subprocess.run(['rm', '-rf', folder], check=True)
    return out


def pattern_file(path, size):
    block = bytes(random.Random(size).getrandbits(8) for _ in range(MIB))
    with open(path, 'wb') as f:
        for k in range(size // MIB):
            f.write(block[k % 251:] + block[:k % 251])


def mini_streams_doc(workdir, storages, per_storage):
    def fill(folder):
        rng = random.Random(100000)
        payload = bytes(rng.getrandbits(8) for _ in range(4096))
        for s in range(storages):
            sub = os.path.join(folder, 'Storage%04d' % s)
            os.makedirs(sub)
            for k in range(per_storage):
                with open(os.path.join(sub, 'Stream%03d' % k), 'wb') as f:
                    f.write(payload[:rng.randint(1, 4095)])
    return packed(os.path.join(workdir, 'mini-%dx%d.cfb' % (storages, per_storage)), fill)


def large_stream_doc(workdir, size):
    plain = os.path.join(workdir, 'plain-%d.bin' % size)
    if not os.path.exists(plain):
        pattern_file(plain + '.part', size)
        os.rename(plain + '.part', plain)

    def fill(folder):
        os.link(plain, os.path.join(folder, 'Big'))
    return packed(os.path.join(workdir, 'large-%d.cfb' % size), fill), plain


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
    doc, plain = large_stream_doc(workdir, size)

    def ours():
        with moxolefio.OleFileIO(doc) as ole:
            return read_in_pieces(ole.openstream('Big'), MIB)

    def builtin():
        with open(plain, 'rb') as f:
            return read_in_pieces(f, MIB)

    ours(), builtin()  # both in the page cache
    medians, results = turns(rounds, [('open()', builtin), ('moxolefio', ours)])
    assert results['moxolefio'] == results['open()'] == size
    row('%d MiB stream in 1 MiB pieces' % (size // MIB), 'MB/s', '%.0f' % (size / medians['moxolefio'] / 1e6),
        '%.0f' % (size / medians['open()'] / 1e6), '%.2fx' % (medians['open()'] / medians['moxolefio']),
        'second column: the same bytes from a plain file with open()')

    size = (128 if args.quick else 1024) * MIB
    doc, plain = large_stream_doc(workdir, size)
    base, peak = memory_child(doc, size)
    row('%d MiB stream in 1 MiB pieces: memory' % (size // MIB), 'MiB', '%.1f' % ((peak - base) / MIB), '-', '-',
        'peak RSS above the interpreter (%.1f MiB)' % (base / MIB))


if __name__ == '__main__':
    main()
