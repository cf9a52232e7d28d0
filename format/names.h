// Entry names: the order the format keeps siblings in, and the
// conversions between stored UTF-16 and the UTF-8 that callers see.
//
// Siblings are ordered shorter name first, then unit by unit on the
// upper-cased UTF-16 names.  Every other reader binary-searches with that
// rule, so a writer that orders differently makes names unreachable.
// (The host interface folds to lower case instead, as its hosts expect;
// that rule lives with it.)
#ifndef MOXOLEFIO_FORMAT_NAMES_H_
#define MOXOLEFIO_FORMAT_NAMES_H_

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>

namespace moxfmt {

// The format's upper-casing of one UTF-16 unit: simple one-to-one
// mappings of the Latin, Greek, Cyrillic, Armenian and full-width ranges
// (what the file systems that made the format do for these units);
// everything else maps to itself.
uint16_t upcaseUnit(uint16_t unit);

// <0, 0 or >0 as `a` sorts before, with or after `b` among siblings.
int compareSiblingNames(const uint16_t* a, size_t aLength, const uint16_t* b, size_t bLength);

inline int compareSiblingNames(std::u16string_view a, std::u16string_view b) {
  return compareSiblingNames(reinterpret_cast<const uint16_t*>(a.data()), a.size(),
                             reinterpret_cast<const uint16_t*>(b.data()), b.size());
}

// Appends one code point as UTF-8.
void appendUtf8(std::string& out, uint32_t cp);

// UTF-16 to UTF-8; an unpaired surrogate becomes U+FFFD.
std::string utf16ToUtf8(const uint16_t* units, size_t length);
inline std::string utf16ToUtf8(std::u16string_view s) {
  return utf16ToUtf8(reinterpret_cast<const uint16_t*>(s.data()), s.size());
}

// UTF-8 to UTF-16; a byte that starts no valid sequence becomes U+FFFD.
std::u16string utf8ToUtf16(std::string_view text);

}  // namespace moxfmt

#endif  // MOXOLEFIO_FORMAT_NAMES_H_
