// moxoleGetObjectList and iOLEobjectType: the children of one storage.
#include <pthread.h>
#include <string.h>

#include <string>

#include <gtest/gtest.h>

#include "support/cfb_builder.h"
#include "support/open_doc.h"

namespace {

using Path = char[36];

struct List {
  int count = 0;
  _MoxOleObjectEntry* records = nullptr;
  HostMemory* memory;
  List(OpenDoc& doc, const Path* path, int depth) : memory(doc.memory().memory()) {
    count = moxoleGetObjectList(doc.handle(), path, depth, &records);
  }
  ~List() {
    if (records != nullptr) memory->free(memory, records);
  }
  std::vector<std::string> names() const {
    std::vector<std::string> out;
    for (int i = 0; i < count; ++i) out.push_back(records[i].szName);
    return out;
  }
};

// B at the top of the root's tree with A on its left and C on its right;
// storage B holds one stream, storage "Empty" none.
cfb::Bytes threeChildren() {
  cfb::CfbBuilder b;
  int a = b.addStream(0, "A", cfb::Bytes(5, 1));
  int bb = b.addStorage(0, "B");
  int c = b.addStream(0, "C", cfb::Bytes(7000, 1));
  b.addStream(bb, "Inner", cfb::Bytes(3, 1));
  b.addStorage(bb, "Empty");
  cfb::CfbLayout l = b.layout();
  l.dir[0].child = bb;
  l.dir[bb].left = a;
  l.dir[bb].right = c;
  l.dir[a].left = l.dir[a].right = l.dir[c].left = l.dir[c].right = cfb::kNone;
  return l.serialize();
}

TEST(ObjectList, ListsDirectChildrenInNameOrder) {
  OpenDoc doc(threeChildren());
  ASSERT_TRUE(doc.ok());
  {
    List root(doc, nullptr, 0);
    ASSERT_EQ(root.count, 3);
    EXPECT_EQ(root.names(), (std::vector<std::string>{"A", "B", "C"}));
    EXPECT_EQ(root.records[1].uiType, 1u);
    EXPECT_EQ(root.records[2].uiType, 2u);
    EXPECT_EQ(root.records[2].uiSize, 7000u);
  }
  Path rootByName[2] = {"Root Entry", "ignored"};
  List same(doc, rootByName, 2);
  EXPECT_EQ(same.count, 3);
  Path inB[1] = {"B"};
  List b(doc, inB, 1);
  EXPECT_EQ(b.names(), (std::vector<std::string>{"Empty", "Inner"}));
}

TEST(ObjectList, StreamsEmptyStoragesAndMissingPathsGiveNothing) {
  OpenDoc doc(threeChildren());
  ASSERT_TRUE(doc.ok());
  for (auto path : {std::vector<std::string>{"A"}, {"B", "Empty"}, {"Nope"}, {"b"}}) {
    Path slots[2] = {};
    for (size_t i = 0; i < path.size(); ++i) strncpy(slots[i], path[i].c_str(), 35);
    _MoxOleObjectEntry* out = reinterpret_cast<_MoxOleObjectEntry*>(0x1);
    EXPECT_EQ(moxoleGetObjectList(doc.handle(), slots, static_cast<int>(path.size()), &out), 0)
        << path.back();
    EXPECT_EQ(out, reinterpret_cast<_MoxOleObjectEntry*>(0x1)) << "out is left alone";
  }
}

TEST(ObjectList, NamesAreCutToThirtyFiveBytes) {
  cfb::CfbBuilder b;
  b.addStream(0, std::string(31, 'n'), cfb::Bytes(1, 1));
  cfb::CfbLayout l = b.layout();
  l.dir[1].name = std::u16string(32, u'x');  // no terminator in the field
  l.dir[1].nameLength = 64;
  OpenDoc doc(l.serialize());
  ASSERT_TRUE(doc.ok());
  List list(doc, nullptr, 0);
  ASSERT_EQ(list.count, 1);
  EXPECT_EQ(list.records[0].szName[35], 0);
  EXPECT_LE(strlen(list.records[0].szName), 35u);
  EXPECT_EQ(std::string(list.records[0].szName, 32), std::string(32, 'x'));
}

TEST(ObjectList, BadLinksCyclesAndFailedAllocationsGiveMinusOne) {
  cfb::CfbBuilder b;
  for (int i = 0; i < 6; ++i) b.addStream(0, "S" + std::to_string(i), {});
  cfb::CfbLayout l = b.layout();
  cfb::CfbLayout bad = l;
  bad.dir[bad.dir[0].child].left = static_cast<uint32_t>(-3);
  OpenDoc badDoc(bad.serialize());
  ASSERT_TRUE(badDoc.ok());
  EXPECT_EQ(List(badDoc, nullptr, 0).count, -1);

  cfb::CfbLayout cyclic = l;
  uint32_t top = cyclic.dir[0].child;
  cyclic.dir[cyclic.dir[top].right].right = top;
  OpenDoc cyclicDoc(cyclic.serialize());
  ASSERT_TRUE(cyclicDoc.ok());
  EXPECT_EQ(List(cyclicDoc, nullptr, 0).count, -1);

  OpenDoc doc(l.serialize());
  ASSERT_TRUE(doc.ok());
  for (int n = 1; n <= 7; ++n) {
    doc.memory().faults().failAt(n);
    EXPECT_EQ(List(doc, nullptr, 0).count, -1) << "allocation " << n;
  }
  doc.memory().faults().failAt(8);
  EXPECT_EQ(List(doc, nullptr, 0).count, 6);
  doc.memory().faults().disarm();
}

// Listed on a thread with a 256 KiB stack: a walk that recursed once per
// sibling would need far more for 20 000 of them.
TEST(ObjectList, LongLeftLeaningChainDoesNotExhaustTheStack) {
  const int n = 20000;
  cfb::CfbBuilder b;
  for (int i = 0; i < n; ++i) b.addStream(0, "S" + std::to_string(i), {});
  cfb::CfbLayout l = b.layout();
  l.dir[0].child = n;
  for (int i = 1; i <= n; ++i) {
    l.dir[i].right = cfb::kNone;
    l.dir[i].left = i > 1 ? static_cast<uint32_t>(i - 1) : cfb::kNone;
  }
  OpenDoc doc(l.serialize());
  ASSERT_TRUE(doc.ok());
  struct Job {
    OpenDoc* doc = nullptr;
    int count = 0;
    std::string first, last;
  } job;
  job.doc = &doc;
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, 256 * 1024);
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, &attr, [](void* arg) -> void* {
    Job* j = static_cast<Job*>(arg);
    List list(*j->doc, nullptr, 0);
    j->count = list.count;
    if (list.count > 0) {
      j->first = list.records[0].szName;
      j->last = list.records[list.count - 1].szName;
    }
    return nullptr;
  }, &job), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attr);
  EXPECT_EQ(job.count, n);
  EXPECT_EQ(job.first, "S0");
  EXPECT_EQ(job.last, "S" + std::to_string(n - 1));
}

TEST(ObjectType, ExactNamesUnderAStoragePath) {
  OpenDoc doc(threeChildren());
  ASSERT_TRUE(doc.ok());
  EXPECT_EQ(iOLEobjectType(doc.handle(), nullptr, 0, "C"), 2);
  EXPECT_EQ(iOLEobjectType(doc.handle(), nullptr, 0, "B"), 1);
  EXPECT_EQ(iOLEobjectType(doc.handle(), nullptr, 0, ""), 5);
  EXPECT_EQ(iOLEobjectType(doc.handle(), nullptr, 0, "c"), 0) << "names compare exactly";
  EXPECT_EQ(iOLEobjectType(doc.handle(), nullptr, 0, nullptr), 0);
  Path inB[1] = {"B"};
  EXPECT_EQ(iOLEobjectType(doc.handle(), inB, 1, "Inner"), 2);
  EXPECT_EQ(iOLEobjectType(doc.handle(), inB, 1, ""), 0) << "only the root answers an empty name";
  Path inA[1] = {"A"};
  EXPECT_EQ(iOLEobjectType(doc.handle(), inA, 1, "Inner"), 0) << "A is a stream";
}

// A new document made by the writer's entry has a handle with no
// directory at all (no entry 0, no table); asking it for the root's
// children or type must find nothing rather than read a missing table.
TEST(ObjectType, HandleWithoutDirectoryHasNoRoot) {
  moxhost::CountingMemory memory;
  _MoxOleFile handle = {};
  handle.pMemory = memory.memory();
  handle.pTableMemory = memory.memory();
  _MoxOleObjectEntry* records = nullptr;
  EXPECT_EQ(moxoleGetObjectList(&handle, nullptr, 0, &records), 0);
  EXPECT_EQ(records, nullptr);
  EXPECT_EQ(iOLEobjectType(&handle, nullptr, 0, ""), 0);
  EXPECT_EQ(iOLEobjectType(&handle, nullptr, 0, "x"), 0);
  Path root[1] = {"Root Entry"};
  EXPECT_EQ(moxoleGetObjectList(&handle, root, 1, &records), 0);
  EXPECT_EQ(iOLEobjectType(&handle, root, 1, ""), 0);
  EXPECT_EQ(memory.allocations(), 0);
}

}  // namespace
