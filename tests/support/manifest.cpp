#include "support/manifest.h"

#include <fstream>
#include <sstream>

namespace manifest {

std::vector<std::string> split(const std::string& line, char separator) {
  std::vector<std::string> fields;
  std::stringstream in(line);
  for (std::string field; std::getline(in, field, separator);) fields.push_back(field);
  return fields;
}

namespace {

// "0005 0053 ..." joined by "/" into names of low bytes.
std::vector<std::string> namePath(const std::string& field) {
  std::vector<std::string> names;
  if (field == "/") return names;
  for (const std::string& name : split(field, '/')) {
    std::string bytes;
    if (name != "-") {
      for (const std::string& unit : split(name, ' ')) {
        if (!unit.empty()) bytes += static_cast<char>(std::stoul(unit, nullptr, 16) & 0xFF);
      }
    }
    names.push_back(bytes);
  }
  return names;
}

// The same field as whole UTF-16 names.
std::vector<std::u16string> unitPath(const std::string& field) {
  std::vector<std::u16string> names;
  if (field == "/") return names;
  for (const std::string& name : split(field, '/')) {
    std::u16string units;
    if (name != "-") {
      for (const std::string& unit : split(name, ' ')) {
        if (!unit.empty()) units += static_cast<char16_t>(std::stoul(unit, nullptr, 16));
      }
    }
    names.push_back(units);
  }
  return names;
}

}  // namespace

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
    } else if (f[0] == "header" && f.size() >= 11) {
      file.hasHeader = true;
      file.header = Header{std::stoll(f[2]), std::stoll(f[3]), std::stoll(f[7]),
                           std::stoll(f[8]), std::stoll(f[9]), std::stoll(f[10])};
    } else if (f[0] == "entry" && f.size() >= 9) {
      file.entries[std::stoi(f[2])] = Entry{f[3], std::stoll(f[4]), f[5], namePath(f[6]), f[8], unitPath(f[6])};
    }
  }
  std::vector<File> out;
  for (auto& kv : files) out.push_back(std::move(kv.second));
  return out;
}

}  // namespace manifest
