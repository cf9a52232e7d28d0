// Pieces shared by the parts of the _moxolefio extension: where an open
// file's bytes come from, the state a file shares with its streams, the
// name index olefile's lookups need, and the mapping of mox::Error to
// Python exceptions.
#ifndef MOXOLEFIO_PYTHON_COMMON_H_
#define MOXOLEFIO_PYTHON_COMMON_H_

#include <pybind11/pybind11.h>

#include <array>
#include <atomic>
#include <deque>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "moxolefio/moxolefio.hpp"

// Set by the build when the library defines editing.
#ifndef MOXPY_EDITING
#define MOXPY_EDITING 0
#endif

namespace moxpy {

namespace py = pybind11;

// --- Bytes behind a file opened for reading -----------------------------------

// A small file's bytes read into memory, a read-only mapping of a larger
// file made here, or a Python object's buffer held for as long as
// anything reads from it.  Mapped pages that have been read are given
// back to the kernel every so often, so that reading a file larger than
// memory does not leave all of it resident in the process.
class Source {
 public:
  // Reads a whole file; null when it cannot be read in one go (then the
  // native reader's own file access is used instead).
  static std::shared_ptr<Source> read(int fd, std::uint64_t size);
  // Maps an open descriptor; null when the file cannot be mapped.
  static std::shared_ptr<Source> map(int fd, std::uint64_t size);
  // Holds `owner`'s buffer (bytes, bytearray, memoryview, mmap...).
  // Needs the GIL, as does the destruction of such a source.
  static std::shared_ptr<Source> buffer(py::handle owner);

  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;
  ~Source();

  const void* data() const { return data_; }
  std::size_t size() const { return size_; }
  bool mapped() const { return mapped_; }
  // Counts bytes copied out of the mapping and trims it when enough have
  // gone by.  Safe without the GIL.
  void noteRead(std::size_t count);

 private:
  Source() = default;
  const void* data_ = nullptr;
  std::size_t size_ = 0;
  bool mapped_ = false;
  bool has_view_ = false;
  std::unique_ptr<unsigned char[]> owned_;
  Py_buffer view_{};
  std::atomic<std::uint64_t> since_trim_{0};
};

// What a file and the streams opened from it share.
struct FileState {
  std::shared_ptr<Source> source;  // null when the native reader opened the file itself
  std::string name;                // the file's name for messages ("<memory>" for bytes)
  bool writable = false;
  bool modified = false;           // changed since the last commit (write mode)
  // A mapped file's descriptor, kept so that large streams can be read
  // with pread from the very same file (-1 when there is none).
  int fd = -1;
  ~FileState();
};

// --- Errors -----------------------------------------------------------------

// Python exception types defined by the module.
struct Exceptions {
  py::handle not_ole;       // NotOleFileError(OSError)
  py::handle damaged;       // DamagedFileError(OSError, ValueError)
  py::handle unsupported;   // io.UnsupportedOperation
};
const Exceptions& exceptions();
void registerExceptions(py::module_& m);

// Raises the Python exception matching `e`; messages that name the file
// as "<memory>" name `fileName` instead when there is one.
[[noreturn]] void raise(const mox::Error& e, const std::string& fileName = std::string(),
                        const std::string& nativeName = "<memory>");

// --- The name index ------------------------------------------------------------

constexpr std::uint32_t kNone = 0xFFFFFFFF;

// olefile's entry type codes.
enum : int { kTypeOther = 0, kTypeStorage = 1, kTypeStream = 2, kTypeRoot = 5 };

struct Node {
  std::string name;  // UTF-8
  std::uint32_t parent = kNone;
  std::vector<std::uint32_t> children;  // by name in code point order, ties as in the file
  int type = kTypeOther;
  // Attributes as read; a file in write mode asks the native file instead.
  std::uint64_t size = 0;
  std::uint64_t created = 0;
  std::uint64_t modified = 0;
  std::array<std::uint8_t, 16> clsid{};
  std::uint32_t state_bits = 0;
  std::uint32_t id = kNone;
  bool live = true;

  // For lookups, made when first needed.
  std::string lower;
  bool lowered = false;
  std::unique_ptr<std::unordered_map<std::string, std::uint32_t>> by_lower;
  py::object pyname;
};

// The tree as olefile presents it: every storage's children sorted by
// name, and names matched the way olefile matches them (each element
// compared after Python's str.lower(), the first child in that order
// winning).  Node 0 is the root.
class Index {
 public:
  void build(const mox::CompoundFile& file);

  std::uint32_t size() const { return static_cast<std::uint32_t>(nodes_.size()); }
  Node& node(std::uint32_t i) { return nodes_[i]; }
  const Node& node(std::uint32_t i) const { return nodes_[i]; }

  // The node named by an olefile path ('a/b' or a sequence of names), or
  // kNone.  Raises TypeError for paths of other types.
  std::uint32_t resolve(py::handle path);
  // Resolves as much of `names` as exists: the node reached and how many
  // names that took.
  std::pair<std::uint32_t, std::size_t> resolvePrefix(const std::vector<std::string>& names);
  // The native interface's path of a node: exact names, so it finds this
  // very node.
  std::string nativePath(std::uint32_t i) const;
  // The same, appended to `path`.
  void appendNativePath(std::uint32_t i, std::string& path) const;
  // The node's names from below the root, as Python strings.
  py::list pathList(std::uint32_t i);
  py::str pyName(std::uint32_t i);

  py::list listdir(bool streams, bool storages);
  // Every live node in olefile's order (pre-order, children by name),
  // root first, with its path list.
  py::list walk();

  // Editing: the index follows what the native file did.
  std::uint32_t add(std::uint32_t parent, const std::string& name, int type);
  void remove(std::uint32_t i);
  void rename(std::uint32_t i, const std::string& name);

  // The path elements of an olefile path, as UTF-8.
  static std::vector<std::string> split(py::handle path);

 private:
  const std::string& lowerOf(std::uint32_t i);
  // The child of `parent` that name `item` (at `position` in its list)
  // finds, remembered for the next list; kNone when none.
  std::uint32_t resolveName(std::uint32_t parent, py::handle item, std::size_t position);
  std::uint32_t findChild(std::uint32_t parent, const std::string& lowered);
  void insertChild(std::uint32_t parent, std::uint32_t child);
  void forgetChild(std::uint32_t parent, std::uint32_t child);
  template <class Visit>
  void depthFirst(Visit visit);
  void forgetMemo() {
    memo_items_.clear();
    memo_nodes_.clear();
  }

  // A deque: an index of many entries grows without moving its nodes.
  std::deque<Node> nodes_;
  // The last path list resolved, name by name: a list from listdir()
  // shares its leading names with the one before as the very same
  // objects, and those resolve as they did.  Held as references, so that
  // an address cannot come back as another name; dropped on every edit.
  std::vector<py::object> memo_items_;
  std::vector<std::uint32_t> memo_nodes_;
};

// Python's str.lower() of a UTF-8 name, without Python for ASCII.
// Returns false when the text is not valid for Python.
bool lowerName(const char* text, std::size_t length, std::string& out);

// --- Streams ------------------------------------------------------------------

// The binary file object openstream() returns: reads go straight to the
// native stream, with the GIL released for reads large enough to be
// worth it, so that threads reading different streams run in parallel.
class PyStream {
 public:
  // `nativeName` is how the native file names itself in messages;
  // `throughMapping` says whether reads copy out of the state's mapping.
  PyStream(mox::Stream stream, std::shared_ptr<FileState> state, std::string nativeName, bool throughMapping);

  py::bytes read(py::handle size);
  py::bytes readAll();
  std::size_t readinto(py::buffer target);
  py::bytes readline(py::handle size);
  py::list readlines(py::handle hint);
  py::bytes getvalue();
  std::uint64_t seek(std::int64_t offset, int whence);
  std::uint64_t tell();
  bool writable();
  std::size_t write(py::buffer data);
  std::uint64_t truncate(py::handle size);
  void close();
  bool closed() const { return closed_; }
  std::uint64_t size();
  std::string name();

 private:
  class Busy;
  void live() const;
  std::size_t readInto(char* out, std::size_t count);

  mox::Stream stream_;
  std::shared_ptr<FileState> state_;
  std::string native_name_;
  bool through_mapping_;
  std::mutex mutex_;
  bool closed_ = false;
};

void bindStream(py::module_& m);

}  // namespace moxpy

#endif  // MOXOLEFIO_PYTHON_COMMON_H_
