// Fuzz target: a program of edits on a file made in memory with the C++
// interface.  A map from path to type and bytes predicts each edit and the
// error code of each refused one (a refused edit changes nothing).  Names
// match as the format upper-cases them ("a" and "A", "été" and "ÉTÉ" name
// one entry, which keeps the name it was made with).  After each commit
// and revert and at the end, the file and its bytes opened again must hold
// exactly the model with no defect check() reports.  Byte 0 picks the
// version, then op bytes with their paths (a depth byte and a name byte per
// level, from a list with two names the format cannot hold) and arguments.
#include <stdio.h>
#include <stdlib.h>

#include <map>
#include <memory>

#include "fuzz/fuzz_input.h"
#include "fuzz/write_program.h"
#include "moxolefio/moxolefio.hpp"

// A stricter audit of every file's bytes (the problems found, "" for
// none), for a test program that links this target and has one.
std::string (*moxfuzzEditAudit)(const std::vector<uint8_t>&) = nullptr;

namespace {

using Bytes = std::vector<uint8_t>;
using Parts = std::vector<std::string>;
using mox::Errc;
struct Item { bool storage; Bytes data; std::string path; };  // the path as the names were made
using Model = std::map<std::string, Item>;                    // by the path upper-cased

using moxfuzz::require;

const char* const kNames[] = {"a", "b", "c", "dd", "e1", "f.x", "", "name-longer-than-31-characters-x",
                              "A", "Dd", "\xC3\xA9t\xC3\xA9", "\xC3\x89T\xC3\x89", "\x05Summary",
                              "long name of thirty-one units..", "B", "E1"};
bool valid(const std::string& n) { return !n.empty() && n.size() <= 31; }
// The format's upper-casing, of the letters in kNames.
std::string fold(std::string s) {
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] >= 'a' && s[i] <= 'z') s[i] = static_cast<char>(s[i] - 'a' + 'A');
    if (s.compare(i, 2, "\xC3\xA9") == 0) s[++i] = '\x89';
  }
  return s;
}
bool under(const std::string& path, const std::string& top) { return path.compare(0, top.size() + 1, top + "/") == 0 || path == top; }
std::string join(const Parts& p, size_t count) {
  std::string s;
  for (size_t i = 0; i < count; ++i) s += (i ? "/" : "") + p[i];
  return s;
}
// The item a path names: null for the root, `missing` when there is none.
Item* find(Model& m, const Parts& p, Item* missing) {
  auto it = m.find(fold(join(p, p.size())));
  return p.empty() ? nullptr : it == m.end() ? missing : &it->second;
}
// What making the storages of the first `count` names meets; `at` is then
// the last one's path as it is or will be.  Makes them when `make`.
Errc storages(Model& m, const Parts& p, size_t count, bool make, std::string* at) {
  at->clear();
  for (size_t i = 0; i < count; ++i) {
    auto it = m.find(fold(join(p, i + 1)));
    if (it == m.end() ? !valid(p[i]) : !it->second.storage) return it == m.end() ? Errc::invalid_argument : Errc::exists;
    *at = it == m.end() ? *at + (i ? "/" : "") + p[i] : it->second.path;
    if (make) m.emplace(fold(*at), Item{true, {}, *at});
  }
  return Errc{};
}
void verify(const mox::CompoundFile& f, const Model& m) {
  const std::vector<mox::Entry> all = f.walk();
  require(all.size() == m.size() + 1, "entry count differs from the model");
  for (size_t i = 1; i < all.size(); ++i) {
    auto it = m.find(fold(all[i].path));
    require(it != m.end() && it->second.path == all[i].path && it->second.storage == all[i].is_storage() &&
                it->second.data.size() == all[i].size, "name, type or size differs from the model:", all[i].path);
    require(it->second.storage || f.open_stream(all[i].path).read_all() == it->second.data, "bytes differ:", all[i].path);
  }
  const std::vector<mox::Defect> defects = f.check();
  require(defects.empty(), "a written file has a defect:", defects.empty() ? "" : defects[0].message);
}
void verifyBytes(const Bytes& bytes, const Model& m) {
  verify(mox::CompoundFile::open_memory(bytes.data(), bytes.size()), m);
  const std::string problems = moxfuzzEditAudit ? moxfuzzEditAudit(bytes) : "";
  require(problems.empty(), "the audit finds:", problems);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  mox::CompoundFile file = mox::CompoundFile::create_memory({in.byte() & 1 ? 3 : 4});
  Model model, committed;
  Bytes snapshotBytes;
  std::unique_ptr<mox::CompoundFile> snapshot;  // the last commit, opened for reading
  mox::Stream handle;                           // the stream last made or opened
  std::string handlePath;                       // upper-cased
  bool haveHandle = false, handleLive = false;  // live: its stream is still in the file
  uint64_t position = 0;
  auto follow = [&](const std::string& from, const std::string& to) {  // a rename or move; `from` upper-cased
    if (under(handlePath, from)) handlePath = fold(to) + handlePath.substr(from.size());
    Model moved;
    for (auto it = model.begin(); it != model.end(); it = under(it->first, from) ? model.erase(it) : std::next(it)) {
      if (under(it->first, from)) {
        it->second.path = to + it->second.path.substr(from.size());
        moved[fold(it->second.path)] = std::move(it->second);
      }
    }
    model.insert(moved.begin(), moved.end());
  };
  while (!in.empty()) {
    const uint8_t op = in.byte(), kind = op % 12;
    Parts p(in.byte() % 4), q(op & 0x40 ? 0 : in.byte() % 4);
    for (std::string& n : p) n = kNames[in.byte() % 16];
    for (std::string& n : q) n = kNames[in.byte() % 16];
    // A first empty name needs the leading '/' to stay a name.
    const std::string key = fold(join(p, p.size())), qkey = fold(join(q, q.size())), n = q.empty() ? "x" : q.back();
    const std::string a = (!p.empty() && (p[0].empty() || op & 0x80) ? "/" : "") + join(p, p.size());
    const std::string b = (!q.empty() && q[0].empty() ? "/" : "") + join(q, q.size());
    Item missing{}, *item = find(model, p, &missing), *target = find(model, q, &missing);
    const bool named = item != &missing && item != nullptr, stream = named && !item->storage;
    const Errc lookup = named ? Errc{} : p.empty() ? Errc::invalid_argument : Errc::not_found;  // of a non-root path
    const std::string leaf = named ? item->path.substr(item->path.rfind('/') + 1) : "";
    const std::string renamed = named ? item->path.substr(0, item->path.size() - leaf.size()) + n : "";
    const std::string moved = (target && target != &missing ? target->path + "/" : "") + leaf;
    auto taken = [&](const std::string& path) { return fold(path) != key && model.count(fold(path)) > 0; };  // by another
    const uint16_t sizeArg = kind >= 2 && kind <= 4 ? in.u16() : 0;  // top bits set: ten times more
    const size_t length = (sizeArg & 0x3FFF) * (sizeArg >= 0xC000 ? 10 : 1);
    if (kind >= 2 && kind <= 4 && !(handleLive || (haveHandle && kind < 4))) continue;
    Bytes spare, &bytes = handleLive ? model[handlePath].data : spare;
    Model& source = (op & 0x20) && snapshot ? committed : model;  // of a copy
    Item* top = find(source, p, &missing);
    std::string at;
    Errc want{};
    try {
      if (kind == 0) {
        want = storages(model, p, p.size(), false, &at);
        file.create_storage(a);
        storages(model, p, p.size(), true, &at);
      } else if (kind == 1) {  // create_stream replaces a stream, never a storage; create_new_stream neither
        want = p.empty() || !valid(p.back()) ? Errc::invalid_argument : storages(model, p, p.size() - 1, false, &at);
        if (want == Errc{} && named && (!stream || op & 0x20)) want = Errc::exists;
        handle = op & 0x20 ? file.create_new_stream(a) : file.create_stream(a);
        storages(model, p, p.size() - 1, true, &at);
        const std::string path = named ? item->path : (at.empty() ? "" : at + "/") + p.back();
        model[key] = Item{false, {}, path}, handlePath = key, haveHandle = handleLive = true, position = 0;
      } else if (kind == 2) {  // refused once the stream is gone, unless empty
        want = handleLive || length == 0 ? Errc{} : Errc::invalid_argument;
        Bytes chunk(length);
        moxfuzz::fillPattern(chunk.data(), length, 0, in.byte(), position);
        handle.write(chunk.data(), length);
        if (length > 0) bytes.resize(std::max(bytes.size(), position + length));
        if (length > 0) std::copy(chunk.begin(), chunk.end(), bytes.begin() + position);
        position += length;
      } else if (kind == 3) {
        want = handleLive ? Errc{} : Errc::invalid_argument;
        handle.set_size(length), bytes.resize(length);
      } else if (kind == 4) {  // seek, and read what the model holds there
        Bytes got(300);
        require(handle.seek(length) == length, "seek");
        got.resize(handle.read(got.data(), got.size()));
        position = length + got.size();
        require(got == Bytes(bytes.begin() + std::min(bytes.size(), length), bytes.begin() + std::min(bytes.size(), position)), "a read differs");
      } else if (kind == 5) {
        want = lookup;
        file.remove(a);
        handleLive = handleLive && !under(handlePath, key);
        for (auto it = model.begin(); it != model.end();) it = under(it->first, key) ? model.erase(it) : std::next(it);
      } else if (kind == 6) {  // to q's last name, in the same storage
        want = !named ? lookup : !valid(n) ? Errc::invalid_argument : taken(renamed) ? Errc::exists : Errc{};
        file.rename(a, n);
        follow(key, renamed);
      } else if (kind == 7) {  // into storage q
        want = !named ? lookup : target == &missing ? Errc::not_found
             : (target && !target->storage) || under(qkey, key) ? Errc::invalid_argument : taken(moved) ? Errc::exists : Errc{};
        file.move(a, b);
        follow(key, moved);
      } else if (kind == 8) {  // p, of this file or of the last commit, to q
        want = top == &missing ? Errc::not_found : q.empty() ? Errc::exists
             : !valid(q.back()) ? Errc::invalid_argument : storages(model, q, q.size() - 1, false, &at);
        if (want == Errc{} && target != &missing) want = Errc::exists;
        const std::string to = (at.empty() ? "" : at + "/") + n;
        Model added{{qkey, top ? Item{top->storage, top->data, to} : Item{true, {}, to}}};
        for (const auto& e : source) {
          if (!key.empty() && (e.first == key || !under(e.first, key))) continue;
          const std::string path = to + (key.empty() ? "/" + e.second.path : e.second.path.substr(key.size()));
          added[fold(path)] = Item{e.second.storage, e.second.data, path};
        }
        file.copy(&source == &committed ? *snapshot : file, a, b);
        storages(model, q, q.size() - 1, true, &at);
        model.insert(added.begin(), added.end());
      } else if (kind == 9) {
        file.commit();
        committed = model, snapshot.reset(), snapshotBytes = file.bytes();
        snapshot = std::make_unique<mox::CompoundFile>(mox::CompoundFile::open_memory(snapshotBytes.data(), snapshotBytes.size()));
        verify(file, model), verifyBytes(snapshotBytes, model);
      } else if (kind == 10) {  // back to the last commit
        file.revert();
        model = committed, handle = mox::Stream(), haveHandle = handleLive = false;
        verify(file, model);
      } else {
        want = stream ? Errc{} : named || p.empty() ? Errc::invalid_argument : Errc::not_found;
        handle = file.open_stream(a);
        handlePath = key, haveHandle = handleLive = true, position = 0;
      }
    } catch (const mox::Error& e) {
      require(want != Errc{} && e.code() == want, "an edit fails otherwise than the model says:",
              std::to_string(static_cast<int>(want)) + " expected; " + e.what());
      continue;
    }
    require(want == Errc{}, "an edit the model refuses succeeded:", a);
  }
  verify(file, model);
  verifyBytes(file.bytes(), model);
  return 0;
}
