#include "support/manifest.h"

#include <algorithm>
#include <cctype>
#include <fstream>

namespace manifest {

std::vector<std::string> split(const std::string& line, char separator) {
  // By hand: every test process of the corpus suites parses 20000 lines,
  // and string streams made that seconds under the sanitizers.
  std::vector<std::string> fields;
  if (line.empty()) return fields;
  for (std::size_t from = 0;;) {
    const std::size_t at = line.find(separator, from);
    fields.push_back(line.substr(from, at == std::string::npos ? std::string::npos : at - from));
    if (at == std::string::npos || at + 1 == line.size()) break;
    from = at + 1;
  }
  return fields;
}

namespace {

// "0005 0053 ..." joined by "/": each name as its UTF-16 units ("-" for
// an empty name).
std::vector<std::u16string> unitPath(const std::string& field) {
  std::vector<std::u16string> names;
  if (field == "/") return names;
  for (const std::string& name : split(field, '/')) {
    names.emplace_back();
    for (const std::string& unit : split(name == "-" ? "" : name, ' ')) {
      names.back() += static_cast<char16_t>(std::stoul(unit, nullptr, 16));
    }
  }
  return names;
}

}  // namespace

std::string testName(std::string path) {
  std::replace_if(path.begin(), path.end(), [](unsigned char c) { return !isalnum(c); }, '_');
  return path;
}

std::vector<File> load(const std::string& corpusDir) {
  std::ifstream in(corpusDir + "/MANIFEST.tsv");
  std::map<std::string, File> files;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> f = split(line, '\t');
    if (f.size() < 2) continue;
    File& file = files[f[1]];
    file.path = f[1];
    if (f[0] == "file" && f.size() >= 5) {
      file.opens = f[4] == "yes";
    } else if (f[0] == "issue" || f[0] == "again") {
      file.flawed = true;
    } else if (f[0] == "header" && f.size() >= 11) {
      file.hasHeader = true;
      file.headerFields = f;
      file.header = Header{std::stoll(f[2]), std::stoll(f[3]), std::stoll(f[7]),
                           std::stoll(f[8]), std::stoll(f[9]), std::stoll(f[10])};
    } else if (f[0] == "entry" && f.size() >= 9) {
      std::vector<std::u16string> units = unitPath(f[6]);
      std::vector<std::string> bytes;  // the low byte of every unit
      for (const std::u16string& name : units) bytes.emplace_back(name.begin(), name.end());
      file.entries[std::stoi(f[2])] = Entry{f[3], std::stoll(f[4]), f[5], std::move(bytes), f[8], std::move(units)};
    }
  }
  std::vector<File> out;
  for (auto& kv : files) out.push_back(std::move(kv.second));
  return out;
}

}  // namespace manifest
