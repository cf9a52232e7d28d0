// moxole-peek: opens a compound document and prints what the loader read
// from it: header geometry, table sizes and every directory entry.
#include <stdio.h>

#include "host/moxhost.h"
#include "interface/mox_file.h"

namespace {

const char* typeName(uint8_t type) {
  switch (type) {
    case kEntryEmpty: return "empty";
    case kEntryStorage: return "storage";
    case kEntryStream: return "stream";
    case kEntryRoot: return "root";
    default: return "other";
  }
}

void printName(const char* name) {
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(name); *p; ++p) {
    if (*p < 0x20 || *p >= 0x7F) {
      printf("\\x%02x", *p);
    } else {
      putchar(*p);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: moxole-peek FILE\n");
    return 1;
  }
  moxhost::FileIo io(argv[1], moxhost::FileIo::kRead);
  moxhost::CountingMemory memory;
  _MoxOleFile* h = hOLEopen(io.io(), memory.memory());
  if (h == nullptr) {
    fprintf(stderr, "moxole-peek: %s: not a compound file or damaged\n", argv[1]);
    return 2;
  }
  printf("version %s, byte order %s\n", h->szVersion, h->iByteOrder ? "little" : "big");
  printf("sector %lld bytes, mini sector %lld bytes, mini cutoff %lld\n",
         static_cast<long long>(h->lSectorSize), static_cast<long long>(h->lMiniSectorSize),
         static_cast<long long>(h->lMiniCutoff));
  printf("FAT sectors %lld, mini FAT sectors %lld, DIFAT sectors %lld, directory slots %d\n",
         static_cast<long long>(h->lFatCount), static_cast<long long>(h->lMiniFatCount),
         static_cast<long long>(h->lDifatCount), h->iDirCount);
  for (int i = 0; i < h->iDirCount; ++i) {
    const _MoxOleDirInfo& d = h->pDir[i];
    if (d.byType == kEntryEmpty) continue;
    printf("%4d %-7s %10lld  ", i, typeName(d.byType), static_cast<long long>(d.lSize));
    printName(d.szName);
    printf("\n");
  }
  iOLEclose(h);
  return memory.liveBlocks() == 0 ? 0 : 3;
}
