// Fuzz target: the input is a program of creates and writes (see
// write_program.h).  The target runs it against a new document while
// keeping its own account of what the document must hold, checks every
// status the writer returns against that account, closes the document,
// and reads the file back twice, with the reader and through the writer's
// entry for reading: every entry must be where it was created, with its
// name, type and every byte of its stream.  The host's memory, the pools
// and the I/O object must be left as they were found.
//
// Allocation and output failures can be injected; a run in which one
// fired is only required to fail cleanly, not to round-trip.
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "fuzz/write_program.h"
#include "host/moxhost.h"
#include "moxolefio.h"

namespace {

// What the target expects a document to hold: every entry created, in
// creation order (which is directory order), with its parent, name, type
// and bytes.  Entries made from raw paths have a known index, type and
// bytes but no known place or name.
//
// Names are kept by the writer up to kKeptName bytes and stored in the file
// up to kStoredName; paths longer than kLongestPath are cut by the writer
// before they are split.
constexpr size_t kKeptName = 36;
constexpr size_t kStoredName = 31;
constexpr size_t kLongestPath = 1023;

using moxfuzz::require;

struct ModelEntry {
  int type = 0;          // 1 storage, 2 stream, 5 root
  bool placed = false;   // parent and name known
  int parent = -1;
  std::string name;      // as the writer keeps it
  std::vector<uint8_t> data;
};

class WriteModel {
 public:
  std::vector<ModelEntry> entries{{5, true, -1, "Root Entry", {}}};  // entry 0 is the root
  int current = -1;                                             // the current writer stream, or -1

  bool allPlaced() const {
    return std::all_of(entries.begin(), entries.end(), [](const ModelEntry& e) { return e.placed; });
  }

  // The path of entry k with every name cut to `cut` bytes, each with a
  // leading backslash ("" for the root); false when some entry on the way
  // is not placed or, its name cut alike, not alone among its siblings.
  // Cut to what the file stores, a true path leads to k in a copy of the
  // tree read back from the file; cut to what the writer keeps, names are
  // never alike.
  bool pathOf(int k, size_t cut, std::string* path) const {
    std::string out;
    for (int at = k; at != 0; at = entries[at].parent) {
      if (!entries[at].placed || namedAlike(entries[at].parent, entries[at].name, cut) > 1) return false;
      out = "\\" + entries[at].name.substr(0, cut) + out;
    }
    *path = out;
    return true;
  }

  // Placed children of `parent` whose names, cut to `cut` bytes, match
  // `name` cut alike, compared the way the writer compares names: ASCII
  // letters folded to lower case (the target never sets a locale), bytes
  // otherwise as they are; names hold no zero byte.
  long namedAlike(int parent, const std::string& name, size_t cut) const {
    const std::string mine = name.substr(0, cut);
    return std::count_if(entries.begin(), entries.end(), [&](const ModelEntry& e) {
      const std::string theirs = e.name.substr(0, cut);
      return e.placed && e.parent == parent && theirs.size() == mine.size() && strcasecmp(theirs.c_str(), mine.c_str()) == 0;
    });
  }
};

constexpr int kMaxOps = 256;
// Bytes an input may write: enough to need two DIFAT sectors (a little
// over 15 MB of sectors) when it asks for a large document, little enough
// to keep the others fast.
constexpr uint64_t kLargeBudget = 16u << 20;
constexpr uint64_t kSmallBudget = 512u << 10;

class Run {
 public:
  Run(const MoxOleInterface& api, _MoxOleFile* h, bool faultsArmed, uint64_t budget)
      : api_(api), h_(h), faultsArmed_(faultsArmed), budget_(budget) {}

  WriteModel& model() { return model_; }

  void step(FuzzInput& in) {
    switch (in.byte() % moxfuzz::kWriteOpCount) {
      case moxfuzz::kOpCreateStorage: create(in, 1); break;
      case moxfuzz::kOpCreateStream: create(in, 2); break;
      case moxfuzz::kOpWrite: write(in.u16(), in.byte()); break;
      case moxfuzz::kOpWriteLarge: write(static_cast<uint64_t>(in.u16()) << 8, in.byte()); break;
      case moxfuzz::kOpCreateRawPath: createRaw(in); break;
      case moxfuzz::kOpOpenForReading: openForReading(in.byte()); break;
      case moxfuzz::kOpCloseStream: closeStream(); break;
      case moxfuzz::kOpOddCall: oddCall(in.byte()); break;
    }
  }

 private:
  // A status the account predicts.  With failures armed the writer may
  // also report no memory, or miss an entry whose lookup needed memory.
  void expect(int got, int want, const char* what) {
    require(got == want || (faultsArmed_ && (got == 2 || got == 6)), what);
  }

  // A creation whose outcome the account cannot predict: made, refused as
  // taken, or out of memory with failures armed.
  void requireCreated(int status, const char* what) {
    require(status == 0 || status == 6 || (faultsArmed_ && status == 2), what);
  }

  void create(FuzzInput& in, int type) {
    const uint8_t choice = in.byte();
    int parent = (choice & 0x7F) % static_cast<int>(model_.entries.size());
    // An empty name as a path component would read as a doubled
    // backslash; such entries stay leaves.
    if (!model_.entries[parent].placed || (parent != 0 && model_.entries[parent].name.empty())) parent = 0;
    std::string name = in.text(48);
    std::replace(name.begin(), name.end(), '\\', '/');
    std::string path;
    model_.pathOf(parent, kKeptName, &path);
    path += "\\" + name;
    // Without its leading backslash, unless the first name is empty.
    if ((choice & 0x80) && path.size() > 1 && path[1] != '\\') path.erase(0, 1);
    if (path.size() > kLongestPath) return;
    const std::string kept = name.substr(0, kKeptName);
    const int status = api_.iOLEopenStreamEx(h_, path.c_str(), type, 1);
    model_.current = -1;
    const bool taken = model_.namedAlike(parent, kept, kKeptName) > 0;
    if (model_.allPlaced()) {
      expect(status, taken ? 6 : 0, "creating an entry");
    } else {
      requireCreated(status, "creating an entry");
    }
    if (status == 0) {
      require(!taken, "two siblings whose names differ only in case");
      model_.entries.push_back({type, true, parent, kept, {}});
      model_.current = static_cast<int>(model_.entries.size()) - 1;
    }
  }

  void createRaw(FuzzInput& in) {
    const int type = in.byte() % 4;
    const std::string path = in.text(1100, true);
    const int status = api_.iOLEopenStreamEx(h_, path.c_str(), type, 1);
    if (type != 1 && type != 2) {
      // Refused before the current writer stream is ended: it stays current.
      expect(status, 34, "creating an entry of a type that does not exist");
      return;
    }
    model_.current = -1;
    requireCreated(status, "creating an entry by a raw path");
    if (status != 0) return;
    model_.entries.push_back({type, false, -1, "", {}});
    model_.current = static_cast<int>(model_.entries.size()) - 1;
  }

  void write(uint64_t length, uint8_t pattern) {
    if (written_ + length > budget_) length = budget_ - written_;
    written_ += length;
    const int current = model_.current;
    // One buffer for every write of the input, as large as the largest.
    if (data_.size() < length) data_.resize(length);
    uint8_t* data = data_.data();
    const uint64_t offset = current < 0 ? 0 : model_.entries[current].data.size();
    moxfuzz::fillPattern(data, length, static_cast<uint32_t>(current), pattern, offset);
    const int status = api_.iOLEwrite(h_, data, static_cast<int>(length));
    expect(status, current < 0 ? 34 : length > 0 && model_.entries[current].type != 2 ? 6 : 0, "iOLEwrite");
    // Only a stream takes bytes, and only a write that succeeds; a failed
    // write fires an armed fault, and such a run is not read back.
    if (status == 0) model_.entries[current].data.insert(model_.entries[current].data.end(), data, data + length);
  }

  void openForReading(uint8_t choice) {
    const int k = choice % static_cast<int>(model_.entries.size());
    std::string path;
    if (k == 0 || !model_.pathOf(k, kKeptName, &path) || path.size() > kLongestPath) return;
    const int status = api_.iOLEopenStreamEx(h_, path.c_str(), 0, 0);
    model_.current = -1;
    // Entries of a new document have no place in a file yet.
    expect(status, -1, "opening a new document's entry for reading");
  }

  void closeStream() {
    const int closed = bOLEcloseStream(h_, nullptr);
    expect(closed, model_.current >= 0 ? 1 : 0, "bOLEcloseStream");
    model_.current = -1;
  }

  void oddCall(uint8_t kind) {
    unsigned char buffer[128] = {};
    switch (kind % 8) {
      case 4: require(hOLEopenClone(h_) == nullptr, "a clone of a new document"); break;
      case 5:
        require(lOLEseek(h_, 0, 0) == -1, "lOLEseek on a new document");
        require(iOLEread(h_, buffer, sizeof buffer) == 0, "iOLEread on a new document");
        break;
      case 6: {
        // The reader's structure functions on a document with no directory.
        moxhost::PoolServices services;
        HostMemory* pool = services.createPool(4096, 0, nullptr);
        _MoxOleTreeNode* root = nullptr;
        iOLEGetStreamTree(h_, pool, &root);
        services.destroyPool(pool);
        _MoxOleObjectEntry* list = nullptr;
        require(moxoleGetObjectList(h_, nullptr, 0, &list) == 0, "object list of a new document");
        require(iOLEobjectType(h_, nullptr, 0, "") == 0, "type of a new document's root");
        require(iOLEobjectType(h_, nullptr, 0, "x") == 0, "type of a new document's entry");
        break;
      }
      case 7: {
        require(bOLEopenStream(h_, "x") == 0, "bOLEopenStream on a new document");
        require(lOLEopenObject(h_, "_1", 3) == 0, "lOLEopenObject on a new document");
        // Ends the current writer stream on its way.
        require(bOLEgetObject(h_, 1, buffer, 0) == 0, "bOLEgetObject on a new document");
        model_.current = -1;
        break;
      }
      // Kinds 0 to 3: a negative length, whatever the answer, must not add
      // bytes.  Null buffers, handles and paths and unknown flags are
      // test_interface's bad-argument rows; a write of nothing is an
      // ordinary write's.
      default: api_.iOLEwrite(h_, buffer, -1 - kind); break;
    }
  }

  const MoxOleInterface& api_;
  _MoxOleFile* h_;
  bool faultsArmed_;
  uint64_t budget_;
  WriteModel model_;
  uint64_t written_ = 0;
  std::vector<uint8_t> data_;
};

// Reads the current reader stream of h whole, from where its open left
// it, and compares it.
void compareStream(_MoxOleFile* h, const ModelEntry& e, const char* how) {
  std::vector<uint8_t> buffer(e.data.size() + 1);
  require(iOLEread(h, buffer.data(), static_cast<uint32_t>(buffer.size())) == e.data.size(), how);
  require(std::equal(e.data.begin(), e.data.end(), buffer.begin()), how);
}

// Files every node under its entry number: distinct numbers of entries
// created, so the tree cannot hold more entries than were created.
void indexTree(const _MoxOleTreeNode* node, std::vector<const _MoxOleTreeNode*>* byIndex) {
  require(node->iIndex >= 0 && static_cast<size_t>(node->iIndex) < byIndex->size(),
          "an entry number outside the entries created");
  require((*byIndex)[node->iIndex] == nullptr, "an entry reached twice");
  (*byIndex)[node->iIndex] = node;
  for (int i = 0; i < node->iChildCount; ++i) indexTree(node->ppChildren[i], byIndex);
}

void checkWithReader(const WriteModel& m, const std::vector<uint8_t>& file) {
  require(file.size() % 512 == 0 && file.size() >= 1536, "the file is not whole sectors");
  moxhost::MemoryIo io(file);
  moxhost::CountingMemory memory;
  _MoxOleFile* h = hOLEopen(io.io(), memory.memory());
  require(h != nullptr, "the written file does not open");
  moxhost::PoolServices services;
  HostMemory* pool = services.createPool(4096, 0, nullptr);
  _MoxOleTreeNode* root = nullptr;
  require(iOLEGetStreamTree(h, pool, &root) == 0, "the written tree does not read back");
  std::vector<const _MoxOleTreeNode*> byIndex(m.entries.size(), nullptr);
  indexTree(root, &byIndex);
  require(std::count(byIndex.begin(), byIndex.end(), nullptr) == 0, "entries missing from the written tree");
  for (size_t k = 1; k < m.entries.size(); ++k) {
    const ModelEntry& e = m.entries[k];
    const _MoxOleTreeNode* node = byIndex[k];
    require(node->iType == e.type, "an entry of the wrong type");
    if (e.placed) {
      require(node->szName == e.name.substr(0, kStoredName), "an entry's name");
      require(node->pParent != nullptr && node->pParent->iIndex == e.parent, "an entry's parent");
    }
    // A chain built by number leaves the position where it was.
    const bool opens = iReadStreamChain(static_cast<int>(k), h) == 0 && lOLEseek(h, 0, 0) == 0;
    require(opens == (e.type == 2), opens ? "a storage opens as a stream" : "a written stream does not open");
    if (opens) compareStream(h, e, "a written stream reads back wrong");
  }
  bOLEcloseStream(h, nullptr);
  services.destroyPool(pool);
  // The reader's leaks are the read fuzz target's to find.
  require(iOLEclose(h) == 1, "iOLEclose of the file read back");
}

// The file opened through the writer's entry for reading: every stream by
// its backslash path.
void checkWithWriterEntry(const MoxOleInterface& api, const WriteModel& m,
                          const std::vector<uint8_t>& file) {
  if (!m.allPlaced()) return;
  moxhost::MemoryIo io(file);
  moxhost::PoolServices services;
  _MoxOleFile* h = api.hOLEopenEx(io.io(), services.services(), 0);
  require(h != nullptr, "the written file does not open through hOLEopenEx");
  for (size_t k = 1; k < m.entries.size(); ++k) {
    std::string path;
    if (!m.pathOf(static_cast<int>(k), kStoredName, &path) || path.size() > kLongestPath) continue;
    const int status = api.iOLEopenStreamEx(h, path.c_str(), 0, 0);
    require(status == (m.entries[k].type == 2 ? 0 : -1), "a stream not found, or a storage opened, by its path");
    if (status == 0) compareStream(h, m.entries[k], "a stream opened by its path reads back wrong");
  }
  unsigned char byte = 0;
  require(api.iOLEopenStreamEx(h, "\\new", 2, 1) == 6, "an entry created in a document read");
  require(api.iOLEwrite(h, &byte, 1) == 34, "a write to a document read");
  // Leaks, writes and the I/O object's closing are the read fuzz target's
  // checks of every document it opens this way.
  require(api.iOLEclose(h) == 1, "iOLEclose of a document read through hOLEopenEx");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  MoxOleInterface api;
  GetOLEInterface(reinterpret_cast<void**>(&api));
  // A build without the writer has nothing to fuzz here.
  if (api.hOLEopenEx == nullptr || api.iOLEopenStreamEx == nullptr || api.iOLEwrite == nullptr) return 0;
  FuzzInput in(data, size);
  const uint8_t mode = in.byte();
  static const int kFlags[] = {1, 3, 2, 1};
  const int flags = kFlags[mode & moxfuzz::kWriteFlagsMask];
  const int64_t failAllocation = (mode & moxfuzz::kWriteFailAllocation) ? in.u16() + 1 : 0;
  const int64_t failOutput = (mode & moxfuzz::kWriteFailOutput) ? in.u16() + 1 : 0;

  moxhost::MemoryIo io;
  moxhost::PoolServices services;
  if (failOutput > 0) io.failWriteAt(failOutput);
  if (failAllocation > 0) services.faults().failAt(failAllocation);
  const bool faultsArmed = failAllocation > 0 || failOutput > 0;
  // An output that cannot be opened or written makes no document, and the
  // object, once opened, is closed again.
  const bool unusableOutput = (mode & (moxfuzz::kWriteRefuseOpen | moxfuzz::kWriteReadOnlyOutput)) != 0;
  io.failOpen((mode & moxfuzz::kWriteRefuseOpen) != 0);
  io.setWritable((mode & moxfuzz::kWriteReadOnlyOutput) == 0);

  _MoxOleFile* h = api.hOLEopenEx(io.io(), services.services(), flags);
  if (flags == 2 || unusableOutput) require(h == nullptr, "hOLEopenEx made a document it cannot write");
  if (h == nullptr) {
    require(flags == 2 || unusableOutput || faultsArmed, "hOLEopenEx failed");
    require(services.liveObjects() == 0, "a failed hOLEopenEx left allocations or pools");
    require(io.openCalls() == io.closeCalls(), "a failed hOLEopenEx left the I/O object open");
    require(io.writeCalls() == 0, "a failed hOLEopenEx wrote to the I/O object");
    return 0;
  }
  Run run(api, h, faultsArmed, (mode & moxfuzz::kWriteLargeDocument) ? kLargeBudget : kSmallBudget);
  for (int n = 0; n < kMaxOps && !in.empty(); ++n) run.step(in);
  require(iOLEclose(h) == 1, "iOLEclose of a new document");
  require(services.liveObjects() == 0, "the writer left allocations or pools live");
  require(io.openCalls() == io.closeCalls(), "the writer did not close its I/O object");

  const bool faultFired = services.faults().fired() || (failOutput > 0 && io.writeCalls() >= failOutput);
  if (faultFired) return 0;
  checkWithReader(run.model(), io.bytes());
  checkWithWriterEntry(api, run.model(), io.bytes());
  return 0;
}
