// The interface as a whole, as a host meets it: what the shared object
// exports (every document function and the OS layer by name, the 22-slot
// table, nothing of the library's insides, public headers that compile as
// C), and every exported function given a null handle, a null buffer or a
// negative or absurd count or size, which must return its failure value
// and touch nothing: no call reaches the host's I/O object or memory, the
// handles' state stays as it was (only the failure reason may change), and
// the OS layer leaves its file, its descriptor's offset and its folder alone.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <limits.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statfs.h>

#include <gtest/gtest.h>

#include <functional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "host/moxhost.h"
#include "interface/mox_file.h"
#include "moxolefio.h"
#include "moxvos.h"
#include "support/open_doc.h"
#include "support/vos_scratch.h"
#include "support/write_kit.h"

namespace {

// === Exports ==============================================================

// A symbol as the shared object itself exports it.
void* find(const char* name) {
  static void* library = dlopen(MOX_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  return library == nullptr ? nullptr : dlsym(library, name);
}

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

// The shared object's dynamic symbols: every function a public header
// declares, by its C name; besides them only what belongs to the native
// C++ interface's namespace (functions, type information, vtables) but not
// its internals, and nothing of the library's insides or the standard
// library.
TEST(Library, ExportsEveryHostFunctionAndHidesEverythingElse) {
  // Both headers read whole: a function dropped from one shows here too.
  EXPECT_EQ(kDocumentFunctions.size(), 31u);
  EXPECT_EQ(kVosFunctions.size(), 58u);
  std::set<std::string> hostFunctions(kDocumentFunctions.begin(), kDocumentFunctions.end());
  hostFunctions.insert(kVosFunctions.begin(), kVosFunctions.end());
  std::set<std::string> exported;
  FILE* pipe = popen((std::string("nm -D --defined-only ") + MOX_LIBRARY_PATH).c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  char line[512];
  while (fgets(line, sizeof line, pipe) != nullptr) {
    const std::string text = line;
    exported.insert(text.substr(text.rfind(' ') + 1, text.size() - text.rfind(' ') - 2));
  }
  pclose(pipe);
  for (const std::string& name : hostFunctions) EXPECT_EQ(exported.count(name), 1u) << name << " is not exported";
  for (const std::string& symbol : exported) {
    bool native = false;
    for (const char* prefix : {"_ZN3mox", "_ZNK3mox", "_ZTIN3mox", "_ZTSN3mox", "_ZTVN3mox"}) native |= symbol.rfind(prefix, 0) == 0;
    native = native && symbol.find("6detail") == std::string::npos && !std::regex_search(symbol, std::regex("4Impl[0-9C]"));
    EXPECT_TRUE(hostFunctions.count(symbol) || native) << symbol;
  }
}

TEST(Library, TableSlotsAreTheExportedFunctions) {
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
  for (int i = 0; i < 22; ++i) EXPECT_EQ(table[i], find(order[i])) << "slot " << i << " " << order[i];
}

// Small C hosts against the headers, compiled with the C compiler.
TEST(PublicHeaders, CompileAsC) {
  if (system("command -v cc >/dev/null 2>&1") != 0) GTEST_SKIP() << "no C compiler on this machine";
  moxtest::ScratchDir dir;
  // Strict C99 without extensions, where struct stat64 is only declared;
  // with the large-file interfaces the full record is usable.
  const std::string source =
      "#include \"moxolefio.h\"\n"
      "#include \"moxvos.h\"\n"
      "int host(void) {\n"
      "  void* table[MOXOLE_INTERFACE_SLOTS];\n"
      "  _MoxvosFlock lock;\n"
      "  GetOLEInterface(table);\n"
      "  return moxvos_flock_init(&lock, 0, 0, 0);\n"
      "}\n"
      "#ifdef _GNU_SOURCE\n"
      "int64_t size(int fd) {\n"
      "  struct stat64 record;\n"
      "  return moxvos_fstat64(fd, &record) == 0 ? record.st_size : -1;\n"
      "}\n"
      "#endif\n";
  ASSERT_TRUE(moxtest::writeFile(dir.file("host.c"), source));
  for (const char* flags : {"-std=c99 -pedantic", "-std=c11", "-std=c99 -D_GNU_SOURCE"}) {
    const std::string command = std::string("cc ") + flags + " -Wall -Wextra -Werror -fsyntax-only -I" MOX_SOURCE_DIR
                                "/include " + dir.file("host.c") + " 2>" + dir.file("errors.txt");
    EXPECT_EQ(0, system(command.c_str())) << flags << ":\n" << moxtest::readFile(dir.file("errors.txt"));
  }
}

// === Bad arguments ========================================================

// A reader handle with a current stream at position 7, a writer handle
// with a current stream, and a file of the OS layer with its descriptor at
// offset 2.
struct Session {
  Session() : doc(writekit::write({{"S", 2, cfb::Bytes(300, 5)}, {"WordDocument", 2, cfb::Bytes(50, 6)}, {"_1", 1, {}}})) {
    if (h != nullptr && bOLEopenStream(h, "S") == 1) lOLEseek(h, 7, 0);
    if (w != nullptr) iOLEopenStreamEx(w, "W", 2, 1);
    fd = static_cast<int>(moxvos_fopen(path.c_str(), "w+", nullptr));
    moxvos_write(fd, "abcdef", 6);
    moxvos_lseek(fd, 2, SEEK_SET);
  }
  ~Session() { moxvos_close(fd); }

  OpenDoc doc;
  writekit::NewFile file;
  moxhost::MemoryIo& io = doc.io();
  moxhost::CountingMemory& memory = doc.memory();
  moxhost::MemoryIo& out = file.io();
  moxhost::PoolServices& host = file.host();
  moxhost::ScratchDir scratch;
  _MoxOleFile* h = doc.handle();
  _MoxOleFile* w = file.handle();
  std::string path = scratch.file("f");
  int fd = -1;
};

// What a call could have touched, as text.
std::string footprint(Session& s) {
  std::string out;
  for (moxhost::MemoryIo* io : {&s.io, &s.out}) {
    for (int64_t n : {io->openCalls(), io->closeCalls(), io->readCalls(), io->seekCalls(), io->writeCalls(), io->position()}) {
      out += std::to_string(n) + " ";
    }
  }
  for (int64_t n : {s.memory.allocations(), s.memory.liveBlocks(), s.host.heap().allocations(), s.host.poolsCreated(),
                    s.host.poolAllocateCalls(), s.host.poolArrayCalls(), moxvos_lseek(s.fd, 0, SEEK_CUR), moxvos_filesize(s.fd)}) {
    out += std::to_string(n) + " ";
  }
  // The handles' bytes up to the failure reason, which is theirs to keep.
  const size_t kept = offsetof(_MoxOleFile, iFailure);
  out.append(reinterpret_cast<const char*>(s.h), kept).append(reinterpret_cast<const char*>(s.w), kept);
  DIR* dir = opendir(s.scratch.path().c_str());
  for (dirent* e = readdir(dir); e != nullptr; e = readdir(dir)) out += e->d_name;
  closedir(dir);
  return out;
}

struct Row {
  const char* calls;
  std::function<bool(Session&)> failed;  // true when every call returned its failure value
};

// One row per function or family, its bad calls joined with &&.
#define BAD(...) {#__VA_ARGS__, [](Session& s) { (void)s; return __VA_ARGS__; }}

const char kPath[1][36] = {"_1"};
char text[64];
unsigned char bytes[16];
_MoxOleTreeNode* tree;
_MoxOleObjectEntry* list;
struct stat status;
struct statfs volume;

const Row kDocumentRows[] = {
    BAD((GetOLEInterface(nullptr), true)),
    BAD(!hOLEopen(nullptr, s.memory.memory()) && !hOLEopen(s.io.io(), nullptr) && !hOLEopenEXT(nullptr, s.memory.memory(), 0)),
    BAD(!hOLEopenClone(nullptr) && iOLEclose(nullptr) == -1 && iOLEcloseClone(nullptr) == -1 && iOLEcloseEXT(nullptr, 1) == -1),
    BAD(bOLEopenStream(nullptr, "S") == 0 && bOLEopenStream(s.h, nullptr) == 0),
    BAD(!bOLEopenStreamIgnoreStorage(nullptr, "S") && !bOLEopenStreamIgnoreStorage(s.h, nullptr)),
    BAD(!bOLEopenEmbeddedStream(nullptr, "S", "_1") && !bOLEopenEmbeddedStream(s.h, nullptr, nullptr)),
    BAD(!bOLEopenEmbeddedStreamEx(nullptr, kPath, 1, "S") && !bOLEopenEmbeddedStreamEx(s.h, kPath, 1, nullptr)),
    BAD(lOLEseek(nullptr, 0, 0) == -1 && lOLEseek(s.h, 0, 7) == -1 && lOLEtell(nullptr) == -1),
    BAD(iOLEread(nullptr, bytes, 4) == 0 && iOLEread(s.h, nullptr, 10) == 0 && bOLEcloseStream(nullptr, nullptr) == 0),
    BAD(!hSwitchToOLE(nullptr) && !hSwitchFromOLE(nullptr)),
    BAD(bOLEgetObject(nullptr, 1, bytes, 2) == 0 && bOLEgetObject(s.h, 1, nullptr, 3) == 0),
    BAD(bOLEgetObject(s.h, -1, bytes, 2) == 0 && bOLEgetObject(s.h, INT64_MIN, bytes, 2) == 0),
    BAD(lOLEopenObject(nullptr, "_1", 3) == 0 && lOLEopenObject(s.h, nullptr, 3) == 0),
    BAD(iOLEobjectType(nullptr, nullptr, 0, "S") == 0 && iOLEobjectType(s.h, nullptr, 0, nullptr) == 0),
    BAD(moxoleGetObjectList(nullptr, nullptr, 0, &list) == 0 && moxoleGetObjectList(s.h, nullptr, 0, nullptr) == 0),
    BAD(!hOLEopenEx(nullptr, s.host.services(), 1) && !hOLEopenEx(s.io.io(), nullptr, 1)),
    BAD(!hOLEopenEx(s.io.io(), s.host.services(), 2) && !hOLEopenEx(s.io.io(), s.host.services(), 4)),
    BAD(iOLEopenStreamEx(nullptr, "A", 2, 1) == 34 && iOLEopenStreamEx(s.w, nullptr, 2, 1) == 34),
    BAD(iOLEopenStreamEx(s.w, "A", 2, 9) == 34 && iOLEopenStreamEx(s.w, "A", 9, 1) == 34),
    BAD(iOLEwrite(nullptr, bytes, 1) == 34 && iOLEwrite(s.w, nullptr, 10) == 34 && iOLEwrite(s.w, bytes, INT_MIN) == 34),
    BAD(iOLEGetStreamTree(nullptr, s.memory.memory(), &tree) == 34 && iOLEGetStreamTree(s.h, nullptr, &tree) == 34),
    BAD(iOLEGetStreamTree(s.h, s.memory.memory(), nullptr) == 34),
    BAD(iGetStreamChain(nullptr, "S", nullptr, 0) == -1 && iGetStreamChain(s.h, nullptr, nullptr, 0) == -1),
    BAD(iFindIStreamGivenIStorage(nullptr, "S", 0) == -1 && iFindIStreamGivenIStorage(s.h, nullptr, 0) == -1),
    BAD(iFindIStreamGivenIStorage(s.h, "S", INT_MIN) == -1),
    BAD(iReadStreamChain(1, nullptr) == -1 && iReadStreamChain(-1, s.h) == -1 && iReadStreamChain(INT_MAX, s.h) == -1),
    BAD(moxoleFailure(nullptr, text, 8) == -1 && moxoleFailure(s.h, nullptr, 8) == -1 && moxoleFailure(s.h, text, -1) == -1),
    BAD(moxoleOpenFailure(nullptr, s.memory.memory(), text, 8) == -1 && moxoleOpenFailure(s.io.io(), s.memory.memory(), nullptr, 8) == -1),
};

// The allocation limits themselves are in test_vos.
const Row kOsLayerRows[] = {
    BAD(!moxvos_opendir(nullptr, nullptr) && !moxvos_readdir(nullptr, nullptr) && !moxvos_readdir_r(nullptr, nullptr, nullptr)),
    BAD(moxvos_closedir(nullptr, nullptr) == -1 && !moxvos_getcwd(nullptr, 4096, nullptr) && moxvos_chdir(nullptr, nullptr) == -1),
    BAD(moxvos_rmdir(nullptr, nullptr) == -1 && moxvos_unlink(nullptr, nullptr) == -1),
    BAD(moxvos_rename(nullptr, s.path.c_str(), nullptr) == -1 && moxvos_rename(s.path.c_str(), nullptr, nullptr) == -1),
    BAD(moxvos_chmod(nullptr, 0600, nullptr) == -1 && moxvos_access(nullptr, F_OK, nullptr) == -1 && moxvos_utimes(nullptr, nullptr) == -1),
    BAD(moxvos_stat(nullptr, &status, nullptr) == -1 && moxvos_stat(s.path.c_str(), nullptr, nullptr) == -1),
    BAD(moxvos_fstat(s.fd, nullptr) == -1 && moxvos_fstat64(s.fd, nullptr) == -1 && moxvos_filesize(-1) == -1),
    BAD(moxvos_statfs(nullptr, &volume) == -1 && moxvos_statfs(s.scratch.path().c_str(), nullptr) == -1),
    BAD(moxvos_open(nullptr, O_RDWR | O_CREAT, nullptr) == -1 && moxvos_open64(nullptr, O_RDWR | O_CREAT, nullptr) == -1),
    BAD(moxvos_fopen(nullptr, "w", nullptr) == -1 && moxvos_fopen64(nullptr, "w", nullptr) == -1 && moxvos_close(-1) == -1),
    BAD(moxvos_read(s.fd, nullptr, 4) == -1 && moxvos_read(s.fd, bytes, UINT64_MAX) == -1),
    // At the end, where the platform itself would find nothing to refuse.
    BAD(moxvos_lseek(s.fd, 0, SEEK_END) == 6 && moxvos_read(s.fd, nullptr, 4) == -1 && moxvos_lseek(s.fd, 2, SEEK_SET) == 2),
    BAD(moxvos_write(s.fd, nullptr, 4) == -1 && moxvos_write(s.fd, bytes, 1ull << 63) == -1),
    BAD(moxvos_fread(s.fd, nullptr, 1, 4) == 0 && moxvos_fread(s.fd, bytes, UINT64_MAX, 2) == 0),
    BAD(moxvos_fwrite(s.fd, nullptr, 2, 2) == 0 && moxvos_fwrite(s.fd, bytes, 1ull << 33, 1ull << 33) == 0),
    BAD(moxvos_lseek(-1, 0, SEEK_SET) == -1 && moxvos_lseek(s.fd, -5, SEEK_SET) == -1 && moxvos_lseek64(s.fd, 0, 9) == -1),
    BAD(moxvos_fseek(-1, 0, SEEK_SET) == -1 && moxvos_ftell(-1) == -1 && moxvos_fseek64(-1, 0, SEEK_SET) == -1 && moxvos_ftell64(-1) == -1),
    BAD(moxvos_fsync(-1) == -1 && moxvos_ftruncate(s.fd, -1) == -1),
    BAD(!moxvos_realloc(nullptr, UINT64_MAX) && !moxvos_Saferealloc(nullptr, UINT64_MAX) && !moxvos_valloc(UINT64_MAX)),
    BAD(moxvos_flock_init(nullptr, O_RDWR | O_CREAT, s.scratch.file("lock").c_str(), nullptr) == -1),
    BAD(moxvos_flock_trywrlock(nullptr, SEEK_SET, 0, 0, nullptr) == -1 && moxvos_flock_unlock(nullptr, SEEK_SET, 0, 0, nullptr) == -1),
    BAD(moxvos_flock_free(nullptr, nullptr) == -1 && moxvos_mkdir(nullptr, 0755, nullptr) == -1 && moxvos_mkdir("", 0755, nullptr) == -1),
    BAD(!moxvos_dlsym(nullptr, nullptr)),
};

void runRows(const Row* rows, size_t count) {
  Session s;
  ASSERT_NE(s.h, nullptr);
  ASSERT_NE(s.w, nullptr);
  ASSERT_GE(s.fd, 0);
  for (size_t i = 0; i < count; ++i) {
    const std::string before = footprint(s);
    EXPECT_TRUE(rows[i].failed(s)) << rows[i].calls << ": not every call failed";
    EXPECT_TRUE(footprint(s) == before) << rows[i].calls << ": touched something";
  }
  // Both handles carry on where they were.
  unsigned char got[4];
  ASSERT_EQ(iOLEread(s.h, got, 4), 4u);
  EXPECT_EQ(lOLEtell(s.h), 11);
  EXPECT_EQ(got[0], 5);
  EXPECT_EQ(iOLEwrite(s.w, got, 4), 0) << "the writer's stream is still current";
}

TEST(BadArguments, DocumentFunctionsFailAndTouchNothing) {
  runRows(kDocumentRows, sizeof kDocumentRows / sizeof kDocumentRows[0]);
}

TEST(BadArguments, OsLayerFunctionsFailAndTouchNothing) {
  runRows(kOsLayerRows, sizeof kOsLayerRows / sizeof kOsLayerRows[0]);
}

}  // namespace
