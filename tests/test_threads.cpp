// The library keeps no global mutable state, so threads that share nothing
// but a file may use it at once: here each thread opens the same document
// file with handles and clones of its own and reads it through both,
// writes a document of its own and reads it back, and drives the OS layer
// in a folder of its own.  Run under ThreadSanitizer (scripts/test.sh,
// label "threads"), any shared write inside the library is a report.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <string.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "host/moxhost.h"
#include "host/scratch_dir.h"
#include "moxolefio.h"
#include "moxvos.h"
#include "support/cfb_builder.h"
#include "support/document_walk.h"
#include "support/stream_kit.h"
#include "support/vos_scratch.h"

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 3;

using streamkit::pattern;

// The shared document's streams by name.
std::map<std::string, cfb::Bytes> sharedStreams() {
  return {{"Mini", pattern(1500, 1)}, {"Large", pattern(70000, 2)}, {"Other", pattern(9000, 3)}};
}

cfb::Bytes sharedDocument() {
  cfb::CfbBuilder b;
  for (const auto& [name, bytes] : sharedStreams()) b.addStream(0, name, bytes);
  b.addStream(b.addStorage(0, "Box"), "Inner", pattern(300, 4));
  return b.build();
}

cfb::Bytes readAll(_MoxOleFile* h, const char* name) {
  const cfb::Bytes out = bOLEopenStream(h, name) == 1 ? streamkit::readToEnd(h, 777) : cfb::Bytes();
  bOLEcloseStream(h, nullptr);
  return out;
}

// Reads the shared file through a handle and its clone, stream by stream
// in turns; the number of mismatches.
int readShared(const std::string& path) {
  int wrong = 0;
  moxhost::FileIo io(path, moxhost::FileIo::kRead);
  moxhost::CountingMemory memory;
  _MoxOleFile* h = hOLEopen(io.io(), memory.memory());
  if (h == nullptr) return 1;
  _MoxOleFile* clone = hOLEopenClone(h);
  for (const auto& [name, bytes] : sharedStreams()) {
    wrong += (readAll(h, name.c_str()) != bytes) + (clone == nullptr || readAll(clone, name.c_str()) != bytes);
  }
  moxhost::PoolServices pools;
  if (const StreamTree tree(h, pools); tree.root() == nullptr || tree.root()->iChildCount != 4) ++wrong;
  _MoxOleObjectEntry* list = nullptr;
  wrong += moxoleGetObjectList(h, nullptr, 0, &list) != 4;
  memory.release(list);
  if (clone != nullptr) iOLEcloseClone(clone);
  iOLEclose(h);
  return wrong + (memory.liveBlocks() != 0);
}

// Writes a document of the thread's own and reads it back.
int writeOwn(int seed) {
  moxhost::PoolServices host;
  moxhost::MemoryIo out;
  const cfb::Bytes small = pattern(100 + seed, seed), large = pattern(20000 + seed, seed + 1);
  _MoxOleFile* w = hOLEopenEx(out.io(), host.services(), 1);
  if (w == nullptr) return 1;
  int failures = iOLEopenStreamEx(w, "Dir", 1, 1) != 0;
  failures += iOLEopenStreamEx(w, "Dir\\Small", 2, 1) != 0;
  failures += iOLEwrite(w, const_cast<unsigned char*>(small.data()), static_cast<int>(small.size())) != 0;
  failures += iOLEopenStreamEx(w, "Large", 2, 1) != 0;
  failures += iOLEwrite(w, const_cast<unsigned char*>(large.data()), static_cast<int>(large.size())) != 0;
  iOLEclose(w);

  moxhost::MemoryIo in(out.bytes());
  moxhost::CountingMemory memory;
  _MoxOleFile* h = hOLEopen(in.io(), memory.memory());
  if (h == nullptr) return failures + 1;
  failures += readAll(h, "Large") != large;
  failures += bOLEopenEmbeddedStream(h, "Small", "Dir") != 1;
  iOLEclose(h);
  return failures;
}

// The OS layer in a folder of the thread's own.
int driveOsLayer(const std::string& folder, int seed) {
  int failures = 0;
  const std::string nested = folder + "/a/b/c", file = nested + "/data";
  moxvos_mkdir(nested.c_str(), 0755, nullptr);  // -1 once there is nothing to make
  failures += moxvos_access(nested.c_str(), F_OK, nullptr) != 0;
  const cfb::Bytes bytes = pattern(5000, seed);
  int fd = static_cast<int>(moxvos_fopen(file.c_str(), "w+b", nullptr));
  failures += fd < 0;
  failures += moxvos_fwrite(fd, bytes.data(), 1, bytes.size()) != static_cast<int64_t>(bytes.size());
  failures += moxvos_fseek(fd, 0, SEEK_SET) != 0;
  cfb::Bytes back(bytes.size());
  failures += moxvos_fread(fd, back.data(), 1, back.size()) != static_cast<int64_t>(back.size());
  failures += back != bytes;
  failures += moxvos_filesize(fd) != static_cast<int64_t>(bytes.size());
  moxvos_fclose(fd);

  _MoxvosFlock lock;
  failures += moxvos_flock_init(&lock, O_RDWR, file.c_str(), nullptr) != 0;
  failures += moxvos_flock_trywrlock(&lock, SEEK_SET, 0, 0, nullptr) != 0;
  failures += moxvos_flock_unlock(&lock, SEEK_SET, 0, 0, nullptr) != 0;
  moxvos_flock_free(&lock, nullptr);

  char* temporary = moxvos_tempnam(folder.c_str(), "t", nullptr);
  struct stat record;
  failures += temporary == nullptr || moxvos_stat(temporary, &record, nullptr) != 0 ||
              moxvos_unlink(temporary, nullptr) != 0;
  moxvos_free(temporary);
  DIR* dir = moxvos_opendir(folder.c_str(), nullptr);
  int entries = 0;
  while (dir != nullptr && moxvos_readdir(dir, nullptr) != nullptr) ++entries;
  if (dir != nullptr) moxvos_closedir(dir, nullptr);
  failures += entries != 3;  // ".", ".." and "a"
  void* memory = moxvos_calloc(64, 64);
  failures += memory == nullptr;
  memory = moxvos_Saferealloc(memory, 8192);
  moxvos_free(memory);
  failures += moxvos_unlink(file.c_str(), nullptr) != 0;
  return failures;
}

TEST(Threads, OwnHandlesOnOneFileOwnDocumentsOwnFoldersAtOnce) {
  moxhost::ScratchDir scratch;
  const std::string shared = scratch.file("shared.doc");
  const cfb::Bytes bytes = sharedDocument();
  ASSERT_TRUE(moxtest::writeFile(shared, std::string(bytes.begin(), bytes.end())));
  std::vector<int> failures(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    const std::string folder = scratch.file("thread" + std::to_string(t));
    threads.emplace_back([&failures, t, shared, folder] {
      for (int round = 0; round < kRounds; ++round) {
        failures[t] += readShared(shared);
        failures[t] += writeOwn(t * 10 + round);
        failures[t] += driveOsLayer(folder, t + round);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(failures[t], 0) << "thread " << t;
}

}  // namespace
