#include "format/names.h"

namespace moxfmt {

namespace {

// Ranges where upper and lower case alternate unit by unit (even upper).
bool inAlternatingRange(uint16_t u) {
  return (u >= 0x0100 && u <= 0x012F) || (u >= 0x0132 && u <= 0x0137) ||
         (u >= 0x014A && u <= 0x0177) || (u >= 0x01DE && u <= 0x01EF) ||
         (u >= 0x01F8 && u <= 0x021F) || (u >= 0x0460 && u <= 0x0481) ||
         (u >= 0x048A && u <= 0x04BF) || (u >= 0x04D0 && u <= 0x052F) ||
         (u >= 0x1E00 && u <= 0x1E95) || (u >= 0x1EA0 && u <= 0x1EFF);
}

// Ranges where upper and lower case alternate with the upper one odd.
bool inOddUpperRange(uint16_t u) {
  return (u >= 0x0139 && u <= 0x0148) || (u >= 0x0179 && u <= 0x017E) ||
         (u >= 0x01CD && u <= 0x01DC) || (u >= 0x04C1 && u <= 0x04CE);
}

// Continuation bytes after a lead byte; -1 for a byte that leads nothing.
int sequenceTail(unsigned char lead) {
  if (lead < 0x80) return 0;
  if (lead < 0xC2) return -1;
  if (lead < 0xE0) return 1;
  if (lead < 0xF0) return 2;
  return lead < 0xF5 ? 3 : -1;
}

}  // namespace

void appendUtf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

uint16_t upcaseUnit(uint16_t u) {
  if (u < 0x80) return (u >= 'a' && u <= 'z') ? static_cast<uint16_t>(u - 0x20) : u;
  if (u >= 0xE0 && u <= 0xFE && u != 0xF7) return static_cast<uint16_t>(u - 0x20);
  if (u == 0xFF) return 0x178;
  if (inAlternatingRange(u)) return static_cast<uint16_t>(u & ~1u);
  if (inOddUpperRange(u)) return (u & 1) ? u : static_cast<uint16_t>(u - 1);
  if (u >= 0x3B1 && u <= 0x3CB && u != 0x3C2) return static_cast<uint16_t>(u - 0x20);
  if (u >= 0x430 && u <= 0x44F) return static_cast<uint16_t>(u - 0x20);
  if (u >= 0x450 && u <= 0x45F) return static_cast<uint16_t>(u - 0x50);
  if (u >= 0x561 && u <= 0x586) return static_cast<uint16_t>(u - 0x30);
  if (u >= 0xFF41 && u <= 0xFF5A) return static_cast<uint16_t>(u - 0x20);
  return u;
}

int compareSiblingNames(const uint16_t* a, size_t aLength, const uint16_t* b, size_t bLength) {
  if (aLength != bLength) return aLength < bLength ? -1 : 1;
  for (size_t i = 0; i < aLength; ++i) {
    // Siblings often share long prefixes ("__substg1.0_..."): equal units
    // need no case mapping.
    if (a[i] == b[i]) continue;
    const uint16_t x = upcaseUnit(a[i]);
    const uint16_t y = upcaseUnit(b[i]);
    if (x != y) return x < y ? -1 : 1;
  }
  return 0;
}

std::string utf16ToUtf8(const uint16_t* units, size_t length) {
  std::string out;
  out.reserve(length);
  for (size_t i = 0; i < length; ++i) {
    uint32_t u = units[i];
    if (u >= 0xD800 && u <= 0xDBFF && i + 1 < length && units[i + 1] >= 0xDC00 &&
        units[i + 1] <= 0xDFFF) {
      u = 0x10000 + ((u - 0xD800) << 10) + (units[i + 1] - 0xDC00);
      ++i;
    } else if (u >= 0xD800 && u <= 0xDFFF) {
      u = 0xFFFD;
    }
    appendUtf8(out, u);
  }
  return out;
}

std::u16string utf8ToUtf16(std::string_view text) {
  std::u16string out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    const unsigned char lead = static_cast<unsigned char>(text[i]);
    const int extra = sequenceTail(lead);
    uint32_t cp = extra <= 0 ? lead : lead & (0x3F >> extra);
    bool valid = extra >= 0 && i + extra < text.size();
    for (int k = 1; valid && k <= extra; ++k) {
      const unsigned char c = static_cast<unsigned char>(text[i + k]);
      if ((c & 0xC0) != 0x80) valid = false;
      cp = (cp << 6) | (c & 0x3F);
    }
    const uint32_t minimum[4] = {0, 0x80, 0x800, 0x10000};
    if (valid && (cp < minimum[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))) {
      valid = false;
    }
    if (!valid) {
      out += static_cast<char16_t>(0xFFFD);
      ++i;
      continue;
    }
    if (cp >= 0x10000) {
      out += static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10));
      out += static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
    } else {
      out += static_cast<char16_t>(cp);
    }
    i += extra + 1;
  }
  return out;
}

}  // namespace moxfmt
