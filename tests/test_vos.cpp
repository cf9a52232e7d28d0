// The OS layer: descriptors and the fopen mode table, element counts,
// seeking past 4 GiB, the status and directory pass-throughs, temporary
// names, directory paths, advisory locks as a second process sees them,
// bounded allocation, dynamic loading and its log, exit, system and sleep.
// Null and absurd arguments are in test_interface; the permissions of
// created files, and sizes kept or truncated on opening, are checked by
// the vos fuzz target's model on every replayed input.
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "moxvos.h"
#include "support/vos_scratch.h"

// An allocation refused under a child's RLIMIT_AS must come back as null,
// as it does without the sanitizer, instead of ending the process.  Only
// the sanitizer's runtime asks for these options; otherwise nothing calls it.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

// Every mkstemp of this program (the layer is linked in statically) passes
// through here, so that tests can see each template as it was handed over
// and make attempts fail on purpose.
namespace {
std::vector<std::string> gTemplates;
int gFailNext = 0;  // how many of the next attempts fail with EEXIST
}  // namespace

extern "C" int mkstemp(char* name) {
  gTemplates.push_back(name);
  if (gFailNext > 0) {
    --gFailNext;
    errno = EEXIST;
    return -1;
  }
  static auto real = reinterpret_cast<int (*)(char*)>(dlsym(RTLD_NEXT, "mkstemp"));
  return real(name);
}

namespace {

using moxtest::ScratchDir;

mode_t permissions(const std::string& path) {
  struct stat record;
  return stat(path.c_str(), &record) != 0 ? 07777 : record.st_mode & 07777;
}

// --- Descriptors -------------------------------------------------------------

// A descriptor from open at 256 is kept; a low one is used when no high
// one is allowed.  Then the fopen mode table.
TEST(VosDescriptors, HighDescriptorsAndTheFopenModeTable) {
  ScratchDir dir;
  const std::string file = dir.file("f");
  ASSERT_TRUE(moxtest::writeFile(file, "x"));
  // Every descriptor below 256 taken, so open itself returns 256.  Moving
  // it would give 257 (256 is still taken while it is duplicated).  Then,
  // with one descriptor free below a limit of 64 (the channel's stays below
  // it), the new one cannot be moved: that low one, open and readable.
  EXPECT_EQ(1, moxtest::resultOfChild<int64_t>([&]() -> int64_t {
    struct rlimit limit = {512, 512};
    setrlimit(RLIMIT_NOFILE, &limit);
    const int filler = open("/dev/null", O_RDONLY);
    for (int fd = 0; fd < 256; ++fd) {
      if (fcntl(fd, F_GETFD) == -1) dup2(filler, fd);
    }
    close(256);
    if (moxvos_open(file.c_str(), O_RDONLY, nullptr) != 256) return -1;
    close(filler);
    limit = {64, 64};
    char byte = 0;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0 && moxvos_open(file.c_str(), O_RDONLY, nullptr) == filler &&
           read(filler, &byte, 1) == 1 && byte == 'x';
  }, -100));

  // The fopen mode table.  The vos fuzz model checks what every mode opens
  // (access, append, truncation, and that only 'w' and 'a' may create), but
  // its inputs open nothing with "r+" or a '+' past the second character,
  // never need 'w' or 'a' to create, and cannot pass a null mode.
  const struct {
    const char* mode;
    int flags;  // access and append
    bool creates;
  } cases[] = {{"r+b", O_RDWR, false}, {"wb+", O_RDWR, true}, {"a", O_WRONLY | O_APPEND, true}, {nullptr, O_RDONLY, false}};
  for (const auto& c : cases) {
    const int64_t row = &c - cases;
    const std::string path = dir.file(std::to_string(row));
    int64_t fd = (row % 2 ? moxvos_fopen64 : moxvos_fopen)(path.c_str(), c.mode, nullptr);
    EXPECT_EQ(c.creates, fd >= 256) << row;
    if (fd < 0) {
      ASSERT_TRUE(moxtest::writeFile(path, "x"));
      fd = moxvos_fopen(path.c_str(), c.mode, nullptr);
    }
    EXPECT_EQ(c.flags, fcntl(static_cast<int>(fd), F_GETFL) & (O_ACCMODE | O_APPEND)) << row;
    moxvos_fclose(static_cast<int>(fd));
  }
}

// --- Transfers and seeking -----------------------------------------------------

// Element counts round down: a pipe holding 39 bytes gives 9 elements of
// 4 from one read (a second read would wait for the open write end), and
// the 3 bytes of the partial element are taken too.  (That a failed
// transfer counts none is the vos fuzz model's.)
TEST(VosTransfers, ElementCountsAndOffsetsPastFourGiB) {
  char buffer[64] = {};
  int channel[2];
  ASSERT_EQ(0, pipe(channel));
  ASSERT_EQ(39, write(channel[1], buffer, 39));
  EXPECT_EQ(9, moxvos_fread(channel[0], buffer, 4, 16));
  close(channel[1]);
  EXPECT_EQ(0, moxvos_fread(channel[0], buffer, 1, 1));  // nothing left
  close(channel[0]);

  // The 64-bit family carries offsets past 4 GiB, and the plain one too.
  const int64_t kThreeGiB = INT64_C(3) << 30, kFiveGiB = INT64_C(5) << 30;
  ScratchDir dir;
  const int fd = static_cast<int>(moxvos_fopen64(dir.file("sparse").c_str(), "w+b", nullptr));
  ASSERT_EQ(0, moxvos_ftruncate(fd, kThreeGiB));  // sparse: no blocks used
  EXPECT_EQ(kThreeGiB, moxvos_filesize64(fd));  // the fuzz model: filesize and fstat64 agree
  EXPECT_EQ(kFiveGiB + 1, moxvos_lseek64(fd, kFiveGiB + 1, SEEK_SET));
  EXPECT_EQ(0, moxvos_fseek64(fd, -(kFiveGiB + 1 - (kThreeGiB - 4)), SEEK_CUR));
  EXPECT_EQ(kThreeGiB - 4, moxvos_ftell64(fd));
  EXPECT_EQ(0, moxvos_fseek(fd, kFiveGiB, SEEK_SET));
  EXPECT_EQ(kFiveGiB, moxvos_ftell(fd));
  EXPECT_EQ(0, moxvos_fsync(fd));
  EXPECT_EQ(0, moxvos_fclose(fd));  // the fuzz model finds no descriptor left open
}

// --- Status, directories -------------------------------------------------------

// The working directory's name, and access agreeing with stat on what is
// there, are the vos fuzz model's.
TEST(VosStatus, PathsAndDirectoriesPassThrough) {
  ScratchDir dir;
  const std::string a = dir.file("a"), b = dir.file("b");
  ASSERT_TRUE(moxtest::writeFile(a, "12345"));
  EXPECT_EQ(0, moxvos_chmod(a.c_str(), 0600, nullptr));
  struct timeval times[2] = {{1000000000, 0}, {1234567890, 0}};
  EXPECT_EQ(0, moxvos_utimes(a.c_str(), times));
  EXPECT_EQ(0, moxvos_rename(a.c_str(), b.c_str(), nullptr));
  struct stat record;
  ASSERT_EQ(0, moxvos_stat(b.c_str(), &record, nullptr));
  EXPECT_EQ((std::vector<int64_t>{5, 0600, 1234567890}),
            (std::vector<int64_t>{record.st_size, record.st_mode & 07777, record.st_mtime}));
  EXPECT_EQ(0, moxvos_unlink(b.c_str(), nullptr));
  ASSERT_EQ(0, mkdir(a.c_str(), 0755));
  EXPECT_EQ(0, moxvos_rmdir(a.c_str(), nullptr));
  struct statfs fs;
  EXPECT_EQ(0, moxvos_statfs(dir.path().c_str(), &fs));
  // Now that neither is there, every call gives the platform's failure.
  EXPECT_EQ(std::vector<int>(9, -1),
            (std::vector<int>{moxvos_stat(b.c_str(), &record, nullptr), moxvos_access(b.c_str(), F_OK, nullptr),
                              moxvos_chmod(b.c_str(), 0600, nullptr), moxvos_utimes(b.c_str(), times),
                              moxvos_rename(b.c_str(), a.c_str(), nullptr), moxvos_unlink(b.c_str(), nullptr),
                              moxvos_rmdir(a.c_str(), nullptr), moxvos_chdir(b.c_str(), nullptr),
                              moxvos_statfs(b.c_str(), &fs)}));
  EXPECT_EQ(ENOENT, errno);

  // readdir and readdir_r walk one sequence.
  for (const char* name : {"one", "two", "three"}) ASSERT_TRUE(moxtest::writeFile(dir.file(name), name));
  DIR* handle = moxvos_opendir(dir.path().c_str(), nullptr);
  ASSERT_NE(nullptr, handle);
  // The fuzz model shows readdir_r leaves the caller's entry alone.
  struct dirent entry;
  std::set<std::string> names;
  for (bool useR = false;; useR = !useR) {
    struct dirent* next = useR ? moxvos_readdir_r(handle, &entry, nullptr) : moxvos_readdir(handle, nullptr);
    if (next == nullptr) break;
    EXPECT_TRUE(names.insert(next->d_name).second) << next->d_name;
  }
  EXPECT_EQ((std::set<std::string>{".", "..", "one", "two", "three"}), names);
  EXPECT_EQ(0, moxvos_closedir(handle, nullptr));
}

// --- Temporary names -------------------------------------------------------------

// A null directory is /tmp and a null prefix empty; a second attempt
// starts from a fresh template and is the last (a directory that is not
// there fails both).
TEST(VosTempnam, TemplatesAndAttempts) {
  gTemplates.clear();
  // The fuzz model checks the name and its empty file for given names.
  char* name = moxvos_tempnam(nullptr, nullptr, nullptr);
  ASSERT_NE(nullptr, name);
  EXPECT_EQ(std::vector<std::string>{"/tmp/XXXXXX"}, gTemplates);
  EXPECT_EQ(0, unlink(name));  // the file is there, for the caller to remove
  moxvos_free(name);

  gTemplates.clear();
  ScratchDir dir;
  const std::string missing = dir.file("no/such/dir");
  errno = 0;
  EXPECT_TRUE(moxvos_tempnam(missing.c_str(), "t", nullptr) == nullptr && errno == ENOENT);
  EXPECT_EQ(std::vector<std::string>(2, missing + "/tXXXXXX"), gTemplates);

  gFailNext = 1;  // the second attempt's name is the answer
  name = moxvos_tempnam(dir.path().c_str(), "r", nullptr);
  EXPECT_NE(nullptr, name);
  moxvos_free(name);
}

// --- Directory paths ---------------------------------------------------------------

// For relative paths the vos fuzz model checks the result (0 exactly when
// the path was not there and is a directory now: nothing to do, trailing
// and repeated slashes); here, permissions, absolute paths, a file in the
// way, overlong paths, and host parts, which are never created.
TEST(VosMkdir, CreatesEveryMissingDirectoryUnderTheUmaskButNoRootOrHostPart) {
  ScratchDir dir;
  moxtest::CwdGuard cwd(dir.path());
  moxtest::UmaskGuard mask(027);
  EXPECT_EQ(0, moxvos_mkdir("a/b/c", 0715, nullptr));
  for (const char* path : {"a", "a/b", "a/b/c"}) EXPECT_EQ(0710u, permissions(path)) << path;
  // Absolute paths start below the root.
  EXPECT_EQ(0, moxvos_mkdir(dir.file("p/q").c_str(), 0755, nullptr));
  EXPECT_EQ(0750u, permissions(dir.file("p/q")));  // made by mkdir, so a directory
  EXPECT_EQ(-1, moxvos_mkdir("/", 0755, nullptr));
  // A plain file counts as present; the directories below it fail.
  ASSERT_TRUE(moxtest::writeFile("plain", "file"));
  errno = 0;
  EXPECT_TRUE(moxvos_mkdir("plain/sub/deeper", 0755, nullptr) == -1 && errno == ENOTDIR);
  // "//host" with no further '/' from the fourth character on.
  for (const char* path : {"//", "//h", "//host", "//a", "///"}) EXPECT_EQ(-1, moxvos_mkdir(path, 0755, nullptr)) << path;
  // "//first/rest": "//first" is never created, the rest is.  Linux reads a
  // leading double slash as the root, so this lands in the scratch dir.
  EXPECT_EQ(0, moxvos_mkdir(("/" + dir.path() + "/s/t").c_str(), 0755, nullptr));
  EXPECT_EQ(0750u, permissions(dir.file("s/t")));

  // 50 components of 200 bytes: only the first 4096 bytes are looked at.
  // The 20 whole components among them are made; the prefix that is the
  // whole 4096 bytes is too long for the platform, so the result is -1.
  const std::string component(200, 'd');
  std::string path = component;
  for (int i = 1; i < 50; ++i) path += "/" + component;
  errno = 0;
  EXPECT_TRUE(moxvos_mkdir(path.c_str(), 0755, nullptr) == -1 && errno == ENAMETOOLONG);
  EXPECT_EQ(0, rmdir(path.substr(0, 20 * 201 - 1).c_str())) << "not made, or something was made inside it";

  // Inside a child whose root is the scratch directory, so that paths at
  // the root can be created (or shown not to be) without touching the machine.
  const int code = moxtest::runInChild([&] {
    if (chroot(dir.path().c_str()) != 0) {
      if (unshare(CLONE_NEWUSER) != 0 || chroot(dir.path().c_str()) != 0) return 77;
    }
    if (chdir("/") != 0) return 78;
    // Nothing else makes anything here, so what exists, mkdir made.
    if (moxvos_mkdir("/top/sub", 0755, nullptr) != 0 || !moxtest::exists("/top/sub")) return 11;
    // The host part "//host" is skipped even though it is missing, so the
    // first mkdir ("//host/a") fails and so does everything after it.
    if (moxvos_mkdir("//host/a/b", 0755, nullptr) != -1 || moxtest::exists("/host")) return 13;
    // Only a '/' from the fourth character on ends the host part: "///x"
    // has none, so nothing is created.
    if (moxvos_mkdir("///x", 0755, nullptr) != -1 || moxtest::exists("/x")) return 15;
    // "//top/" is the host part here, and it exists: "new" is made in it.
    if (moxvos_mkdir("//top/new", 0755, nullptr) != 0 || !moxtest::exists("/top/new")) return 17;
    return 0;
  });
  if (code == 77) GTEST_SKIP() << "cannot change the root directory here";
  EXPECT_EQ(0, code);
}

// --- Locks -----------------------------------------------------------------------

// The first lock an open-file lock through `probe` would run into on
// [start, start + length) (length 0: to the end, however far): "free" or
// "write START+LENGTH".  Open-file locks conflict with this process's
// record locks, so no second process is needed; the probe stays open
// until the end, as closing it would drop this process's locks.
std::string lockSeen(int probe, off_t start, off_t length) {
  struct flock query = {};
  query.l_type = F_WRLCK;
  query.l_start = start;
  query.l_len = length;
  if (fcntl(probe, F_OFD_GETLK, &query) != 0) return "error";
  if (query.l_type == F_UNLCK) return "free";
  return (query.l_type == F_WRLCK ? "write " : "other ") + std::to_string(query.l_start) + "+" +
         std::to_string(query.l_len);
}

// Without a file, requests fail in fcntl, not as busy: the vos fuzz model's.
TEST(VosLocks, LengthZeroLocksThePresentSizeAndALockHeldElsewhereIsBusy) {
  ScratchDir dir;
  const std::string path = dir.file("hundred"), created = dir.file("new.lock");
  ASSERT_TRUE(moxtest::writeFile(path, std::string(100, 'h')));
  const int probe = open(path.c_str(), O_RDWR);
  _MoxvosFlock lock;
  ASSERT_EQ(0, moxvos_flock_init(&lock, O_RDWR, path.c_str(), nullptr));
  EXPECT_EQ(static_cast<void*>(&lock), static_cast<void*>(&lock.flLock));

  ASSERT_EQ(0, moxvos_flock_trywrlock(&lock, SEEK_SET, 0, 0, nullptr));
  EXPECT_EQ(100, moxvos_ftell(lock.iFd));
  // Bytes 0..99 locked (and so byte 100 onwards free).
  EXPECT_EQ("write 0+100", lockSeen(probe, 0, 0));
  ASSERT_EQ(0, moxvos_flock_unlock(&lock, SEEK_SET, 0, 0, nullptr));
  EXPECT_EQ("free", lockSeen(probe, 0, 0));

  // An explicit range, relative to the current offset (which a nonzero
  // length leaves alone, or the range would have moved with it).
  ASSERT_EQ(0, moxvos_fseek(lock.iFd, 10, SEEK_SET));
  ASSERT_EQ(0, moxvos_flock_trywrlock(&lock, SEEK_CUR, 5, 20, nullptr));
  EXPECT_EQ("write 15+20", lockSeen(probe, 0, 0));
  // Emptied, length 0 reaches fcntl as 0: everything from 0 on, however far.
  ASSERT_EQ(0, moxvos_ftruncate(lock.iFd, 0));
  ASSERT_EQ(0, moxvos_flock_trywrlock(&lock, SEEK_SET, 0, 0, nullptr));
  EXPECT_EQ("write 0+0", lockSeen(probe, 1 << 30, 1));
  EXPECT_EQ(0, moxvos_flock_free(&lock, nullptr));

  // Bytes 0..99 held through the probe (which the lock freed above would
  // have prevented): busy for byte 50, but not beyond the holder's range.
  struct flock range = {};
  range.l_type = F_WRLCK;
  range.l_len = 100;
  ASSERT_EQ(0, fcntl(probe, F_OFD_SETLK, &range));
  ASSERT_EQ(0, moxvos_flock_init(&lock, O_RDWR, path.c_str(), nullptr));
  errno = 0;
  EXPECT_TRUE(moxvos_flock_trywrlock(&lock, SEEK_SET, 50, 1, nullptr) == -1 && errno == EBUSY);
  EXPECT_EQ(0, moxvos_flock_trywrlock(&lock, SEEK_SET, 100, 10, nullptr));
  EXPECT_EQ(0, moxvos_flock_free(&lock, nullptr));
  close(probe);

  // The first of a hundred locks creates its file, as the flags ask; freeing
  // never removes the file, nor keeps the copy of the path: the heap is as found.
  const size_t inUse = mallinfo2().uordblks;
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(0, moxvos_flock_init(&lock, O_RDWR | O_CREAT, created.c_str(), nullptr));
    ASSERT_EQ(0, moxvos_flock_free(&lock, nullptr));
  }
  EXPECT_EQ(mallinfo2().uordblks, inUse);
  EXPECT_TRUE(moxtest::exists(created));
}

// --- Memory ------------------------------------------------------------------------
// No test lets the allocator hand out 2 GiB: sizes above the limit are
// shown to skip it (errno stays untouched, where any failing allocator
// would set ENOMEM), and sizes at the limit to reach it in a child whose
// address space is too small for them (null with ENOMEM).

constexpr uint64_t kLimit = 2147483647ULL;

// Single sizes past the limit are the vos fuzz model's; here, products,
// what Saferealloc does with the block, and sizes at the limit.
TEST(VosMemory, ProductsPastTheLimitNeverReachTheAllocatorSizesAtItDoAndSafereallocReleases) {
  errno = 0;
  // Exactly 2^31, no elements, and two that wrap to 0.
  const std::pair<uint64_t, uint64_t> products[] = {{65536, 32768}, {0, 8}, {4, 1ULL << 62}, {1ULL << 62, 4}};
  for (auto [count, size] : products) EXPECT_EQ(nullptr, moxvos_calloc(count, size)) << count << " x " << size;
  EXPECT_EQ(0, errno);

  // Past the limit or to zero the block is released, once: a block kept (too
  // large for the allocator's per-thread cache) stays in the heap's bytes in
  // use (or, with the sanitizer, which keeps its own heap, is reported as a
  // leak), and a second release is a double free either allocator aborts on.
  // (That errno stays untouched past the limit is the fuzz model's.)
  const size_t inUse = mallinfo2().uordblks;
  EXPECT_EQ(nullptr, moxvos_Saferealloc(moxvos_malloc(4096), kLimit + 1));
  EXPECT_EQ(nullptr, moxvos_Saferealloc(moxvos_malloc(4096), 0));
  EXPECT_EQ(inUse, mallinfo2().uordblks);
  char* grown = static_cast<char*>(moxvos_Saferealloc(strdup("abcdefg"), 1 << 16));
  ASSERT_NE(nullptr, grown);
  EXPECT_STREQ("abcdefg", grown);
  moxvos_free(grown);

  // With 256 MiB of head room a small block (from valloc) still works,
  // 2^31 - 1 cannot.
  EXPECT_EQ(0, moxtest::runInChild([] {
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;  // the pages in use
    const rlim_t room = static_cast<rlim_t>(pages) * sysconf(_SC_PAGESIZE) + (256u << 20);
    struct rlimit limit = {room, room};
    if (setrlimit(RLIMIT_AS, &limit) != 0) return 91;
    void* small = moxvos_valloc(4096);
    if (small == nullptr) return 10;
    // Each answer is read with errno as that call alone left it.
    const std::function<void*()> attempts[] = {
        [] { return moxvos_malloc(kLimit); }, [] { return moxvos_calloc(1, kLimit); },
        [] { return moxvos_calloc(65535, 32768); }, [] { return moxvos_realloc(nullptr, kLimit); },
        [&] { return moxvos_realloc(small, kLimit); },
        [&] { return moxvos_Saferealloc(small, kLimit); },  // a failing realloc keeps the block
        [] { return moxvos_valloc(kLimit + 1); }};          // no limit of its own: 2^31 is asked for
    for (size_t i = 0; i < std::size(attempts); ++i) {
      errno = 0;
      if (attempts[i]() != nullptr || errno != ENOMEM) return static_cast<int>(11 + i);
    }
    memset(small, 0, 4096);  // still valid
    moxvos_free(small);
    return 0;
  }));
}

// --- Dynamic loading and its log ------------------------------------------------------

const char kMissing[] = "libmoxvos-test-no-such-library.so";

TEST(VosLoader, LoadsAreLoggedOnlyWhileTheVariableIsSet) {
  ScratchDir dir;
  moxtest::CwdGuard cwd(dir.path());
  const std::string logPath = dir.file("dll_debug.log");
  unsetenv("MOX_DLL_LOG");
  void* handle = moxvos_dlopen(MOX_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(nullptr, handle) << moxvos_dlerror();
  EXPECT_FALSE(moxtest::exists(logPath));  // the load was not logged
  auto version = reinterpret_cast<const char* (*)()>(moxvos_dlsym(handle, "moxoleVersion"));
  ASSERT_NE(nullptr, version);
  EXPECT_STRNE("", version());
  // More closes than this process ever made opens: a real dlclose would
  // have unloaded the library long before the last one.
  for (int i = 0; i < 64; ++i) EXPECT_EQ(0, moxvos_dlclose(handle));
  EXPECT_NE(nullptr, dlopen(MOX_LIBRARY_PATH, RTLD_NOW | RTLD_NOLOAD));

  // With it the log is appended to, line by line; an empty value counts as
  // set, and a log that cannot be opened is passed over.
  setenv("MOX_DLL_LOG", "", 1);
  handle = moxvos_dlopen(MOX_LIBRARY_PATH, RTLD_NOW);
  ASSERT_NE(nullptr, handle) << moxvos_dlerror();
  EXPECT_EQ(nullptr, moxvos_dlopen(kMissing, RTLD_LAZY));
  // The platform's reason is not logged; it waits in dlerror.
  const char* reason = moxvos_dlerror();
  EXPECT_TRUE(reason != nullptr && strstr(reason, kMissing) != nullptr);
  moxvos_dll_log("no argument used\n", nullptr);
  moxvos_dll_log(nullptr, "ignored");
  // A successful load is one line, a failed one two, in order.
  EXPECT_EQ(std::string("moxvos_dlopen dll ") + MOX_LIBRARY_PATH + " \nmoxvos_dlopen dll " + kMissing + " \nERROR: moxvos_dlopen dll " + kMissing + " \nno argument used\n",
            moxtest::readFile(logPath));
  ASSERT_EQ(0, unlink(logPath.c_str()));
  ASSERT_EQ(0, mkdir(logPath.c_str(), 0755));
  EXPECT_NE(nullptr, moxvos_dlopen(MOX_LIBRARY_PATH, RTLD_NOW));
  unsetenv("MOX_DLL_LOG");
}

// --- Exit, system, sleep ---------------------------------------------------------------

TEST(VosProcess, ExitSystemAndSleep) {
  // exit(), not _exit(): what the child left buffered is written out.
  ScratchDir dir;
  const std::string flushed = dir.file("flushed");
  EXPECT_EQ(7, moxtest::runInChild([&]() -> int {
    fputs("e", fopen(flushed.c_str(), "w"));
    moxvos_exit(7);
  }));
  EXPECT_EQ("e", moxtest::readFile(flushed)) << "the exit handlers did not run";

  EXPECT_EQ(3, WEXITSTATUS(moxvos_system("exit 3")));

  // usleep sleeps, and answers 0 even when a signal cuts it short (a sleep
  // is never resumed after a handler).
  const sighandler_t previous = signal(SIGALRM, [](int) {});
  ualarm(50000, 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(0, moxvos_usleep(5000000));
  const auto slept = std::chrono::steady_clock::now() - start;
  EXPECT_TRUE(slept >= std::chrono::milliseconds(45) && slept < std::chrono::seconds(4));
  signal(SIGALRM, previous);
}

}  // namespace
