// Helpers for the writer tests: a new document made through the host's
// functions into memory, and whole document shapes with the contents a
// reader must find in the file.
#ifndef MOXOLEFIO_TESTS_SUPPORT_WRITE_KIT_H_
#define MOXOLEFIO_TESTS_SUPPORT_WRITE_KIT_H_

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

#include "host/moxhost.h"
#include "interface/mox_file.h"
#include "support/cfb_reader.h"

namespace writekit {

// A document created with hOLEopenEx (flags 1) on a MemoryIo, with pooled
// services that count everything.  close() runs iOLEclose and returns the
// file; the destructor closes a document the test left open.
class NewFile {
 public:
  NewFile();
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  _MoxOleFile* handle() const { return handle_; }
  moxhost::MemoryIo& io() { return io_; }
  moxhost::PoolServices& host() { return host_; }

  // iOLEopenStreamEx with flags 1: a storage, or a stream then written in
  // pieces of `piece` bytes (0: one call).  The first nonzero status.
  int storage(const std::string& path);
  int stream(const std::string& path, const cfb::Bytes& data = {}, size_t piece = 0);

  // Closes the handle; the bytes written.
  const cfb::Bytes& close();

 private:
  moxhost::PoolServices host_;
  moxhost::MemoryIo io_;
  _MoxOleFile* handle_;
};

// One storage or stream of a shape, created in the order listed (parents
// first).
struct Part {
  std::string path;
  uint8_t type;  // 1 storage, 2 stream
  cfb::Bytes data;
};
using Shape = std::vector<Part>;

// What a reader must find: every entry by path, with its bytes.
std::map<std::string, cfb::Item> expected(const Shape& shape);

// Writes the shape through the host's functions (streams in pieces of
// `piece` bytes) and returns the file.
cfb::Bytes write(const Shape& shape, size_t piece = 0);

// Reads file back with the library's own reader: the storage tree from
// iOLEGetStreamTree, every stream by entry number (iReadStreamChain) and
// by storage path (bOLEopenEmbeddedStreamEx).  Adds a failure to the test
// for anything that differs from `want`, and for leaks.
void checkWithLibrary(const cfb::Bytes& file, const std::map<std::string, cfb::Item>& want);

// Empty when the services hold nothing; otherwise a line naming every kind
// of leftover (live pools, heap blocks, single frees that pools never
// expect), so that a failing EXPECT_EQ(leakReport(s), "") says what leaked.
std::string leakReport(moxhost::PoolServices& services);

// A little-endian field of a file, for byte-level checks.
uint32_t u32(const cfb::Bytes& file, size_t offset);

}  // namespace writekit

#endif  // MOXOLEFIO_TESTS_SUPPORT_WRITE_KIT_H_
