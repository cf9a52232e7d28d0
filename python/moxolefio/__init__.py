"""Compound files (OLE2 structured storage) with olefile's API.

``import moxolefio as olefile`` is meant to be enough: the same names,
arguments, return values and exceptions as olefile, answered by the
moxolefio C++ library.  Streams are read lazily from the file instead of
being copied whole into memory, and files can also be created and edited
(``create``, ``OleFileIO(path, write_mode=True)``, ``commit``).
"""

import datetime
import io
import os
import uuid

from . import _moxolefio as _native
from ._moxolefio import DamagedFileError, Defect, NotOleFileError, OleStream, filetime2datetime

__all__ = [
    'isOleFile', 'OleFileIO', 'OleDirectoryEntry', 'OleStream', 'create', 'Defect',
    'NotOleFileError', 'DamagedFileError', 'OleMetadata', 'filetime2datetime', 'MAGIC', 'MINIMAL_OLEFILE_SIZE',
    'STGTY_EMPTY', 'STGTY_STORAGE', 'STGTY_STREAM', 'STGTY_LOCKBYTES', 'STGTY_PROPERTY',
    'STGTY_ROOT', 'DEFECT_UNSURE', 'DEFECT_POTENTIAL', 'DEFECT_INCORRECT', 'DEFECT_FATAL',
]

__version__ = '0.1.0'

MAGIC = b'\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1'
MINIMAL_OLEFILE_SIZE = 1536

STGTY_EMPTY = 0
STGTY_STORAGE = 1
STGTY_STREAM = 2
STGTY_LOCKBYTES = 3
STGTY_PROPERTY = 4
STGTY_ROOT = 5

DEFECT_UNSURE = 10
DEFECT_POTENTIAL = 20
DEFECT_INCORRECT = 30
DEFECT_FATAL = 40

#: Whether this build can create and edit files.
EDITING = _native.EDITING


def isOleFile(filename=None, data=None):
    """True when the file, bytes or file object starts with the compound
    file signature.  Bytes shorter than 1536 are a path (olefile's rule);
    ``data`` shorter than that is never a compound file."""
    if data is not None:
        if len(data) < MINIMAL_OLEFILE_SIZE:
            return False
        header = bytes(data[:len(MAGIC)])
    elif hasattr(filename, 'read'):
        header = filename.read(len(MAGIC))
        filename.seek(0)
    elif isinstance(filename, bytes) and len(filename) >= MINIMAL_OLEFILE_SIZE:
        header = filename[:len(MAGIC)]
    else:
        with open(filename, 'rb') as fp:
            header = fp.read(len(MAGIC))
    return header == MAGIC


def _clsid_bytes(clsid):
    """A CLSID as stored: from olefile's text form, a uuid.UUID or 16 bytes."""
    if isinstance(clsid, (bytes, bytearray)):
        if len(clsid) != 16:
            raise ValueError('a CLSID is 16 bytes')
        return bytes(clsid)
    if isinstance(clsid, uuid.UUID):
        return clsid.bytes_le
    if isinstance(clsid, str):
        if clsid == '':
            return bytes(16)
        return uuid.UUID(clsid).bytes_le
    raise TypeError('a CLSID is a str, a uuid.UUID or 16 bytes')


class OleMetadata:
    """The standard properties of the two summary information streams, as
    attributes named as olefile names them (None when absent)."""

    # Property ids 1, 2, 3... of each stream's first section, in order.
    SUMMARY_ATTRIBS = ['codepage', 'title', 'subject', 'author', 'keywords', 'comments', 'template',
                       'last_saved_by', 'revision_number', 'total_edit_time', 'last_printed',
                       'create_time', 'last_saved_time', 'num_pages', 'num_words', 'num_chars',
                       'thumbnail', 'creating_application', 'security']
    DOCSUM_ATTRIBS = ['codepage_doc', 'category', 'presentation_target', 'bytes', 'lines', 'paragraphs',
                      'slides', 'notes', 'hidden_slides', 'mm_clips', 'scale_crop', 'heading_pairs',
                      'titles_of_parts', 'manager', 'company', 'links_dirty', 'chars_with_spaces',
                      'unused', 'shared_doc', 'link_base', 'hlinks', 'hlinks_changed', 'version',
                      'dig_sig', 'content_type', 'content_status', 'language', 'doc_version']

    def __init__(self):
        for name in self.SUMMARY_ATTRIBS + self.DOCSUM_ATTRIBS:
            setattr(self, name, None)

    def parse_properties(self, ole):
        self.__init__()
        # The total editing time is a duration, not a date.
        sources = [('\x05SummaryInformation', self.SUMMARY_ATTRIBS, [10]),
                   ('\x05DocumentSummaryInformation', self.DOCSUM_ATTRIBS, [])]
        for stream, names, durations in sources:
            if not ole.exists(stream):
                continue
            found = ole.getproperties(stream, convert_time=True, no_conversion=durations)
            for pid, name in enumerate(names, start=1):
                setattr(self, name, found.get(pid))

    def dump(self):
        for title, names in (('SummaryInformation', self.SUMMARY_ATTRIBS),
                             ('DocumentSummaryInformation', self.DOCSUM_ATTRIBS)):
            print('Properties from %s stream:' % title)
            for name in names:
                print('- %s: %r' % (name, getattr(self, name)))


_FILETIME_EPOCH = datetime.datetime(1601, 1, 1)


def _property_value(value):
    # Datetimes travel as FILETIME ticks (naive ones taken as UTC).
    if isinstance(value, datetime.datetime):
        if value.tzinfo is not None:
            value = value.astimezone(datetime.timezone.utc).replace(tzinfo=None)
        return ('filetime', (value - _FILETIME_EPOCH) // datetime.timedelta(microseconds=1) * 10)
    return value


class OleDirectoryEntry:
    """One entry of the file as olefile describes it (a snapshot: entries
    of a file in write mode are not updated by later edits)."""

    __slots__ = ('_ole', '_index', '_kid_indexes', '_parent', 'name', 'entry_type', 'size', 'clsid',
                 'createTime', 'modifyTime', 'dwUserFlags', 'sid')

    def __init__(self, ole, index):
        self._ole = ole
        self._index = index
        (self.name, self.entry_type, self.size, self.clsid, self.createTime, self.modifyTime,
         self.dwUserFlags, self.sid, self._kid_indexes, self._parent) = ole._entry_info(index)

    @property
    def kids(self):
        """The children, sorted by name as olefile sorts them."""
        return [self._ole._entry(i) for i in self._kid_indexes]

    @property
    def kids_dict(self):
        return {kid.name.lower(): kid for kid in self.kids}

    def getmtime(self):
        return None if self.modifyTime == 0 else filetime2datetime(self.modifyTime)

    def getctime(self):
        return None if self.createTime == 0 else filetime2datetime(self.createTime)

    def __repr__(self):
        return '<OleDirectoryEntry %r type=%d size=%d>' % (self.name, self.entry_type, self.size)


class OleFileIO(_native.File):
    """A compound file, opened from a path, from bytes (1536 or more) or
    from a binary file object.  olefile's reading methods, plus walk(),
    check() and, with ``write_mode=True``, editing that reaches the file
    only through commit() (close() and a clean ``with`` exit commit)."""

    def __init__(self, filename=None, raise_defects=DEFECT_FATAL, write_mode=False, debug=False,
                 path_encoding=None):
        super().__init__()
        if path_encoding is not None:
            raise NotImplementedError('moxolefio returns names as str only (path_encoding=None)')
        self._raise_defects_level = raise_defects
        self.write_mode = write_mode
        self._fp = None
        self._entries = {}
        self.metadata = None
        if filename:
            self.open(filename, write_mode=write_mode)

    def open(self, filename, write_mode=False):
        """Opens a file as the constructor does."""
        # olefile's DEFECT_INCORRECT and below ask for files without errors:
        # the native strict open.
        strict = self._raise_defects_level <= DEFECT_INCORRECT
        self.write_mode = write_mode
        self._fp = None
        self._entries = {}
        if hasattr(filename, 'read'):
            self._open_file_object(filename, write_mode, strict)
        elif isinstance(filename, bytes) and len(filename) >= MINIMAL_OLEFILE_SIZE:
            if write_mode:
                self._open_buffer_for_writing(filename)
            else:
                self._open_buffer(filename, strict)
        else:
            fspath = os.fsencode(filename)
            self._open_path(filename, fspath, os.fsdecode(fspath), bool(write_mode), strict)

    def _open_file_object(self, fp, write_mode, strict):
        if write_mode:
            # Edits are written back to the object by commit().
            fp.seek(0)
            self._open_buffer_for_writing(fp.read())
            self._fp = fp
            return
        try:
            fd = fp.fileno()
        except (AttributeError, OSError, ValueError):
            fd = None
        name = getattr(fp, 'name', None)
        name = name if isinstance(name, str) else '<file object>'
        if fd is not None and self._open_descriptor(fd, name, strict):
            return
        fp.seek(0)
        self._open_buffer(fp.read(), strict)

    def __enter__(self):
        return self

    def __exit__(self, exc_type, exc_value, traceback):
        if exc_type is None:
            self.close()
        else:
            self._close()  # an error inside the block: the file stays as it was

    def close(self):
        """Closes the file; in write mode, commits what changed first."""
        if self._is_open and not self.closed and self.writable and self.modified:
            self.commit()
        self._close()

    # --- Entries -------------------------------------------------------------

    def _entry(self, index):
        if self.writable:
            return OleDirectoryEntry(self, index)
        entry = self._entries.get(index)
        if entry is None:
            entry = self._entries[index] = OleDirectoryEntry(self, index)
        return entry

    @property
    def root(self):
        """The root entry (an OleDirectoryEntry)."""
        return self._entry(0)

    @property
    def direntries(self):
        """The entries reachable from the root, each at its index in the
        file's directory; None elsewhere."""
        entries = [self._entry(index) for _, index in self._walk()]
        stored = [e for e in entries if e.sid is not None]
        table = [None] * (max(e.sid for e in stored) + 1 if stored else 0)
        for e in stored:
            table[e.sid] = e
        return table

    def walk(self):
        """Yields (path, entry) for the root (path []) and every entry below
        it, depth first, children in listdir's order; path is a list of
        names as listdir gives them."""
        for path, index in self._walk():
            yield path, self._entry(index)

    @property
    def parsing_issues(self):
        """olefile's list of (exception type, message) for the defects that
        were stepped over while reading."""
        return [(OSError, d.message) for d in self.check()]

    @property
    def sectorsize(self):
        return self.sector_size

    # --- Property sets ---------------------------------------------------------

    def getproperties(self, filename, convert_time=False, no_conversion=None):
        """The properties of a property set stream's first section, by id,
        with olefile's values: FILETIMEs as seconds since 1601, or as
        datetimes with ``convert_time`` (except the ids in
        ``no_conversion``); types olefile does not decode as None.  A set
        that cannot be read gives {} unless ``raise_defects`` asks for errors."""
        no_conversion = no_conversion or []
        try:
            found = self._properties(filename)
        except DamagedFileError:
            if self._raise_defects_level <= DEFECT_INCORRECT:
                raise
            return {}
        data = {}
        for pid, value, filetime in found:
            if filetime:
                if convert_time and pid not in no_conversion:
                    try:
                        value = _FILETIME_EPOCH + datetime.timedelta(microseconds=value // 10)
                    except OverflowError:
                        if self._raise_defects_level <= DEFECT_INCORRECT:
                            raise
                        continue  # olefile leaves out what it cannot convert
                else:
                    value = value // 10000000
            data[pid] = value
        return data

    def get_metadata(self):
        """The standard properties as an OleMetadata (also kept as .metadata)."""
        self.metadata = OleMetadata()
        self.metadata.parse_properties(self)
        return self.metadata

    def setproperties(self, filename, properties=None, user_defined=None):
        """Changes properties of a property set stream in write mode, making
        the stream when missing (only the two summary streams can be made
        from nothing).  ``properties`` maps ids of the first section to
        values, ``user_defined`` names of the user-defined section (of
        "\\x05DocumentSummaryInformation") to values: str and bytes are
        written as strings of the section's code page (bytes given as
        getproperties gives them), int, float and bool as such, datetimes as
        FILETIMEs, None removes.  Every other property stays as it was."""
        self._set_properties(filename, [(pid, _property_value(v)) for pid, v in (properties or {}).items()],
                             [(name, _property_value(v)) for name, v in (user_defined or {}).items()])

    def set_metadata(self, **values):
        """Sets standard properties by OleMetadata's attribute names, e.g.
        ``set_metadata(title='Report', author='Ann')``; total_edit_time is
        a number of seconds."""
        streams = {'\x05SummaryInformation': {}, '\x05DocumentSummaryInformation': {}}
        for name, value in values.items():
            for stream, names in (('\x05SummaryInformation', OleMetadata.SUMMARY_ATTRIBS),
                                  ('\x05DocumentSummaryInformation', OleMetadata.DOCSUM_ATTRIBS)):
                if name in names:
                    break
            else:
                raise TypeError('OleMetadata has no attribute %r' % name)
            pid = names.index(name) + 1
            if name == 'total_edit_time' and value is not None:
                value = ('filetime', int(value) * 10000000)
            streams[stream][pid] = value
        for stream, properties in streams.items():
            if properties:
                self.setproperties(stream, properties)

    # --- Editing -------------------------------------------------------------

    def write_stream(self, stream_name, data):
        """Creates or replaces a stream with ``data`` (bytes-like, any size);
        storages on the way are created."""
        self._write_stream(stream_name, data)

    def create_storage(self, name):
        """Creates a storage (and any missing ones above it)."""
        self._create_storage(name)

    def remove(self, name):
        """Removes a stream, or a storage with everything in it."""
        self._remove(name)

    def rename(self, name, new_name):
        """Gives an entry a new name within the same storage."""
        self._rename(name, new_name)

    def set_clsid(self, name, clsid):
        """Sets an entry's CLSID: olefile's text form, a uuid.UUID or 16 bytes."""
        self._set_clsid(name, _clsid_bytes(clsid))

    def commit(self):
        """Writes every change to the file at once: the file holds either
        all of the old content or all of the new."""
        self._commit()
        if self._fp is not None:
            self._fp.seek(0)
            self._fp.write(self._content())
            self._fp.truncate()
            if hasattr(self._fp, 'flush'):
                self._fp.flush()

    def revert(self):
        """Drops every change since the last commit."""
        self._revert()
        self._entries = {}

    def _not_editable(self, *args, **kwargs):
        raise io.UnsupportedOperation('this build of moxolefio reads only')

    if not _native.EDITING:
        write_stream = create_storage = remove = rename = set_clsid = commit = revert = _not_editable
        setproperties = set_metadata = _not_editable


def create(path, version=4):
    """A new, empty compound file in write mode; nothing is on disk until
    the first commit() (or close())."""
    ole = OleFileIO()
    fspath = os.fsencode(path)
    ole._create(fspath, os.fsdecode(fspath), version)
    ole.write_mode = True
    return ole


io.BufferedIOBase.register(OleStream)
