// _moxolefio: the compound file object behind moxolefio.OleFileIO.  Every
// query olefile answers from its parsed directory is answered here from
// the name index, without a round trip through Python; only the opening
// of files and olefile's odd argument forms are left to the Python layer.
#include "python/src/common.h"  // Python's headers first: datetime.h needs them

#include <datetime.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <tuple>

namespace moxpy {

namespace {

// A stream larger than this is opened with the GIL released: its chain
// walk is long enough to be worth it.
constexpr std::uint64_t kOpenWithoutGil = 1u << 20;

// Files up to this size are read into memory at once: one system call
// costs less than setting up and taking down a mapping and faulting its
// pages in.
constexpr std::uint64_t kReadWhole = 4u << 20;

// In a mapped file, streams from this size on are read with pread from a
// second, unmapped opening of the same file: large reads then cost what
// the system's own reads cost, and the file's pages never become part of
// the process.
constexpr std::uint64_t kPreadAtLeast = 1u << 20;

[[noreturn]] void raiseOsError(const char* message) {
  PyErr_SetString(PyExc_OSError, message);
  throw py::error_already_set();
}

[[noreturn]] void raiseErrno(int err, py::handle filename) {
  errno = err;
  PyErr_SetFromErrnoWithFilenameObject(PyExc_OSError, filename.ptr());
  throw py::error_already_set();
}

// olefile's datetime for a FILETIME: None for 0, else 1601-01-01 plus the
// whole microseconds, naive, overflowing past year 9999 as olefile does.
py::object toDatetime(std::uint64_t filetime) {
  if (filetime == 0) return py::none();
  static PyObject* const base = PyDateTime_FromDateAndTime(1601, 1, 1, 0, 0, 0, 0);  // kept for good
  if (base == nullptr) throw py::error_already_set();
  constexpr std::uint64_t kMicrosPerDay = 86400ull * 1000000ull;
  const std::uint64_t micros = filetime / 10;
  const std::uint64_t rest = micros % kMicrosPerDay;
  py::object delta = py::reinterpret_steal<py::object>(
      PyDelta_FromDSU(static_cast<int>(micros / kMicrosPerDay), static_cast<int>(rest / 1000000),
                      static_cast<int>(rest % 1000000)));
  if (!delta) throw py::error_already_set();
  py::object when = py::reinterpret_steal<py::object>(PyNumber_Add(base, delta.ptr()));
  if (!when) throw py::error_already_set();
  return when;
}

// olefile's CLSID text: "" when all zero, else the GUID in upper case.
std::string clsidText(const std::array<std::uint8_t, 16>& c) {
  bool zero = true;
  for (std::uint8_t b : c) zero = zero && b == 0;
  if (zero) return std::string();
  char text[40];
  snprintf(text, sizeof text, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X",
           static_cast<unsigned>(c[0] | c[1] << 8 | c[2] << 16 | static_cast<unsigned>(c[3]) << 24),
           static_cast<unsigned>(c[4] | c[5] << 8), static_cast<unsigned>(c[6] | c[7] << 8), c[8], c[9],
           c[10], c[11], c[12], c[13], c[14], c[15]);
  return text;
}

const char* severityText(mox::Severity s) { return s == mox::Severity::error ? "error" : "warning"; }

// A property value as olefile's getproperties gives it: integers (4-byte
// ones unsigned), 8-bit strings as bytes without their nulls, UTF-16
// strings as str with the terminator olefile keeps, blobs and clipboard
// data as bytes, CLSIDs as text, booleans; FILETIMEs as raw integers for
// the caller to convert; None for every type olefile does not decode.
std::pair<py::object, bool> olefileValue(const mox::PropertyValue& value) {
  const mox::PropertyVariant& v = value.variant();
  if (auto p = std::get_if<std::int16_t>(&v)) return {py::int_(*p), false};
  if (auto p = std::get_if<std::uint16_t>(&v)) return {py::int_(*p), false};
  if (auto p = std::get_if<std::int32_t>(&v)) return {py::int_(static_cast<std::uint32_t>(*p)), false};
  if (auto p = std::get_if<std::uint32_t>(&v)) return {py::int_(*p), false};
  if (auto p = std::get_if<mox::StatusCode>(&v)) return {py::int_(p->value), false};
  if (auto p = std::get_if<std::uint8_t>(&v)) return {py::int_(*p), false};
  if (auto p = std::get_if<bool>(&v)) return {py::bool_(*p), false};
  if (auto p = std::get_if<mox::FileTime>(&v)) return {py::int_(p->value), true};
  if (auto p = std::get_if<mox::CodePageString>(&v)) {
    std::string bytes;
    for (char c : p->bytes) {
      if (c != '\0') bytes += c;
    }
    return {py::bytes(bytes), false};
  }
  if (auto p = std::get_if<std::u16string>(&v)) {
    std::u16string text = *p + u'\0';
    int littleEndian = -1;
    py::object s = py::reinterpret_steal<py::object>(PyUnicode_DecodeUTF16(
        reinterpret_cast<const char*>(text.data()), static_cast<Py_ssize_t>(text.size() * 2), "replace", &littleEndian));
    if (!s) throw py::error_already_set();
    return {s, false};
  }
  if (auto p = std::get_if<mox::Blob>(&v)) {
    if (p->object) return {py::none(), false};
    return {py::bytes(reinterpret_cast<const char*>(p->data.data()), p->data.size()), false};
  }
  if (auto p = std::get_if<mox::ClipboardData>(&v)) {
    std::string bytes(4, '\0');
    const auto format = static_cast<std::uint32_t>(p->format);
    for (int k = 0; k < 4; ++k) bytes[k] = static_cast<char>(format >> (8 * k));
    bytes.append(reinterpret_cast<const char*>(p->data.data()), p->data.size());
    return {py::bytes(bytes), false};
  }
  if (auto p = std::get_if<mox::Guid>(&v)) return {py::str(clsidText(*p)), false};
  return {py::none(), false};
}

}  // namespace

class File {
 public:
  File() = default;

  // --- Opening ---------------------------------------------------------------

  void openPath(py::handle filename, const std::string& fspath, const std::string& name, bool write,
                bool strict) {
    reset();
    strict_ = strict;
    auto state = std::make_shared<FileState>();
    state->name = name;
    // The descriptor is opened here, not by the native reader, so that a
    // file that cannot be opened raises exactly what Python's open() does.
    const int fd = ::open(fspath.c_str(), (write ? O_RDWR : O_RDONLY) | O_CLOEXEC);
    if (fd < 0) raiseErrno(errno, filename);
    struct stat info;
    if (fstat(fd, &info) != 0 || S_ISDIR(info.st_mode)) {
      const int err = S_ISDIR(info.st_mode) ? EISDIR : errno;
      ::close(fd);
      raiseErrno(err, filename);
    }
    std::optional<mox::CompoundFile> cf;
    try {
      if (write) {
        ::close(fd);
#if MOXPY_EDITING
        py::gil_scoped_release release;
        cf.emplace(mox::CompoundFile::open_rw(fspath));
#else
        throw py::value_error("this build of moxolefio reads only: write_mode is not available");
#endif
      } else {
        const auto size = static_cast<std::uint64_t>(info.st_size);
        state->fd = fd;  // the state closes it from here on
        if (S_ISREG(info.st_mode)) state->source = size <= kReadWhole ? Source::read(fd, size) : Source::map(fd, size);
        if (!state->source || !state->source->mapped()) {
          ::close(fd);
          state->fd = -1;
        }
        mox::OpenOptions options;
        options.strict = strict;
        py::gil_scoped_release release;
        if (state->source) {
          cf.emplace(mox::CompoundFile::open_memory(state->source->data(), state->source->size(), options));
        } else {
          cf.emplace(mox::CompoundFile::open(fspath, options));
        }
      }
    } catch (const mox::Error& e) {
      raise(e, name);
    }
    state->writable = write;
    adopt(std::move(*cf), std::move(state));
  }

  // A file object's descriptor, mapped when it is a regular file; false
  // when it cannot be (the caller then reads the object's bytes).
  bool openDescriptor(int fd, const std::string& name, bool strict) {
    struct stat info;
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) return false;
    const auto size = static_cast<std::uint64_t>(info.st_size);
    std::shared_ptr<Source> source = size <= kReadWhole ? Source::read(fd, size) : Source::map(fd, size);
    if (!source) return false;
    reset();
    strict_ = strict;
    auto state = std::make_shared<FileState>();
    state->name = name;
    // The caller keeps its descriptor: a copy serves large streams.
    if (source->mapped()) state->fd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    state->source = std::move(source);
    mox::OpenOptions options;
    options.strict = strict;
    std::optional<mox::CompoundFile> cf;
    try {
      py::gil_scoped_release release;
      cf.emplace(mox::CompoundFile::open_memory(state->source->data(), state->source->size(), options));
    } catch (const mox::Error& e) {
      raise(e, name);
    }
    adopt(std::move(*cf), std::move(state));
    return true;
  }

  void openBuffer(py::handle buffer, bool strict) {
    reset();
    auto state = std::make_shared<FileState>();
    state->name = "<memory>";
    state->source = Source::buffer(buffer);
    mox::OpenOptions options;
    options.strict = strict;
    std::optional<mox::CompoundFile> cf;
    try {
      py::gil_scoped_release release;
      cf.emplace(mox::CompoundFile::open_memory(state->source->data(), state->source->size(), options));
    } catch (const mox::Error& e) {
      raise(e);
    }
    adopt(std::move(*cf), std::move(state));
  }

  void openBufferForWriting(py::buffer buffer) {
#if MOXPY_EDITING
    reset();
    auto state = std::make_shared<FileState>();
    state->name = "<memory>";
    state->writable = true;
    py::buffer_info info = buffer.request();
    std::optional<mox::CompoundFile> cf;
    try {
      cf.emplace(mox::CompoundFile::open_memory_rw(info.ptr, static_cast<std::size_t>(info.size * info.itemsize)));
    } catch (const mox::Error& e) {
      raise(e);
    }
    adopt(std::move(*cf), std::move(state));
#else
    (void)buffer;
    throw py::value_error("this build of moxolefio reads only: write_mode is not available");
#endif
  }

  void create(const std::string& fspath, const std::string& name, int version) {
#if MOXPY_EDITING
    reset();
    auto state = std::make_shared<FileState>();
    state->name = name;
    state->writable = true;
    mox::CreateOptions options;
    options.version = version;
    std::optional<mox::CompoundFile> cf;
    try {
      cf.emplace(mox::CompoundFile::create(fspath, options));
    } catch (const mox::Error& e) {
      raise(e, name);
    }
    state->modified = true;  // a new file exists only once committed
    adopt(std::move(*cf), std::move(state));
#else
    (void)fspath;
    (void)name;
    (void)version;
    throw py::value_error("this build of moxolefio reads only: create is not available");
#endif
  }

  void close() {
    // Streams already open keep what they read from; the file itself is
    // let go, as olefile closes its file object.
    if (state_) state_->modified = false;
    cf_.reset();
    twin_.reset();
    closed_ = true;
  }

  bool isClosed() const { return closed_; }
  bool isOpen() const { return state_ != nullptr; }
  bool writable() const { return state_ && state_->writable; }
  bool modified() const { return state_ && state_->modified; }

  // --- olefile's queries --------------------------------------------------------

  py::list listdir(bool streams, bool storages) {
    requireOpen();
    return index_.listdir(streams, storages);
  }

  bool exists(py::handle path) {
    requireOpen();
    try {
      return index_.resolve(path) != kNone;
    } catch (py::error_already_set&) {
      return false;  // olefile answers False for anything it cannot look up
    } catch (py::type_error&) {
      return false;
    }
  }

  py::object getType(py::handle path) {
    requireOpen();
    std::uint32_t i = kNone;
    try {
      i = index_.resolve(path);
    } catch (py::error_already_set&) {
    } catch (py::type_error&) {
    }
    if (i == kNone) return py::bool_(false);
    return py::int_(index_.node(i).type);
  }

  std::uint64_t getSize(py::handle path) {
    const std::uint32_t i = find(path);
    if (index_.node(i).type != kTypeStream) throw py::type_error("object is not an OLE stream");
    return attributes(i).size;
  }

  std::string getClsid(py::handle path) { return clsidText(attributes(find(path)).clsid); }
  py::object getMtime(py::handle path) { return toDatetime(attributes(find(path)).modified); }
  py::object getCtime(py::handle path) { return toDatetime(attributes(find(path)).created); }

  py::str rootName() {
    requireOpen();
    return index_.pyName(0);
  }

  PyStream* openStream(py::handle path) {
    const std::uint32_t i = find(path);
    if (index_.node(i).type != kTypeStream) raiseOsError("this file is not a stream");
    if (!cf_) raiseOsError("Attempting to open a stream from a closed OLE File");
    // What the native file needs to find it without a lookup; one per
    // thread, so that its strings keep their storage from one call to the
    // next (a document's streams are opened by the thousand).
    thread_local mox::Entry entry;
    entry.name = index_.node(i).name;
    entry.path.clear();
    index_.appendNativePath(i, entry.path);
    // As walk() writes it, for messages: no leading '/' before a first name
    // that is not empty.
    if (entry.path.size() > 1 && entry.path[1] != '/') entry.path.erase(0, 1);
    entry.type = mox::EntryType::stream;
    entry.id = index_.node(i).id;
    const std::uint64_t size = index_.node(i).size;
    // Held here: while the GIL is let go, another thread may close or
    // reopen this object.
    const std::shared_ptr<FileState> state = state_;
    if (size >= kPreadAtLeast && !state->writable && unmappedTwin()) {
      const std::shared_ptr<const mox::CompoundFile> twin = twin_;
      const std::string twinPath = twinName();
      std::optional<mox::Stream> stream;
      try {
        py::gil_scoped_release release;
        stream.emplace(twin->open_stream(entry));
      } catch (const mox::Error& e) {
        raise(e, state->name, twinPath);
      }
      return new PyStream(std::move(*stream), state, twinPath, false);
    }
    const std::shared_ptr<const mox::CompoundFile> file = cf_;
    std::optional<mox::Stream> stream;
    try {
      if (!state->writable && size >= kOpenWithoutGil) {
        py::gil_scoped_release release;
        stream.emplace(file->open_stream(entry));
      } else if (state->writable) {
        stream.emplace(file->open_stream(entry.path));  // the index's ids predate the edits
      } else {
        stream.emplace(file->open_stream(entry));
      }
    } catch (const mox::Error& e) {
      raise(e, state->name);
    }
    return new PyStream(std::move(*stream), state, "<memory>", true);
  }


  // --- Beyond olefile -----------------------------------------------------------------

  py::list check() {
    requireFile();
    std::vector<mox::Defect> defects;
    onFile([&] {
      defects = cf_->check();
    });
    py::list out;
    for (mox::Defect& d : defects) out.append(py::cast(std::move(d)));
    return out;
  }

  py::list walk() {
    requireOpen();
    return index_.walk();
  }

  // The first section of a property set stream as (id, value, is_filetime).
  py::list properties(py::handle path) {
    const std::uint32_t i = find(path);
    if (index_.node(i).type != kTypeStream) raiseOsError("this file is not a stream");
    if (!cf_) raiseOsError("Attempting to open a stream from a closed OLE File");
    std::optional<mox::PropertySet> set;
    onFile([&] {
      set.emplace(mox::read_property_set(*cf_, index_.nativePath(i)));
    });
    py::list out;
    if (set->sections.empty()) return out;
    for (const mox::Property& p : set->sections.front().properties) {
      auto [value, filetime] = olefileValue(p.value);
      out.append(py::make_tuple(p.id, value, filetime));
    }
    return out;
  }

  py::object resolve(py::handle path) {
    requireOpen();
    const std::uint32_t i = index_.resolve(path);
    return i == kNone ? py::object(py::none()) : py::object(py::int_(i));
  }

  py::tuple entryInfo(std::uint32_t i) {
    requireOpen();
    if (i >= index_.size() || !index_.node(i).live) throw py::index_error("no such entry");
    const Attributes a = attributes(i);
    py::list kids;
    for (std::uint32_t c : index_.node(i).children) kids.append(c);
    return py::make_tuple(index_.pyName(i), index_.node(i).type, a.size, clsidText(a.clsid), a.created,
                          a.modified, a.state_bits, a.id == kNone ? py::object(py::none()) : py::object(py::int_(a.id)),
                          kids, index_.node(i).parent == kNone ? py::object(py::none())
                                                               : py::object(py::int_(index_.node(i).parent)));
  }

  int version() {
    requireFile();
    return cf_->version();
  }

  std::uint32_t sectorSize() {
    requireFile();
    return cf_->sector_size();
  }

  // --- Editing ------------------------------------------------------------------

#if MOXPY_EDITING
  void writeStream(py::handle path, py::buffer data) {
    requireWritable();
    py::buffer_info info = data.request();
    const StreamTarget target = streamTarget(path);
    onFile([&] {
      mox::Stream stream = cf_->create_stream(target.native);
      stream.write(info.ptr, static_cast<std::size_t>(info.size * info.itemsize));
    });
    written(target);
  }

  // Changes properties of a property set stream, made when missing: `items`
  // are (id, value) pairs of its first section, `named` (name, value) pairs
  // of the user-defined section; None removes.
  void setProperties(py::handle path, py::list items, py::list named) {
    requireWritable();
    const StreamTarget target = streamTarget(path);
    mox::PropertySet set;
    try {
      if (target.exists) set = mox::read_property_set(*cf_, target.native);
      if (set.sections.empty()) set.sections.push_back(newSection(target.native));
      mox::PropertySection& first = set.sections.front();
      for (py::handle item : items) {
        const auto id = item[py::int_(0)].cast<std::uint32_t>();
        py::object value = item[py::int_(1)];
        if (value.is_none()) {
          first.remove(id);
        } else {
          first.set(id, propertyValue(value, first.code_page()));
        }
      }
      if (!named.empty()) setNamed(set, named);
      mox::write_property_set(*cf_, target.native, set);
    } catch (const mox::Error& e) {
      if (e.code() == mox::Errc::invalid_argument) throw py::value_error(e.what());
      raise(e, state_->name);
    }
    written(target);
  }

  void createStorage(py::handle path) {
    requireWritable();
    const std::vector<std::string> names = Index::split(path);
    const auto [at, found] = index_.resolvePrefix(names);
    if (found == names.size()) {
      if (index_.node(at).type == kTypeStream) {
        PyErr_SetString(PyExc_FileExistsError, "a stream of that name exists");
        throw py::error_already_set();
      }
      return;  // there already
    }
    if (index_.node(at).type == kTypeStream) raiseOsError("a stream cannot hold other entries");
    std::string native = index_.nativePath(at);
    for (std::size_t k = found; k < names.size(); ++k) native += "/" + names[k];
    onFile([&] {
      cf_->create_storage(native);
    });
    state_->modified = true;
    addMissing(at, names, found, kTypeStorage);
  }

  void remove(py::handle path) {
    requireWritable();
    const std::uint32_t i = find(path);
    if (i == 0) throw py::value_error("the root cannot be removed");
    onFile([&] {
      cf_->remove(index_.nativePath(i));
    });
    state_->modified = true;
    index_.remove(i);
  }

  void rename(py::handle path, const std::string& name) {
    requireWritable();
    const std::uint32_t i = find(path);
    if (i == 0) throw py::value_error("the root cannot be renamed");
    onFile([&] {
      cf_->rename(index_.nativePath(i), name);
    });
    state_->modified = true;
    index_.rename(i, name);
  }

  void setClsid(py::handle path, const py::bytes& clsid) {
    requireWritable();
    const std::string raw = clsid;
    if (raw.size() != 16) throw py::value_error("a CLSID is 16 bytes");
    std::array<std::uint8_t, 16> value{};
    std::copy(raw.begin(), raw.end(), value.begin());
    const std::uint32_t i = find(path);
    onFile([&] {
      cf_->set_clsid(index_.nativePath(i), value);
    });
    state_->modified = true;
  }

  void commit() {
    requireWritable();
    onFile([&] {
      cf_->commit();
    });
    state_->modified = false;
  }

  void revert() {
    requireWritable();
    onFile([&] {
      cf_->revert();
      index_.build(*cf_);
    });
    state_->modified = false;
  }

  py::bytes content() {
    requireWritable();
    std::vector<std::uint8_t> bytes;
    onFile([&] {
      bytes = cf_->bytes();
    });
    return py::bytes(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  }
#endif

#if MOXPY_EDITING
  // Where a stream to be written goes: its native path, and what of the
  // path exists already (for the index to learn the rest).
  struct StreamTarget {
    std::string native;
    std::vector<std::string> names;
    std::uint32_t at = 0;
    std::size_t found = 0;
    bool exists = false;
  };

  StreamTarget streamTarget(py::handle path) {
    StreamTarget t;
    t.names = Index::split(path);
    if (t.names.empty()) throw py::value_error("the root is not a stream");
    std::tie(t.at, t.found) = index_.resolvePrefix(t.names);
    t.native = index_.nativePath(t.at);
    t.exists = t.found == t.names.size();
    if (t.exists) {
      if (index_.node(t.at).type != kTypeStream) raiseOsError("this is not a stream");
    } else {
      if (index_.node(t.at).type == kTypeStream) raiseOsError("a stream cannot hold other entries");
      for (std::size_t k = t.found; k < t.names.size(); ++k) t.native += "/" + t.names[k];
    }
    return t;
  }

  void written(const StreamTarget& t) {
    state_->modified = true;
    addMissing(t.at, t.names, t.found, kTypeStream);
  }

  // A new set's first section: the format id its stream's name calls for.
  static mox::PropertySection newSection(const std::string& native) {
    const std::string name = native.substr(native.rfind('/') + 1);
    mox::PropertySection section;
    if (name == mox::kSummaryInformationStream) {
      section.format_id = mox::kSummaryInformation;
    } else if (name == mox::kDocSummaryInformationStream) {
      section.format_id = mox::kDocSummaryInformation;
    } else {
      throw py::value_error("only the two summary information streams can be made from nothing");
    }
    section.set_code_page(1252);
    return section;
  }

  void setNamed(mox::PropertySet& set, py::list named) {
    if (set.sections.front().format_id != mox::kDocSummaryInformation) {
      throw py::value_error("user-defined properties live in the document summary information stream");
    }
    mox::PropertySection& user = set.section_or_add(mox::kUserDefinedProperties, set.sections.front().code_page());
    for (py::handle item : named) {
      const auto name = item[py::int_(0)].cast<std::string>();
      py::object value = item[py::int_(1)];
      if (!value.is_none()) {
        user.set_named(name, propertyValue(value, user.code_page()));
      } else if (const auto id = user.id_of(name)) {
        user.remove(*id);
      }
    }
  }

  // A Python value as the property olefile would read back as it: bytes
  // and str as strings of the section's code page, ints as 32-bit integers
  // where they fit, ("filetime", ticks) as a FILETIME.
  static mox::PropertyValue propertyValue(py::handle value, std::uint16_t codePage) {
    if (py::isinstance<py::bool_>(value)) return value.cast<bool>();
    if (py::isinstance<py::int_>(value)) {
      const auto v = value.cast<long long>();
      if (v >= INT32_MIN && v <= INT32_MAX) return static_cast<std::int32_t>(v);
      if (v >= 0 && v <= static_cast<long long>(UINT32_MAX)) return static_cast<std::uint32_t>(v);
      return static_cast<std::int64_t>(v);
    }
    if (py::isinstance<py::float_>(value)) return value.cast<double>();
    if (py::isinstance<py::tuple>(value) && py::len(value) == 2 && value[py::int_(0)].cast<std::string>() == "filetime") {
      return mox::FileTime{value[py::int_(1)].cast<std::uint64_t>()};
    }
    if (py::isinstance<py::bytes>(value)) {
      mox::CodePageString s(py::str(value.attr("decode")(codecName(codePage))).cast<std::string>());
      s.bytes = value.cast<std::string>();
      return s;
    }
    if (py::isinstance<py::str>(value)) {
      if (codePage != 1200) return mox::CodePageString(value.cast<std::string>());
      const std::string units = py::bytes(value.attr("encode")("utf-16-le")).cast<std::string>();
      std::u16string text(units.size() / 2, u'\0');
      std::memcpy(text.data(), units.data(), text.size() * 2);
      return text;
    }
    throw py::type_error("a property value is bool, int, float, str, bytes or a datetime");
  }

  static std::string codecName(std::uint16_t codePage) {
    if (codePage == 1200) return "utf-16-le";
    if (codePage == 65001) return "utf-8";
    return "cp" + std::to_string(codePage);
  }
#endif

  // Runs an operation on the native file, its errors raised as Python's
  // exceptions naming the file.
  template <class Operation>
  void onFile(Operation operation) {
    try {
      operation();
    } catch (const mox::Error& e) {
      raise(e, state_->name);
    }
  }

 private:
  void reset() {
    twin_.reset();
    twin_failed_ = false;
    cf_.reset();
    state_.reset();
    closed_ = false;
  }

  std::string twinName() const { return "/proc/self/fd/" + std::to_string(state_->fd); }

  // The unmapped opening of a mapped file, made on first need through the
  // descriptor kept open, so that it is the very file that was mapped.
  // False when there is none to be had (the mapping serves instead).
  bool unmappedTwin() {
    if (twin_) return true;
    if (twin_failed_ || !state_ || state_->fd < 0) return false;
    mox::OpenOptions options;
    options.strict = strict_;
    options.map = false;
    const std::string path = twinName();
    std::shared_ptr<mox::CompoundFile> twin;
    try {
      py::gil_scoped_release release;
      twin = std::make_shared<mox::CompoundFile>(mox::CompoundFile::open(path, options));
    } catch (const mox::Error&) {
      twin_failed_ = true;
    }
    // Back under the GIL: a thread that got here first keeps its twin.
    if (!twin_) twin_ = std::move(twin);
    return twin_ != nullptr;
  }

  void adopt(mox::CompoundFile cf, std::shared_ptr<FileState> state) {
    try {
      index_.build(cf);
    } catch (const mox::Error& e) {
      raise(e, state->name);
    }
    cf_ = std::make_shared<mox::CompoundFile>(std::move(cf));
    state_ = std::move(state);
  }

  void requireOpen() const {
    if (!state_) throw py::value_error("no file is open");
  }

  void requireFile() const {
    requireOpen();
    if (!cf_) throw py::value_error("the file is closed");
  }

  void requireWritable() const {
    requireFile();
    if (!state_->writable) {
      PyErr_SetString(exceptions().unsupported.ptr(), "the file is open for reading");
      throw py::error_already_set();
    }
  }

  std::uint32_t find(py::handle path) {
    requireOpen();
    const std::uint32_t i = index_.resolve(path);
    if (i == kNone) raiseOsError("file not found");
    return i;
  }

  struct Attributes {
    std::uint64_t size, created, modified;
    std::array<std::uint8_t, 16> clsid;
    std::uint32_t state_bits, id;
  };

  // A node's attributes: as read, or (write mode) as they are now.
  Attributes attributes(std::uint32_t i) {
    const Node& n = index_.node(i);
    Attributes a;
    a.size = n.size;
    a.created = n.created;
    a.modified = n.modified;
    a.clsid = n.clsid;
    a.state_bits = n.state_bits;
    a.id = n.id;
    if (state_ && state_->writable && cf_) {
      std::optional<mox::Entry> e;
      try {
        e = cf_->entry(index_.nativePath(i));
      } catch (const mox::Error& err) {
        raise(err, state_->name);
      }
      if (e) {
        a.size = e->size;
        a.created = e->created;
        a.modified = e->modified;
        a.clsid = e->clsid;
        a.state_bits = e->state_bits;
        a.id = e->id;
      }
    }
    return a;
  }

  void addMissing(std::uint32_t at, const std::vector<std::string>& names, std::size_t found, int lastType) {
    for (std::size_t k = found; k < names.size(); ++k) {
      at = index_.add(at, names[k], k + 1 == names.size() ? lastType : kTypeStorage);
    }
  }

  // Shared so that a call that lets the GIL go keeps the file it uses.
  std::shared_ptr<mox::CompoundFile> cf_;
  std::shared_ptr<mox::CompoundFile> twin_;
  bool twin_failed_ = false;
  bool strict_ = false;
  std::shared_ptr<FileState> state_;
  Index index_;
  bool closed_ = false;
};

}  // namespace moxpy

PYBIND11_MODULE(_moxolefio, m) {
  using namespace moxpy;
  PyDateTime_IMPORT;
  if (PyDateTimeAPI == nullptr) throw py::error_already_set();
  m.doc() = "The native side of moxolefio: compound files read through the moxolefio library.";
  registerExceptions(m);
  bindStream(m);
  m.attr("EDITING") = py::bool_(MOXPY_EDITING != 0);

  py::class_<mox::Defect>(m, "Defect", "One thing check() found wrong in the file's structure.")
      .def_property_readonly("severity", [](const mox::Defect& d) { return severityText(d.severity); })
      .def_readonly("code", &mox::Defect::code)
      .def_readonly("path", &mox::Defect::path)
      .def_property_readonly("sector",
                             [](const mox::Defect& d) { return d.sector < 0 ? py::object(py::none()) : py::object(py::int_(d.sector)); })
      .def_readonly("message", &mox::Defect::message)
      .def("__repr__", [](const mox::Defect& d) {
        return "<Defect " + std::string(severityText(d.severity)) + " " + d.code +
               (d.path.empty() ? std::string() : " " + d.path) + ": " + d.message + ">";
      });

  m.def("filetime2datetime", [](std::uint64_t filetime) {
    // olefile's helper converts 0 too: to 1601-01-01.
    if (filetime == 0) {
      PyObject* base = PyDateTime_FromDateAndTime(1601, 1, 1, 0, 0, 0, 0);
      if (base == nullptr) throw py::error_already_set();
      return py::reinterpret_steal<py::object>(base);
    }
    return toDatetime(filetime);
  }, py::arg("filetime"), "A FILETIME as olefile's naive datetime.");

  py::class_<File>(m, "File", py::dynamic_attr())
      .def(py::init<>())
      .def("_open_path", &File::openPath)
      .def("_open_buffer", &File::openBuffer)
      .def("_open_descriptor", &File::openDescriptor)
      .def("_open_buffer_for_writing", &File::openBufferForWriting)
      .def("_create", &File::create)
      .def("_close", &File::close)
      .def_property_readonly("_is_open", &File::isOpen)
      .def_property_readonly("closed", &File::isClosed)
      .def_property_readonly("writable", &File::writable)
      .def_property_readonly("modified", &File::modified, "Whether there are changes not committed yet.")
      .def("listdir", &File::listdir, py::arg("streams") = true, py::arg("storages") = false)
      .def("exists", &File::exists, py::arg("filename"))
      .def("get_type", &File::getType, py::arg("filename"))
      .def("get_size", &File::getSize, py::arg("filename"))
      .def("getclsid", &File::getClsid, py::arg("filename"))
      .def("getmtime", &File::getMtime, py::arg("filename"))
      .def("getctime", &File::getCtime, py::arg("filename"))
      .def("get_rootentry_name", &File::rootName)
      .def("openstream", &File::openStream, py::arg("filename"), py::return_value_policy::take_ownership)
      .def("check", &File::check, "The structural defects found in the file, as a list of Defect.")
      .def("_walk", &File::walk)
      .def("_properties", &File::properties)
      .def("_resolve", &File::resolve)
      .def("_entry_info", &File::entryInfo)
      .def_property_readonly("version", &File::version, "The format's major version: 3 or 4.")
      .def_property_readonly("sector_size", &File::sectorSize)
#if MOXPY_EDITING
      .def("_write_stream", &File::writeStream)
      .def("_set_properties", &File::setProperties)
      .def("_create_storage", &File::createStorage)
      .def("_remove", &File::remove)
      .def("_rename", &File::rename)
      .def("_set_clsid", &File::setClsid)
      .def("_commit", &File::commit)
      .def("_revert", &File::revert)
      .def("_content", &File::content)
#endif
      ;
}
