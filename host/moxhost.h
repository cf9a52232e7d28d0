// The host kit: what a program needs to drive libmoxolefio.
//
//   CountingMemory  a HostMemory over malloc that counts live blocks and
//                   bytes and can be told to fail the Nth allocation.
//   PoolServices    a tag_TPVAPIServices whose pools are arenas released
//                   whole by destroyPool; counted and failable the same way.
//   HostIo          the base of the I/O objects: keeps the position, can
//                   record every call and inject failures.
//   MemoryIo        an I/O object over a growable byte buffer.
//   FileIo          an I/O object over a file descriptor (pread/pwrite).
//
// Tools, tests, benchmarks and fuzzers all use these, so a leak or a wrong
// call sequence shows up the same way everywhere.
#ifndef MOXOLEFIO_HOST_MOXHOST_H_
#define MOXOLEFIO_HOST_MOXHOST_H_

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "moxolefio.h"

namespace moxhost {

// Decides which allocation attempt fails.  Attempts are counted from 1 over
// every interface that shares the plan (memory slots, pool creation and pool
// allocations), so a sweep "fail attempt 1, 2, 3, ..." reaches every
// allocation of an operation in turn.
class FaultPlan {
 public:
  // The n-th attempt from now fails (1-based); 0 disarms.
  void failAt(int64_t n) {
    attempts_ = 0;
    failAt_ = n;
  }
  // Every attempt from the n-th on fails.
  void failFrom(int64_t n) {
    attempts_ = 0;
    failAt_ = n;
    sticky_ = true;
  }
  void disarm() {
    failAt_ = 0;
    sticky_ = false;
  }
  int64_t attempts() const { return attempts_; }
  bool fired() const { return fired_; }
  // Called once per allocation attempt; true when this one must fail.
  bool nextFails();

 private:
  int64_t attempts_ = 0;
  int64_t failAt_ = 0;
  bool sticky_ = false;
  bool fired_ = false;
};

class CountingMemory {
 public:
  CountingMemory();
  ~CountingMemory();
  CountingMemory(const CountingMemory&) = delete;
  CountingMemory& operator=(const CountingMemory&) = delete;

  HostMemory* memory() { return &face_.memory; }
  FaultPlan& faults() { return *plan_; }
  // Refuse (answer null to) any request that would take the live bytes past
  // `bytes`, as a host with that much memory to give would; 0 lifts it.
  void setLimit(int64_t bytes) { limit_ = bytes; }
  // Share another plan (for example a PoolServices') instead of our own.
  void useFaultPlan(FaultPlan* plan) { plan_ = plan; }

  int64_t liveBlocks() const { return liveBlocks_; }
  int64_t liveBytes() const { return liveBytes_; }
  int64_t peakBytes() const { return peakBytes_; }
  int64_t allocations() const { return allocations_; }
  // Size asked for by the last call that reached the allocator.
  int lastRequest() const { return lastRequest_; }

  // New blocks are filled with a pattern (on by default) so that a missing
  // clear in the library shows up in tests.  Benchmarks turn it off: a real
  // host's allocator does not write to the memory it hands out.
  void setScribble(bool on) { scribble_ = on; }

  void* allocate(int size);
  void release(void* block);
  void* reallocate(void* block, int size);
  void* allocateArray(int elementSize, int count);

 private:
  struct Face {
    HostMemory memory;
    CountingMemory* owner;
  };
  Face face_;
  FaultPlan ownPlan_;
  FaultPlan* plan_;
  int64_t limit_ = 0;
  int64_t liveBlocks_ = 0;
  int64_t liveBytes_ = 0;
  int64_t peakBytes_ = 0;
  int64_t allocations_ = 0;
  int lastRequest_ = 0;
  bool scribble_ = true;
  friend struct CountingMemoryThunks;
};

class PoolServices {
 public:
  PoolServices();
  ~PoolServices();
  PoolServices(const PoolServices&) = delete;
  PoolServices& operator=(const PoolServices&) = delete;

  tag_TPVAPIServices* services() { return &face_.services; }
  // The embedded HostMemory (slots 1 and 2 of the services record).
  CountingMemory& heap() { return heap_; }
  // One plan for the heap, pool creation and pool allocations.
  FaultPlan& faults() { return plan_; }

  int64_t livePools() const { return livePools_; }
  int64_t poolsCreated() const { return poolsCreated_; }
  int64_t poolsDestroyed() const { return poolsDestroyed_; }
  // Bytes held by live pools' chunks, and the most ever held at once.
  int64_t poolBytes() const { return poolBytes_; }
  int64_t peakPoolBytes() const { return peakPoolBytes_; }
  // Heap blocks plus live pools: zero when nothing leaked.
  int64_t liveObjects() const { return heap_.liveBlocks() + livePools_; }
  // Calls of a pool's free/reallocate slots (the library never makes any).
  int64_t poolFrees() const { return poolFrees_; }
  // Requests seen by pools, by slot: allocate (1) and allocateArray (4).
  int64_t poolAllocateCalls() const { return poolAllocateCalls_; }
  int64_t poolArrayCalls() const { return poolArrayCalls_; }
  // Arguments of the last createPool call.
  int lastInitialSize() const { return lastInitialSize_; }
  int lastFlags() const { return lastFlags_; }

  HostMemory* createPool(int initialSize, int flags, int* status);
  void destroyPool(HostMemory* pool);

  // Pattern-fills pool memory and heap blocks as CountingMemory does (on
  // by default); benchmarks turn it off.
  void setScribble(bool on) {
    scribble_ = on;
    heap_.setScribble(on);
  }

 private:
  struct Face {
    tag_TPVAPIServices services;
    PoolServices* owner;
  };
  struct Pool;
  friend struct Pool;
  friend struct PoolThunks;
  Face face_;
  FaultPlan plan_;
  CountingMemory heap_;
  int64_t livePools_ = 0;
  int64_t poolsCreated_ = 0;
  int64_t poolsDestroyed_ = 0;
  int64_t poolBytes_ = 0;
  int64_t peakPoolBytes_ = 0;
  int64_t poolFrees_ = 0;
  int64_t poolAllocateCalls_ = 0;
  int64_t poolArrayCalls_ = 0;
  int lastInitialSize_ = 0;
  int lastFlags_ = 0;
  bool scribble_ = true;
};

// One recorded call on a HostIo.
struct IoCall {
  enum Kind { kOpen, kRead, kWrite, kSeek, kTell, kClose } kind;
  int64_t position;  // read/write: position before the call; seek: offset
  int64_t count;     // read/write: bytes asked; seek: whence
  int64_t result;
};

class HostIo {
 public:
  HostIo();
  virtual ~HostIo();
  HostIo(const HostIo&) = delete;
  HostIo& operator=(const HostIo&) = delete;

  _ZqTPIOobj* io() { return &face_.io; }

  // Recording (off by default: large transfers would fill memory).
  void record(bool on) { recording_ = on; }
  const std::vector<IoCall>& calls() const { return calls_; }
  void clearCalls() { calls_.clear(); }

  // Fault injection.  Call numbers count calls of that kind from 1.
  void failOpen(bool on) { failOpen_ = on; }
  void failSeekAt(int64_t n) { failSeekAt_ = n; seeks_ = 0; }
  void failSeeksFrom(int64_t n) { failSeekAt_ = n; seeks_ = 0; seekSticky_ = true; }
  // The n-th read returns `bytes` (clamped to what was asked) instead.
  void shortReadAt(int64_t n, int bytes = 0) {
    shortReadAt_ = n; shortReadBytes_ = bytes; reads_ = 0;
  }
  void failWriteAt(int64_t n) { failWriteAt_ = n; writes_ = 0; }
  void setWritable(bool on);  // false: the write slot is null

  int64_t openCalls() const { return openCalls_; }
  int64_t closeCalls() const { return closeCalls_; }
  int64_t readCalls() const { return readCallsTotal_; }
  int64_t seekCalls() const { return seekCallsTotal_; }
  int64_t writeCalls() const { return writeCallsTotal_; }
  int64_t position() const { return position_; }

  // The backend: absolute-position transfers.
  virtual int64_t size() const = 0;
  virtual int readAt(int64_t position, void* buffer, int count) = 0;
  virtual bool writeAt(int64_t position, const void* buffer, int count) = 0;
  virtual bool openBackend() { return true; }
  virtual void closeBackend() {}

  int doOpen();
  int doRead(void* buffer, int count);
  int doWrite(const void* buffer, int count);
  int doSeek(int64_t offset, int whence);
  int64_t doTell();
  int doClose();

 private:
  struct Face {
    _ZqTPIOobj io;
  };
  void note(IoCall::Kind kind, int64_t position, int64_t count, int64_t result);
  Face face_;
  int64_t position_ = 0;
  bool recording_ = false;
  std::vector<IoCall> calls_;
  bool failOpen_ = false;
  int64_t failSeekAt_ = 0, seeks_ = 0;
  bool seekSticky_ = false;
  int64_t shortReadAt_ = 0, reads_ = 0;
  int shortReadBytes_ = 0;
  int64_t failWriteAt_ = 0, writes_ = 0;
  int64_t openCalls_ = 0, closeCalls_ = 0;
  int64_t readCallsTotal_ = 0, seekCallsTotal_ = 0, writeCallsTotal_ = 0;
};

// An I/O object over bytes in memory; writes grow the buffer.
class MemoryIo : public HostIo {
 public:
  MemoryIo() = default;
  explicit MemoryIo(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}
  std::vector<uint8_t>& bytes() { return bytes_; }
  const std::vector<uint8_t>& bytes() const { return bytes_; }

  int64_t size() const override { return static_cast<int64_t>(bytes_.size()); }
  int readAt(int64_t position, void* buffer, int count) override;
  bool writeAt(int64_t position, const void* buffer, int count) override;

 private:
  std::vector<uint8_t> bytes_;
};

// An I/O object over a file.  The file is opened by the object's open slot
// (as the library expects) and closed by its close slot.
//
// Small reads are served from a window of the file held in memory, as
// stdio serves them: the library reads a stream one sector (or one 64-byte
// mini sector) at a time, and a system call for each would cost more than
// the copy.  Reads of a window or more go straight to the file.  A write
// through this object drops the window; changes made to the file by anyone
// else while it is open may go unseen until the next miss, as with stdio.
class FileIo : public HostIo {
 public:
  enum Mode { kRead, kCreate, kReadWrite };
  FileIo(std::string path, Mode mode);
  ~FileIo() override;
  const std::string& path() const { return path_; }
  // errno of the last failed open, 0 otherwise.
  int openError() const { return openError_; }

  int64_t size() const override;
  int readAt(int64_t position, void* buffer, int count) override;
  bool writeAt(int64_t position, const void* buffer, int count) override;
  bool openBackend() override;
  void closeBackend() override;

 private:
  int readFile(int64_t position, void* buffer, int count);
  void dropWindow() { windowLength_ = 0; }

  std::string path_;
  Mode mode_;
  int fd_ = -1;
  int openError_ = 0;
  std::vector<uint8_t> window_;
  int64_t windowStart_ = 0;
  int64_t windowLength_ = 0;
};

// Reads a whole file; false when it cannot be read.
bool readFile(const std::string& path, std::vector<uint8_t>* bytes);

}  // namespace moxhost

#endif  // MOXOLEFIO_HOST_MOXHOST_H_
