// Fuzz target: the OS layer's file, directory, lock, temporary-name and
// memory functions driven by a program of operations (see vos_program.h)
// on generated names, all inside a scratch directory of this process's own
// under $TMPDIR (/tmp by default), which is also the working directory.  Generated paths are
// relative and never hold a ".." component, and nothing the target can
// call makes a symbolic link, so no call can reach outside the scratch
// directory; getcwd checks that the working directory stays inside.
//
// Beside "no crash", the target checks what the layer promises whatever
// the names: descriptors at 256 or above, files created empty with 0644
// less the mask, existing ones truncated only when asked, the access and
// append flags of the mode or flags asked for, whole
// elements counted, mkdir's result, temporary names made of the directory
// and prefix given, the size queries agreeing, and stat with access,
// getcwd giving the platform's answer, a lock without a file failing in
// fcntl, allocation limits (sizes past them never reaching the allocator),
// readdir_r leaving the caller's entry alone, and after every input no
// descriptor, lock or host-memory block left behind.  Exact results of
// single calls are the unit tests'.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "fuzz/fuzz_input.h"
#include "fuzz/scratch_dir.h"
#include "fuzz/vos_program.h"
#include "host/moxhost.h"
#include "moxvos.h"

namespace {

constexpr int kMaxOps = 64;
constexpr int kLowestDescriptor = 256;

using moxfuzz::require;

// A relative path inside the working directory (see vos_program.h).
std::string path(FuzzInput& in) {
  const int components = in.byte() % 12 + 1;
  std::string out;
  for (int i = 0; i < components; ++i) {
    const uint8_t length = in.byte();
    std::string name = in.chars(length & 0x80 ? 3 * (length & 0x7F) : length);
    std::replace(name.begin(), name.end(), '/', '_');
    if (name == "..") name = "._";
    if (i == 0 && name.empty()) name = "e";
    out += (i > 0 ? "/" : "") + name;
  }
  return out;
}

struct Slot {
  int fd = -1;
  bool locked = false;  // holds lock, not fd
  _MoxvosFlock lock;
};

class Run {
 public:
  Run(const std::string& scratch, mode_t mask)
      : scratch_(scratch), mask_(mask), highDescriptors_(sysconf(_SC_OPEN_MAX) > kLowestDescriptor + 64) {}

  ~Run() {
    for (Slot& s : slots_) release(s);
    require(memory_.liveBlocks() == 0, "host memory left live");
  }

  void step(FuzzInput& in) {
    switch (in.byte() % moxfuzz::kVosOpCount) {
      case moxfuzz::kVosMkdir: makeDirectories(in); break;
      case moxfuzz::kVosTempnam: temporaryName(in); break;
      case moxfuzz::kVosOpen: open(in); break;
      case moxfuzz::kVosFopen: fopen(in); break;
      case moxfuzz::kVosWrite: transfer(in, true); break;
      case moxfuzz::kVosRead: transfer(in, false); break;
      case moxfuzz::kVosSeek: seek(in); break;
      case moxfuzz::kVosFileOps: fileOps(in); break;
      case moxfuzz::kVosStatus: status(in); break;
      case moxfuzz::kVosRemove: {
        const std::string p = path(in);
        (in.byte() & 1) ? moxvos_rmdir(p.c_str(), nullptr) : moxvos_unlink(p.c_str(), nullptr);
        break;
      }
      case moxfuzz::kVosRename: {
        const std::string from = path(in);
        moxvos_rename(from.c_str(), path(in).c_str(), nullptr);
        break;
      }
      case moxfuzz::kVosChmod: {
        const std::string p = path(in);
        moxvos_chmod(p.c_str(), in.u16() & 07777, nullptr);
        break;
      }
      case moxfuzz::kVosListDir: listDirectory(in); break;
      case moxfuzz::kVosChdir: changeDirectory(in); break;
      case moxfuzz::kVosLock: lock(in); break;
      case moxfuzz::kVosUmask: {
        const mode_t mask = in.u16() & 0777;
        require(static_cast<mode_t>(moxvos_umask(mask, nullptr)) == mask_, "umask's previous mask");
        mask_ = mask;
        break;
      }
      case moxfuzz::kVosMemory: allocate(in); break;
    }
  }

 private:
  Slot& slot(FuzzInput& in) { return slots_[in.byte() % moxfuzz::kVosSlots]; }
  Slot& freshSlot(FuzzInput& in) { return release(slot(in)); }

  static Slot& release(Slot& s) {
    if (s.locked) {
      require(moxvos_flock_free(&s.lock, nullptr) == 0, "moxvos_flock_free");
      require(s.lock.iFd == -1 && s.lock.pszPath == nullptr, "a freed lock still holds something");
    } else if (s.fd >= 0) {
      moxvos_fclose(s.fd);
    }
    return s = Slot();
  }

  // A host buffer of `bytes` (at least one).
  unsigned char* buffer(int64_t bytes) {
    void* p = memory_.allocate(static_cast<int>(bytes > 0 ? bytes : 1));
    require(p != nullptr, "host memory");
    return static_cast<unsigned char*>(p);
  }

  // The size of what is at p, -1 when nothing is.
  static int64_t sizeAt(const std::string& p) {
    struct stat record;
    return stat(p.c_str(), &record) == 0 ? record.st_size : -1;
  }

  // `before` is sizeAt() the path just before it was opened with `flags`.
  void opened(Slot& s, int64_t fd, int flags, int64_t before) {
    require(fd >= -1, "a descriptor below -1");
    require(fd == -1 || before >= 0 || (flags & O_CREAT), "a missing file opened without O_CREAT");
    if (fd < 0) return;
    require(!highDescriptors_ || fd >= kLowestDescriptor, "a descriptor below 256");
    s.fd = static_cast<int>(fd);
    struct stat record;
    require(fstat(s.fd, &record) == 0, "fstat of an open descriptor");
    const int64_t size = (flags & O_TRUNC) || before < 0 ? 0 : before;
    require(record.st_size == size, "a file's size after opening: truncated only when asked");
    const int kept = O_ACCMODE | O_APPEND;
    require((fcntl(s.fd, F_GETFL) & kept) == (flags & kept), "the access and append flags after opening");
    if (before < 0) require((record.st_mode & 07777) == (0644 & ~mask_), "a created file's permissions");
  }

  // mkdir succeeds exactly when the path (its first 4096 bytes) was not
  // there and is a directory now, whatever the empty components, the files
  // in the way and the permissions of what it made.
  void makeDirectories(FuzzInput& in) {
    const std::string p = path(in);
    const int mode = in.u16() & 07777;
    const std::string used = p.substr(0, 4096);
    const bool there = sizeAt(used) >= 0;
    const int result = moxvos_mkdir(p.c_str(), mode, nullptr);
    struct stat record;
    const bool directory = stat(used.c_str(), &record) == 0 && S_ISDIR(record.st_mode);
    require((result == 0) == (!there && directory), "moxvos_mkdir's result");
  }

  void temporaryName(FuzzInput& in) {
    const std::string dir = path(in);
    std::string prefix = in.text(40, false, 'p');
    std::replace(prefix.begin(), prefix.end(), '/', '_');
    const bool noPrefix = in.byte() & 1;
    char* name = moxvos_tempnam(dir.c_str(), noPrefix ? nullptr : prefix.c_str(), nullptr);
    if (name == nullptr) return;
    const std::string expected = dir + "/" + (noPrefix ? "" : prefix);
    require(strncmp(name, expected.c_str(), expected.size()) == 0 && strlen(name) == expected.size() + 6,
            "a temporary name not made of the directory and prefix");
    struct stat record;
    require(stat(name, &record) == 0 && S_ISREG(record.st_mode) && record.st_size == 0,
            "a temporary name without its empty file");
    unlink(name);
    moxvos_free(name);
  }

  void open(FuzzInput& in) {
    static const int kFlags[] = {
        O_RDONLY, O_WRONLY | O_CREAT, O_RDWR | O_CREAT | O_TRUNC, O_WRONLY | O_CREAT | O_EXCL,
        O_RDWR | O_CREAT | O_APPEND, O_RDONLY | O_DIRECTORY, O_RDWR, O_WRONLY | O_TRUNC};
    Slot& s = freshSlot(in);
    const std::string p = path(in);
    const int flags = kFlags[in.byte() % 8];
    const int64_t before = sizeAt(p);
    const int fd = (in.byte() & 1) ? moxvos_open64(p.c_str(), flags, nullptr)
                                   : moxvos_open(p.c_str(), flags, nullptr);
    opened(s, fd, flags, before);
  }

  void fopen(FuzzInput& in) {
    Slot& s = freshSlot(in);
    const std::string p = path(in);
    const std::string mode = in.text(4, false, 'b');
    const bool wide = in.byte() & 1;
    const int64_t before = sizeAt(p);
    const int64_t fd = wide ? moxvos_fopen64(p.c_str(), mode.c_str(), nullptr)
                            : moxvos_fopen(p.c_str(), mode.c_str(), nullptr);
    // The mode table: first character, and '+' anywhere.
    const bool update = mode.find('+') != std::string::npos;
    int flags = O_RDONLY;
    if (!mode.empty() && mode[0] == 'r') flags = update ? O_RDWR : O_RDONLY;
    if (!mode.empty() && mode[0] == 'w') flags = (update ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC;
    if (!mode.empty() && mode[0] == 'a') flags = (update ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
    opened(s, fd, flags, before);
  }

  // moxvos_fwrite or moxvos_fread of `count` elements of `size` bytes.
  void transfer(FuzzInput& in, bool writing) {
    Slot& s = slot(in);
    const uint64_t size = in.byte() % 16 + 1;
    const uint64_t count = in.u16() % 4096;
    const uint8_t pattern = writing ? in.byte() : 0;
    if (s.locked) return;
    const int64_t bytes = static_cast<int64_t>(size * count);
    unsigned char* data = buffer(bytes);
    for (int64_t i = 0; i < bytes; ++i) data[i] = static_cast<unsigned char>(pattern + i * 7);
    const int64_t done = writing ? moxvos_fwrite(s.fd, data, size, count) : moxvos_fread(s.fd, data, size, count);
    require(done >= 0 && static_cast<uint64_t>(done) <= count, "a transfer's element count");
    memory_.release(data);
  }

  // Moves where later transfers land; the seek functions' results are
  // checked exactly, past 4 GiB, by the unit tests.
  void seek(FuzzInput& in) {
    Slot& s = slot(in);
    const int64_t offset = static_cast<int32_t>(in.u32());
    const int whence = in.byte() % 4;
    in.byte();  // a choice of seek function, in earlier inputs
    if (!s.locked) moxvos_lseek(s.fd, offset, whence);
  }

  void fileOps(FuzzInput& in) {
    Slot& s = slot(in);
    const uint8_t op = in.byte() % 6;
    const uint16_t length = in.u16();
    if (s.locked) return;
    struct stat64 record;
    switch (op) {
      case 4:
        if (moxvos_ftruncate(s.fd, length) == 0) require(moxvos_filesize(s.fd) == length, "the size after ftruncate");
        break;
      case 5: release(s); break;
      default:  // the three ways of asking for the size agree
        require(moxvos_filesize(s.fd) == moxvos_filesize64(s.fd) &&
                    (moxvos_fstat64(s.fd, &record) != 0 || record.st_size == moxvos_filesize(s.fd)),
                "the size queries differ");
    }
  }

  // Exact results are the unit tests'; here stat and access agree on
  // whether a path is there.
  void status(FuzzInput& in) {
    const std::string p = path(in);
    in.byte();  // an access mode, in earlier inputs
    struct stat record;
    require((moxvos_stat(p.c_str(), &record, nullptr) == 0) == (moxvos_access(p.c_str(), F_OK, nullptr) == 0),
            "moxvos_stat and moxvos_access disagree on a path");
  }

  void listDirectory(FuzzInput& in) {
    const std::string p = path(in);
    const int wanted = in.byte();
    DIR* dir = moxvos_opendir(p.c_str(), nullptr);
    if (dir == nullptr) return;
    struct dirent spare;
    memset(&spare, 0x5A, sizeof spare);
    for (int i = 0; i < wanted; ++i) {
      if (((i & 1) ? moxvos_readdir_r(dir, &spare, nullptr) : moxvos_readdir(dir, nullptr)) == nullptr) break;
    }
    const unsigned char* raw = reinterpret_cast<const unsigned char*>(&spare);
    for (size_t i = 0; i < sizeof spare; ++i) require(raw[i] == 0x5A, "moxvos_readdir_r wrote its entry");
    require(moxvos_closedir(dir, nullptr) == 0, "moxvos_closedir");
  }

  void changeDirectory(FuzzInput& in) {
    const std::string p = path(in);
    const uint16_t size = in.u16() % 8192;
    moxvos_chdir(p.c_str(), nullptr);
    // Without a buffer the call is refused: the layer never lets the platform allocate.
    char* into = size == 0 ? nullptr : reinterpret_cast<char*>(buffer(size));
    const char* cwd = moxvos_getcwd(into, size, nullptr);
    // The platform's own answer, which it gives in any buffer while the
    // path is short enough; a buffer too small for it gives nothing.
    char* real = getcwd(nullptr, 0);
    const size_t length = real == nullptr ? SIZE_MAX : strlen(real);
    require(cwd == nullptr ? size <= length || length >= 4096 : cwd == into && real != nullptr && strcmp(cwd, real) == 0,
            "moxvos_getcwd's answer");
    require(cwd == nullptr || strncmp(cwd, scratch_.c_str(), scratch_.size()) == 0,
            "the working directory left the scratch directory");
    free(real);
    if (into != nullptr) memory_.release(into);
  }

  void lock(FuzzInput& in) {
    static const int kFlags[] = {O_RDWR | O_CREAT, O_RDONLY, O_WRONLY | O_CREAT, O_RDWR};
    Slot& s = freshSlot(in);
    const std::string p = path(in);
    const int flags = kFlags[in.byte() % 4];
    const int whence = in.byte() % 3;
    const int64_t start = in.u16();
    const int64_t length = in.u16();
    const bool noFile = p.size() == 1 && p[0] == 'e';
    s.locked = true;
    const int result = moxvos_flock_init(&s.lock, flags, noFile ? nullptr : p.c_str(), nullptr);
    if (noFile) {
      require(result == 0 && s.lock.iFd == -1 && s.lock.pszPath == nullptr, "a lock object without a file");
      // Requests fail in fcntl, not as busy.
      require(moxvos_flock_trywrlock(&s.lock, whence, start, length, nullptr) == -1 && errno == EBADF, "a lock without a file");
      require(moxvos_flock_unlock(&s.lock, whence, start, length, nullptr) == -1 && errno == EBADF, "an unlock without a file");
      return;
    }
    require(s.lock.pszPath != nullptr && strcmp(s.lock.pszPath, p.c_str()) == 0, "the lock's name copy");
    require((result == 0) == (s.lock.iFd != -1), "moxvos_flock_init's result");
    if (result != 0) return;
    if (highDescriptors_) require(s.lock.iFd >= kLowestDescriptor, "a lock descriptor below 256");
    // What a request gives, and what others then see, is the unit tests'.
    moxvos_flock_trywrlock(&s.lock, whence, start, length, nullptr);
    moxvos_flock_unlock(&s.lock, whence, start, length, nullptr);
  }

  // One of malloc, calloc, realloc and Saferealloc (of a 64-byte block).
  void allocate(FuzzInput& in) {
    const uint8_t op = in.byte() % 4;
    const uint8_t choice = in.byte();
    const uint16_t small = in.u16();
    // Sizes the allocator may see, or sizes it must never see.
    static const uint64_t kHuge[] = {2147483648ull, 4294967296ull + 16, ~0ull, 1ull << 62};
    const bool huge = choice & 1;
    const uint64_t size = huge ? kHuge[(choice >> 1) % 4] : small;
    const uint64_t count = (choice >> 3) + (huge ? 0 : 1);
    void* old = op >= 2 ? moxvos_malloc(64) : nullptr;
    errno = 0;
    unsigned char* p = static_cast<unsigned char*>(op == 0   ? moxvos_malloc(size)
                                                   : op == 1 ? moxvos_calloc(count, size)
                                                   : op == 2 ? moxvos_realloc(old, size)
                                                             : moxvos_Saferealloc(old, size));
    // Nothing, or (for calloc) no elements, is null as well; a realloc to
    // nothing releases the block.
    require((p == nullptr) == (huge || size == 0 || (op == 1 && count == 0)), "an allocation's limits");
    require(!huge || errno == 0, "a size past the limit reached the allocator");
    for (uint64_t i = 0; op == 1 && p != nullptr && i < count * size; ++i) require(p[i] == 0, "moxvos_calloc's zeros");
    moxvos_free(op == 2 && huge ? old : p);  // realloc past the limit leaves the old block ours
  }

  std::string scratch_;
  mode_t mask_;
  bool highDescriptors_;
  moxhost::CountingMemory memory_;
  Slot slots_[moxfuzz::kVosSlots];
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string scratch = moxfuzz::scratchDir("vos");
  require(chdir(scratch.c_str()) == 0, "cannot enter the scratch directory");
  const int descriptors = moxfuzz::openDescriptors();
  // Runs start without a mask, so that a created file shows every
  // permission bit the layer asked for.
  const mode_t mask = umask(0);
  FuzzInput in(data, size);
  {
    Run run(scratch, 0);
    for (int n = 0; n < kMaxOps && !in.empty(); ++n) run.step(in);
    umask(mask);
  }
  require(chdir(scratch.c_str()) == 0, "cannot return to the scratch directory");
  require(moxfuzz::openDescriptors() == descriptors, "a descriptor left open");
  moxfuzz::emptyDir(scratch);
  return 0;
}
