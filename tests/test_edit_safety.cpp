// A commit must leave the path holding the complete old file or the
// complete new one, whatever fails and whenever the process dies.  Every
// file operation of a commit is made to fail in turn (and writes to come
// up short) through the library's file layer; scratch files that cannot
// be made fail the write that needed one; a child process committing in
// a loop is killed with SIGKILL at random moments.  Linked with the
// library's internals, for the file layer.
#include <gtest/gtest.h>
#include <signal.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <random>

#include "moxolefio/moxolefio.hpp"
#include "native/edit/file_ops.h"
#include "support/cfb_audit.h"
#include "support/native_kit.h"
#include "support/program_run.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using moxtest::fileBytes;
using moxtest::pattern;

// The library's file layer, put in place for the object's lifetime, with
// faults: the `failAt`-th counted operation (from 1) fails with EIO;
// `halfWrites` makes writes take half of what they are given, as a nearly
// full disk or a signal may leave them; `noScratch` makes every way of
// making a scratch file fail for want of a descriptor.
class Ops : public mox::detail::FileOps {
 public:
  explicit Ops(int failAt = 0, bool halfWrites = false, bool noScratch = false)
      : failAt_(failAt), halfWrites_(halfWrites), noScratch_(noScratch) {
    mox::detail::setFileOps(this);
  }
  ~Ops() override { mox::detail::setFileOps(nullptr); }
  int calls = 0;       // counted operations so far
  std::string failed;  // what the one made to fail was

  int open(const char* path, int flags, mode_t mode) override {
    if (noScratch_ && (flags & O_TMPFILE) == O_TMPFILE) return errno = EMFILE, -1;
    return fault("open") ? -1 : FileOps::open(path, flags, mode);
  }
  int mkostemp(char* pattern, int flags) override {
    return noScratch_ ? (errno = EMFILE, -1) : FileOps::mkostemp(pattern, flags);
  }
  ssize_t pwrite(int fd, const void* data, std::size_t count, off_t offset) override {
    return fault("write") ? -1 : FileOps::pwrite(fd, data, halfWrites_ ? (count + 1) / 2 : count, offset);
  }
  ssize_t copy_file_range(int in, off_t* inOffset, int out, off_t* outOffset, std::size_t count) override {
    return fault("copy") ? -1 : FileOps::copy_file_range(in, inOffset, out, outOffset, count);
  }
  int ftruncate(int fd, off_t size) override { return fault("truncate") ? -1 : FileOps::ftruncate(fd, size); }
  int fsync(int fd) override { return fault("fsync") ? -1 : FileOps::fsync(fd); }
  int rename(const char* from, const char* to) override { return fault("rename") ? -1 : FileOps::rename(from, to); }
  int linkat(int fromDir, const char* from, int toDir, const char* to, int flags) override {
    return fault("link") ? -1 : FileOps::linkat(fromDir, from, toDir, to, flags);
  }
  int close(int fd) override {
    const int result = FileOps::close(fd);  // a failed close still releases the descriptor
    return fault("close") ? -1 : result;
  }

 private:
  bool fault(const char* what) {
    if (++calls != failAt_) return false;
    failed = what;
    errno = EIO;
    return true;
  }
  int failAt_;
  bool halfWrites_, noScratch_;
};

// Every path of a file with its bytes (empty for storages).
std::map<std::string, Bytes> contentOf(const Bytes& file) {
  const mox::CompoundFile f = mox::CompoundFile::open_memory(file.data(), file.size());
  std::map<std::string, Bytes> content;
  for (const mox::Entry& e : f.walk()) content[e.path] = e.is_stream() ? f.open_stream(e.path).read_all() : Bytes();
  return content;
}

// The three ways a commit writes: the whole file anew; over a copy of the
// old file (stored bytes overwritten, an entry's state bits); around
// megabytes of new stream data left where they were written.
enum class Commit { anew, patched, aroundNewData };

// Edits that touch every part of a commit of that kind: a large stream
// written over stored bytes, a new mini stream, a removal and a rename.
void edit(mox::CompoundFile& f, unsigned seed, Commit kind = Commit::anew) {
  mox::Stream big = f.open_stream("big");
  big.seek(seed * 1000);
  const Bytes piece = pattern(70000, seed);
  big.write(piece.data(), piece.size());
  if (kind == Commit::patched) {
    f.set_state_bits("Store", seed);
    return;
  }
  if (kind == Commit::aroundNewData) {
    const Bytes huge = pattern(5 << 20, seed);
    f.create_stream("huge").write(huge.data(), huge.size());
  }
  f.create_stream("small" + std::to_string(seed)).write(piece.data(), 100);
  if (f.exists("gone")) f.remove("gone");
  if (f.exists("Store")) f.rename("Store", "Storage");
}

void makeStart(const std::string& path, int version) {
  mox::CompoundFile f = mox::CompoundFile::create(path, mox::CreateOptions{version});
  const Bytes big = pattern(300000, 1);
  f.create_stream("big").write(big.data(), big.size());
  f.create_stream("gone").write(big.data(), 5000);
  f.create_stream("Store/inner").write(big.data(), 10);
  f.commit();
}

class CommitFaults : public ::testing::TestWithParam<std::tuple<int, Commit>> {};

TEST_P(CommitFaults, EveryFailingOperationLeavesOldOrNew) {
  moxtest::ScratchDir dir;
  const std::string path = dir.file("doc.cfb");
  const auto [version, kind] = GetParam();
  // The new content, made the same way without faults but with every
  // write taking half of what it is given, as a nearly full disk or a
  // signal may leave it: a commit carries them on to the last byte.
  makeStart(path, version);
  const Bytes old = fileBytes(path);
  {
    mox::CompoundFile f = mox::CompoundFile::open_rw(path);
    edit(f, 3, kind);
    Ops halves(0, true);
    f.commit();
  }
  const Bytes fresh = fileBytes(path);
  int operations = 0;
  for (int failAt = 1;; ++failAt) {
    SCOPED_TRACE("failing operation " + std::to_string(failAt));
    makeStart(path, version);  // back to the start before each fault
    mox::CompoundFile f = mox::CompoundFile::open_rw(path);
    edit(f, 3, kind);
    Ops ops(failAt);  // in place for the rest of the round, failing only once
    bool committed = false;
    try {
      f.commit();
      committed = true;
    } catch (const mox::Error& e) {
      EXPECT_EQ(e.code(), mox::Errc::io) << e.what();
      EXPECT_NE(std::string(e.what()).find(path), std::string::npos) << e.what();
    }
    const Bytes now = fileBytes(path);
    EXPECT_EQ(moxtest::snapshotTree(dir.path()).size(), 1u) << "a temporary file was left behind";
    if (committed) {
      EXPECT_TRUE(now == fresh) << "the commit differs from the one whose writes were cut short";
      operations = ops.calls;
      break;
    }
    ASSERT_TRUE(now == old || now == fresh) << "after a failing " << ops.failed;
    if (now == fresh) {
      // Failed after the rename (flushing the folder): the object is on
      // the new file already.
      EXPECT_TRUE(f.open_stream("big").read_all() == mox::CompoundFile::open(path).open_stream("big").read_all());
    } else {
      // The object keeps its edits and commits them once the fault is gone.
      // (Laid out anew, when the first try used up what it would have
      // kept: a scratch file is given a name once only.)
      f.commit();
      const Bytes now = fileBytes(path);
      EXPECT_TRUE(now == fresh || contentOf(now) == contentOf(fresh));
      EXPECT_EQ(cfbaudit::audit(now), "");
    }
  }
  EXPECT_GE(operations, 6) << "open, writes, fsync, close, rename, folder open, fsync";
}

INSTANTIATE_TEST_SUITE_P(Versions, CommitFaults,
                         ::testing::Combine(::testing::Values(3, 4),
                                            ::testing::Values(Commit::anew, Commit::patched, Commit::aroundNewData)));

// No scratch file can be made: a write that needs a page fails and leaves
// its stream as it was, stored bytes over which a page was to be written
// and a small stream that was to move out of memory alike.
TEST(ScratchFailures, WritesThatCannotMakeTheScratchFileChangeNothing) {
  moxtest::ScratchDir dir;
  const std::string path = dir.file("doc.cfb");
  makeStart(path, 4);
  mox::CompoundFile f = mox::CompoundFile::open_rw(path);
  mox::Stream big = f.open_stream("big");
  mox::Stream small = f.create_stream("small");
  small.write("0123456789", 10);
  const Bytes stored = big.read_all();
  Ops ops(0, false, true);
  for (mox::Stream* s : {&big, &small}) {
    s->seek(70000);
    EXPECT_EQ(moxtest::errorOf([&] { s->write("x", 1); }), mox::Errc::io);
    s->seek(0);
  }
  EXPECT_TRUE(big.read_all() == stored);
  EXPECT_TRUE(small.read_all() == (Bytes{'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'}));
}

// The child commits generation after generation: stream "n" holds the
// generation and every other stream is a function of it.  Whatever the
// moment of the kill, the file must be one whole generation.  Every other
// generation the stream is megabytes long, so that its commit keeps it
// where it was written.
std::size_t bodySize(unsigned generation) { return (generation % 2 == 0 ? 60000 : (4 << 20)) + generation % 7 * 5000; }

TEST(CommitKills, KilledCommitsLeaveOneWholeGeneration) {
  moxtest::ScratchDir dir;
  const std::string path = dir.file("doc.cfb");
  makeStart(path, 3);
  std::mt19937 rng(12345);
  unsigned lastSeen = 0;
  for (int round = 0; round < 12; ++round) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      mox::CompoundFile f = mox::CompoundFile::open_rw(path);
      for (unsigned generation = 1;; ++generation) {
        const Bytes body = pattern(bodySize(generation), generation);
        f.create_stream("big").write(body.data(), body.size());
        const std::string n = std::to_string(generation);
        f.create_stream("n").write(n.data(), n.size());
        f.commit();
      }
    }
    usleep(20000 + rng() % 200000);
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    ASSERT_EQ(cfbaudit::audit(fileBytes(path)), "");
    const mox::CompoundFile f = mox::CompoundFile::open(path);
    if (!f.exists("n")) continue;  // killed before its first commit
    const Bytes n = f.open_stream("n").read_all();
    const unsigned generation = std::stoul(std::string(n.begin(), n.end()));
    EXPECT_TRUE(f.open_stream("big").read_all() == pattern(bodySize(generation), generation))
        << "generation " << generation;
    lastSeen = std::max(lastSeen, generation);
    // Leftover temporary files of killed commits are the only litter.
    for (const auto& [name, content] : moxtest::snapshotTree(dir.path())) {
      EXPECT_TRUE(name == "doc.cfb" || name.rfind(".doc.cfb.moxtmp-", 0) == 0) << name;
    }
  }
  EXPECT_GT(lastSeen, 0u) << "no commit finished in any round";
}

}  // namespace
