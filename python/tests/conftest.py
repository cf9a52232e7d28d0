"""Shared fixtures: the corpus of real files, and documents packed from
folders by the command-line host (``moxole pack``), which writes them with
the library's own writer."""

import os
import shutil
import subprocess
import sys

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, HERE)


def corpus_dir():
    path = os.environ.get('MOX_CORPUS_DIR') or os.path.join(TOP, '..', 'shared', 'corpus')
    return os.path.abspath(path)


def corpus_files():
    """Every compound file of the corpus, relative to it; [] when absent."""
    top = corpus_dir()
    if not os.path.isdir(top):
        return []
    found = []
    for folder, _, names in os.walk(top):
        for name in names:
            path = os.path.join(folder, name)
            rel = os.path.relpath(path, top)
            if os.sep in rel:  # the corpus's own notes and scripts sit at its top
                found.append(rel)
    return sorted(found)


@pytest.fixture
def corpus():
    top = corpus_dir()
    if not os.path.isdir(top):
        pytest.skip('no corpus at %s (set MOX_CORPUS_DIR)' % top)
    return top


def moxole_program():
    path = os.environ.get('MOXOLE_PROGRAM') or os.path.join(TOP, 'build', 'moxole')
    return path if os.access(path, os.X_OK) else None


@pytest.fixture
def native_dump():
    """native_dump(path) -> {path: (type, size, clsid hex, sha256 or '-')} as
    the native C++ interface reads the file (tests/native_dump.cpp)."""
    program = os.environ.get('MOXPY_NATIVE_DUMP') or os.path.join(TOP, 'build', 'python', 'moxpy_native_dump')
    if not os.access(program, os.X_OK):
        pytest.skip('moxpy_native_dump is not built (set MOXPY_NATIVE_DUMP)')

    def dump(path):
        out = subprocess.run([program, path], check=True, capture_output=True).stdout.decode('utf-8')
        entries = {}
        for line in out.splitlines():
            kind, where, size, clsid, digest = line.split('\t')
            entries[where] = (kind, int(size), clsid, digest)
        return entries

    return dump


def _fill(folder, tree):
    os.makedirs(folder, exist_ok=True)
    for name, content in tree.items():
        path = os.path.join(folder, name)
        if isinstance(content, dict):
            _fill(path, content)
        elif callable(content):
            with open(path, 'wb') as f:
                content(f)
        else:
            with open(path, 'wb') as f:
                f.write(content)


def pack_folder(tree, folder, out):
    """Writes ``tree`` (a dict of name -> bytes for streams, name -> dict
    for storages, name -> a callable writing to a binary file for large
    streams; names as ``moxole extract`` escapes them) as a folder and
    packs it into the compound file ``out``."""
    program = moxole_program()
    if program is None:
        pytest.skip('moxole is not built (set MOXOLE_PROGRAM)')
    _fill(str(folder), tree)
    subprocess.run([program, 'pack', str(folder), str(out)], check=True)
    shutil.rmtree(str(folder))
    return str(out)


@pytest.fixture
def pack(tmp_path):
    """pack(tree) -> path of a new compound file holding ``tree``."""
    count = [0]

    def make(tree):
        count[0] += 1
        return pack_folder(tree, tmp_path / ('tree%d' % count[0]), tmp_path / ('doc%d.cfb' % count[0]))

    return make
