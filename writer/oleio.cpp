#include "writer/oleio.h"

#include <string.h>

#include "interface/mox_pool.h"

CMoxOleIo::CMoxOleIo(tag_TPVAPIServices* services)
    : pServices(services),
      pPool(nullptr),
      pBuffer(nullptr),
      iBufferSize(kOleIoBufferSize),
      iBufferUsed(0),
      pIoObj(nullptr) {}

CMoxOleIo::~CMoxOleIo() {
  if (iBufferUsed > 0) flush();  // nobody is left to hear of a failure
  close();
  moxDestroyPool(pServices, pPool);
}

int CMoxOleIo::open(_ZqTPIOobj* io) {
  if (io == nullptr || pIoObj != nullptr) return MOXOLE_CANNOT_OPEN_OUTPUT;
  pIoObj = io;
  if (io->open == nullptr || io->open(io) == 0) return MOXOLE_CANNOT_OPEN_OUTPUT;
  if (io->close == nullptr) return MOXOLE_CANNOT_OPEN_OUTPUT;
  if (io->write == nullptr) {
    close();
    return MOXOLE_CANNOT_OPEN_OUTPUT;
  }
  pPool = moxCreatePool(pServices);
  if (pPool == nullptr) return MOXOLE_NO_MEMORY;
  pBuffer = static_cast<unsigned char*>(pPool->allocate(pPool, iBufferSize));
  if (pBuffer == nullptr) return MOXOLE_NO_MEMORY;
  return MOXOLE_OK;
}

int CMoxOleIo::flush() {
  if (pIoObj == nullptr || pIoObj->write == nullptr) return MOXOLE_WRITE_FAILED;
  int written = pIoObj->write(pIoObj, pBuffer, iBufferUsed);
  iBufferUsed = 0;
  return written == 0 ? MOXOLE_WRITE_FAILED : MOXOLE_OK;
}

int CMoxOleIo::writeLittleEndian(uint64_t value, int width) {
  if (pBuffer == nullptr) return MOXOLE_WRITE_FAILED;
  if (iBufferSize - iBufferUsed < width) {
    int status = flush();
    if (status != MOXOLE_OK) return status;
  }
  for (int i = 0; i < width; ++i) {
    pBuffer[iBufferUsed++] = static_cast<unsigned char>(value >> (8 * i));
  }
  return MOXOLE_OK;
}

int CMoxOleIo::write4ByteInt(long value) {
  return writeLittleEndian(static_cast<uint64_t>(value), 4);
}

int CMoxOleIo::writeBytes(unsigned char* data, int count) {
  if (count < 0 || data == nullptr || pBuffer == nullptr) return MOXOLE_WRITE_FAILED;
  if (iBufferUsed == iBufferSize) {
    int status = flush();
    if (status != MOXOLE_OK) return status;
  }
  while (count > 0) {
    int room = iBufferSize - iBufferUsed;
    int n = count < room ? count : room;
    memcpy(pBuffer + iBufferUsed, data, static_cast<size_t>(n));
    iBufferUsed += n;
    data += n;
    count -= n;
    if (iBufferUsed == iBufferSize) {
      int status = flush();
      if (status != MOXOLE_OK) return status;
    }
  }
  return MOXOLE_OK;
}

int CMoxOleIo::writeRecord(const unsigned char* record, int count) {
  if (count < 0 || count > iBufferSize || record == nullptr || pBuffer == nullptr) {
    return MOXOLE_WRITE_FAILED;
  }
  int status = MOXOLE_OK;
  if (iBufferSize - iBufferUsed < count) status = flush();
  memcpy(pBuffer + iBufferUsed, record, static_cast<size_t>(count));
  iBufferUsed += count;
  return status;
}

int64_t CMoxOleIo::getPos() {
  if (pIoObj == nullptr || pIoObj->tell == nullptr) return -1;
  return pIoObj->tell(pIoObj) + iBufferUsed;
}

void CMoxOleIo::close() {
  if (pIoObj == nullptr) return;
  if (pIoObj->close != nullptr) pIoObj->close(pIoObj);
  pIoObj = nullptr;
}

int moxWriteZeros(CMoxOleIo* io, int64_t count) {
  // Padding never exceeds a sector, so one small table of zeros serves.
  static const unsigned char kZeros[512] = {};
  int status = MOXOLE_OK;
  while (count > 0 && status == MOXOLE_OK) {
    const int n = count < static_cast<int64_t>(sizeof kZeros) ? static_cast<int>(count)
                                                               : static_cast<int>(sizeof kZeros);
    // writeBytes only reads from its argument.
    status = io->writeBytes(const_cast<unsigned char*>(kZeros), n);
    count -= n;
  }
  return status;
}
