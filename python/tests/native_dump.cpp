// What the native C++ interface reads in a compound file, one line per
// entry in walk order: type, path, size, CLSID (hex as stored) and the
// SHA-256 of a stream's bytes.  The Python tests compare it with what
// olefile reads in files the Python package wrote.
#include <cstdio>

#include "moxolefio/moxolefio.hpp"
#include "support/sha256.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: moxpy_native_dump FILE\n");
    return 1;
  }
  try {
    const mox::CompoundFile file = mox::CompoundFile::open(argv[1]);
    for (const mox::Entry& e : file.walk()) {
      const char* type = e.type == mox::EntryType::root      ? "root"
                         : e.type == mox::EntryType::storage ? "storage"
                         : e.type == mox::EntryType::stream  ? "stream"
                                                             : "other";
      std::string digest = "-";
      if (e.is_stream()) {
        const std::vector<std::uint8_t> bytes = file.open_stream(e.path).read_all();
        digest = sha256Hex(bytes.data(), bytes.size());
      }
      char clsid[33];
      for (int k = 0; k < 16; ++k) std::snprintf(clsid + 2 * k, 3, "%02x", e.clsid[k]);
      std::printf("%s\t%s\t%llu\t%s\t%s\n", type, e.path.c_str(), static_cast<unsigned long long>(e.size), clsid,
                  digest.c_str());
    }
  } catch (const mox::Error& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 2;
  }
  return 0;
}
