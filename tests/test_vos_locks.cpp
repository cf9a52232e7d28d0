// Advisory write locks through _MoxvosFlock, checked from a real second
// process: F_SETLK locks are per process, so only another process sees them.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

#include "moxvos.h"
#include "support/vos_scratch.h"

namespace {

using moxtest::ScratchDir;

// The first lock another process would run into on [start, start + length)
// (length 0: to the end, however far), as reported by F_GETLK in a child;
// l_type is F_UNLCK when nothing is in the way.
struct flock conflictSeenByOtherProcess(const std::string& path, off_t start,
                                        off_t length) {
  int channel[2];
  EXPECT_EQ(0, pipe(channel));
  int code = moxtest::runInChild([&] {
    int fd = open(path.c_str(), O_RDWR);
    struct flock query;
    memset(&query, 0, sizeof query);
    query.l_type = F_WRLCK;
    query.l_whence = SEEK_SET;
    query.l_start = start;
    query.l_len = length;
    if (fd < 0 || fcntl(fd, F_GETLK, &query) != 0) return 1;
    return write(channel[1], &query, sizeof query) ==
                   static_cast<ssize_t>(sizeof query)
               ? 0
               : 2;
  });
  close(channel[1]);
  struct flock answer;
  memset(&answer, 0, sizeof answer);
  EXPECT_EQ(0, code);
  EXPECT_EQ(static_cast<ssize_t>(sizeof answer),
            read(channel[0], &answer, sizeof answer));
  close(channel[0]);
  return answer;
}

// A second process that takes a write lock on the whole present file with
// the layer itself and holds it until released.
class LockHolder {
 public:
  explicit LockHolder(const std::string& path) {
    int ready[2], release[2];
    if (pipe(ready) != 0 || pipe(release) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      close(ready[0]);
      close(release[1]);
      _MoxvosFlock lock;
      char answer = 'n';
      if (moxvos_flock_init(&lock, O_RDWR, path.c_str(), nullptr) == 0 &&
          moxvos_flock_trywrlock(&lock, SEEK_SET, 0, 0, nullptr) == 0) {
        answer = 'y';
      }
      if (write(ready[1], &answer, 1) != 1) _exit(3);
      char go;
      if (read(release[0], &go, 1) < 0) _exit(4);  // parent's word or EOF
      moxvos_flock_free(&lock, nullptr);
      _exit(answer == 'y' ? 0 : 5);
    }
    close(ready[1]);
    close(release[0]);
    char answer = 'n';
    locked_ = read(ready[0], &answer, 1) == 1 && answer == 'y';
    close(ready[0]);
    release_ = release[1];
  }
  ~LockHolder() { release(); }
  bool locked() const { return locked_; }
  int release() {
    if (pid_ <= 0) return -1;
    close(release_);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
  int release_ = -1;
  bool locked_ = false;
};

TEST(VosLocks, LengthZeroLocksThePresentSizeAndSeeksToTheEnd) {
  ScratchDir dir;
  const std::string path = dir.file("hundred");
  ASSERT_TRUE(moxtest::writeFile(path, std::string(100, 'h')));
  _MoxvosFlock lock;
  ASSERT_EQ(0, moxvos_flock_init(&lock, O_RDWR, path.c_str(), nullptr));
  EXPECT_GE(lock.iFd, 256);
  ASSERT_NE(nullptr, lock.pszPath);
  EXPECT_STREQ(path.c_str(), lock.pszPath);
  EXPECT_NE(path.c_str(), lock.pszPath);
  EXPECT_EQ(static_cast<void*>(&lock), static_cast<void*>(&lock.flLock));

  ASSERT_EQ(0, moxvos_flock_trywrlock(&lock, SEEK_SET, 0, 0, nullptr));
  EXPECT_EQ(100, moxvos_ftell(lock.iFd));
  EXPECT_EQ(F_WRLCK, lock.flLock.l_type);
  EXPECT_EQ(SEEK_SET, lock.flLock.l_whence);
  EXPECT_EQ(0, lock.flLock.l_start);
  EXPECT_EQ(100, lock.flLock.l_len);

  // Another process sees bytes 0..99 locked, byte 100 onwards free.
  struct flock seen = conflictSeenByOtherProcess(path, 0, 0);
  EXPECT_EQ(F_WRLCK, seen.l_type);
  EXPECT_EQ(0, seen.l_start);
  EXPECT_EQ(100, seen.l_len);
  EXPECT_EQ(getpid(), seen.l_pid);
  EXPECT_EQ(F_UNLCK, conflictSeenByOtherProcess(path, 100, 0).l_type);

  ASSERT_EQ(0, moxvos_flock_unlock(&lock, SEEK_SET, 0, 0, nullptr));
  EXPECT_EQ(F_UNLCK, lock.flLock.l_type);
  EXPECT_EQ(F_UNLCK, conflictSeenByOtherProcess(path, 0, 0).l_type);

  // An explicit range, relative to the current offset.
  ASSERT_EQ(0, moxvos_fseek(lock.iFd, 10, SEEK_SET));
  ASSERT_EQ(0, moxvos_flock_trywrlock(&lock, SEEK_CUR, 5, 20, nullptr));
  seen = conflictSeenByOtherProcess(path, 0, 0);
  EXPECT_EQ(F_WRLCK, seen.l_type);
  EXPECT_EQ(15, seen.l_start);
  EXPECT_EQ(20, seen.l_len);
  EXPECT_EQ(10, moxvos_ftell(lock.iFd));  // a nonzero length moves nothing

  EXPECT_EQ(0, moxvos_flock_free(&lock, nullptr));
  EXPECT_EQ(-1, lock.iFd);
  EXPECT_EQ(nullptr, lock.pszPath);
  EXPECT_EQ(F_UNLCK, conflictSeenByOtherProcess(path, 0, 0).l_type);
}

TEST(VosLocks, LengthZeroOnAnEmptyFileLocksToTheEnd) {
  ScratchDir dir;
  const std::string path = dir.file("empty");
  _MoxvosFlock lock;
  ASSERT_EQ(0, moxvos_flock_init(&lock, O_RDWR | O_CREAT, path.c_str(),
                                 nullptr));
  ASSERT_EQ(0, moxvos_flock_trywrlock(&lock, SEEK_SET, 0, 0, nullptr));
  EXPECT_EQ(0, lock.flLock.l_len);
  // Length 0 reached fcntl as 0: everything from 0 on, even far away.
  struct flock seen = conflictSeenByOtherProcess(path, 1 << 30, 1);
  EXPECT_EQ(F_WRLCK, seen.l_type);
  EXPECT_EQ(0, seen.l_len);
  EXPECT_EQ(0, moxvos_flock_free(&lock, nullptr));
}

TEST(VosLocks, LockHeldByAnotherProcessIsBusy) {
  ScratchDir dir;
  const std::string path = dir.file("shared");
  ASSERT_TRUE(moxtest::writeFile(path, std::string(100, 's')));
  _MoxvosFlock lock;
  ASSERT_EQ(0, moxvos_flock_init(&lock, O_RDWR, path.c_str(), nullptr));
  {
    LockHolder holder(path);
    ASSERT_TRUE(holder.locked());
    errno = 0;
    EXPECT_EQ(-1, moxvos_flock_trywrlock(&lock, SEEK_SET, 0, 0, nullptr));
    EXPECT_EQ(EBUSY, errno);
    errno = 0;
    EXPECT_EQ(-1, moxvos_flock_trywrlock(&lock, SEEK_SET, 50, 1, nullptr));
    EXPECT_EQ(EBUSY, errno);
    // Beyond the holder's range (it locked the 100 bytes there were).
    EXPECT_EQ(0, moxvos_flock_trywrlock(&lock, SEEK_SET, 100, 10, nullptr));
    EXPECT_EQ(0, holder.release());
  }
  EXPECT_EQ(0, moxvos_flock_trywrlock(&lock, SEEK_SET, 0, 0, nullptr));
  // Now this process holds it, and the other one is kept out in turn.
  LockHolder second(path);
  EXPECT_FALSE(second.locked());
  EXPECT_EQ(5, second.release());
  EXPECT_EQ(0, moxvos_flock_free(&lock, nullptr));
}

TEST(VosLocks, ObjectWithoutAFile) {
  _MoxvosFlock lock;
  memset(&lock, 0x5a, sizeof lock);
  EXPECT_EQ(0, moxvos_flock_init(&lock, O_RDWR, nullptr, nullptr));
  EXPECT_EQ(-1, lock.iFd);
  EXPECT_EQ(nullptr, lock.pszPath);
  // A request fails in fcntl with a bad descriptor, not as busy.
  errno = 0;
  EXPECT_EQ(-1, moxvos_flock_trywrlock(&lock, SEEK_SET, 0, 10, nullptr));
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(-1, moxvos_flock_trywrlock(&lock, SEEK_SET, 0, 0, nullptr));
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(-1, moxvos_flock_unlock(&lock, SEEK_SET, 0, 10, nullptr));
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(0, moxvos_flock_free(&lock, nullptr));
  EXPECT_EQ(-1, lock.iFd);
  EXPECT_EQ(nullptr, lock.pszPath);
}

TEST(VosLocks, FileThatCannotBeOpenedKeepsTheNameUntilFreed) {
  ScratchDir dir;
  const std::string path = dir.file("missing/lock");
  _MoxvosFlock lock;
  errno = 0;
  EXPECT_EQ(-1, moxvos_flock_init(&lock, O_RDWR | O_CREAT, path.c_str(),
                                  nullptr));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(-1, lock.iFd);
  ASSERT_NE(nullptr, lock.pszPath);
  EXPECT_STREQ(path.c_str(), lock.pszPath);
  // The copy is released here (the sanitizer build's leak check sees it).
  EXPECT_EQ(0, moxvos_flock_free(&lock, nullptr));
  EXPECT_EQ(nullptr, lock.pszPath);
}

TEST(VosLocks, InitCreatesTheLockFileWith0644) {
  ScratchDir dir;
  moxtest::UmaskGuard mask(022);
  const std::string path = dir.file("new.lock");
  _MoxvosFlock lock;
  ASSERT_EQ(0, moxvos_flock_init(&lock, O_RDWR | O_CREAT, path.c_str(),
                                 nullptr));
  struct stat record;
  ASSERT_EQ(0, stat(path.c_str(), &record));
  EXPECT_EQ(0644u, record.st_mode & 07777);
  EXPECT_EQ(0, moxvos_flock_free(&lock, nullptr));
  EXPECT_TRUE(moxtest::exists(path));  // freeing never removes the file
}

}  // namespace
