// How this library's hosts compare entry names: the one rule behind every
// sibling-tree descent of the reader and every tree the writer builds.
//
// Names are 8-bit (the low byte of each stored UTF-16 unit).  A shorter
// name sorts first; names of equal length compare byte by byte as unsigned
// bytes, either exactly or with ASCII letters folded to lower case.  Lower
// case, not upper: the choice decides where '_' (0x5F) sorts, and folding
// down puts it before every letter, as the files these hosts made expect.
// The folding is done by hand so that no locale can change a file's order.
// (The format's own rule, which upper-cases UTF-16, is moxfmt's; the
// native interface writes by that one.)
#ifndef MOXOLEFIO_INTERFACE_SIBLING_NAMES_H_
#define MOXOLEFIO_INTERFACE_SIBLING_NAMES_H_

#include <stddef.h>
#include <string.h>

enum MoxNameRule {
  kNameExact,     // byte for byte, as strcmp
  kNameTolerant,  // ASCII letters folded to lower case
};

// A name as bytes and a length; names from a directory are not trusted to
// carry a terminator inside their field.
struct MoxName {
  const char* bytes;
  size_t length;
};

// A zero-terminated name; null stands for the empty name.
inline MoxName moxNameOf(const char* text) {
  return MoxName{text, text == nullptr ? 0 : strlen(text)};
}

inline unsigned char moxFoldName(unsigned char c, MoxNameRule rule) {
  if (rule == kNameTolerant && c >= 'A' && c <= 'Z') return static_cast<unsigned char>(c + 32);
  return c;
}

// <0, 0 or >0 as `a` sorts before, with or after `b` among siblings.  A
// result of 0 means the same name under the rule, so that one comparison
// per step of a descent answers both "is it this one" and "which way".
inline int moxSiblingOrder(MoxName a, MoxName b, MoxNameRule rule) {
  if (a.length != b.length) return a.length < b.length ? -1 : 1;
  for (size_t i = 0; i < a.length; ++i) {
    const int x = moxFoldName(static_cast<unsigned char>(a.bytes[i]), rule);
    const int y = moxFoldName(static_cast<unsigned char>(b.bytes[i]), rule);
    if (x != y) return x - y;
  }
  return 0;
}

inline bool moxNamesEqual(MoxName a, MoxName b, MoxNameRule rule) {
  return moxSiblingOrder(a, b, rule) == 0;
}

#endif  // MOXOLEFIO_INTERFACE_SIBLING_NAMES_H_
