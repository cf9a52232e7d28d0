// libgsf absent: every peer function reports that it cannot do the work.
#include "bench/gsf_peer.h"

namespace bench {
namespace gsf {

struct Doc {};
struct Storage {};

bool available() { return false; }
Doc* openMemory(const uint8_t*, size_t) { return nullptr; }
Doc* openFile(const std::string&) { return nullptr; }
void close(Doc*) {}
Storage* openStorage(Doc*, const std::string&) { return nullptr; }
void close(Storage*) {}
bool readStream(Doc*, Storage*, const std::string&, uint8_t*, size_t, int64_t*, uint64_t*) {
  return false;
}
bool openChild(Doc*, const std::string&) { return false; }
bool writeOneStream(int64_t, int, int64_t*) { return false; }
bool writeManyStreams(int, int, int64_t*) { return false; }
bool writeOneStreamToFile(const std::string&, int64_t, int, int64_t*) { return false; }
bool writeManyStreamsToFile(const std::string&, int, int, int64_t*) { return false; }

}  // namespace gsf
}  // namespace bench
