// The OS layer as hosts see it: every moxvos_* function is exported by the
// shared library, and the public header compiles as C.
#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

#include "moxvos.h"
#include "support/vos_scratch.h"

namespace {

const char* const kExported[] = {
    "moxvos_opendir",       "moxvos_readdir",        "moxvos_readdir_r",
    "moxvos_closedir",      "moxvos_getcwd",         "moxvos_chdir",
    "moxvos_rmdir",         "moxvos_rename",         "moxvos_unlink",
    "moxvos_chmod",         "moxvos_umask",          "moxvos_access",
    "moxvos_utimes",        "moxvos_stat",           "moxvos_fstat",
    "moxvos_fstat64",       "moxvos_statfs",         "moxvos_filesize",
    "moxvos_filesize64",    "moxvos_open",           "moxvos_open64",
    "moxvos_fopen",         "moxvos_fopen64",        "moxvos_close",
    "moxvos_fclose",        "moxvos_read",           "moxvos_write",
    "moxvos_fread",         "moxvos_fwrite",         "moxvos_lseek",
    "moxvos_fseek",         "moxvos_ftell",          "moxvos_lseek64",
    "moxvos_fseek64",       "moxvos_ftell64",        "moxvos_fsync",
    "moxvos_ftruncate",     "moxvos_malloc",         "moxvos_calloc",
    "moxvos_realloc",       "moxvos_Saferealloc",    "moxvos_valloc",
    "moxvos_free",          "moxvos_flock_init",     "moxvos_flock_trywrlock",
    "moxvos_flock_unlock",  "moxvos_flock_free",     "moxvos_tempnam",
    "moxvos_mkdir",         "moxvos_dll_log",        "moxvos_dlopen",
    "moxvos_dlsym",         "moxvos_dlerror",        "moxvos_dlclose",
    "moxvos_exit",          "moxvos_system",         "moxvos_usleep",
    "moxvos_dummy",
};

TEST(VosInterface, EveryFunctionIsExportedByTheSharedLibrary) {
  void* library = dlopen(MOX_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(nullptr, library) << dlerror();
  char expected[PATH_MAX];
  ASSERT_NE(nullptr, realpath(MOX_LIBRARY_PATH, expected));
  for (const char* name : kExported) {
    void* symbol = dlsym(library, name);
    ASSERT_NE(nullptr, symbol) << name << " is not exported";
    // Found in the library itself, not in this (statically linked) test.
    Dl_info info;
    ASSERT_NE(0, dladdr(symbol, &info)) << name;
    char found[PATH_MAX];
    ASSERT_NE(nullptr, realpath(info.dli_fname, found)) << name;
    EXPECT_STREQ(expected, found) << name;
    EXPECT_STREQ(name, info.dli_sname);
  }
  // Called through the library, a function does its work.
  using Malloc = void* (*)(uint64_t);
  auto viaLibrary = reinterpret_cast<Malloc>(dlsym(library, "moxvos_malloc"));
  EXPECT_EQ(nullptr, viaLibrary(2147483648ULL));
}

// Compiles a small C host against the header with the C compiler.
int compileAsC(const moxtest::ScratchDir& dir, const std::string& flags,
               const std::string& source) {
  const std::string file = dir.file("host.c");
  if (!moxtest::writeFile(file, source)) return -1;
  const std::string command = "cc " + flags +
                              " -Wall -Wextra -Werror -fsyntax-only -I" +
                              MOX_SOURCE_DIR + "/include " + file +
                              " 2>" + dir.file("errors.txt");
  int status = system(command.c_str());
  if (status != 0) ADD_FAILURE() << moxtest::readFile(dir.file("errors.txt"));
  return status;
}

TEST(VosInterface, HeaderIsValidC) {
  if (system("command -v cc >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "no C compiler on this machine";
  }
  moxtest::ScratchDir dir;
  // Strict C99 without extensions: struct stat64 is only declared there.
  const std::string plain =
      "#include \"moxvos.h\"\n"
      "int host(void) {\n"
      "  _MoxvosFlock lock;\n"
      "  int64_t fd = moxvos_fopen(\"x\", \"rb\", 0);\n"
      "  void* block = moxvos_malloc(16);\n"
      "  moxvos_free(block);\n"
      "  (void)moxvos_flock_init(&lock, 0, 0, 0);\n"
      "  return (int)moxvos_fread((int)fd, 0, 1, 0);\n"
      "}\n";
  EXPECT_EQ(0, compileAsC(dir, "-std=c99 -pedantic", plain));
  EXPECT_EQ(0, compileAsC(dir, "-std=c11", plain));
  // With the large-file interfaces the full record is usable.
  const std::string large =
      "#define _GNU_SOURCE\n"
      "#include \"moxvos.h\"\n"
      "int64_t host(int fd) {\n"
      "  struct stat64 record;\n"
      "  return moxvos_fstat64(fd, &record) == 0 ? record.st_size : -1;\n"
      "}\n";
  EXPECT_EQ(0, compileAsC(dir, "-std=c99", large));
}

}  // namespace
