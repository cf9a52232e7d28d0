// CMoxOleDirectory: one entry's directory record and its stream bytes.
#include <string.h>

#include "interface/mox_file.h"
#include "writer/directory.h"
#include "writer/oleio.h"

namespace {

// Characters the 64-byte name field holds besides its terminator.
constexpr size_t kNameFieldChars = 31;
constexpr int kNameFieldBytes = 64;
// Class id, state bits and the two time stamps: never set by this writer.
constexpr int kUnusedFieldBytes = 16 + 4 + 16;

}  // namespace

// Names are single-byte text; each character becomes one UTF-16LE unit.
// Longer names than the field holds are cut, as are the stored lengths.
int CMoxOleDirectory::writeDirEntry(CMoxOleIo* io) {
  lChild = pRoot->lOrdinal;  // the sentinel's -1 when there are no children
  const size_t chars = pszName == nullptr ? 0 : strnlen(pszName, kNameFieldChars);
  for (size_t i = 0; i < chars; ++i) io->write2ByteInt(static_cast<unsigned char>(pszName[i]));
  io->write2ByteInt(0);
  const int nameBytes = static_cast<int>(chars + 1) * 2;
  moxWriteZeros(io, kNameFieldBytes - nameBytes);
  io->write2ByteInt(nameBytes);
  io->write1ByteInt(iType);
  io->write1ByteInt(iColour);
  io->write4ByteInt(lLeftSibling);
  io->write4ByteInt(lRightSibling);
  io->write4ByteInt(lChild);
  moxWriteZeros(io, kUnusedFieldBytes);
  io->write4ByteInt(lMiniStartSector != kSectorEndOfChain ? lMiniStartSector : lStartSector);
  io->write4ByteInt(lStreamSize);  // low 32 bits; the high word stays 0
  io->write4ByteInt(0);
  return MOXOLE_OK;
}

int CMoxOleDirectory::writeStreamEntry(CMoxOleIo* io) {
  int status = MOXOLE_OK;
  for (_MoxOleBlock* b = pFirstBlock; b != nullptr && status == MOXOLE_OK; b = b->pNext) {
    status = io->writeBytes(b->pbData, iBlockSize);
  }
  return status;
}

// Only the bytes in use go out, then zeros to the end of the last mini
// sector: the mini stream packs streams 64 bytes apart, not 512.
int CMoxOleDirectory::writeMiniStreamEntry(CMoxOleIo* io) {
  int status = MOXOLE_OK;
  for (_MoxOleBlock* b = pFirstBlock; b != nullptr && status == MOXOLE_OK; b = b->pNext) {
    status = io->writeBytes(b->pbData, b == pLastBlock ? iLastBlockFill : iBlockSize);
  }
  const int tail = pLastBlock == nullptr ? 0 : iLastBlockFill % iMiniSectorSize;
  if (status == MOXOLE_OK && tail != 0) status = moxWriteZeros(io, iMiniSectorSize - tail);
  return status;
}
