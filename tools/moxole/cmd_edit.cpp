// moxole put, rm, mv and mkdir: changes to a document through the native
// interface, each one committed atomically (the document is rewritten
// beside itself and renamed over), so an interrupted or failed command
// leaves the old document whole.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <vector>

#include "moxolefio/moxolefio.hpp"
#include "tools/moxole/commands.h"
#include "tools/moxole/names.h"
#include "tools/moxole/report.h"

namespace moxole {

namespace {

int statusOf(mox::Errc code) {
  switch (code) {
    case mox::Errc::not_found: return kExitNotFound;
    case mox::Errc::not_a_compound_file:
    case mox::Errc::damaged: return kExitBadDocument;
    case mox::Errc::exists:
    case mox::Errc::invalid_argument: return kExitUsage;
    default: return kExitIo;
  }
}

// A path from the command line (names escaped as 'ls' shows them) in the
// interface's form; false (reported) when it names nothing below the root.
bool nativePath(const std::string& file, const std::string& text, std::string* out) {
  std::vector<std::string> names;
  if (!splitPath(text, &names)) {
    fail(kExitUsage, file, "path " + text + " holds an escaped zero byte");
    return false;
  }
  if (names.empty()) {
    fail(kExitUsage, file, "the root cannot be changed this way");
    return false;
  }
  out->clear();
  for (const std::string& name : names) *out = joinPath(*out, name);
  return true;
}

bool fileExists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

// Runs `edit` on the document (made first when `create` and missing),
// then commits; every library error becomes one line and a status.
template <typename Edit>
int editDocument(const std::string& file, bool create, Edit&& edit) {
  try {
    mox::CompoundFile doc = create && !fileExists(file) ? mox::CompoundFile::create(file)
                                                         : mox::CompoundFile::open_rw(file);
    const int status = edit(doc);
    if (status != kExitOk) return status;
    doc.commit();
    return kExitOk;
  } catch (const mox::Error& e) {
    return fail(statusOf(e.code()), "", e.what());
  } catch (const std::bad_alloc&) {
    return fail(kExitIo, file, "out of memory");
  }
}

}  // namespace

int runPut(const Library&, const Invocation& call) {
  const std::string& file = call.operands[0];
  std::string path;
  if (!nativePath(file, call.operands[1], &path)) return kExitUsage;
  const bool fromStdin = call.operands.size() < 3 || call.operands[2] == "-";
  const std::string source = fromStdin ? "standard input" : call.operands[2];
  int fd = STDIN_FILENO;
  if (!fromStdin) {
    fd = open(source.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      const int error = errno;
      return fail(error == ENOENT ? kExitNotFound : kExitIo, source, errorText(error));
    }
  }
  const int status = editDocument(file, true, [&](mox::CompoundFile& doc) {
    mox::Stream stream = doc.create_stream(path);
    std::vector<char> buffer(1 << 20);
    for (;;) {
      const ssize_t n = read(fd, buffer.data(), buffer.size());
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return fail(kExitIo, source, errorText(errno));
      if (n == 0) return static_cast<int>(kExitOk);
      stream.write(buffer.data(), static_cast<std::size_t>(n));
    }
  });
  if (!fromStdin) close(fd);
  return status;
}

int runRemove(const Library&, const Invocation& call) {
  const std::string& file = call.operands[0];
  std::string path;
  if (!nativePath(file, call.operands[1], &path)) return kExitUsage;
  return editDocument(file, false, [&](mox::CompoundFile& doc) {
    doc.remove(path);
    return static_cast<int>(kExitOk);
  });
}

int runMove(const Library&, const Invocation& call) {
  const std::string& file = call.operands[0];
  std::string from, to;
  if (!nativePath(file, call.operands[1], &from) || !nativePath(file, call.operands[2], &to)) return kExitUsage;
  return editDocument(file, false, [&](mox::CompoundFile& doc) {
    const std::optional<mox::Entry> entry = doc.entry(from);
    if (!entry) return fail(kExitNotFound, file, "no entry " + call.operands[1]);
    // Into an existing storage, as mv does; else to the new path, whose
    // parent must exist.
    const std::optional<mox::Entry> target = doc.entry(to);
    if (target && target->is_storage()) {
      doc.move(entry->path, target->path);
      return static_cast<int>(kExitOk);
    }
    const std::size_t cut = to.rfind('/');
    const std::string parent = cut == std::string::npos ? "" : to.substr(0, cut);
    const std::string name = cut == std::string::npos ? to : to.substr(cut + 1);
    const std::size_t own = entry->path.rfind('/');
    const std::string oldParent = own == std::string::npos ? "" : entry->path.substr(0, own);
    const std::optional<mox::Entry> into = doc.entry(parent);
    if (!into || !into->is_storage()) return fail(kExitNotFound, file, "no storage " + (parent.empty() ? "/" : parent));
    std::string at = entry->path;
    if (name != entry->name) {
      doc.rename(at, name);
      at = oldParent.empty() ? name : oldParent + "/" + name;
    }
    if (into->path != oldParent) doc.move(at, into->path);
    return static_cast<int>(kExitOk);
  });
}

int runMkdir(const Library&, const Invocation& call) {
  const std::string& file = call.operands[0];
  std::string path;
  if (!nativePath(file, call.operands[1], &path)) return kExitUsage;
  return editDocument(file, true, [&](mox::CompoundFile& doc) {
    if (doc.exists(path)) return fail(kExitUsage, file, call.operands[1] + " exists");
    doc.create_storage(path);
    return static_cast<int>(kExitOk);
  });
}

}  // namespace moxole
