// moxole pack: a directory tree as a new compound document.
//
// The whole tree is checked before anything is written, so a name the
// format cannot hold fails the run at once and leaves FILE untouched.  The
// document is written to a temporary file beside FILE and renamed over it
// only when every byte went out.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "host/moxhost.h"
#include "tools/moxole/commands.h"
#include "tools/moxole/names.h"
#include "tools/moxole/progress.h"
#include "tools/moxole/report.h"

namespace moxole {

namespace {

// Limits of the format and of the writer's path parser.
constexpr size_t kMaxNameBytes = 31;
constexpr size_t kMaxPathBytes = 1023;
constexpr int kMaxDepth = 200;
constexpr size_t kCopyChunk = 1 << 20;

struct PackItem {
  std::string writerPath;  // names joined with '\', as the writer takes them
  std::string diskPath;
  bool storage;
  int64_t size;
};

std::string foldCase(std::string name) {
  for (char& c : name) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return name;
}

int checkName(const std::string& diskPath, const std::string& fileName,
              std::string* name) {
  if (!unescapeName(fileName, name)) {
    return fail(kExitIo, diskPath, "name holds an escaped zero byte");
  }
  // The writer takes 8-bit names, each byte the character of that number.
  std::string narrow;
  for (size_t i = 0; i < name->size(); ++i) {
    unsigned char c = static_cast<unsigned char>((*name)[i]);
    unsigned char next = i + 1 < name->size() ? static_cast<unsigned char>((*name)[i + 1]) : 0;
    if ((c == 0xC2 || c == 0xC3) && (next & 0xC0) == 0x80) {
      narrow += static_cast<char>((c & 0x03) << 6 | (next & 0x3F));
      ++i;
    } else if (c >= 0xC4 && c < 0xF8 && (next & 0xC0) == 0x80) {
      return fail(kExitIo, diskPath, "name holds a character past U+00FF, which pack cannot write");
    } else {
      narrow += static_cast<char>(c);  // not UTF-8: the byte itself
    }
  }
  *name = narrow;
  if (name->empty()) {
    return fail(kExitIo, diskPath, "an empty entry name cannot be packed");
  }
  if (name->find('\\') != std::string::npos) {
    return fail(kExitIo, diskPath,
                "name holds a '\\', which a compound file path cannot carry");
  }
  if (name->size() > kMaxNameBytes) {
    return fail(kExitIo, diskPath, "name is longer than 31 characters");
  }
  return kExitOk;
}

std::vector<std::string> directoryNames(const std::string& dir, int* error) {
  std::vector<std::string> names;
  DIR* handle = opendir(dir.c_str());
  if (handle == nullptr) {
    *error = errno;
    return names;
  }
  while (dirent* entry = readdir(handle)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(handle);
  std::sort(names.begin(), names.end());
  *error = 0;
  return names;
}

// Collects DIR's tree in creation order: every storage before its content.
int scan(const std::string& dir, const std::string& writerPrefix, int depth,
         std::vector<PackItem>* items) {
  if (depth > kMaxDepth) {
    return fail(kExitIo, dir, "directories nested too deep to pack");
  }
  int error;
  std::vector<std::string> names = directoryNames(dir, &error);
  if (error != 0) return fail(kExitIo, dir, errorText(error));
  std::map<std::string, std::string> folded;  // sibling names without case
  for (const std::string& fileName : names) {
    std::string diskPath = dir + "/" + fileName;
    std::string name;
    int status = checkName(diskPath, fileName, &name);
    if (status != kExitOk) return status;
    auto seen = folded.emplace(foldCase(name), fileName);
    if (!seen.second) {
      return fail(kExitIo, diskPath,
                  "differs from " + seen.first->second +
                      " only in letter case, which siblings may not");
    }
    PackItem item;
    item.writerPath = writerPrefix.empty() ? name : writerPrefix + "\\" + name;
    item.diskPath = diskPath;
    if (item.writerPath.size() > kMaxPathBytes) {
      return fail(kExitIo, diskPath, "path is longer than 1023 bytes");
    }
    struct stat st;
    if (lstat(diskPath.c_str(), &st) != 0) {
      return fail(kExitIo, diskPath, errorText(errno));
    }
    if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode)) {
      return fail(kExitIo, diskPath, "not a regular file or directory");
    }
    item.storage = S_ISDIR(st.st_mode);
    item.size = item.storage ? 0 : st.st_size;
    items->push_back(item);
    if (item.storage) {
      status = scan(diskPath, item.writerPath, depth + 1, items);
      if (status != kExitOk) return status;
    }
  }
  return kExitOk;
}

// A file I/O object that remembers a failed write: the writer reports
// nothing about the final write of the document.
class CheckedFileIo : public moxhost::FileIo {
 public:
  explicit CheckedFileIo(const std::string& path)
      : FileIo(path, moxhost::FileIo::kCreate) {}
  bool writeAt(int64_t position, const void* buffer, int count) override {
    bool ok = FileIo::writeAt(position, buffer, count);
    if (!ok && error_ == 0) error_ = errno != 0 ? errno : EIO;
    return ok;
  }
  int writeError() const { return error_; }

 private:
  int error_ = 0;
};

// Creates a private temporary file beside `file`; "" after reporting.
std::string temporaryBeside(const std::string& file) {
  std::string pattern = file + ".moxole-XXXXXX";
  int fd = mkstemp(&pattern[0]);
  if (fd < 0) {
    fail(kExitIo, file, errorText(errno));
    return "";
  }
  // mkstemp makes the file private; give it the permissions a new file gets.
  mode_t mask = umask(0);
  umask(mask);
  fchmod(fd, 0666 & ~mask);
  close(fd);
  return pattern;
}

class Packer {
 public:
  Packer(const Library& library, _MoxOleFile* handle, Progress* progress)
      : api_(library.api()), handle_(handle), progress_(progress) {}

  int add(const PackItem& item) {
    int status = api_.iOLEopenStreamEx(handle_, item.writerPath.c_str(),
                                       item.storage ? 1 : 2, 1);
    if (status != MOXOLE_OK) {
      return fail(kExitIo, item.diskPath,
                  "cannot be added to the document (writer status " +
                      std::to_string(status) + ")");
    }
    int result = item.storage ? kExitOk : copyFile(item);
    progress_->entryDone();
    return result;
  }

 private:
  int copyFile(const PackItem& item) {
    int fd = open(item.diskPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return fail(kExitIo, item.diskPath, errorText(errno));
    buffer_.resize(kCopyChunk);
    int status = kExitOk;
    for (;;) {
      ssize_t n = read(fd, buffer_.data(), buffer_.size());
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        status = fail(kExitIo, item.diskPath, errorText(errno));
        break;
      }
      if (n == 0) break;
      if (api_.iOLEwrite(handle_, buffer_.data(), static_cast<int>(n)) !=
          MOXOLE_OK) {
        status = fail(kExitIo, item.diskPath, "out of memory while packing");
        break;
      }
      progress_->addBytes(n);
    }
    close(fd);
    return status;
  }

  const MoxOleInterface& api_;
  _MoxOleFile* handle_;
  Progress* progress_;
  std::vector<unsigned char> buffer_;
};

int checkSourceDirectory(const std::string& dir) {
  struct stat st;
  if (stat(dir.c_str(), &st) != 0) {
    int error = errno;
    return fail(error == ENOENT ? kExitNotFound : kExitIo, dir,
                errorText(error));
  }
  if (!S_ISDIR(st.st_mode)) return fail(kExitIo, dir, "not a directory");
  return kExitOk;
}

}  // namespace

int runPack(const Library& library, const Invocation& call) {
  const std::string& dir = call.operands[0];
  const std::string& file = call.operands[1];
  const MoxOleInterface& api = library.api();
  int status = checkSourceDirectory(dir);
  if (status != kExitOk) return status;
  std::vector<PackItem> items;
  status = scan(dir, "", 0, &items);
  if (status != kExitOk) return status;
  if (!library.require(reinterpret_cast<const void*>(api.hOLEopenEx),
                       "hOLEopenEx") ||
      !library.require(reinterpret_cast<const void*>(api.iOLEopenStreamEx),
                       "iOLEopenStreamEx") ||
      !library.require(reinterpret_cast<const void*>(api.iOLEwrite),
                       "iOLEwrite")) {
    return kExitIo;
  }

  std::string temporary = temporaryBeside(file);
  if (temporary.empty()) return kExitIo;
  moxhost::PoolServices services;
  CheckedFileIo io(temporary);
  _MoxOleFile* handle = api.hOLEopenEx(io.io(), services.services(), 1);
  if (handle == nullptr) {
    unlink(temporary.c_str());
    return fail(kExitIo, file,
                io.openError() != 0 ? errorText(io.openError())
                                    : "cannot start a new document");
  }
  int64_t bytes = 0;
  for (const PackItem& item : items) bytes += item.size;
  {
    Progress progress("pack", static_cast<int64_t>(items.size()), bytes);
    Packer packer(library, handle, &progress);
    for (const PackItem& item : items) {
      status = packer.add(item);
      if (status != kExitOk) break;
    }
    // Closing lays the document out and writes it.
    api.iOLEclose(handle);
  }
  if (status == kExitOk && io.writeError() != 0) {
    status = fail(kExitIo, file, errorText(io.writeError()));
  }
  if (status == kExitOk && rename(temporary.c_str(), file.c_str()) != 0) {
    status = fail(kExitIo, file, errorText(errno));
  }
  if (status != kExitOk) unlink(temporary.c_str());
  return status;
}

}  // namespace moxole
