"""Every file of the corpus read through olefile's API twice, by olefile
and by moxolefio: the reports (listdir in both modes, get_type, get_size,
getclsid, getmtime, getctime, get_rootentry_name, SHA-256 of every stream)
must be equal, except where a difference is listed here with its reason.
The README's list of differences is the same list."""

import os
import re

import olefile
import pytest

import moxolefio
from compat_report import report
from conftest import corpus_dir, corpus_files

# Damaged files olefile refuses to open and moxolefio reads permissively.
OLEFILE_REFUSES = {
    'damaged/compoundfiles/invalid_master_loop.dat':
        'the DIFAT chain points back at itself; the FAT sectors it lists are all read',
    'damaged/openmcdf/corrupted-sector-chain.doc':
        'a FAT sector past the end of the file; what can be read is an empty root',
    'damaged/poi/ReferencesInvalidSectors.mpp':
        'FAT sectors listed past the end of the file; every stream is still whole',
}

# Damaged files both refuse, with different exceptions.
OTHER_ERROR = {
    'damaged/poi/clusterfuzz-POIHSSFFuzzer-6137883240824832.xls':
        ('ValueError', 'the mini sector shift is huge and olefile fails formatting 2**shift for '
                       'a debug message (Python\'s limit on integer digits); moxolefio raises '
                       'NotOleFileError, an OSError'),
}

# Damaged files moxolefio refuses and olefile opens.
MOXOLEFIO_REFUSES = {
    'damaged/compoundfiles/invalid_big_endian_bom.dat':
        'the byte order mark is not little-endian, so nothing in the header can be trusted',
}

# Files whose root entry olefile takes differently.
ROOT_DIFFERS = {
    'damaged/openmcdf/FatChainLoop_v3.cfs':
        'the first entry is typed as a storage and its name length is over 64 bytes: '
        'olefile keeps the stored type and 31 characters; moxolefio takes the first entry as '
        'the root and keeps all 32 name characters',
}

# Files whose directory olefile reads differently.
DIRECTORY_DIFFERS = {
    'damaged/openmcdf/CyclicFAT.cfs':
        'the directory\'s chain runs in a circle: olefile reads sectors of it again and lists '
        'the entries there a second time, below the storages they point into; moxolefio reads '
        'each directory sector once',
}

# Files with streams whose chains are broken: olefile returns what it
# finds (fewer bytes than the size, or all of them when the chain only
# goes wrong after its last needed sector), moxolefio raises
# DamagedFileError naming the stream.
DAMAGED_STREAMS = {
    'damaged/compoundfiles/invalid_truncated.dat',
    'damaged/openmcdf/_thumbs_bug_24.db',
    'damaged/poi/unknown_properties.msg',
    'damaged/rust-cfb/alloc_panic',
    'damaged/rust-cfb/loop_in_chain',
    'damaged/rust-cfb/loop_in_directory',
    'damaged/rust-cfb/loop_in_minichain',
}

FILES = corpus_files()


def _sizes(lines):
    sizes = {}
    for line in lines:
        m = re.match(r'(.*): get_type=2 get_size=(\d+) ', line)
        if m:
            sizes[m.group(1)] = int(m.group(2))
    return sizes


@pytest.mark.skipif(not FILES, reason='no corpus at %s (set MOX_CORPUS_DIR)' % corpus_dir())
@pytest.mark.parametrize('rel', FILES)
def test_same_report_as_olefile(rel):
    path = os.path.join(corpus_dir(), rel)
    theirs = report(olefile, path)
    ours = report(moxolefio, path)
    if rel in OLEFILE_REFUSES:
        assert theirs[0].startswith('open: error'), 'olefile opens it now: drop it from the list'
        assert not ours[0].startswith('open:')
        return
    if rel in OTHER_ERROR:
        assert theirs == ['open: error %s' % OTHER_ERROR[rel][0]]
        assert ours == ['open: error OSError']
        return
    if rel in MOXOLEFIO_REFUSES:
        assert ours == ['open: error OSError']
        assert not theirs[0].startswith('open:'), 'olefile refuses it too now: drop it from the list'
        return
    if rel in ROOT_DIFFERS:
        assert theirs[0] != ours[0] and theirs[3] != ours[3]
        theirs, ours = theirs[1:3] + theirs[4:], ours[1:3] + ours[4:]
    if rel in DIRECTORY_DIFFERS:
        # Fewer entries, each read as olefile reads it.
        mine, other = eval(ours[2][len('entries: '):]), eval(theirs[2][len('entries: '):])
        assert len(mine) < len(other) and all(name in other for name in mine)
        assert all(line in theirs for line in ours[3:])
        return
    assert len(theirs) == len(ours)
    sizes = _sizes(theirs)
    refused = 0
    for mine, other in zip(ours, theirs):
        if mine == other:
            continue
        # The one difference allowed: a stream olefile reads and moxolefio
        # refuses as damaged.
        m = re.match(r'sha256 (.*): (\d+) [0-9a-f]{64}$', other)
        assert m and mine == 'sha256 %s: error OSError' % m.group(1), (mine, other)
        assert int(m.group(2)) <= sizes[m.group(1)]
        refused += 1
    assert (refused > 0) == (rel in DAMAGED_STREAMS)


@pytest.mark.skipif(not FILES, reason='no corpus')
def test_short_streams_raise_damaged_file_error_naming_the_stream():
    path = os.path.join(corpus_dir(), 'damaged/openmcdf/_thumbs_bug_24.db')
    with moxolefio.OleFileIO(path) as ole:
        with pytest.raises(moxolefio.DamagedFileError) as caught:
            ole.openstream('01')
    assert isinstance(caught.value, OSError) and isinstance(caught.value, ValueError)
    assert ': 01: ' in str(caught.value) and path in str(caught.value)


def _properties(module, path):
    """getproperties of every property set stream (both time modes) and
    get_metadata, or the kind of error raised."""
    try:
        ole = module.OleFileIO(path)
    except Exception:
        return None
    found = {}
    for name in ole.listdir():
        if not name[-1].startswith('\x05'):
            continue
        for convert in (False, True):
            try:
                value = ole.getproperties(name, convert_time=convert, no_conversion=[10])
            except Exception as exc:
                value = _kind(exc)
            found[('/'.join(name), convert)] = value
    try:
        found['metadata'] = vars(ole.get_metadata())
    except Exception as exc:
        found['metadata'] = _kind(exc)
    return found


def _kind(exc):
    return 'OSError' if isinstance(exc, OSError) else type(exc).__name__


@pytest.mark.skipif(not FILES, reason='no corpus')
def test_properties_and_metadata_as_olefile_reads_them():
    compared = 0
    for rel in FILES:
        path = os.path.join(corpus_dir(), rel)
        theirs, ours = _properties(olefile, path), _properties(moxolefio, path)
        if theirs is None or ours is None:
            continue
        assert ours.keys() == theirs.keys()
        for key, value in theirs.items():
            compared += 1
            if isinstance(value, dict) and 0 in value and 0 not in ours[key]:
                # Id 0 is a section's dictionary of names, not a value:
                # olefile decodes its first bytes as if they were one.
                value = {k: v for k, v in value.items() if k != 0}
            assert ours[key] == value, (rel, key)
    assert compared > 100
