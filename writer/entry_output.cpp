// CMoxOleEntry: one entry's directory record and its stream bytes.
#include <string.h>

#include "format/records.h"
#include "interface/mox_file.h"
#include "writer/entry.h"
#include "writer/oleio.h"

// Names are single-byte text; each character becomes one UTF-16 unit.
// Longer names than the field holds are cut, as are the stored lengths.
// Class id, state bits and time stamps are never set by this writer.
int CMoxOleEntry::writeDirEntry(CMoxOleIo* io) {
  lChild = pRoot->lOrdinal;  // the sentinel's -1 when there are no children
  moxfmt::EntryRecord record;
  const size_t chars = pszName == nullptr ? 0 : strnlen(pszName, moxfmt::kNameUnits - 1);
  for (size_t i = 0; i < chars; ++i) record.name[i] = static_cast<unsigned char>(pszName[i]);
  record.name_bytes = static_cast<uint16_t>((chars + 1) * 2);
  record.type = static_cast<uint8_t>(iType);
  record.colour = static_cast<uint8_t>(iColour);
  record.left = static_cast<uint32_t>(lLeftSibling);
  record.right = static_cast<uint32_t>(lRightSibling);
  record.child = static_cast<uint32_t>(lChild);
  record.start = static_cast<uint32_t>(
      lMiniStartSector != kSectorEndOfChain ? lMiniStartSector : lStartSector);
  record.size = static_cast<uint32_t>(lStreamSize);  // the high word stays 0
  unsigned char bytes[moxfmt::kEntrySize];
  moxfmt::encodeEntry(record, bytes);
  // A failure here shows in the next status the file writer checks.
  io->writeRecord(bytes, sizeof bytes);
  return MOXOLE_OK;
}

int CMoxOleEntry::writeStreamEntry(CMoxOleIo* io) {
  int status = MOXOLE_OK;
  for (_MoxOleBlock* b = pFirstBlock; b != nullptr && status == MOXOLE_OK; b = b->pNext) {
    status = io->writeBytes(b->pbData, iBlockSize);
  }
  return status;
}

// Only the bytes in use go out, then zeros to the end of the last mini
// sector: the mini stream packs streams 64 bytes apart, not 512.
int CMoxOleEntry::writeMiniStreamEntry(CMoxOleIo* io) {
  int status = MOXOLE_OK;
  for (_MoxOleBlock* b = pFirstBlock; b != nullptr && status == MOXOLE_OK; b = b->pNext) {
    status = io->writeBytes(b->pbData, b == pLastBlock ? iLastBlockFill : iBlockSize);
  }
  const int tail = pLastBlock == nullptr ? 0 : iLastBlockFill % iMiniSectorSize;
  if (status == MOXOLE_OK && tail != 0) status = moxWriteZeros(io, iMiniSectorSize - tail);
  return status;
}
