"""Files made and edited from Python: olefile and the native C++ interface
must read them as the package says it wrote them; every undamaged corpus
file must come back from a commit with every stream; edits reach the file
only through commit (close and a clean ``with`` exit commit)."""

import datetime
import hashlib
import io
import os
import random
import shutil
import uuid

import olefile
import pytest

import moxolefio
from compat_report import report
from conftest import corpus_dir, corpus_files

pytestmark = pytest.mark.skipif(not moxolefio.EDITING, reason='this build reads only')

WORD = '00020906-0000-0000-C000-000000000046'


def _content(seed, size):
    return random.Random(seed).randbytes(size)


def _olefile_view(path):
    """{'a/b': (type, size, clsid hex as stored, sha256 or '-')} as olefile reads it."""
    ole = olefile.OleFileIO(path)
    view = {'': ('root', ole.root.size, _stored(ole.root.clsid), '-')}
    for name in ole.listdir(streams=True, storages=True):
        key = '/'.join(name)
        if ole.get_type(name) == olefile.STGTY_STREAM:
            data = ole.openstream(name).read()
            view[key] = ('stream', len(data), _stored(ole.getclsid(name)), hashlib.sha256(data).hexdigest())
        else:
            view[key] = ('storage', 0, _stored(ole.getclsid(name)), '-')
    return view


def _stored(text):
    return (uuid.UUID(text).bytes_le if text else bytes(16)).hex()


SIZES = [0, 1, 63, 64, 4095, 4096, 4097, 100000]


@pytest.mark.parametrize('version', [3, 4])
def test_made_files_read_the_same_everywhere(tmp_path, native_dump, version):
    path = str(tmp_path / 'made.cfb')
    with moxolefio.create(path, version=version) as ole:
        expected = {}
        for k, size in enumerate(SIZES):
            name = 'Store%d/Σύνολο %d/Поток' % (k % 3, size)
            ole.write_stream(name, _content(k, size))
            expected[name] = _content(k, size)
        # More than 109 FAT sectors of 512 bytes: the file needs a DIFAT.
        big = _content(99, 8 << 20 if version == 3 else 3 << 20)
        ole.write_stream('Big', big)
        expected['Big'] = big
        ole.create_storage('Empty/Inside')
        ole.set_clsid('Store1', WORD)
        ole.set_clsid([], uuid.UUID('11223344-5566-7788-99AA-BBCCDDEEFF00'))
        with ole.openstream('Store0/Σύνολο 0/Поток') as s:
            s.write(b'written ')
            s.write(b'in pieces')
        expected['Store0/Σύνολο 0/Поток'] = b'written in pieces'
        assert ole.get_size('store0/σύνολο 0/поток') == 17
    assert not os.path.exists(path + '.tmp')
    theirs = _olefile_view(path)
    native = native_dump(path)
    assert theirs == native
    assert olefile.OleFileIO(path).dll_version == version
    for name, data in expected.items():
        assert theirs[name][3] == hashlib.sha256(data).hexdigest(), name
    assert theirs['Store1'][2] == _stored(WORD) and theirs[''][2] == _stored('11223344-5566-7788-99AA-BBCCDDEEFF00')
    assert theirs['Empty/Inside'][0] == 'storage'
    with moxolefio.OleFileIO(path) as ole:
        assert ole.openstream('BIG').read() == big
        assert ole.getclsid('store1') == WORD


UNDAMAGED = [f for f in corpus_files() if not f.startswith('damaged')]


@pytest.mark.skipif(not UNDAMAGED, reason='no corpus')
@pytest.mark.parametrize('rel', UNDAMAGED)
def test_corpus_file_survives_a_commit(tmp_path, rel):
    original = os.path.join(corpus_dir(), rel)
    copy = str(tmp_path / 'copy')
    shutil.copyfile(original, copy)
    ole = moxolefio.OleFileIO(copy, write_mode=True)
    ole.commit()
    ole.close()
    assert report(olefile, copy) == report(olefile, original)
    # One stream replaced: the rest unchanged.
    with moxolefio.OleFileIO(copy, write_mode=True) as ole:
        streams = ole.listdir()
        if not streams:
            return
        target = streams[len(streams) // 2]
        ole.write_stream(target, b'replaced')
    after = olefile.OleFileIO(copy)
    before = olefile.OleFileIO(original)
    assert after.openstream(target).read() == b'replaced'
    for name in streams:
        if name != target:
            assert after.openstream(name).read() == before.openstream(name).read(), name


def _names(path):
    return olefile.OleFileIO(path).listdir(streams=True, storages=True)


def test_edits_reach_the_file_only_through_commit(tmp_path):
    path = str(tmp_path / 'edit.cfb')
    with moxolefio.create(path, version=3) as ole:
        ole.write_stream('Keep', b'k' * 5000)
        ole.write_stream('Dir/Old', b'o' * 10)
    start = _names(path)

    ole = moxolefio.OleFileIO(path, write_mode=True)
    ole.write_stream('Dir/New', b'n')
    assert ole.modified and _names(path) == start  # nothing on disk yet
    ole.revert()
    assert not ole.exists('Dir/New') and not ole.modified
    old = ole.listdir()[0]
    assert old == ['Dir', 'Old'] and ole.get_size(old) == 10
    ole.rename('dir/old', 'Renamed')
    assert not ole.exists(old)  # the very list objects do not find it under its old name
    ole.remove('KEEP')
    assert ole.listdir(True, True) == [['Dir'], ['Dir', 'Renamed']]
    del ole  # dropped without close or commit: nothing changes
    assert _names(path) == start

    with pytest.raises(RuntimeError):
        with moxolefio.OleFileIO(path, write_mode=True) as ole:
            ole.remove('Keep')
            raise RuntimeError('the block fails')
    assert _names(path) == start

    with moxolefio.OleFileIO(path, write_mode=True) as ole:
        ole.rename('Dir/Old', 'Renamed')
        ole.write_stream('Keep', b'shorter')
        ole.write_stream('dir/a/b/c', b'deep' * 2000)
        with ole.openstream('dir/renamed') as s:
            s.seek(0, 2)
            s.write(b'+')
            s.truncate(4)
    ole = olefile.OleFileIO(path)
    assert ole.listdir(True, True) == [['Dir'], ['Dir', 'Renamed'], ['Dir', 'a'], ['Dir', 'a', 'b'],
                                       ['Dir', 'a', 'b', 'c'], ['Keep']]
    assert ole.openstream('Keep').read() == b'shorter'
    assert ole.openstream('Dir/Renamed').read() == b'oooo'
    assert ole.openstream('Dir/a/b/c').read() == b'deep' * 2000


def test_editing_errors(tmp_path, corpus):
    path = str(tmp_path / 'errors.cfb')
    with moxolefio.create(path, version=4) as ole:
        ole.write_stream('S', b's')
        ole.create_storage('D')
        with pytest.raises(OSError):
            ole.remove('missing')
        with pytest.raises(FileExistsError):
            ole.rename('S', 'd')
        with pytest.raises(OSError):
            ole.write_stream('D', b'a storage is not a stream')
        with pytest.raises(OSError):
            ole.write_stream('S/inside', b'a stream holds nothing')
        with pytest.raises(ValueError):
            ole.write_stream('x' * 32, b'names have at most 31 characters')
        with pytest.raises(ValueError):
            ole.set_clsid('S', 'not a clsid')
    with moxolefio.OleFileIO(os.path.join(corpus, 'olefile/test-ole-file.doc')) as ole:
        for call in (lambda: ole.write_stream('WordDocument', b'x'), lambda: ole.remove('1Table'),
                     lambda: ole.commit()):
            with pytest.raises(io.UnsupportedOperation):
                call()


def test_file_objects_and_bytes_in_write_mode(tmp_path, corpus):
    with open(os.path.join(corpus, 'olefile/test-ole-file.doc'), 'rb') as f:
        original = f.read()
    target = io.BytesIO(original)
    with moxolefio.OleFileIO(target, write_mode=True) as ole:
        ole.write_stream('Added', b'a' * 70000)
    ole = olefile.OleFileIO(target.getvalue())
    assert ole.openstream('Added').read() == b'a' * 70000
    assert ole.openstream('WordDocument').read() == olefile.OleFileIO(original).openstream('WordDocument').read()


def test_properties_set_in_write_mode_read_back_by_olefile(tmp_path, corpus):
    path = str(tmp_path / 'doc.doc')
    shutil.copy(os.path.join(corpus, 'poi', 'Bug50936_1.doc'), path)
    before = _olefile_view(path)
    when = datetime.datetime(2024, 5, 6, 7, 8, 9)
    with moxolefio.OleFileIO(path, write_mode=True) as ole:
        ole.set_metadata(title='Quarterly', author='Zoë', company='ACME', create_time=when,
                         total_edit_time=600, num_pages=None)
        ole.setproperties('\x05DocumentSummaryInformation', user_defined={'Client': 'Bob'})
        with pytest.raises(TypeError):
            ole.set_metadata(no_such_attribute=1)
        with pytest.raises(ValueError):
            ole.setproperties('WordDocument2', {2: 'x'})  # no format id for a new stream
    theirs = olefile.OleFileIO(path).get_metadata()
    ours = moxolefio.OleFileIO(path).get_metadata()
    for name in OleMetadataNames:
        assert getattr(ours, name) == getattr(theirs, name), name
    assert (theirs.title, theirs.author, theirs.company) == (b'Quarterly', 'Zoë'.encode('cp1252'), b'ACME')
    assert (theirs.create_time, theirs.total_edit_time, theirs.num_pages) == (when, 600, None)
    after = _olefile_view(path)
    changed = {k for k in before if before[k] != after.get(k)}
    assert changed == {'\x05SummaryInformation', '\x05DocumentSummaryInformation'}
    assert after.keys() == before.keys()


OleMetadataNames = moxolefio.OleMetadata.SUMMARY_ATTRIBS + moxolefio.OleMetadata.DOCSUM_ATTRIBS
