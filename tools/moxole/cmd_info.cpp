// moxole info: layout facts from the header, entry counts from the tree.
#include <stdio.h>

#include "tools/moxole/commands.h"
#include "tools/moxole/document.h"
#include "tools/moxole/geometry.h"
#include "tools/moxole/report.h"

namespace moxole {

namespace {

struct Counts {
  int64_t storages = 0, streams = 0, others = 0;
  uint64_t streamBytes = 0;
};

void count(const _MoxOleTreeNode* node, Counts* counts) {
  for (int i = 0; i < node->iChildCount; ++i) {
    const _MoxOleTreeNode* child = node->ppChildren[i];
    if (child->iType == kStorage) {
      ++counts->storages;
    } else if (child->iType == kStream) {
      ++counts->streams;
      counts->streamBytes += nodeSize(child);
    } else {
      ++counts->others;
    }
    count(child, counts);
  }
}

}  // namespace

int runInfo(const Library& library, const Invocation& call) {
  const std::string& path = call.operands[0];
  int status;
  std::unique_ptr<Document> doc = Document::open(library, path, &status);
  if (!doc) return status;
  Geometry g;
  if (!readGeometry(path, &g)) {
    return fail(kExitBadDocument, path, "damaged header");
  }
  Counts counts;
  count(doc->root(), &counts);
  printf("file:                %s\n", path.c_str());
  printf("file bytes:          %llu\n",
         static_cast<unsigned long long>(g.fileBytes));
  printf("version:             %u (minor 0x%04x)\n", g.majorVersion,
         g.minorVersion);
  printf("byte order:          %s\n",
         g.littleEndian ? "little-endian" : "big-endian");
  printf("sector size:         %llu\n",
         static_cast<unsigned long long>(g.sectorSize));
  printf("mini sector size:    %llu\n",
         static_cast<unsigned long long>(g.miniSectorSize));
  printf("mini stream cutoff:  %u\n", g.miniCutoff);
  printf("FAT sectors:         %u\n", g.fatSectors);
  printf("mini FAT sectors:    %u\n", g.miniFatSectors);
  printf("DIFAT sectors:       %u\n", g.difatSectors);
  if (g.directorySectors >= 0) {
    printf("directory sectors:   %lld\n",
           static_cast<long long>(g.directorySectors));
  } else {
    printf("directory sectors:   unknown (broken chain)\n");
  }
  printf("storages:            %lld\n", static_cast<long long>(counts.storages));
  printf("streams:             %lld\n", static_cast<long long>(counts.streams));
  if (counts.others > 0) {
    printf("other entries:       %lld\n", static_cast<long long>(counts.others));
  }
  printf("stream bytes:        %llu\n",
         static_cast<unsigned long long>(counts.streamBytes));
  return finishOutput(kExitOk);
}

}  // namespace moxole
