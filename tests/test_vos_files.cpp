// Descriptors, the fopen mode table, element counts, seeking (also past
// 4 GiB), file sizes and the directory and status pass-throughs.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "moxvos.h"
#include "support/vos_scratch.h"

namespace {

using moxtest::ScratchDir;
using moxtest::UmaskGuard;

int accessMode(int fd) { return fcntl(fd, F_GETFL) & O_ACCMODE; }
bool appends(int fd) { return (fcntl(fd, F_GETFL) & O_APPEND) != 0; }

mode_t permissions(const std::string& path) {
  struct stat record;
  if (stat(path.c_str(), &record) != 0) return 07777;
  return record.st_mode & 07777;
}

// Pipe-carried results from a forked child.
struct ChildResults {
  int64_t values[4] = {-100, -100, -100, -100};
  int error = 0;
};

ChildResults collect(const std::function<ChildResults()>& body) {
  int channel[2];
  EXPECT_EQ(0, pipe(channel));
  int code = moxtest::runInChild([&] {
    ChildResults results = body();
    return write(channel[1], &results, sizeof results) ==
                   static_cast<ssize_t>(sizeof results)
               ? 0
               : 1;
  });
  close(channel[1]);
  ChildResults results;
  EXPECT_EQ(0, code);
  EXPECT_EQ(static_cast<ssize_t>(sizeof results),
            read(channel[0], &results, sizeof results));
  close(channel[0]);
  return results;
}

TEST(VosDescriptors, FopenForWritingCreatesHighDescriptorWith0644) {
  ScratchDir dir;
  UmaskGuard mask(022);
  const std::string path = dir.file("out.bin");
  ASSERT_TRUE(moxtest::writeFile(path, "old contents"));

  int64_t fd = moxvos_fopen(path.c_str(), "wb", nullptr);
  ASSERT_GE(fd, 256);
  EXPECT_EQ(O_WRONLY, accessMode(static_cast<int>(fd)));
  EXPECT_EQ(0, moxvos_filesize(static_cast<int>(fd)));  // truncated
  EXPECT_EQ(0, moxvos_fclose(static_cast<int>(fd)));
  EXPECT_EQ(-1, fcntl(static_cast<int>(fd), F_GETFD));  // really closed

  // A newly created file.
  const std::string fresh = dir.file("fresh.bin");
  fd = moxvos_fopen(fresh.c_str(), "wb", nullptr);
  ASSERT_GE(fd, 256);
  EXPECT_EQ(0644u, permissions(fresh));
  moxvos_fclose(static_cast<int>(fd));
}

TEST(VosDescriptors, CreatedFilesGet0644UnderTheUmask) {
  ScratchDir dir;
  const struct {
    mode_t umask;
    mode_t expected;
  } cases[] = {{0, 0644}, {022, 0644}, {027, 0640}, {077, 0600}, {0266, 0400}};
  int n = 0;
  for (const auto& c : cases) {
    UmaskGuard mask(c.umask);
    const std::string a = dir.file("open" + std::to_string(n));
    const std::string b = dir.file("open64_" + std::to_string(n));
    const std::string f = dir.file("fopen64_" + std::to_string(n++));
    // The third argument is the context, never a mode.
    int fd = moxvos_open(a.c_str(), O_CREAT | O_WRONLY, nullptr);
    int fd64 = moxvos_open64(b.c_str(), O_CREAT | O_RDWR, nullptr);
    int64_t ffd = moxvos_fopen64(f.c_str(), "a+", nullptr);
    ASSERT_GE(fd, 256);
    ASSERT_GE(fd64, 256);
    ASSERT_GE(ffd, 256);
    EXPECT_EQ(c.expected, permissions(a)) << "umask " << c.umask;
    EXPECT_EQ(c.expected, permissions(b)) << "umask " << c.umask;
    EXPECT_EQ(c.expected, permissions(f)) << "umask " << c.umask;
    moxvos_close(fd);
    moxvos_close(fd64);
    moxvos_fclose(static_cast<int>(ffd));
  }
}

TEST(VosDescriptors, EachOpenTakesTheLowestFreeHighDescriptor) {
  ScratchDir dir;
  ASSERT_TRUE(moxtest::writeFile(dir.file("f"), "x"));
  std::set<int> seen;
  int fds[3];
  for (int& fd : fds) {
    fd = moxvos_open(dir.file("f").c_str(), O_RDONLY, nullptr);
    ASSERT_GE(fd, 256);
    EXPECT_TRUE(seen.insert(fd).second);
  }
  // The low descriptors that open gave were closed again.
  int probe = open("/dev/null", O_RDONLY);
  EXPECT_LT(probe, 256);
  close(probe);
  const int reused = fds[1];
  moxvos_close(reused);
  int again = moxvos_open(dir.file("f").c_str(), O_RDONLY, nullptr);
  EXPECT_EQ(reused, again);
  moxvos_close(again);
  moxvos_close(fds[0]);
  moxvos_close(fds[2]);
}

TEST(VosDescriptors, HighDescriptorFromOpenIsKept) {
  ScratchDir dir;
  ASSERT_TRUE(moxtest::writeFile(dir.file("f"), "x"));
  // Fill every descriptor below 256, so open itself returns 256.  Moving it
  // would give 257 (256 is still taken while it is duplicated).
  ChildResults r = collect([&] {
    ChildResults out;
    struct rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < 512 && limit.rlim_max >= 512) {
      limit.rlim_cur = 512;
      setrlimit(RLIMIT_NOFILE, &limit);
    }
    int filler = open("/dev/null", O_RDONLY);
    for (int fd = 0; fd < 256; ++fd) {
      if (fcntl(fd, F_GETFD) == -1) dup2(filler, fd);
    }
    if (fcntl(256, F_GETFD) != -1) close(256);
    out.values[0] = moxvos_open(dir.file("f").c_str(), O_RDONLY, nullptr);
    return out;
  });
  EXPECT_EQ(256, r.values[0]);
}

TEST(VosDescriptors, LowDescriptorWhenNoHighOneIsAllowed) {
  ScratchDir dir;
  ASSERT_TRUE(moxtest::writeFile(dir.file("f"), "x"));
  ChildResults r = collect([&] {
    ChildResults out;
    struct rlimit limit = {64, 64};
    // The channel's descriptor must stay below the limit: it is.
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return out;
    int fd = moxvos_open(dir.file("f").c_str(), O_RDONLY, nullptr);
    out.values[0] = fd;
    char byte = 0;
    out.values[1] = read(fd, &byte, 1) == 1 && byte == 'x';
    return out;
  });
  EXPECT_GE(r.values[0], 0);
  EXPECT_LT(r.values[0], 64);
  EXPECT_EQ(1, r.values[1]);  // the file is open and readable anyway
}

TEST(VosDescriptors, OpenOfMissingFileFails) {
  ScratchDir dir;
  errno = 0;
  EXPECT_EQ(-1, moxvos_open(dir.file("missing").c_str(), O_RDONLY, nullptr));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(-1, moxvos_open64(dir.file("missing").c_str(), O_RDWR, nullptr));
  // A failure of fopen is -1 in all 64 bits.
  EXPECT_EQ(INT64_C(-1), moxvos_fopen(dir.file("missing").c_str(), "rb", nullptr));
  EXPECT_EQ(INT64_C(-1), moxvos_fopen64(dir.file("missing").c_str(), "r+", nullptr));
  EXPECT_FALSE(moxtest::exists(dir.file("missing")));
}

TEST(VosDescriptors, FopenModeTable) {
  ScratchDir dir;
  const struct {
    const char* mode;
    int access;
    bool append;
    bool creates;
    bool truncates;
  } cases[] = {
      {"r", O_RDONLY, false, false, false},
      {"rb", O_RDONLY, false, false, false},
      {"rt", O_RDONLY, false, false, false},
      {"r+b", O_RDWR, false, false, false},
      {"rb+", O_RDWR, false, false, false},
      {"w", O_WRONLY, false, true, true},
      {"wb", O_WRONLY, false, true, true},
      {"w+", O_RDWR, false, true, true},
      {"wb+", O_RDWR, false, true, true},
      {"a", O_WRONLY, true, true, false},
      {"ab", O_WRONLY, true, true, false},
      {"a+", O_RDWR, true, true, false},
      {"a+b", O_RDWR, true, true, false},
      {"x", O_RDONLY, false, false, false},
      {"xb", O_RDONLY, false, false, false},
      {"x+", O_RDONLY, false, false, false},  // '+' only upgrades r, w, a
      {"+r", O_RDONLY, false, false, false},  // the first character decides
      {"br", O_RDONLY, false, false, false},
      {"", O_RDONLY, false, false, false},
      {nullptr, O_RDONLY, false, false, false},
  };
  int n = 0;
  for (const auto& c : cases) {
    const std::string label = c.mode == nullptr ? "(null)" : c.mode;
    const std::string existing = dir.file("existing" + std::to_string(n));
    const std::string missing = dir.file("missing" + std::to_string(n++));
    ASSERT_TRUE(moxtest::writeFile(existing, "0123456789"));

    int64_t fd = moxvos_fopen(existing.c_str(), c.mode, nullptr);
    ASSERT_GE(fd, 256) << label;
    EXPECT_EQ(c.access, accessMode(static_cast<int>(fd))) << label;
    EXPECT_EQ(c.append, appends(static_cast<int>(fd))) << label;
    EXPECT_EQ(c.truncates ? 0 : 10, moxvos_filesize(static_cast<int>(fd)))
        << label;
    moxvos_fclose(static_cast<int>(fd));

    fd = moxvos_fopen64(missing.c_str(), c.mode, nullptr);
    EXPECT_EQ(c.creates, fd >= 0) << label;
    EXPECT_EQ(c.creates, moxtest::exists(missing)) << label;
    if (fd >= 0) moxvos_fclose(static_cast<int>(fd));
  }
}

TEST(VosDescriptors, AppendModeWritesAtTheEnd) {
  ScratchDir dir;
  const std::string path = dir.file("log");
  ASSERT_TRUE(moxtest::writeFile(path, "head"));
  int fd = static_cast<int>(moxvos_fopen(path.c_str(), "a", nullptr));
  ASSERT_GE(fd, 256);
  ASSERT_EQ(0, moxvos_fseek(fd, 0, SEEK_SET));
  EXPECT_EQ(4, moxvos_fwrite(fd, "tail", 1, 4));
  moxvos_fclose(fd);
  EXPECT_EQ("headtail", moxtest::readFile(path));
}

TEST(VosTransfers, FwriteCountsWholeElements) {
  ScratchDir dir;
  const std::string path = dir.file("data");
  char buffer[40];
  memset(buffer, 'a', sizeof buffer);
  int fd = static_cast<int>(moxvos_fopen(path.c_str(), "wb", nullptr));
  ASSERT_GE(fd, 256);
  EXPECT_EQ(10, moxvos_fwrite(fd, buffer, 4, 10));
  EXPECT_EQ(1, moxvos_fwrite(fd, buffer, 40, 1));
  EXPECT_EQ(0, moxvos_fwrite(fd, buffer, 41, 0));
  EXPECT_EQ(80, moxvos_filesize(fd));
  moxvos_fclose(fd);

  // A failing write (read-only descriptor) is no elements.
  fd = static_cast<int>(moxvos_fopen(path.c_str(), "rb", nullptr));
  errno = 0;
  EXPECT_EQ(0, moxvos_fwrite(fd, buffer, 4, 10));
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(-1, moxvos_write(fd, buffer, 4));
  moxvos_fclose(fd);
  EXPECT_EQ(0, moxvos_fwrite(-1, buffer, 1, 1));
}

TEST(VosTransfers, ShortWriteCountsOnlyWholeElements) {
  ScratchDir dir;
  const std::string path = dir.file("limited");
  // The file may not grow past 39 bytes: a write of 40 writes 39, the next
  // one fails with EFBIG (SIGXFSZ ignored).
  ChildResults r = collect([&] {
    ChildResults out;
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = {39, 39};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return out;
    int fd = static_cast<int>(moxvos_fopen(path.c_str(), "wb", nullptr));
    char buffer[40];
    memset(buffer, 'b', sizeof buffer);
    out.values[0] = moxvos_fwrite(fd, buffer, 4, 10);
    errno = 0;
    out.values[1] = moxvos_fwrite(fd, buffer, 4, 10);
    out.error = errno;
    out.values[2] = moxvos_filesize(fd);
    out.values[3] = moxvos_write(fd, buffer, 1);
    return out;
  });
  EXPECT_EQ(9, r.values[0]);
  EXPECT_EQ(0, r.values[1]);
  EXPECT_EQ(EFBIG, r.error);
  EXPECT_EQ(39, r.values[2]);
  EXPECT_EQ(-1, r.values[3]);
}

TEST(VosTransfers, FreadCountsWholeElements) {
  ScratchDir dir;
  const std::string path = dir.file("39");
  ASSERT_TRUE(moxtest::writeFile(path, std::string(39, 'c')));
  int fd = static_cast<int>(moxvos_fopen(path.c_str(), "rb", nullptr));
  ASSERT_GE(fd, 256);
  char buffer[64];
  EXPECT_EQ(9, moxvos_fread(fd, buffer, 4, 10));  // 39 bytes: 9 elements
  EXPECT_EQ(39, moxvos_ftell(fd));                 // but all 39 were read
  EXPECT_EQ(0, moxvos_fread(fd, buffer, 4, 10));   // end of file
  ASSERT_EQ(0, moxvos_fseek(fd, 0, SEEK_SET));
  EXPECT_EQ(39, moxvos_fread(fd, buffer, 1, 64));
  ASSERT_EQ(0, moxvos_fseek(fd, 0, SEEK_SET));
  EXPECT_EQ(5, moxvos_read(fd, buffer, 5));
  moxvos_fclose(fd);
  errno = 0;
  EXPECT_EQ(0, moxvos_fread(fd, buffer, 1, 1));  // closed: failure
  EXPECT_EQ(EBADF, errno);

  // A pipe holding 39 bytes gives 9 elements of 4 from one read.
  int channel[2];
  ASSERT_EQ(0, pipe(channel));
  ASSERT_EQ(39, write(channel[1], std::string(39, 'p').data(), 39));
  EXPECT_EQ(9, moxvos_fread(channel[0], buffer, 4, 16));
  close(channel[0]);
  close(channel[1]);
}

TEST(VosSeeking, FseekAnswersZeroAndFtellTheOffset) {
  ScratchDir dir;
  const std::string path = dir.file("seek");
  ASSERT_TRUE(moxtest::writeFile(path, std::string(100, 's')));
  int fd = static_cast<int>(moxvos_fopen(path.c_str(), "r+b", nullptr));
  ASSERT_GE(fd, 256);
  EXPECT_EQ(0, moxvos_fseek(fd, 70, SEEK_SET));
  EXPECT_EQ(70, moxvos_ftell(fd));
  EXPECT_EQ(0, moxvos_fseek(fd, -20, SEEK_CUR));
  EXPECT_EQ(50, moxvos_ftell(fd));
  EXPECT_EQ(100, moxvos_lseek(fd, 0, SEEK_END));
  EXPECT_EQ(0, moxvos_fseek64(fd, 10, SEEK_SET));
  EXPECT_EQ(10, moxvos_ftell64(fd));
  errno = 0;
  EXPECT_EQ(-1, moxvos_fseek(fd, -1, SEEK_SET));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(-1, moxvos_fseek64(fd, -5, SEEK_SET));
  EXPECT_EQ(-1, moxvos_lseek(fd, -5, SEEK_SET));
  EXPECT_EQ(10, moxvos_ftell(fd));  // failed seeks move nothing
  moxvos_fclose(fd);
  EXPECT_EQ(-1, moxvos_ftell(fd));
  EXPECT_EQ(-1, moxvos_ftell64(fd));
}

TEST(VosSeeking, SixtyFourBitFamilyCarriesOffsetsPastFourGiB) {
  ScratchDir dir;
  const std::string path = dir.file("sparse");
  const int64_t kThreeGiB = INT64_C(3) << 30;
  int fd = static_cast<int>(moxvos_fopen64(path.c_str(), "w+b", nullptr));
  ASSERT_GE(fd, 256);
  ASSERT_EQ(0, moxvos_ftruncate(fd, kThreeGiB));  // sparse: no blocks used
  EXPECT_EQ(kThreeGiB, moxvos_filesize(fd));
  EXPECT_EQ(kThreeGiB, moxvos_filesize64(fd));
  struct stat64 record;
  ASSERT_EQ(0, moxvos_fstat64(fd, &record));
  EXPECT_EQ(kThreeGiB, record.st_size);

  EXPECT_EQ(kThreeGiB, moxvos_lseek64(fd, 0, SEEK_END));
  EXPECT_EQ(kThreeGiB, moxvos_ftell64(fd));
  EXPECT_EQ(0, moxvos_fseek64(fd, kThreeGiB - 4, SEEK_SET));
  EXPECT_EQ(kThreeGiB - 4, moxvos_ftell64(fd));
  EXPECT_EQ(1, moxvos_fwrite(fd, "tail", 4, 1));
  EXPECT_EQ(kThreeGiB, moxvos_ftell64(fd));
  EXPECT_EQ(kThreeGiB, moxvos_ftell(fd));
  // Offsets above 4 GiB as well.
  const int64_t kFiveGiB = INT64_C(5) << 30;
  EXPECT_EQ(kFiveGiB + 1, moxvos_lseek64(fd, kFiveGiB + 1, SEEK_SET));
  EXPECT_EQ(0, moxvos_fseek64(fd, -(kFiveGiB + 1 - (kThreeGiB - 4)), SEEK_CUR));
  char back[4] = {0, 0, 0, 0};
  EXPECT_EQ(4, moxvos_fread(fd, back, 1, 4));
  EXPECT_EQ(0, memcmp(back, "tail", 4));
  EXPECT_EQ(0, moxvos_fseek(fd, kThreeGiB - 4, SEEK_SET));
  EXPECT_EQ(kThreeGiB - 4, moxvos_ftell(fd));
  EXPECT_EQ(0, moxvos_fsync(fd));
  moxvos_fclose(fd);
}

TEST(VosStatus, FilesizeOfEmptyAndClosedFiles) {
  ScratchDir dir;
  const std::string path = dir.file("empty");
  int fd = static_cast<int>(moxvos_fopen(path.c_str(), "w", nullptr));
  ASSERT_GE(fd, 256);
  EXPECT_EQ(0, moxvos_filesize(fd));
  EXPECT_EQ(5, moxvos_write(fd, "hello", 5));
  EXPECT_EQ(5, moxvos_filesize64(fd));
  EXPECT_EQ(0, moxvos_close(fd));
  EXPECT_EQ(-1, moxvos_filesize(fd));
  EXPECT_EQ(-1, moxvos_filesize64(fd));
  EXPECT_EQ(-1, moxvos_close(fd));
  EXPECT_EQ(EBADF, errno);
}

TEST(VosStatus, PathFunctionsPassThrough) {
  ScratchDir dir;
  const std::string a = dir.file("a");
  const std::string b = dir.file("b");
  ASSERT_TRUE(moxtest::writeFile(a, "12345"));

  struct stat record;
  ASSERT_EQ(0, moxvos_stat(a.c_str(), &record, nullptr));
  EXPECT_EQ(5, record.st_size);
  EXPECT_EQ(-1, moxvos_stat(b.c_str(), &record, nullptr));
  EXPECT_EQ(ENOENT, errno);

  EXPECT_EQ(0, moxvos_chmod(a.c_str(), 0600, nullptr));
  EXPECT_EQ(0600u, permissions(a));
  EXPECT_EQ(0, moxvos_access(a.c_str(), R_OK, nullptr));
  EXPECT_EQ(-1, moxvos_access(b.c_str(), F_OK, nullptr));

  struct timeval times[2] = {{1000000000, 0}, {1234567890, 0}};
  ASSERT_EQ(0, moxvos_utimes(a.c_str(), times));
  ASSERT_EQ(0, moxvos_stat(a.c_str(), &record, nullptr));
  EXPECT_EQ(1234567890, record.st_mtime);

  EXPECT_EQ(0, moxvos_rename(a.c_str(), b.c_str(), nullptr));
  EXPECT_FALSE(moxtest::exists(a));
  int fd = static_cast<int>(moxvos_fopen(b.c_str(), "r", nullptr));
  ASSERT_EQ(0, moxvos_fstat(fd, &record));
  EXPECT_EQ(5, record.st_size);
  moxvos_fclose(fd);
  EXPECT_EQ(0, moxvos_unlink(b.c_str(), nullptr));
  EXPECT_EQ(-1, moxvos_unlink(b.c_str(), nullptr));

  struct statfs fs;
  EXPECT_EQ(0, moxvos_statfs(dir.path().c_str(), &fs));
  EXPECT_EQ(-1, moxvos_statfs(b.c_str(), &fs));

  const int previous = moxvos_umask(027, nullptr);
  EXPECT_EQ(027, moxvos_umask(previous, nullptr));
}

TEST(VosStatus, WorkingDirectoryAndDirectories) {
  ScratchDir dir;
  char before[4096];
  ASSERT_NE(nullptr, moxvos_getcwd(before, sizeof before, nullptr));
  ASSERT_EQ(0, moxvos_chdir(dir.path().c_str(), nullptr));
  char inside[4096];
  EXPECT_EQ(inside, moxvos_getcwd(inside, sizeof inside, nullptr));
  char real[4096];
  ASSERT_NE(nullptr, realpath(dir.path().c_str(), real));
  EXPECT_STREQ(real, inside);
  char tiny[2];
  EXPECT_EQ(nullptr, moxvos_getcwd(tiny, sizeof tiny, nullptr));
  EXPECT_EQ(ERANGE, errno);
  ASSERT_EQ(0, moxvos_chdir(before, nullptr));
  EXPECT_EQ(-1, moxvos_chdir(dir.file("none").c_str(), nullptr));

  ASSERT_EQ(0, mkdir(dir.file("sub").c_str(), 0755));
  EXPECT_EQ(0, moxvos_rmdir(dir.file("sub").c_str(), nullptr));
  EXPECT_EQ(-1, moxvos_rmdir(dir.file("sub").c_str(), nullptr));
  EXPECT_EQ(ENOENT, errno);
}

TEST(VosStatus, ReaddirAndReaddirRWalkOneSequence) {
  ScratchDir dir;
  for (const char* name : {"one", "two", "three"}) {
    ASSERT_TRUE(moxtest::writeFile(dir.file(name), name));
  }
  EXPECT_EQ(nullptr, moxvos_opendir(dir.file("none").c_str(), nullptr));
  DIR* handle = moxvos_opendir(dir.path().c_str(), nullptr);
  ASSERT_NE(nullptr, handle);

  struct dirent entry;
  memset(&entry, 0xab, sizeof entry);
  struct dirent untouched;
  memcpy(&untouched, &entry, sizeof entry);

  std::set<std::string> names;
  bool useR = false;
  for (;;) {
    struct dirent* next = useR ? moxvos_readdir_r(handle, &entry, nullptr)
                               : moxvos_readdir(handle, nullptr);
    if (next == nullptr) break;
    EXPECT_NE(&entry, next);
    EXPECT_TRUE(names.insert(next->d_name).second) << next->d_name;
    useR = !useR;
  }
  EXPECT_EQ(nullptr, moxvos_readdir_r(handle, &entry, nullptr));
  EXPECT_EQ(0, memcmp(&entry, &untouched, sizeof entry));
  EXPECT_EQ((std::set<std::string>{".", "..", "one", "two", "three"}), names);
  EXPECT_EQ(0, moxvos_closedir(handle, nullptr));
}

}  // namespace
