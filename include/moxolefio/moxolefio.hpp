// moxolefio's native C++ interface: compound files opened by path or from
// memory, walked, read through any number of streams at once, checked, and
// edited with atomic commits.
//
// Errors are thrown as mox::Error; every object owns what it holds (RAII).
// A CompoundFile and its Streams may be read from several threads at once
// as long as each Stream is used by one thread at a time; a file opened
// for writing is for one thread at a time.
#ifndef MOXOLEFIO_MOXOLEFIO_HPP_
#define MOXOLEFIO_MOXOLEFIO_HPP_

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <ios>
#include <istream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <string_view>
#include <vector>

#if defined(MOXOLEFIO_BUILDING)
#define MOX_CXX_API __attribute__((visibility("default")))
#else
#define MOX_CXX_API
#endif

namespace mox {

// --- Errors -------------------------------------------------------------

enum class Errc {
  not_found = 1,
  not_a_compound_file,
  damaged,
  io,
  no_memory,
  invalid_argument,
  exists,
  read_only,
};

// What went wrong, with the file and the path inside it in the message.
class MOX_CXX_API Error : public std::runtime_error {
 public:
  Error(Errc code, const std::string& message);
  Errc code() const noexcept { return code_; }

 private:
  Errc code_;
};

// --- Entries --------------------------------------------------------------

enum class EntryType { root, storage, stream, other };

struct Entry {
  std::string name;          // UTF-8 of the whole UTF-16 name
  std::string path;          // names joined with '/' from the root; "" for the root
  EntryType type = EntryType::other;
  std::uint64_t size = 0;    // 4096-byte sectors: all 64 bits; 512-byte sectors: the low 32
  std::array<std::uint8_t, 16> clsid{};  // as stored
  std::uint32_t state_bits = 0;
  std::uint64_t created = 0;   // raw FILETIME, 0 when unset
  std::uint64_t modified = 0;  // raw FILETIME, 0 when unset
  std::uint32_t id = 0;        // index of the entry in the file's directory
  std::uint32_t depth = 0;     // 0 for the root, 1 for its children, and so on

  bool is_stream() const { return type == EntryType::stream; }
  bool is_storage() const { return type == EntryType::storage || type == EntryType::root; }
};

// A FILETIME (100 ns ticks since 1601-01-01 UTC) as a time point.
MOX_CXX_API std::chrono::system_clock::time_point to_time_point(std::uint64_t filetime);
// The reverse, for the setters.
MOX_CXX_API std::uint64_t to_filetime(std::chrono::system_clock::time_point time);

// --- Structural check --------------------------------------------------------

enum class Severity { warning, error };

struct Defect {
  Severity severity = Severity::error;
  std::string code;     // a short stable tag, such as "fat-cycle"
  std::string path;     // the entry concerned, "" when none
  std::int64_t sector = -1;  // the sector concerned, -1 when none
  std::string message;  // one line for people
};

// --- Options --------------------------------------------------------------

struct OpenOptions {
  // Fail the open on any defect that check() reports as an error, instead
  // of opening whatever can be read.
  bool strict = false;
  // open() only: map the file (the default), or read it with pread.  A
  // mapping serves many small reads best; pread serves large sequential
  // reads at the system's own speed and never makes the file's pages part
  // of the process.
  bool map = true;
};

struct CreateOptions {
  int version = 4;  // 3: 512-byte sectors; 4: 4096-byte sectors and 64-bit sizes
};

class CompoundFile;

// --- Streams ----------------------------------------------------------------

// One stream's bytes with a position of its own.  Streams of a file opened
// for writing are writable too.  A Stream keeps what it reads from alive,
// so it may outlive the CompoundFile object it came from.
class MOX_CXX_API Stream {
 public:
  Stream();
  Stream(Stream&&) noexcept;
  Stream& operator=(Stream&&) noexcept;
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream();

  std::uint64_t size() const;
  // Reads up to `count` bytes at the position; fewer only at the end.
  std::size_t read(void* buffer, std::size_t count);
  std::uint64_t seek(std::int64_t offset, std::ios_base::seekdir dir = std::ios_base::beg);
  std::uint64_t tell() const;
  // The rest of the stream from the position.
  std::vector<std::uint8_t> read_all();

  bool writable() const;
  // Writes at the position; past the end the stream grows, a gap reading
  // as zeros.  Errc::read_only on a stream of a file opened for reading.
  void write(const void* data, std::size_t count);
  void set_size(std::uint64_t size);

  const std::string& path() const;

  struct Impl;
  explicit Stream(std::unique_ptr<Impl> impl);

 private:
  std::unique_ptr<Impl> impl_;
};

// A std::istream over a Stream (which it takes over).
class MOX_CXX_API istream : public std::istream {
 public:
  explicit istream(Stream stream);
  ~istream() override;

 private:
  class Buffer;
  std::unique_ptr<Buffer> buffer_;
};

// --- The compound file ---------------------------------------------------------

class MOX_CXX_API CompoundFile {
 public:
  // Reading.  `open` maps the file read-only (reading with pread where it
  // cannot be mapped); `open_memory` reads bytes that the caller keeps
  // alive and unchanged while the file and its streams are in use.
  static CompoundFile open(const std::filesystem::path& path, OpenOptions options = {});
  static CompoundFile open_memory(const void* data, std::size_t size, OpenOptions options = {});

  // Writing.  `create` starts an empty file (nothing is on disk until the
  // first commit); `open_rw` edits an existing one, keeping its version and
  // sector size.  `create_memory` and `open_memory_rw` do the same with no
  // file behind them: commit() then updates what bytes() returns.
  static CompoundFile create(const std::filesystem::path& path, CreateOptions options = {});
  static CompoundFile open_rw(const std::filesystem::path& path);
  // open_memory_rw copies the bytes.  New and changed stream bytes wait
  // for commit() in an unlinked scratch file beside the file (in memory
  // for files in memory), so large streams cost little memory.
  static CompoundFile create_memory(CreateOptions options = {});
  static CompoundFile open_memory_rw(const void* data, std::size_t size);

  CompoundFile(CompoundFile&&) noexcept;
  CompoundFile& operator=(CompoundFile&&) noexcept;
  CompoundFile(const CompoundFile&) = delete;
  CompoundFile& operator=(const CompoundFile&) = delete;
  // Uncommitted changes are discarded: a file is only changed by commit().
  ~CompoundFile();

  int version() const;
  std::uint32_t sector_size() const;
  bool writable() const;

  // Paths are '/'-separated from the root; a leading '/' is ignored and an
  // empty element names a child with an empty name.  Each element matches
  // an exact name, else the one name equal to it ignoring case, else none.
  Entry root() const;
  std::optional<Entry> entry(std::string_view path) const;
  bool exists(std::string_view path) const;
  // The children of a storage, ordered as the format orders siblings.
  std::vector<Entry> children(std::string_view path) const;
  // The root, then every reachable entry, depth first, children in order.
  std::vector<Entry> walk() const;
  // The same entries handed to `visit` one at a time, without a list: the
  // Entry is valid only during the call.
  void walk(const std::function<void(const Entry&)>& visit) const;

  Stream open_stream(std::string_view path) const;
  // The stream an entry of this file's walk(), children() or entry()
  // stands for.  On a file opened for reading its directory number finds
  // it with no lookup by path (many streams open that much faster);
  // otherwise its path, or, when the path leads elsewhere (a name holding
  // '/' cannot be spelled in one), its id.
  Stream open_stream(const Entry& entry) const;

  // A full structural scan of the file as read (not of uncommitted edits).
  std::vector<Defect> check() const;

  // --- Editing (files from create, open_rw, create_memory, open_memory_rw) ---
  // Errc::read_only on a file opened for reading.  Parent storages that do
  // not exist are created.  Names are 1 to 31 UTF-16 units without '/',
  // '\\', ':' or '!' (Errc::invalid_argument); two names clash when the
  // format takes them for one (letter case aside): Errc::exists.
  //
  // A Stream of a writable file follows its stream: it stays usable across
  // commit() and revert() (showing what was committed, or gone back to),
  // and can no longer be written once its stream is removed or replaced
  // (Errc::invalid_argument), though it still reads what it held.
  // Version 3 streams hold at most 4 GiB - 1 bytes.
  void create_storage(std::string_view path);       // an existing storage is kept
  Stream create_stream(std::string_view path);      // replaces an existing stream
  Stream create_new_stream(std::string_view path);  // Errc::exists when there is one
  void remove(std::string_view path);               // a storage with everything below
  void rename(std::string_view path, std::string_view new_name);
  void move(std::string_view path, std::string_view new_parent_path);
  // A stream or a whole storage from `from` (which may be this file).
  void copy(const CompoundFile& from, std::string_view from_path, std::string_view to_path);
  // Properties the format gives storages: the class id, state bits and
  // modification time also of the root, the creation time not (the root's
  // is the file's own); Errc::invalid_argument for streams.
  void set_clsid(std::string_view path, const std::array<std::uint8_t, 16>& clsid);
  void set_state_bits(std::string_view path, std::uint32_t bits);
  void set_created(std::string_view path, std::uint64_t filetime);
  void set_modified(std::string_view path, std::uint64_t filetime);

  // Writes the new content to a temporary file beside the original,
  // flushes it, renames it over the original and flushes the folder: the
  // path always holds the complete old or the complete new file.  Streams
  // nobody wrote are copied from the old file.  On Errc::io before the
  // rename the file and the edits are as they were (commit again); an
  // error flushing the folder comes after the new file is in place.
  void commit();
  // Drops every change since the last commit.
  void revert();
  // Writes the current content to another path; the file itself is unchanged.
  void save_as(const std::filesystem::path& path) const;
  // The current content as bytes (committed or not).
  std::vector<std::uint8_t> bytes() const;

  struct Impl;

 private:
  explicit CompoundFile(std::shared_ptr<Impl> impl);
  std::shared_ptr<Impl> impl_;
};

}  // namespace mox

#include "moxolefio/properties.hpp"

#endif  // MOXOLEFIO_MOXOLEFIO_HPP_
