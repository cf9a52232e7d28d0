#include "fuzz/write_model.h"

namespace moxfuzz {

namespace {

char fold(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

}  // namespace

bool sameNameIgnoringCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (fold(a[i]) != fold(b[i])) return false;
  }
  return true;
}

WriteModel::WriteModel() { add(5, true, -1, "Root Entry"); }

int WriteModel::add(int type, bool placed, int parent, const std::string& name) {
  ModelEntry e;
  e.type = type;
  e.placed = placed;
  e.parent = parent;
  e.name = name;
  entries.push_back(e);
  if (!placed) allPlaced = false;
  return static_cast<int>(entries.size()) - 1;
}

bool WriteModel::pathOf(int k, size_t cut, std::string* path) const {
  std::string out;
  for (int at = k; at != 0; at = entries[at].parent) {
    if (!entries[at].placed) return false;
    out = "\\" + entries[at].name.substr(0, cut) + out;
  }
  *path = out.empty() ? "\\" : out;
  return true;
}

bool WriteModel::nameTaken(int parent, const std::string& name) const {
  for (const ModelEntry& e : entries) {
    if (e.placed && e.parent == parent && sameNameIgnoringCase(e.name, name)) return true;
  }
  return false;
}

bool WriteModel::reachableOnDisk(int k) const {
  for (int at = k; at != 0; at = entries[at].parent) {
    if (!entries[at].placed) return false;
    const std::string stored = entries[at].name.substr(0, kStoredName);
    for (size_t other = 1; other < entries.size(); ++other) {
      const ModelEntry& e = entries[other];
      if (static_cast<int>(other) == at || !e.placed || e.parent != entries[at].parent) continue;
      if (sameNameIgnoringCase(e.name.substr(0, kStoredName), stored)) return false;
    }
  }
  return true;
}

bool WriteModel::plainNames() const {
  if (!allPlaced) return false;
  for (size_t k = 1; k < entries.size(); ++k) {
    const std::string& name = entries[k].name;
    if (name.size() > kStoredName) return false;
    for (char c : name) {
      if (c >= 'A' && c <= 'Z') return false;
    }
  }
  return true;
}

}  // namespace moxfuzz
