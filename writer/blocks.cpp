// CMoxOleEntry: the block store that holds a stream's bytes until the
// file is laid out.
#include <string.h>

#include "interface/mox_file.h"
#include "writer/entry.h"

_MoxOleBlock* CMoxOleEntry::takeBlock(int& error) {
  error = MOXOLE_OK;
  _MoxOleBlock* block = nullptr;
  if (pPool != nullptr) {
    block = static_cast<_MoxOleBlock*>(pPool->allocate(pPool, sizeof(_MoxOleBlock)));
  }
  unsigned char* data = nullptr;
  if (block != nullptr) {
    data = static_cast<unsigned char*>(pPool->allocate(pPool, iBlockSize));
  }
  if (data == nullptr) {
    error = MOXOLE_NO_MEMORY;
    return nullptr;  // a record taken without data stays in the pool unused
  }
  block->pbData = data;
  block->pNext = nullptr;
  return block;
}

void CMoxOleEntry::insertBlock(_MoxOleBlock* block) {
  block->pNext = nullptr;
  if (pLastBlock == nullptr) {
    pFirstBlock = block;
  } else {
    pLastBlock->pNext = block;
  }
  pLastBlock = block;
  ++iBlockCount;
}

// Size, block count and fill advance together, block by block, so that a
// failure part way leaves a stream whose size is exactly the bytes in its
// blocks.
int CMoxOleEntry::write(unsigned char* data, int length) {
  if (length < 0) return MOXOLE_BAD_ARGUMENT;
  if (length == 0 || data == nullptr) return MOXOLE_OK;
  if (iType != kEntryStream) return MOXOLE_NOT_FOUND;
  while (length > 0) {
    if (iLastBlockFill == iBlockSize) {
      int error = MOXOLE_OK;
      _MoxOleBlock* block = takeBlock(error);
      if (block == nullptr) return error;
      // The tail of a stream's last sector is written as it is, so the part
      // of the new block this write leaves must be zeros (it may end the
      // stream); clearing bytes about to be copied over would touch every
      // byte of a large stream once more.
      if (length < iBlockSize) {
        memset(block->pbData + length, 0, static_cast<size_t>(iBlockSize - length));
      }
      insertBlock(block);
      iLastBlockFill = 0;
    }
    int room = iBlockSize - iLastBlockFill;
    int n = length < room ? length : room;
    memcpy(pLastBlock->pbData + iLastBlockFill, data, static_cast<size_t>(n));
    iLastBlockFill += n;
    lStreamSize += n;
    data += n;
    length -= n;
  }
  return MOXOLE_OK;
}

int CMoxOleEntry::setStreamSize(long size) {
  if (iType != kEntryRoot) return MOXOLE_BAD_ARGUMENT;
  lStreamSize = size;
  return MOXOLE_OK;
}
