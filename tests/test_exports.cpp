// What the shared object shows a host: every document function and the OS
// layer by name, nothing of the library's insides.
#include <dlfcn.h>
#include <stdio.h>

#include <gtest/gtest.h>

#include <iterator>
#include <regex>
#include <set>
#include <string>

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

// Every name a host may look up, besides the moxvos_* layer.
const char* const kDocumentFunctions[] = {
    "GetOLEInterface", "moxoleVersion", "hOLEopen", "hOLEopenEXT", "hOLEopenClone",
    "bOLEopenStream", "bOLEopenStreamIgnoreStorage", "bOLEopenEmbeddedStream", "lOLEseek",
    "lOLEtell", "iOLEread", "iOLEclose", "iOLEcloseClone", "iOLEcloseEXT", "bOLEcloseStream",
    "hSwitchToOLE", "hSwitchFromOLE", "bOLEgetObject", "lOLEopenObject",
    "bOLEopenEmbeddedStreamEx", "iOLEobjectType", "moxoleGetObjectList", "hOLEopenEx",
    "iOLEopenStreamEx", "iOLEwrite", "iOLEGetStreamTree", "iGetStreamChain",
    "iFindIStreamGivenIStorage", "iReadStreamChain", "moxoleFailure", "moxoleOpenFailure"};

TEST_F(Library, ExportsTheDocumentFunctionsByName) {
  for (const char* name : kDocumentFunctions) EXPECT_NE(find(name), nullptr) << name;
  EXPECT_NE(find("moxvos_fopen"), nullptr);
}

TEST_F(Library, TableSlotsAreTheExportedFunctions) {
  auto get = reinterpret_cast<void (*)(void**)>(find("GetOLEInterface"));
  ASSERT_NE(get, nullptr);
  void* table[22] = {};
  get(table);
  const char* order[22] = {
      "hOLEopen", "hOLEopenClone", "bOLEopenStream", "bOLEopenStreamIgnoreStorage",
      "bOLEopenEmbeddedStream", "lOLEseek", "lOLEtell", "iOLEread", "iOLEclose",
      "iOLEcloseClone", "bOLEcloseStream", "hSwitchToOLE", "hSwitchFromOLE", "bOLEgetObject",
      "lOLEopenObject", "bOLEopenEmbeddedStreamEx", "iOLEobjectType", "moxoleGetObjectList",
      "hOLEopenEx", "iOLEopenStreamEx", "iOLEwrite", "iOLEGetStreamTree"};
  for (int i = 0; i < 22; ++i) {
    void* named = find(order[i]);
    if (named == nullptr) continue;  // reported by the test above
    EXPECT_EQ(table[i], named) << "slot " << i << " " << order[i];
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

}  // namespace
