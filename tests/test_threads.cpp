// The library keeps no global mutable state, so threads that share nothing
// but a file may use it at once: here each thread opens the same document
// file with handles and clones of its own and reads it through both,
// writes a document of its own and reads it back, and drives the OS layer
// in a folder of its own.  Run under ThreadSanitizer (scripts/test.sh,
// label "threads"), any shared write inside the library is a report.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "host/moxhost.h"
#include "moxolefio.h"
#include "moxvos.h"
#include "support/document_walk.h"
#include "support/stream_kit.h"
#include "support/vos_scratch.h"
#include "support/write_kit.h"

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 3;

using streamkit::pattern;

// The shared document; the threads read what lies at its top by name.
const writekit::Shape kShared = {{"Mini", 2, pattern(1500, 1)}, {"Large", 2, pattern(70000, 2)},
                                 {"Other", 2, pattern(9000, 3)}, {"Box", 1, {}}, {"Box\\Inner", 2, pattern(300, 4)}};

cfb::Bytes readAll(_MoxOleFile* h, const char* name) {
  const cfb::Bytes out = bOLEopenStream(h, name) == 1 ? streamkit::readToEnd(h, 777) : cfb::Bytes();
  bOLEcloseStream(h, nullptr);
  return out;
}

// Reads the shared file through a handle and its clone, stream by stream
// in turns.  GoogleTest's assertions may be made from any thread.
void readShared(const std::string& path) {
  moxhost::FileIo io(path, moxhost::FileIo::kRead);
  moxhost::CountingMemory memory;
  _MoxOleFile* h = hOLEopen(io.io(), memory.memory());
  ASSERT_NE(h, nullptr);
  _MoxOleFile* clone = hOLEopenClone(h);
  ASSERT_NE(clone, nullptr);
  for (const writekit::Part& part : kShared) {
    if (part.path.find('\\') != std::string::npos) continue;
    EXPECT_EQ(readAll(h, part.path.c_str()), part.data) << part.path;
    EXPECT_EQ(readAll(clone, part.path.c_str()), part.data) << part.path;
  }
  moxhost::PoolServices pools;
  const StreamTree tree(h, pools);
  EXPECT_EQ(tree.root() == nullptr ? -1 : tree.root()->iChildCount, 4);
  _MoxOleObjectEntry* list = nullptr;
  EXPECT_EQ(moxoleGetObjectList(h, nullptr, 0, &list), 4);
  memory.release(list);
  iOLEcloseClone(clone);
  iOLEclose(h);
  EXPECT_EQ(memory.liveBlocks(), 0);
}

// The OS layer in a folder of the thread's own.
void driveOsLayer(const std::string& folder, int seed) {
  const std::string nested = folder + "/a/b/c", file = nested + "/data";
  moxvos_mkdir(nested.c_str(), 0755, nullptr);  // -1 once there is nothing to make
  EXPECT_EQ(moxvos_access(nested.c_str(), F_OK, nullptr), 0);
  const cfb::Bytes bytes = pattern(5000, seed);
  const int fd = static_cast<int>(moxvos_fopen(file.c_str(), "w+b", nullptr));
  EXPECT_EQ(moxvos_fwrite(fd, bytes.data(), 1, bytes.size()), static_cast<int64_t>(bytes.size()));
  EXPECT_EQ(moxvos_filesize(fd), static_cast<int64_t>(bytes.size()));
  moxvos_fseek(fd, 0, SEEK_SET);
  cfb::Bytes back(bytes.size());
  moxvos_fread(fd, back.data(), 1, back.size());
  EXPECT_EQ(back, bytes);  // the seek and the read did their work
  moxvos_fclose(fd);

  _MoxvosFlock lock;
  EXPECT_EQ(moxvos_flock_init(&lock, O_RDWR, file.c_str(), nullptr), 0);
  EXPECT_EQ(moxvos_flock_trywrlock(&lock, SEEK_SET, 0, 0, nullptr), 0);
  EXPECT_EQ(moxvos_flock_unlock(&lock, SEEK_SET, 0, 0, nullptr), 0);
  moxvos_flock_free(&lock, nullptr);

  char* temporary = moxvos_tempnam(folder.c_str(), "t", nullptr);
  struct stat record;
  EXPECT_TRUE(temporary != nullptr && moxvos_stat(temporary, &record, nullptr) == 0 &&
              moxvos_unlink(temporary, nullptr) == 0);
  moxvos_free(temporary);
  DIR* dir = moxvos_opendir(folder.c_str(), nullptr);
  int entries = 0;
  while (dir != nullptr && moxvos_readdir(dir, nullptr) != nullptr) ++entries;
  if (dir != nullptr) moxvos_closedir(dir, nullptr);
  EXPECT_EQ(entries, 3);  // ".", ".." and "a"
  void* memory = moxvos_calloc(64, 64);
  EXPECT_NE(memory, nullptr);
  moxvos_free(moxvos_Saferealloc(memory, 8192));
  EXPECT_EQ(moxvos_unlink(file.c_str(), nullptr), 0);
}

TEST(Threads, OwnHandlesOnOneFileOwnDocumentsOwnFoldersAtOnce) {
  moxhost::ScratchDir scratch;
  const std::string shared = scratch.file("shared.doc");
  const cfb::Bytes bytes = writekit::write(kShared);
  ASSERT_TRUE(moxtest::writeFile(shared, std::string(bytes.begin(), bytes.end())));
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    const std::string folder = scratch.file("thread" + std::to_string(t));
    threads.emplace_back([t, shared, folder] {
      for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE("thread " + std::to_string(t) + ", round " + std::to_string(round));
        readShared(shared);
        // A document of the thread's own, written and read back.
        const int seed = t * 10 + round;
        const writekit::Shape own = {{"Dir", 1, {}},
                                     {"Dir\\Small", 2, pattern(100 + seed, seed)},
                                     {"Large", 2, pattern(20000 + seed, seed + 1)}};
        writekit::checkWithLibrary(writekit::write(own), writekit::expected(own));
        driveOsLayer(folder, t + round);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
