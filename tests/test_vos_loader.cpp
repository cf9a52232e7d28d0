// Dynamic loading and the load log kept while MOX_DLL_LOG is set.
#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "moxvos.h"
#include "support/vos_scratch.h"

namespace {

using moxtest::ScratchDir;

const char kMissing[] = "libmoxvos-test-no-such-library.so";

// Runs a test in a scratch working directory with MOX_DLL_LOG as asked,
// restoring both afterwards.
class VosLoader : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* value = getenv("MOX_DLL_LOG");
    hadValue_ = value != nullptr;
    if (hadValue_) saved_ = value;
    cwd_ = std::make_unique<moxtest::CwdGuard>(dir_.path());
  }
  void TearDown() override {
    cwd_.reset();
    if (hadValue_) {
      setenv("MOX_DLL_LOG", saved_.c_str(), 1);
    } else {
      unsetenv("MOX_DLL_LOG");
    }
  }
  std::string log() const { return moxtest::readFile(dir_.file("dll_debug.log")); }
  bool logExists() const { return moxtest::exists(dir_.file("dll_debug.log")); }

  ScratchDir dir_;

 private:
  std::unique_ptr<moxtest::CwdGuard> cwd_;
  bool hadValue_ = false;
  std::string saved_;
};

TEST_F(VosLoader, WithoutTheVariableNothingIsLogged) {
  unsetenv("MOX_DLL_LOG");
  void* handle = moxvos_dlopen(MOX_LIBRARY_PATH, RTLD_NOW);
  ASSERT_NE(nullptr, handle) << moxvos_dlerror();
  EXPECT_EQ(nullptr, moxvos_dlopen(kMissing, RTLD_NOW));
  moxvos_dll_log("anything %s \n", "at all");
  EXPECT_FALSE(logExists());
  EXPECT_EQ(0, moxvos_dlclose(handle));
}

TEST_F(VosLoader, WithTheVariableLoadsAreAppended) {
  setenv("MOX_DLL_LOG", "1", 1);
  void* handle = moxvos_dlopen(MOX_LIBRARY_PATH, RTLD_NOW);
  ASSERT_NE(nullptr, handle) << moxvos_dlerror();
  const std::string first =
      std::string("moxvos_dlopen dll ") + MOX_LIBRARY_PATH + " \n";
  EXPECT_EQ(first, log());  // a successful load: one line

  EXPECT_EQ(nullptr, moxvos_dlopen(kMissing, RTLD_LAZY));
  const std::string failed = std::string("moxvos_dlopen dll ") + kMissing +
                             " \nERROR: moxvos_dlopen dll " + kMissing + " \n";
  EXPECT_EQ(first + failed, log());  // a failed one: two more, in order
  // The platform's reason is not logged; it waits in dlerror.
  const char* reason = moxvos_dlerror();
  ASSERT_NE(nullptr, reason);
  EXPECT_NE(nullptr, strstr(reason, kMissing));
  EXPECT_EQ(nullptr, moxvos_dlerror());  // and is consumed by reading it
  EXPECT_EQ(0, moxvos_dlclose(handle));
}

TEST_F(VosLoader, AnEmptyValueCountsAsSet) {
  setenv("MOX_DLL_LOG", "", 1);
  moxvos_dll_log("first %s \n", "line");
  moxvos_dll_log("second %s \n", "line");
  moxvos_dll_log("no argument used\n", nullptr);
  EXPECT_EQ("first line \nsecond line \nno argument used\n", log());
}

TEST_F(VosLoader, AnUnwritableLogIsIgnored) {
  setenv("MOX_DLL_LOG", "1", 1);
  ASSERT_EQ(0, mkdir(dir_.file("dll_debug.log").c_str(), 0755));
  moxvos_dll_log("lost %s \n", "line");
  EXPECT_EQ(nullptr, moxvos_dlopen(kMissing, RTLD_NOW));
  void* handle = moxvos_dlopen(MOX_LIBRARY_PATH, RTLD_NOW);
  EXPECT_NE(nullptr, handle);
  moxvos_dll_log(nullptr, "ignored");
}

TEST_F(VosLoader, SymbolsOfALoadedLibraryWork) {
  unsetenv("MOX_DLL_LOG");
  void* handle = moxvos_dlopen(MOX_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(nullptr, handle);
  using Version = const char* (*)();
  auto version =
      reinterpret_cast<Version>(moxvos_dlsym(handle, "moxoleVersion"));
  ASSERT_NE(nullptr, version);
  EXPECT_STRNE("", version());
  EXPECT_EQ(nullptr, moxvos_dlsym(handle, "moxvos_no_such_symbol"));
  EXPECT_NE(nullptr, moxvos_dlerror());
}

TEST_F(VosLoader, DlcloseUnloadsNothing) {
  void* handle = moxvos_dlopen(MOX_LIBRARY_PATH, RTLD_NOW);
  ASSERT_NE(nullptr, handle);
  // More closes than this process ever made opens: a real dlclose would
  // have unloaded the library long before the last one.
  for (int i = 0; i < 64; ++i) EXPECT_EQ(0, moxvos_dlclose(handle));
  EXPECT_NE(nullptr, dlopen(MOX_LIBRARY_PATH, RTLD_NOW | RTLD_NOLOAD));
  EXPECT_NE(nullptr, moxvos_dlsym(handle, "moxvos_dlopen"));
}

}  // namespace
