// The native interface's writer against libgsf's, to files on disk, and a
// commit against cp:
//   - one 1 GiB stream in 64 KiB writes;
//   - 100000 streams of 100 bytes, 100 to a storage;
//   - the 100000-stream file opened for editing, one 100-byte stream
//     changed and committed, beside `cp` of the same file.
// Each run is a fresh process (so the peak resident size is its own) and
// ends with the file flushed to the disk: a commit does fsync, so libgsf's
// file is flushed too once it is closed.  cp is timed as it is (no fsync)
// and with an fsync of the copy, in the note.
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/gsf_peer.h"
#include "bench/sections.h"
#include "moxolefio/moxolefio.hpp"

extern char** environ;

namespace bench {

namespace {

struct Outcome {
  double seconds = -1;
  double fileMB = -1;
};

struct Measured {
  double seconds = -1;
  double fileMB = -1;
  double rssMB = -1;
};

Measured inChild(const std::function<Outcome()>& work) {
  Outcome out;
  Measured m;
  if (!runInChild([&](void* to) { *static_cast<Outcome*>(to) = work(); }, &out, sizeof out, &m.rssMB)) return m;
  m.seconds = out.seconds;
  m.fileMB = out.fileMB;
  return m;
}

double fileMB(const std::string& path) {
  std::error_code ec;
  const auto size = std::filesystem::file_size(path, ec);
  return ec ? -1 : static_cast<double>(size) / kMiB;
}

Outcome moxOneStream(const std::string& path, int64_t total, int piece) {
  Outcome o;
  std::vector<uint8_t> data(static_cast<size_t>(piece));
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 31 + 7);
  try {
    const double start = now();
    mox::CompoundFile f = mox::CompoundFile::create(path);
    mox::Stream s = f.create_stream("Large");
    for (int64_t done = 0; done < total; done += piece) s.write(data.data(), data.size());
    f.commit();
    o.seconds = now() - start;
  } catch (const mox::Error& e) {
    fprintf(stderr, "edit bench: %s\n", e.what());
  }
  o.fileMB = fileMB(path);
  return o;
}

Outcome moxManyStreams(const std::string& path, int count, int size, int version) {
  Outcome o;
  std::vector<uint8_t> data(static_cast<size_t>(size), 0x5A);
  char name[64];
  try {
    const double start = now();
    mox::CompoundFile f = mox::CompoundFile::create(path, mox::CreateOptions{version});
    for (int i = 0; i < count; ++i) {
      snprintf(name, sizeof name, "Storage%d/Stream%d", i / 100, i);
      f.create_stream(name).write(data.data(), data.size());
    }
    f.commit();
    o.seconds = now() - start;
  } catch (const mox::Error& e) {
    fprintf(stderr, "edit bench: %s\n", e.what());
  }
  o.fileMB = fileMB(path);
  return o;
}

Outcome gsfOut(bool ok, int64_t bytes, double start) {
  Outcome o;
  if (!ok) return o;
  o.seconds = now() - start;
  o.fileMB = static_cast<double>(bytes) / kMiB;
  return o;
}

// Copies `from` over `to` untimed, then opens it for editing, changes 100
// bytes of one stream and commits.
Outcome moxCommitOne(const std::string& from, const std::string& to, const std::string& target, int round) {
  Outcome o;
  std::error_code ec;
  std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing, ec);
  if (ec) return o;
  touchFile(to);
  try {
    std::vector<uint8_t> data(100, static_cast<uint8_t>(round));
    const double start = now();
    mox::CompoundFile f = mox::CompoundFile::open_rw(to);
    f.open_stream(target).write(data.data(), data.size());
    f.commit();
    o.seconds = now() - start;
  } catch (const mox::Error& e) {
    fprintf(stderr, "edit bench: %s\n", e.what());
  }
  o.fileMB = fileMB(to);
  return o;
}

double cpSeconds(const std::string& from, const std::string& to, bool sync) {
  ::unlink(to.c_str());
  const char* argv[] = {"cp", from.c_str(), to.c_str(), nullptr};
  const double start = now();
  pid_t child;
  if (posix_spawnp(&child, "cp", nullptr, nullptr, const_cast<char* const*>(argv), environ) != 0) return -1;
  int status = 0;
  if (waitpid(child, &status, 0) < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
  if (sync) {
    const int fd = open(to.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || fsync(fd) != 0) return -1;
    close(fd);
  }
  return now() - start;
}

void add(Table* table, Row row, const std::vector<Measured>& mox, const std::vector<Measured>& peer,
         const std::function<double(const Measured&)>& figure) {
  auto med = [&](const std::vector<Measured>& runs, const std::function<double(const Measured&)>& f) {
    std::vector<double> v;
    for (const Measured& m : runs) {
      if (m.seconds < 0) return -1.0;
      v.push_back(f(m));
    }
    return median(v);
  };
  row.mox.value = med(mox, figure);
  row.gsf.value = peer.empty() ? -1 : med(peer, figure);
  char note[128];
  snprintf(note, sizeof note, "file %.0f MB; peak RSS %.0f MB (libgsf %.0f MB)",
           mox.empty() ? 0 : mox[0].fileMB, med(mox, [](const Measured& m) { return m.rssMB; }),
           peer.empty() ? -1.0 : med(peer, [](const Measured& m) { return m.rssMB; }));
  row.note = note;
  table->add(row);
}

}  // namespace

void editSection(const Options& options, Table* table) {
  ScratchDir dir;
  const std::string moxPath = dir.file("mox.cfb"), gsfPath = dir.file("gsf.cfb");
  // Gigabyte files are written a few times only: the disk is shared.
  const int runs = std::max(1, std::min(options.runs, 3));
  const int64_t total = options.quick ? (int64_t{64} << 20) : (int64_t{1} << 30);
  const int count = options.quick ? 10000 : 100000;

  std::vector<Measured> mox, peer;
  for (int i = 0; i < runs; ++i) {
    mox.push_back(inChild([&] { return moxOneStream(moxPath, total, 65536); }));
    ::unlink(moxPath.c_str());
    if (gsf::available()) {
      peer.push_back(inChild([&] {
        int64_t bytes = 0;
        const double start = now();
        const bool ok = gsf::writeOneStreamToFile(gsfPath, total, 65536, &bytes);
        return gsfOut(ok, bytes, start);
      }));
      ::unlink(gsfPath.c_str());
    }
  }
  const double mb = static_cast<double>(total) / kMiB;
  add(table, Row("edit", std::to_string(total >> 20) + " MiB stream, 64 KiB writes, to a file", "MB/s", true), mox,
      peer, [&](const Measured& m) { return mb / m.seconds; });

  mox.clear();
  peer.clear();
  for (int i = 0; i < options.runs; ++i) {
    mox.push_back(inChild([&] { return moxManyStreams(moxPath, count, 100, 3); }));
    if (gsf::available()) {
      peer.push_back(inChild([&] {
        int64_t bytes = 0;
        const double start = now();
        const bool ok = gsf::writeManyStreamsToFile(gsfPath, count, 100, &bytes);
        return gsfOut(ok, bytes, start);
      }));
      ::unlink(gsfPath.c_str());
    }
  }
  add(table, Row("edit", std::to_string(count) + " streams of 100 B, to a file", "s", false), mox, peer,
      [](const Measured& m) { return m.seconds; });

  // moxPath now holds the many-stream file (version 3, as libgsf writes).
  const std::string work = dir.file("work.cfb"), copy = dir.file("copy.cfb");
  touchFile(moxPath);
  mox.clear();
  std::vector<double> cp, cpSync;
  const std::string middle =
      "Storage" + std::to_string(count / 200) + "/Stream" + std::to_string(count / 200 * 100);
  for (int i = 0; i < options.runs; ++i) {
    mox.push_back(inChild([&] { return moxCommitOne(moxPath, work, middle, i); }));
    cp.push_back(cpSeconds(moxPath, copy, false));
    cpSync.push_back(cpSeconds(moxPath, copy, true));
  }
  Row commit("edit", "commit of one changed 100 B stream of that file", "s", false);
  commit.physical.value = median(cp);
  add(table, commit, mox, {}, [](const Measured& m) { return m.seconds; });
  char note[160];
  snprintf(note, sizeof note, "memcpy column: cp of the file (%.3f s with fsync); open + edit + commit (fsync)",
           median(cpSync));
  Row withCp("edit", "  cp of the same file", "s", false);
  withCp.mox.value = median(cp);
  withCp.note = note;
  table->add(withCp);
}

}  // namespace bench
