"""The stream object openstream() returns: it must behave as olefile's
(a BytesIO) for everything a reader does, read lazily, keep memory flat
over large streams, and let threads read at once."""

import io
import random
import threading

import olefile
import pytest

import moxolefio
from conftest import pack_folder

CHUNK = 4096
BIG_CHUNKS = 40960          # 160 MiB: several times the amount after which read pages are given back
MEDIUM_CHUNKS = 768         # 3 MiB
# Streams just under 1 MiB are read through the file's mapping; together
# more than the memory bound, so that pages read must be given back.
MIDS, MID_CHUNKS = 110, 256


def chunk(i):
    """Chunk i of the generated streams: distinct for every i."""
    return i.to_bytes(8, 'little') * (CHUNK // 8)


def chunks(first, count):
    return b''.join(chunk(i) for i in range(first, first + count))


def rss():
    with open('/proc/self/status') as f:
        for line in f:
            if line.startswith('VmRSS:'):
                return int(line.split()[1]) * 1024
    raise AssertionError('no VmRSS')


@pytest.fixture(scope='module')
def big_doc(tmp_path_factory):
    def big(f):
        for first in range(0, BIG_CHUNKS, 256):
            f.write(chunks(first, 256))

    def mid(j):
        return lambda f: f.write(chunks(j * MID_CHUNKS, MID_CHUNKS)[:-1])

    tree = {'big': big, 'small': b'tiny', 'mids': {'%03d' % j: mid(j) for j in range(MIDS)}}
    for k in range(4):
        tree['m%d' % k] = chunks(k * MEDIUM_CHUNKS, MEDIUM_CHUNKS)
    top = tmp_path_factory.mktemp('big')
    return pack_folder(tree, top / 'tree', top / 'big.cfb')


def _run(stream, op):
    try:
        name, args = op[0], op[1:]
        if name == 'readinto':
            buffer = bytearray(args[0])
            n = stream.readinto(buffer)
            return n, bytes(buffer[:n])
        if name == 'iterate':
            return list(stream)
        return getattr(stream, name)(*args)
    except Exception as exc:  # compared by kind
        return type(exc)


OPS = [('read', 10), ('tell',), ('seek', 5), ('read', None), ('read', -1), ('seek', -3, 2), ('read', 100),
       ('seek', 10 ** 6), ('read', 5), ('tell',), ('seek', -10 ** 7, 1), ('tell',), ('readline',),
       ('readline', 3), ('readline', 0), ('readlines', 2), ('readlines',), ('seek', 0), ('readinto', 50),
       ('read1', 7), ('getvalue',), ('tell',), ('seek', 1, 1), ('iterate',), ('seek', -1), ('seek', 0, 3),
       ('read', 'x'), ('seek', 2), ('read', 1.5), ('readable',), ('seekable',), ('isatty',), ('fileno',),
       ('flush',), ('tell',)]


def test_stream_behaves_like_olefiles(pack):
    rng = random.Random(7)
    sizes = [0, 1, 63, 64, 4095, 4096, 4097, 70000]
    tree = {'s%d' % n: bytes(rng.choice(b'ab\n') for _ in range(n)) for n in sizes}
    path = pack(tree)
    theirs = olefile.OleFileIO(path)
    ours = moxolefio.OleFileIO(path)
    for name, content in tree.items():
        a = theirs.openstream(name)
        b = ours.openstream(name)
        assert b.size == a.size == len(content)
        for op in OPS:
            assert _run(b, op) == _run(a, op), (name, op)
        b.close()
        a.close()
        for op in [('read',), ('seek', 0), ('tell',), ('readline',), ('getvalue',)]:
            assert _run(b, op) == _run(a, op) == ValueError, op
        assert b.closed and a.closed
    with ours.openstream('s4097') as s:
        assert isinstance(s, io.BufferedIOBase) and isinstance(s, io.IOBase)
        assert s.read() == tree['s4097']
    assert s.closed


def test_read_mode_streams_are_read_only(corpus):
    with moxolefio.OleFileIO(corpus + '/olefile/test-ole-file.doc') as ole:
        s = ole.openstream('WordDocument')
        assert not s.writable()
        with pytest.raises(io.UnsupportedOperation):
            s.write(b'x')
        with pytest.raises(io.UnsupportedOperation):
            s.truncate(0)
        assert s.read(4) == olefile.OleFileIO(corpus + '/olefile/test-ole-file.doc').openstream(
            'WordDocument').read(4)


def test_opening_reads_nothing_and_pieces_keep_memory_flat(big_doc):
    with moxolefio.OleFileIO(big_doc) as ole:
        before = rss()
        stream = ole.openstream('big')
        assert stream.read(16) == chunk(0)[:16]
        assert rss() - before < 8 << 20
        stream.seek(0)
        peak = 0
        for first in range(0, BIG_CHUNKS, 256):
            piece = stream.read(256 * CHUNK)
            assert piece == chunks(first, 256), first
            del piece
            peak = max(peak, rss() - before)
        assert stream.read(1) == b''
        assert peak < 100 << 20, peak
        for j in range(MIDS):
            assert ole.openstream('mids/%03d' % j).read() == chunks(j * MID_CHUNKS, MID_CHUNKS)[:-1]
            peak = max(peak, rss() - before)
    assert peak < 100 << 20, peak


def test_threads_read_streams_at_once(big_doc):
    ole = moxolefio.OleFileIO(big_doc)
    results = {}

    def whole(k):
        s = ole.openstream('m%d' % k)
        rng = random.Random(k)
        parts = []
        while True:
            part = s.read(rng.randint(1, 70000))
            if not part:
                break
            parts.append(part)
        results[k] = b''.join(parts)

    threads = [threading.Thread(target=whole, args=(k,)) for k in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    for k in range(4):
        assert results[k] == chunks(k * MEDIUM_CHUNKS, MEDIUM_CHUNKS)

    # One stream shared: every read takes a whole chunk of its own.
    shared = ole.openstream('m1')
    seen = []

    def take():
        while True:
            part = shared.read(CHUNK)
            if not part:
                return
            seen.append(int.from_bytes(part[:8], 'little'))
            assert part == chunk(seen[-1])

    threads = [threading.Thread(target=take) for _ in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert sorted(seen) == list(range(MEDIUM_CHUNKS, 2 * MEDIUM_CHUNKS))


def test_large_reads_release_the_gil(big_doc):
    ole = moxolefio.OleFileIO(big_doc)
    stream = ole.openstream('big')
    state = {'inside': False, 'done': False, 'length': 0}

    def reader():
        state['inside'] = True
        state['length'] = len(stream.read())
        state['inside'] = False
        state['done'] = True

    t = threading.Thread(target=reader)
    t.start()
    spins = 0
    while not state['done']:
        if state['inside']:
            spins += 1
    t.join()
    assert state['length'] == BIG_CHUNKS * CHUNK
    # Holding the GIL through the copy would leave this loop a handful of
    # turns at most.
    assert spins > 10000, spins
