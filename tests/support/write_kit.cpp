#include "support/write_kit.h"

#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>

#include "format/byte_order.h"
#include "support/document_walk.h"
#include "support/manifest.h"
#include "support/stream_kit.h"

namespace writekit {

NewFile::NewFile() { handle_ = hOLEopenEx(io_.io(), host_.services(), 1); }

NewFile::~NewFile() {
  if (handle_ != nullptr) close();
}

int NewFile::storage(const std::string& path) {
  return iOLEopenStreamEx(handle_, path.c_str(), 1, 1);
}

int NewFile::stream(const std::string& path, const cfb::Bytes& data, size_t piece) {
  int status = iOLEopenStreamEx(handle_, path.c_str(), 2, 1);
  if (status != 0 || data.empty()) return status;
  if (piece == 0) piece = data.size();
  for (size_t at = 0; at < data.size() && status == 0; at += piece) {
    size_t n = std::min(piece, data.size() - at);
    status = iOLEwrite(handle_, const_cast<unsigned char*>(data.data() + at), static_cast<int>(n));
  }
  return status;
}

const cfb::Bytes& NewFile::close() {
  if (handle_ != nullptr) {
    EXPECT_EQ(iOLEclose(handle_), 1);
    handle_ = nullptr;
    EXPECT_EQ(leakReport(host_), "");
    EXPECT_EQ(io_.openCalls(), 1);
    EXPECT_EQ(io_.closeCalls(), 1);
  }
  return io_.bytes();
}

std::map<std::string, cfb::Item> expected(const Shape& shape) {
  std::map<std::string, cfb::Item> items;
  for (const Part& p : shape) {
    std::string path = p.path[0] == '\\' ? p.path.substr(1) : p.path;
    items[path] = cfb::Item{p.type, p.data};
  }
  return items;
}

cfb::Bytes write(const Shape& shape, size_t piece) {
  NewFile file;
  EXPECT_NE(file.handle(), nullptr);
  for (const Part& p : shape) {
    int status = p.type == 1 ? file.storage(p.path) : file.stream(p.path, p.data, piece);
    EXPECT_EQ(status, 0) << p.path;
  }
  return file.close();
}

namespace {

// Every node below `node` by backslash path.
void collect(const _MoxOleTreeNode* node, const std::string& prefix,
             std::map<std::string, const _MoxOleTreeNode*>* out) {
  for (int i = 0; i < node->iChildCount; ++i) {
    const _MoxOleTreeNode* child = node->ppChildren[i];
    std::string path = prefix + std::string(child->szName, strnlen(child->szName, 36));
    EXPECT_EQ(out->count(path), 0u) << path << " listed twice";
    (*out)[path] = child;
    collect(child, path + "\\", out);
  }
}

// Opens path ("A\\B\\name") with the storage-path open.
bool openByPath(_MoxOleFile* h, const std::string& path) {
  const std::vector<std::string> names = manifest::split(path, '\\');
  const int depth = static_cast<int>(names.size()) - 1;
  // 36-byte name slots, outermost storage first, as one block.
  std::vector<char> slots(36 * names.size(), 0);
  for (int i = 0; i < depth; ++i) strncpy(&slots[36 * i], names[i].c_str(), 35);
  const char(*storagePath)[36] = depth == 0 ? nullptr : reinterpret_cast<const char(*)[36]>(slots.data());
  return bOLEopenEmbeddedStreamEx(h, storagePath, depth, names.back().c_str()) == 1;
}

// The storage-path open descends sibling trees comparing names of equal
// length byte for byte, while the writer orders them with letters folded
// to lower case; the two orders agree only where no sibling met on the
// way has an upper-case letter.
bool pathOpenCanFind(const std::map<std::string, cfb::Item>& want, const std::string& path) {
  for (const auto& kv : want) {
    const std::string parent = kv.first.substr(0, kv.first.rfind('\\') + 1);  // "" or ending in '\\'
    auto upper = [](char c) { return c >= 'A' && c <= 'Z'; };
    const bool mixed = std::any_of(kv.first.begin() + parent.size(), kv.first.end(), upper);
    if (mixed && path.rfind(parent, 0) == 0) return false;  // met on the way down to path
  }
  return true;
}

}  // namespace

void checkWithLibrary(const cfb::Bytes& file, const std::map<std::string, cfb::Item>& want) {
  moxhost::CountingMemory memory;
  moxhost::MemoryIo io(file);
  _MoxOleFile* h = hOLEopen(io.io(), memory.memory());
  ASSERT_NE(h, nullptr) << "the library cannot open the file";
  moxhost::PoolServices pools;
  const StreamTree tree(h, pools);
  EXPECT_EQ(tree.status(), 0);
  std::map<std::string, const _MoxOleTreeNode*> seen;  // the nodes live as long as the tree
  if (tree.root() != nullptr) collect(tree.root(), "", &seen);

  EXPECT_EQ(seen.size(), want.size());
  for (const auto& kv : want) {
    auto it = seen.find(kv.first);
    if (it == seen.end()) {
      ADD_FAILURE() << kv.first << " is not in the library's tree";
      continue;
    }
    EXPECT_EQ(it->second->iType, kv.second.type) << kv.first;
    if (kv.second.type != 2) continue;
    EXPECT_EQ(it->second->iSize, static_cast<int64_t>(kv.second.data.size())) << kv.first;
    EXPECT_EQ(iReadStreamChain(it->second->iIndex, h), 0) << kv.first;
    EXPECT_EQ(lOLEseek(h, 0, 0), 0) << kv.first;
    EXPECT_TRUE(streamkit::readToEnd(h, 70000) == kv.second.data) << kv.first << " read by entry number";
    if (openByPath(h, kv.first)) {
      EXPECT_TRUE(streamkit::readToEnd(h, 70000) == kv.second.data) << kv.first << " read by path";
    } else {
      EXPECT_FALSE(pathOpenCanFind(want, kv.first)) << kv.first << " not opened by path";
    }
  }
  bOLEcloseStream(h, nullptr);
  EXPECT_EQ(iOLEclose(h), 1);
  EXPECT_EQ(memory.liveBlocks(), 0);
}

uint32_t u32(const cfb::Bytes& file, size_t offset) {
  return moxfmt::get32(moxfmt::ByteOrder::kLittle, &file.at(offset + 3) - 3);  // at(): throws past the end
}

std::string leakReport(moxhost::PoolServices& services) {
  std::string report;
  auto note = [&report](const char* what, int64_t count) {
    if (count == 0) return;
    if (!report.empty()) report += ", ";
    report += std::to_string(count) + " " + what;
  };
  note("live pools", services.livePools());
  note("live heap blocks", services.heap().liveBlocks());
  note("single frees in pools", services.poolFrees());
  return report;
}

}  // namespace writekit
