// The name index: the file's tree in olefile's order, with olefile's way
// of matching names.
#include <string.h>

#include <algorithm>
#include <string_view>

#include "python/src/common.h"

namespace moxpy {

namespace {

int typeOf(mox::EntryType t) {
  switch (t) {
    case mox::EntryType::root: return kTypeRoot;
    case mox::EntryType::storage: return kTypeStorage;
    case mox::EntryType::stream: return kTypeStream;
    default: return kTypeOther;
  }
}

// Below this many children a linear scan beats building a hash table.
constexpr std::size_t kScanLimit = 8;

py::list listOf(const std::vector<PyObject*>& prefix, PyObject* last) {
  const std::size_t n = prefix.size() + (last ? 1 : 0);
  PyObject* list = PyList_New(static_cast<Py_ssize_t>(n));
  if (list == nullptr) throw py::error_already_set();
  for (std::size_t k = 0; k < prefix.size(); ++k) {
    Py_INCREF(prefix[k]);
    PyList_SET_ITEM(list, static_cast<Py_ssize_t>(k), prefix[k]);
  }
  if (last) {
    Py_INCREF(last);
    PyList_SET_ITEM(list, static_cast<Py_ssize_t>(prefix.size()), last);
  }
  return py::reinterpret_steal<py::list>(list);
}

}  // namespace

bool lowerName(const char* text, std::size_t length, std::string& out) {
  bool ascii = true;
  for (std::size_t k = 0; k < length; ++k) {
    if (static_cast<unsigned char>(text[k]) >= 0x80) {
      ascii = false;
      break;
    }
  }
  if (ascii) {
    out.assign(text, length);
    for (char& c : out) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
    }
    return true;
  }
  // Beyond ASCII, Python's own lower() decides, as it does for olefile.
  py::object decoded = py::reinterpret_steal<py::object>(
      PyUnicode_DecodeUTF8(text, static_cast<Py_ssize_t>(length), "strict"));
  if (!decoded) {
    PyErr_Clear();
    return false;
  }
  py::object lowered = py::reinterpret_steal<py::object>(PyObject_CallMethod(decoded.ptr(), "lower", nullptr));
  if (!lowered) throw py::error_already_set();
  Py_ssize_t size = 0;
  const char* utf8 = PyUnicode_AsUTF8AndSize(lowered.ptr(), &size);
  if (utf8 == nullptr) {
    PyErr_Clear();
    return false;
  }
  out.assign(utf8, static_cast<std::size_t>(size));
  return true;
}

void Index::build(const mox::CompoundFile& file) {
  nodes_.clear();
  forgetMemo();
  // The walk is pre-order: a node's parent is the last node met one level
  // up.
  std::vector<std::uint32_t> line;  // the nodes from the root down to the last one met
  file.walk([&](const mox::Entry& e) {
    Node n;
    n.name = e.name;
    n.type = e.depth == 0 ? kTypeRoot : typeOf(e.type);
    if (e.depth != 0 && n.type == kTypeRoot) n.type = kTypeOther;
    n.size = e.size;
    n.created = e.created;
    n.modified = e.modified;
    n.clsid = e.clsid;
    n.state_bits = e.state_bits;
    n.id = e.id;
    const auto index = static_cast<std::uint32_t>(nodes_.size());
    line.resize(e.depth);
    if (!line.empty()) {
      n.parent = line.back();
      nodes_[n.parent].children.push_back(index);
    }
    nodes_.push_back(std::move(n));
    line.push_back(index);
  });
  // olefile lists children sorted by name; UTF-8 bytes sort as code points.
  for (Node& n : nodes_) {
    if (n.children.size() < 2) continue;
    std::stable_sort(n.children.begin(), n.children.end(),
                     [&](std::uint32_t a, std::uint32_t b) { return nodes_[a].name < nodes_[b].name; });
  }
}

const std::string& Index::lowerOf(std::uint32_t i) {
  Node& n = nodes_[i];
  if (!n.lowered) {
    if (!lowerName(n.name.data(), n.name.size(), n.lower)) n.lower = n.name;
    n.lowered = true;
  }
  return n.lower;
}

std::uint32_t Index::findChild(std::uint32_t parent, const std::string& lowered) {
  const std::vector<std::uint32_t>& kids = nodes_[parent].children;
  if (kids.size() <= kScanLimit) {
    for (std::uint32_t c : kids) {
      if (lowerOf(c) == lowered) return c;
    }
    return kNone;
  }
  if (!nodes_[parent].by_lower) {
    auto table = std::make_unique<std::unordered_map<std::string, std::uint32_t>>();
    table->reserve(kids.size());
    for (std::uint32_t c : kids) table->emplace(lowerOf(c), c);  // the first in order stays
    nodes_[parent].by_lower = std::move(table);
  }
  const auto& table = *nodes_[parent].by_lower;
  auto it = table.find(lowered);
  return it == table.end() ? kNone : it->second;
}

std::uint32_t Index::resolve(py::handle path) {
  std::uint32_t at = 0;
  std::string lowered;
  if (PyUnicode_Check(path.ptr())) {
    Py_ssize_t length = 0;
    const char* text = PyUnicode_AsUTF8AndSize(path.ptr(), &length);
    if (text == nullptr) {  // lone surrogates: no name can equal it
      PyErr_Clear();
      return kNone;
    }
    const char* p = text;
    const char* end = text + length;
    // A string is split at every '/', so "" and "a/" name children with
    // empty names, as they do in olefile.
    for (;;) {
      const char* slash = static_cast<const char*>(memchr(p, '/', static_cast<std::size_t>(end - p)));
      if (slash == nullptr) slash = end;
      if (!lowerName(p, static_cast<std::size_t>(slash - p), lowered)) return kNone;
      at = findChild(at, lowered);
      if (at == kNone || slash == end) return at;
      p = slash + 1;
    }
  }
  if (PyBytes_Check(path.ptr()) || PyByteArray_Check(path.ptr())) {
    throw py::type_error("a stream or storage name is a str or a sequence of str, not bytes");
  }
  py::iterator it = py::iter(path);
  std::size_t same = 0;  // leading names that are the memo's own objects
  for (std::size_t k = 0; it != py::iterator::sentinel(); ++it, ++k) {
    py::handle item = *it;
    if (!PyUnicode_Check(item.ptr())) {
      throw py::type_error("a name in a path list must be a str, not " +
                           std::string(Py_TYPE(item.ptr())->tp_name));
    }
    if (same == k && k < memo_items_.size() && memo_items_[k].ptr() == item.ptr()) {
      at = memo_nodes_[k];
      ++same;
      continue;
    }
    if (at != kNone) at = resolveName(at, item, k);
  }
  return at;
}

std::uint32_t Index::resolveName(std::uint32_t parent, py::handle item, std::size_t position) {
  memo_items_.resize(position);
  memo_nodes_.resize(position);
  std::string lowered;
  Py_ssize_t length = 0;
  const char* text = PyUnicode_AsUTF8AndSize(item.ptr(), &length);
  if (text == nullptr) {
    PyErr_Clear();
    return kNone;
  }
  if (!lowerName(text, static_cast<std::size_t>(length), lowered)) return kNone;
  const std::uint32_t at = findChild(parent, lowered);
  if (at != kNone) {
    memo_items_.push_back(py::reinterpret_borrow<py::object>(item));
    memo_nodes_.push_back(at);
  }
  return at;
}

std::pair<std::uint32_t, std::size_t> Index::resolvePrefix(const std::vector<std::string>& names) {
  std::uint32_t at = 0;
  std::string lowered;
  for (std::size_t k = 0; k < names.size(); ++k) {
    if (!lowerName(names[k].data(), names[k].size(), lowered)) return {at, k};
    const std::uint32_t next = findChild(at, lowered);
    if (next == kNone) return {at, k};
    at = next;
  }
  return {at, names.size()};
}

std::vector<std::string> Index::split(py::handle path) {
  std::vector<std::string> names;
  auto utf8 = [](py::handle s) {
    Py_ssize_t length = 0;
    const char* text = PyUnicode_AsUTF8AndSize(s.ptr(), &length);
    if (text == nullptr) throw py::error_already_set();
    return std::string(text, static_cast<std::size_t>(length));
  };
  if (PyUnicode_Check(path.ptr())) {
    const std::string text = utf8(path);
    std::size_t from = 0;
    for (;;) {
      const std::size_t slash = text.find('/', from);
      names.push_back(text.substr(from, slash == std::string::npos ? std::string::npos : slash - from));
      if (slash == std::string::npos) break;
      from = slash + 1;
    }
    return names;
  }
  if (PyBytes_Check(path.ptr()) || PyByteArray_Check(path.ptr())) {
    throw py::type_error("a stream or storage name is a str or a sequence of str, not bytes");
  }
  for (py::handle item : path) {
    if (!PyUnicode_Check(item.ptr())) throw py::type_error("a name in a path list must be a str");
    names.push_back(utf8(item));
  }
  return names;
}

std::string Index::nativePath(std::uint32_t i) const {
  std::string path;
  appendNativePath(i, path);
  return path;
}

void Index::appendNativePath(std::uint32_t i, std::string& path) const {
  // Climbed without recursion (a hostile file nests as deep as it has
  // entries), into a list kept per thread, as the callers open streams by
  // the thousand.
  thread_local std::vector<std::uint32_t> chain;
  chain.clear();
  for (std::uint32_t at = i; at != 0 && at != kNone; at = nodes_[at].parent) chain.push_back(at);
  // A leading '/' is ignored by the native lookup and keeps a first empty
  // name from reading as the root.
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    path += '/';
    path += nodes_[*it].name;
  }
}

py::str Index::pyName(std::uint32_t i) {
  Node& n = nodes_[i];
  if (!n.pyname) {
    n.pyname = py::reinterpret_steal<py::object>(
        PyUnicode_DecodeUTF8(n.name.data(), static_cast<Py_ssize_t>(n.name.size()), "replace"));
    if (!n.pyname) throw py::error_already_set();
  }
  return py::reinterpret_borrow<py::str>(n.pyname);
}

py::list Index::pathList(std::uint32_t i) {
  std::vector<std::uint32_t> chain;
  for (std::uint32_t at = i; at != 0 && at != kNone; at = nodes_[at].parent) chain.push_back(at);
  std::vector<PyObject*> names;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) names.push_back(pyName(*it).ptr());
  return listOf(names, nullptr);
}

// Depth first from the root, children in order, with an explicit stack
// (damaged files nest storages thousands deep).  `visit(prefix, child,
// name)` sees the names above the child (borrowed from the nodes' cached
// names) and says whether to go into it.
template <class Visit>
void Index::depthFirst(Visit visit) {
  std::vector<PyObject*> prefix;
  struct Frame {
    std::uint32_t node;
    std::size_t next;
  };
  std::vector<Frame> stack{{0, 0}};
  while (!stack.empty()) {
    const std::uint32_t at = stack.back().node;
    const std::size_t next = stack.back().next;
    if (next == nodes_[at].children.size()) {
      stack.pop_back();
      if (!stack.empty()) prefix.pop_back();
      continue;
    }
    ++stack.back().next;
    const std::uint32_t c = nodes_[at].children[next];
    PyObject* name = pyName(c).ptr();
    if (visit(prefix, c, name)) {
      prefix.push_back(name);
      stack.push_back(Frame{c, 0});
    }
  }
}

py::list Index::listdir(bool streams, bool storages) {
  py::list out;
  depthFirst([&](const std::vector<PyObject*>& prefix, std::uint32_t c, PyObject* name) {
    const int type = nodes_[c].type;
    if (type == kTypeStorage) {
      if (storages) out.append(listOf(prefix, name));
      return true;
    }
    if (type == kTypeStream && streams) out.append(listOf(prefix, name));
    return false;
  });
  return out;
}

py::list Index::walk() {
  py::list out;
  out.append(py::make_tuple(py::list(), 0));
  depthFirst([&](const std::vector<PyObject*>& prefix, std::uint32_t c, PyObject* name) {
    out.append(py::make_tuple(listOf(prefix, name), c));
    return true;
  });
  return out;
}

void Index::insertChild(std::uint32_t parent, std::uint32_t child) {
  forgetMemo();
  std::vector<std::uint32_t>& kids = nodes_[parent].children;
  auto at = std::upper_bound(kids.begin(), kids.end(), child,
                             [&](std::uint32_t a, std::uint32_t b) { return nodes_[a].name < nodes_[b].name; });
  kids.insert(at, child);
  nodes_[child].parent = parent;
  if (nodes_[parent].by_lower) {
    auto [it, added] = nodes_[parent].by_lower->emplace(lowerOf(child), child);
    if (!added && nodes_[child].name < nodes_[it->second].name) it->second = child;
  }
}

void Index::forgetChild(std::uint32_t parent, std::uint32_t child) {
  forgetMemo();
  std::vector<std::uint32_t>& kids = nodes_[parent].children;
  kids.erase(std::remove(kids.begin(), kids.end(), child), kids.end());
  nodes_[parent].by_lower.reset();
  nodes_[child].parent = kNone;
}

std::uint32_t Index::add(std::uint32_t parent, const std::string& name, int type) {
  const auto i = static_cast<std::uint32_t>(nodes_.size());
  Node n;
  n.name = name;
  n.type = type;
  nodes_.push_back(std::move(n));
  insertChild(parent, i);
  return i;
}

void Index::remove(std::uint32_t i) {
  if (i == 0 || nodes_[i].parent == kNone) return;
  forgetChild(nodes_[i].parent, i);
  std::vector<std::uint32_t> pending{i};
  while (!pending.empty()) {
    const std::uint32_t at = pending.back();
    pending.pop_back();
    nodes_[at].live = false;
    for (std::uint32_t c : nodes_[at].children) pending.push_back(c);
  }
}

void Index::rename(std::uint32_t i, const std::string& name) {
  const std::uint32_t parent = nodes_[i].parent;
  if (i == 0 || parent == kNone) return;
  forgetChild(parent, i);
  Node& n = nodes_[i];
  n.name = name;
  n.lowered = false;
  n.pyname = py::object();
  insertChild(parent, i);
}

}  // namespace moxpy
