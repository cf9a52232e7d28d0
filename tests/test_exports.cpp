// What the shared object shows a host: every document function and the OS
// layer by name, the 22-slot table, nothing of the library's insides, and
// public headers that compile as C.
#include <dlfcn.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>

#include <gtest/gtest.h>

#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "moxolefio.h"
#include "support/vos_scratch.h"

namespace {

class Library : public ::testing::Test {
 protected:
  void SetUp() override {
    handle_ = dlopen(MOX_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle_, nullptr) << dlerror();
  }
  void TearDown() override {
    if (handle_ != nullptr) dlclose(handle_);
  }
  void* find(const char* name) { return dlsym(handle_, name); }
  void* handle_ = nullptr;
};

// Every function a public header declares for hosts, in the order given.
std::vector<std::string> declared(const char* header, const char* marker) {
  std::vector<std::string> names;
  std::istringstream lines(moxtest::readFile(std::string(MOX_SOURCE_DIR "/include/") + header));
  const std::regex declaration(std::string("^") + marker + "[^(]*?([A-Za-z_0-9]+)\\s*\\(");
  std::smatch match;
  for (std::string line; std::getline(lines, line);) {
    if (std::regex_search(line, match, declaration)) names.push_back(match[1]);
  }
  return names;
}

const std::vector<std::string> kDocumentFunctions = declared("moxolefio.h", "MOXOLE_API");
const std::vector<std::string> kVosFunctions = declared("moxvos.h", "MOXVOS_API");

TEST_F(Library, ExportsEveryHostFunctionFromTheLibraryItself) {
  // Both headers read whole: a function dropped from one shows here too.
  EXPECT_EQ(kDocumentFunctions.size(), 31u);
  EXPECT_EQ(kVosFunctions.size(), 58u);
  char expected[PATH_MAX];
  ASSERT_NE(nullptr, realpath(MOX_LIBRARY_PATH, expected));
  std::vector<std::string> names = kDocumentFunctions;
  names.insert(names.end(), kVosFunctions.begin(), kVosFunctions.end());
  for (const std::string& name : names) {
    void* symbol = find(name.c_str());
    ASSERT_NE(nullptr, symbol) << name << " is not exported";
    // Found in the library, not in this (statically linked) test.
    Dl_info info;
    ASSERT_NE(0, dladdr(symbol, &info)) << name;
    char found[PATH_MAX];
    ASSERT_NE(nullptr, realpath(info.dli_fname, found)) << name;
    EXPECT_STREQ(expected, found) << name;
    EXPECT_EQ(name, info.dli_sname);
  }
  // Called through the library, a function does its work.
  auto viaLibrary = reinterpret_cast<void* (*)(uint64_t)>(find("moxvos_malloc"));
  EXPECT_EQ(nullptr, viaLibrary(2147483648ULL));
}

TEST_F(Library, TableSlotsAreTheExportedFunctions) {
  auto get = reinterpret_cast<void (*)(void**)>(find("GetOLEInterface"));
  ASSERT_NE(get, nullptr);
  void* table[MOXOLE_INTERFACE_SLOTS + 1];
  for (void*& slot : table) slot = &table;  // a slot left alone shows
  get(table);
  EXPECT_EQ(table[MOXOLE_INTERFACE_SLOTS], &table) << "wrote past slot 21";
  const char* order[22] = {
      "hOLEopen", "hOLEopenClone", "bOLEopenStream", "bOLEopenStreamIgnoreStorage",
      "bOLEopenEmbeddedStream", "lOLEseek", "lOLEtell", "iOLEread", "iOLEclose",
      "iOLEcloseClone", "bOLEcloseStream", "hSwitchToOLE", "hSwitchFromOLE", "bOLEgetObject",
      "lOLEopenObject", "bOLEopenEmbeddedStreamEx", "iOLEobjectType", "moxoleGetObjectList",
      "hOLEopenEx", "iOLEopenStreamEx", "iOLEwrite", "iOLEGetStreamTree"};
  for (int i = 0; i < 22; ++i) {
    EXPECT_EQ(table[i], find(order[i])) << "slot " << i << " " << order[i];
  }
}

// The native C++ interface's own names (namespace mox, its classes' type
// information and vtables) are public too, and so are the standard
// library's templates that its inline code instantiates (weak symbols).
TEST_F(Library, HidesEverythingElse) {
  for (const char* name : {"iParseHeader", "lGetSect", "iBldDirInfo", "moxAllocate",
                           "moxBuildChain", "moxSeek", "moxNewHandle"}) {
    EXPECT_EQ(find(name), nullptr) << name << " leaks out of the shared object";
  }
  std::set<std::string> allowed(std::begin(kDocumentFunctions), std::end(kDocumentFunctions));
  std::string command = std::string("nm -D --defined-only ") + MOX_LIBRARY_PATH;
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  char line[512];
  int exported = 0;
  while (fgets(line, sizeof line, pipe) != nullptr) {
    std::string text = line;
    text.pop_back();
    const size_t last = text.rfind(' ');
    const std::string symbol = text.substr(last + 1);
    const char type = last > 0 ? text[last - 1] : '?';
    ++exported;
    // The native interface's namespace (functions, type information) is
    // public too; nothing of its internals or of the standard library is.
    const bool native = (symbol.rfind("_ZN3mox", 0) == 0 || symbol.rfind("_ZNK3mox", 0) == 0 ||
                         symbol.rfind("_ZTIN3mox", 0) == 0 || symbol.rfind("_ZTSN3mox", 0) == 0 ||
                         symbol.rfind("_ZTVN3mox", 0) == 0) &&
                        symbol.find("6detail") == std::string::npos &&
                        !std::regex_search(symbol, std::regex("4Impl[0-9C]"));
    EXPECT_TRUE(allowed.count(symbol) || symbol.rfind("moxvos_", 0) == 0 || native) << symbol;
  }
  pclose(pipe);
  EXPECT_GT(exported, 80);
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

TEST(PublicHeaders, CompileAsC) {
  if (system("command -v cc >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "no C compiler on this machine";
  }
  moxtest::ScratchDir dir;
  // Strict C99 without extensions: struct stat64 is only declared there.
  const std::string plain =
      "#include \"moxolefio.h\"\n"
      "#include \"moxvos.h\"\n"
      "int host(void) {\n"
      "  void* table[MOXOLE_INTERFACE_SLOTS];\n"
      "  GetOLEInterface(table);\n"
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
