// Fuzz target: a program of edits on a file made in memory with the C++
// interface.  A map from path to type and bytes predicts each edit,
// failures included (a failed edit changes nothing); at each commit and at
// the end the file's bytes, opened again, must hold exactly the model with
// no defect check() calls an error.  Byte 0 picks the version, then op
// bytes with their paths (a depth byte and a name byte per level, from a
// list with two names the format cannot hold) and arguments.
#include <stdio.h>
#include <stdlib.h>

#include <map>
#include <memory>

#include "fuzz/fuzz_input.h"
#include "fuzz/write_program.h"
#include "moxolefio/moxolefio.hpp"

namespace {

using Bytes = std::vector<uint8_t>;
using Parts = std::vector<std::string>;
struct Item { bool storage; Bytes data; };
using Model = std::map<std::string, Item>;

void require(bool condition, const char* what, const std::string& detail = "") {
  if (!condition) fprintf(stderr, "moxfuzz edit: %s %s\n", what, detail.c_str()), abort();
}

const char* const kNames[] = {"a", "b", "c", "dd", "e1", "f.x", "", "name-longer-than-31-characters-x"};
bool valid(const std::string& n) { return !n.empty() && n.size() <= 31; }
bool under(const std::string& path, const std::string& top) { return path.compare(0, top.size() + 1, top + "/") == 0 || path == top; }
std::string join(const Parts& p, size_t count) {
  std::string s;
  for (size_t i = 0; i < count; ++i) s += (i ? "/" : "") + p[i];
  return s;
}
// The item a path names: null for the root, `missing` when there is none.
Item* find(Model& m, const Parts& p, Item* missing) {
  for (const std::string& n : p) if (!valid(n)) return missing;
  auto it = m.find(join(p, p.size()));
  return p.empty() ? nullptr : it == m.end() ? missing : &it->second;
}
// Whether the first `count` names are or can be made storages; makes them when `make`.
bool storages(Model& m, const Parts& p, size_t count, bool make) {
  for (size_t i = 1; i <= count; ++i) {
    auto it = m.find(join(p, i));
    if (it == m.end() ? !valid(p[i - 1]) : !it->second.storage) return false;
  }
  for (size_t i = 1; make && i <= count; ++i) m.emplace(join(p, i), Item{true, {}});
  return true;
}
void verify(const mox::CompoundFile& f, const Model& m) {
  const std::vector<mox::Entry> all = f.walk();
  require(all.size() == m.size() + 1, "entry count differs from the model");
  for (size_t i = 1; i < all.size(); ++i) {
    auto it = m.find(all[i].path);
    require(it != m.end() && it->second.storage == all[i].is_storage(), "type differs from the model:", all[i].path);
    require(it->second.storage || f.open_stream(all[i].path).read_all() == it->second.data, "bytes differ:", all[i].path);
  }
  for (const mox::Defect& d : f.check()) require(d.severity != mox::Severity::error, "a written file has a defect:", d.message);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  mox::CompoundFile file = mox::CompoundFile::create_memory({in.byte() & 1 ? 3 : 4});
  Model model, committed;
  Bytes snapshotBytes;
  std::unique_ptr<mox::CompoundFile> snapshot;  // the last commit, opened for reading
  mox::Stream handle;                           // the stream last made or opened
  std::string handlePath;
  bool haveHandle = false, handleLive = false;  // live: its stream is still in the file
  uint64_t position = 0;
  auto follow = [&](const std::string& from, const std::string& to) {  // a rename or move
    if (under(handlePath, from)) handlePath = to + handlePath.substr(from.size());
    Model moved;
    for (auto it = model.begin(); it != model.end(); it = under(it->first, from) ? model.erase(it) : std::next(it)) {
      if (under(it->first, from)) moved[to + it->first.substr(from.size())] = std::move(it->second);
    }
    model.insert(moved.begin(), moved.end());
  };
  while (!in.empty()) {
    const uint8_t op = in.byte(), kind = op % 12;
    Parts p(in.byte() % 4), q(op & 0x40 ? 0 : in.byte() % 4);
    for (std::string& n : p) n = kNames[in.byte() % 8];
    for (std::string& n : q) n = kNames[in.byte() % 8];
    // A first empty name needs the leading '/' to stay a name.
    const std::string key = join(p, p.size()), qkey = join(q, q.size()), n = q.empty() ? "x" : q.back();
    const std::string a = (!p.empty() && (p[0].empty() || op & 0x80) ? "/" : "") + key;
    const std::string b = (!q.empty() && q[0].empty() ? "/" : "") + qkey;
    Item missing{}, *item = find(model, p, &missing), *target = find(model, q, &missing);
    const bool named = item != &missing && item != nullptr, stream = named && !item->storage;
    const std::string moved = qkey + (q.empty() ? "" : "/") + (named ? p.back() : "");
    const std::string renamed = join(p, p.size() - named) + (p.size() > 1 ? "/" : "") + n;
    const size_t length = kind >= 2 && kind <= 4 ? in.u16() & 0x3FFF : 0;
    if (kind >= 2 && kind <= 4 && !(handleLive || (haveHandle && kind < 4))) continue;
    Bytes spare, &bytes = handleLive ? model[handlePath].data : spare;
    Model& source = (op & 0x20) && snapshot ? committed : model;  // of a copy
    Item* top = find(source, p, &missing);
    bool ok = false;
    try {
      if (kind == 0) {
        ok = storages(model, p, p.size(), false);
        file.create_storage(a);
        storages(model, p, p.size(), true);
      } else if (kind == 1) {  // replaces a stream, never a storage
        ok = !p.empty() && valid(p.back()) && storages(model, p, p.size() - 1, false) && (!named || stream);
        handle = file.create_stream(a);
        storages(model, p, p.size() - 1, true);
        model[key] = Item{false, {}}, handlePath = key, haveHandle = handleLive = true, position = 0;
      } else if (kind == 2) {  // fails once the stream is gone, unless empty
        ok = handleLive || length == 0;
        Bytes chunk(length);
        moxfuzz::fillPattern(chunk.data(), length, 0, in.byte(), position);
        handle.write(chunk.data(), length);
        if (length > 0) bytes.resize(std::max(bytes.size(), position + length));
        if (length > 0) std::copy(chunk.begin(), chunk.end(), bytes.begin() + position);
        position += length;
      } else if (kind == 3) {
        ok = handleLive;
        handle.set_size(length), bytes.resize(length);
      } else if (kind == 4) {  // seek, and read what the model holds there
        ok = true;
        Bytes got(300);
        require(handle.seek(length) == length, "seek");
        got.resize(handle.read(got.data(), got.size()));
        position = length + got.size();
        require(got == Bytes(bytes.begin() + std::min(bytes.size(), length), bytes.begin() + std::min(bytes.size(), position)), "a read differs");
      } else if (kind == 5) {
        ok = named;
        file.remove(a);
        handleLive = handleLive && !under(handlePath, key);
        for (auto it = model.begin(); it != model.end();) it = under(it->first, key) ? model.erase(it) : std::next(it);
      } else if (kind == 6) {  // to q's last name, in the same storage
        ok = named && valid(n) && (renamed == key || !model.count(renamed));
        file.rename(a, n);
        follow(key, renamed);
      } else if (kind == 7) {  // into storage q
        ok = named && target != &missing && (!target || target->storage) && !under(qkey, key) && (moved == key || !model.count(moved));
        file.move(a, b);
        follow(key, moved);
      } else if (kind == 8) {  // p, of this file or of the last commit, to q
        ok = top != &missing && !q.empty() && valid(q.back()) && storages(model, q, q.size() - 1, false) && target == &missing;
        file.copy(&source == &committed ? *snapshot : file, a, b);
        Model added{{qkey, top ? *top : Item{true, {}}}};
        for (const auto& e : source) {
          if (e.first != key && under(e.first, key)) added[qkey + e.first.substr(key.size())] = e.second;
          if (key.empty()) added[qkey + "/" + e.first] = e.second;
        }
        storages(model, q, q.size() - 1, true);
        model.insert(added.begin(), added.end());
      } else if (kind == 9) {
        ok = true;
        file.commit();
        committed = model, snapshot.reset(), snapshotBytes = file.bytes();
        snapshot = std::make_unique<mox::CompoundFile>(mox::CompoundFile::open_memory(snapshotBytes.data(), snapshotBytes.size()));
        verify(*snapshot, model);
      } else if (kind == 10) {
        ok = true;
        file.revert();
        model = committed, handle = mox::Stream(), haveHandle = handleLive = false;
      } else {
        ok = stream;
        handle = file.open_stream(a);
        handlePath = key, haveHandle = handleLive = true, position = 0;
      }
    } catch (const mox::Error& e) {
      require(!ok, "an edit the model allows failed:", e.what());
      continue;
    }
    require(ok, "an edit the model refuses succeeded:", a);
  }
  verify(file, model);
  const Bytes bytes = file.bytes();
  verify(mox::CompoundFile::open_memory(bytes.data(), bytes.size()), model);
  return 0;
}
