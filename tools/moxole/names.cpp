#include "tools/moxole/names.h"

namespace moxole {

namespace {

const char kEmptyName[] = "\\x00";

void appendHex(unsigned char byte, std::string* out) {
  static const char kDigits[] = "0123456789abcdef";
  *out += "\\x";
  *out += kDigits[byte >> 4];
  *out += kDigits[byte & 15];
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string escapeName(const std::string& name) {
  if (name.empty()) return kEmptyName;
  std::string out;
  out.reserve(name.size());
  bool dots = name == "." || name == "..";
  for (size_t i = 0; i < name.size(); ++i) {
    unsigned char byte = static_cast<unsigned char>(name[i]);
    // U+0080 to U+009F are controls too; terminals act on some of them.
    unsigned char next = i + 1 < name.size() ? static_cast<unsigned char>(name[i + 1]) : 0;
    if (byte == 0xC2 && next >= 0x80 && next < 0xA0) {
      appendHex(next, &out);
      ++i;
    } else if (byte < 0x20 || byte == 0x7F || byte == '/' || byte == '\\' ||
               (dots && i == 0)) {
      appendHex(byte, &out);
    } else {
      out += static_cast<char>(byte);
    }
  }
  return out;
}

bool unescapeName(const std::string& text, std::string* name) {
  name->clear();
  if (text == kEmptyName) return true;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size() && text[i + 1] == 'x' &&
        hexValue(text[i + 2]) >= 0 && hexValue(text[i + 3]) >= 0) {
      int code = hexValue(text[i + 2]) * 16 + hexValue(text[i + 3]);
      if (code == 0) return false;
      if (code >= 0x80) {
        *name += static_cast<char>(0xC0 | code >> 6);
        code = 0x80 | (code & 0x3F);
      }
      *name += static_cast<char>(code);
      i += 3;
    } else {
      *name += text[i];
    }
  }
  return true;
}

bool splitPath(const std::string& path, std::vector<std::string>* names) {
  names->clear();
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    if (end > start) {
      std::string name;
      if (!unescapeName(path.substr(start, end - start), &name)) return false;
      names->push_back(name);
    }
    start = end + 1;
  }
  return true;
}

std::string joinPath(const std::string& parent, const std::string& name) {
  return parent.empty() ? name : parent + "/" + name;
}

}  // namespace moxole
