// Temporary names and creation of directory paths.
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <sched.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "moxvos.h"
#include "support/vos_scratch.h"

// Every mkstemp of this test program (the layer is linked in statically)
// passes through here, so the tests can count the attempts, see each
// template as it was handed over, and make attempts fail on purpose.
namespace {
std::vector<std::string> gTemplates;
int gFailNext = 0;  // how many of the next attempts fail with EEXIST
}  // namespace

extern "C" int mkstemp(char* name) {
  gTemplates.push_back(name);
  if (gFailNext > 0) {
    --gFailNext;
    memcpy(name + strlen(name) - 6, "123456", 6);  // a used-up candidate
    errno = EEXIST;
    return -1;
  }
  using Real = int (*)(char*);
  static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "mkstemp"));
  return real(name);
}

namespace {

using moxtest::ScratchDir;

bool isDirectory(const std::string& path) {
  struct stat record;
  return stat(path.c_str(), &record) == 0 && S_ISDIR(record.st_mode);
}

class VosTempnam : public ::testing::Test {
 protected:
  void SetUp() override {
    gTemplates.clear();
    gFailNext = 0;
  }
};

TEST_F(VosTempnam, CreatesAnEmptyPrivateFileInTheDirectory) {
  ScratchDir dir;
  char* name = moxvos_tempnam(dir.path().c_str(), "pre", nullptr);
  ASSERT_NE(nullptr, name);
  const std::string text = name;
  const std::string head = dir.path() + "/pre";
  ASSERT_EQ(head.size() + 6, text.size());
  EXPECT_EQ(head, text.substr(0, head.size()));
  EXPECT_EQ(std::string::npos, text.find("XXXXXX"));
  ASSERT_EQ(1u, gTemplates.size());
  EXPECT_EQ(head + "XXXXXX", gTemplates[0]);

  struct stat record;
  ASSERT_EQ(0, stat(name, &record));
  EXPECT_TRUE(S_ISREG(record.st_mode));
  EXPECT_EQ(0, record.st_size);
  EXPECT_EQ(0600u, record.st_mode & 07777);

  char* other = moxvos_tempnam(dir.path().c_str(), "pre", nullptr);
  ASSERT_NE(nullptr, other);
  EXPECT_STRNE(name, other);
  moxvos_free(other);
  moxvos_free(name);
}

TEST_F(VosTempnam, NullDirectoryIsTmpAndNullPrefixIsEmpty) {
  char* name = moxvos_tempnam(nullptr, nullptr, nullptr);
  ASSERT_NE(nullptr, name);
  const std::string text = name;
  EXPECT_EQ(11u, text.size());
  EXPECT_EQ("/tmp/", text.substr(0, 5));
  EXPECT_EQ(std::vector<std::string>{"/tmp/XXXXXX"}, gTemplates);
  struct stat record;
  EXPECT_EQ(0, stat(name, &record));
  EXPECT_EQ(0, record.st_size);
  EXPECT_EQ(0, unlink(name));  // the caller removes the file
  moxvos_free(name);

  ScratchDir dir;
  name = moxvos_tempnam(dir.path().c_str(), nullptr, nullptr);
  ASSERT_NE(nullptr, name);
  EXPECT_EQ(dir.path().size() + 7, strlen(name));
  moxvos_free(name);
}

TEST_F(VosTempnam, MissingDirectoryFailsAfterTwoAttempts) {
  ScratchDir dir;
  const std::string missing = dir.file("no/such/dir");
  errno = 0;
  EXPECT_EQ(nullptr, moxvos_tempnam(missing.c_str(), "t", nullptr));
  EXPECT_EQ(ENOENT, errno);
  const std::string expected = missing + "/tXXXXXX";
  EXPECT_EQ((std::vector<std::string>{expected, expected}), gTemplates);
  EXPECT_FALSE(moxtest::exists(dir.file("no")));
}

TEST_F(VosTempnam, SecondAttemptStartsFromAFreshTemplate) {
  ScratchDir dir;
  gFailNext = 1;
  char* name = moxvos_tempnam(dir.path().c_str(), "r", nullptr);
  ASSERT_NE(nullptr, name);
  const std::string expected = dir.path() + "/rXXXXXX";
  EXPECT_EQ((std::vector<std::string>{expected, expected}), gTemplates);
  EXPECT_TRUE(moxtest::exists(name));
  moxvos_free(name);

  gTemplates.clear();
  gFailNext = 3;  // both attempts fail: nothing more is tried
  EXPECT_EQ(nullptr, moxvos_tempnam(dir.path().c_str(), "r", nullptr));
  EXPECT_EQ(2u, gTemplates.size());
}

TEST(VosMkdir, CreatesEveryMissingDirectoryOfARelativePath) {
  ScratchDir dir;
  moxtest::CwdGuard cwd(dir.path());
  moxtest::UmaskGuard mask(022);
  EXPECT_EQ(0, moxvos_mkdir("a/b/c", 0750, nullptr));
  for (const char* path : {"a", "a/b", "a/b/c"}) {
    struct stat record;
    ASSERT_EQ(0, stat(path, &record)) << path;
    EXPECT_TRUE(S_ISDIR(record.st_mode)) << path;
    EXPECT_EQ(0750u, record.st_mode & 07777) << path;
  }
  // Everything there already: nothing to do is -1.
  EXPECT_EQ(-1, moxvos_mkdir("a/b/c", 0750, nullptr));
  EXPECT_EQ(-1, moxvos_mkdir("a", 0750, nullptr));
  // A trailing slash: a exists, a/x is made, the final "a/x/" exists.
  EXPECT_EQ(0, moxvos_mkdir("a/x/", 0755, nullptr));
  EXPECT_TRUE(isDirectory("a/x"));
  // Repeated slashes are harmless.
  EXPECT_EQ(0, moxvos_mkdir("a//y", 0755, nullptr));
  EXPECT_TRUE(isDirectory("a/y"));
}

TEST(VosMkdir, ModeIsSubjectToTheUmask) {
  ScratchDir dir;
  moxtest::UmaskGuard mask(077);
  EXPECT_EQ(0, moxvos_mkdir(dir.file("m/n").c_str(), 0777, nullptr));
  struct stat record;
  ASSERT_EQ(0, stat(dir.file("m/n").c_str(), &record));
  EXPECT_EQ(0700u, record.st_mode & 07777);
}

TEST(VosMkdir, AbsolutePathsStartBelowTheRoot) {
  ScratchDir dir;
  ASSERT_EQ('/', dir.path()[0]);
  EXPECT_EQ(0, moxvos_mkdir(dir.file("p/q").c_str(), 0755, nullptr));
  EXPECT_TRUE(isDirectory(dir.file("p/q")));
  EXPECT_EQ(-1, moxvos_mkdir("/", 0755, nullptr));
  EXPECT_EQ(-1, moxvos_mkdir(dir.path().c_str(), 0755, nullptr));
}

TEST(VosMkdir, DoubleSlashPathsSkipTheHostPart) {
  // "//host" with no further '/' from the fourth character on.
  errno = 0;
  for (const char* path : {"//", "//h", "//host", "//a", "///"}) {
    EXPECT_EQ(-1, moxvos_mkdir(path, 0755, nullptr)) << path;
  }
  // "//first/rest": "//first" is never created, the rest is.  Linux reads a
  // leading double slash as the root, so this lands in the scratch dir.
  ScratchDir dir;
  const std::string path = "/" + dir.path() + "/s/t";
  EXPECT_EQ(0, moxvos_mkdir(path.c_str(), 0755, nullptr));
  EXPECT_TRUE(isDirectory(dir.file("s/t")));
}

// Inside a child whose root is a scratch directory, so that paths at the
// root can be created (or shown not to be) without touching the machine.
TEST(VosMkdir, RootAndHostPartsAreNeverCreated) {
  ScratchDir dir;
  const int code = moxtest::runInChild([&] {
    if (chroot(dir.path().c_str()) != 0) {
      if (unshare(CLONE_NEWUSER) != 0 || chroot(dir.path().c_str()) != 0) {
        return 77;
      }
    }
    if (chdir("/") != 0) return 78;
    if (moxvos_mkdir("/", 0755, nullptr) != -1) return 10;
    if (moxvos_mkdir("/top/sub", 0755, nullptr) != 0) return 11;
    if (!isDirectory("/top/sub")) return 12;
    // The host part "//host" is skipped even though it is missing, so the
    // first mkdir ("//host/a") fails and so does everything after it.
    if (moxvos_mkdir("//host/a/b", 0755, nullptr) != -1) return 13;
    if (moxtest::exists("/host")) return 14;
    // Only a '/' from the fourth character on ends the host part: "///x"
    // has none, so nothing is created.
    if (moxvos_mkdir("///x", 0755, nullptr) != -1) return 15;
    if (moxtest::exists("/x")) return 16;
    // "//top/" is the host part here, and it exists: "new" is made in it.
    if (moxvos_mkdir("//top/new", 0755, nullptr) != 0) return 17;
    if (!isDirectory("/top/new")) return 18;
    return 0;
  });
  if (code == 77) GTEST_SKIP() << "cannot change the root directory here";
  EXPECT_EQ(0, code);
}

TEST(VosMkdir, NullEmptyAndBlockedPaths) {
  EXPECT_EQ(-1, moxvos_mkdir(nullptr, 0755, nullptr));
  EXPECT_EQ(-1, moxvos_mkdir("", 0755, nullptr));
  ScratchDir dir;
  ASSERT_TRUE(moxtest::writeFile(dir.file("plain"), "file"));
  // A plain file counts as present; the directories below it fail.
  errno = 0;
  EXPECT_EQ(-1, moxvos_mkdir(dir.file("plain/sub/deeper").c_str(), 0755,
                             nullptr));
  EXPECT_EQ(ENOTDIR, errno);
}

TEST(VosMkdir, VeryLongPathsFailCleanly) {
  ScratchDir dir;
  moxtest::CwdGuard cwd(dir.path());
  // 50 components of 200 bytes: only the first 4096 bytes are looked at.
  // The 20 whole components among them are made; the prefix that is the
  // whole 4096 bytes is too long for the platform, so the result is -1.
  const std::string component(200, 'd');
  std::string path, twenty;
  for (int i = 0; i < 50; ++i) {
    path += (i ? "/" : "") + component;
    if (i == 19) twenty = path;
  }
  errno = 0;
  EXPECT_EQ(-1, moxvos_mkdir(path.c_str(), 0755, nullptr));
  EXPECT_EQ(ENAMETOOLONG, errno);
  ASSERT_TRUE(isDirectory(twenty));
  DIR* deepest = opendir(twenty.c_str());
  ASSERT_NE(nullptr, deepest);
  int entries = 0;
  while (readdir(deepest) != nullptr) ++entries;
  closedir(deepest);
  EXPECT_EQ(2, entries);  // only "." and ".."

}

}  // namespace
