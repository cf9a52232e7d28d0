// Small helpers the suites of the native interface share: deterministic
// bytes, the error code an action throws, whether check() found an
// error, a file's bytes, and the files of the corpus manifest.
// Header-only, so that the kit itself need not link the native interface.
#ifndef MOXOLEFIO_TESTS_SUPPORT_NATIVE_KIT_H_
#define MOXOLEFIO_TESTS_SUPPORT_NATIVE_KIT_H_

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "moxolefio/moxolefio.hpp"
#include "support/cfb_builder.h"
#include "support/manifest.h"
#include "support/vos_scratch.h"

namespace moxtest {

using cfb::pattern;

// The code of the mox::Error `action` throws; Errc{} when it throws none.
inline mox::Errc errorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const mox::Error& e) {
    return e.code();
  }
  return mox::Errc{};
}

inline std::vector<std::string> namesOf(const std::vector<mox::Entry>& entries) {
  std::vector<std::string> names;
  for (const mox::Entry& e : entries) names.push_back(e.name);
  return names;
}

// Whether check() found an error, not just warnings.
inline bool hasError(const std::vector<mox::Defect>& defects) {
  return std::any_of(defects.begin(), defects.end(),
                     [](const mox::Defect& d) { return d.severity == mox::Severity::error; });
}

inline std::vector<std::uint8_t> fileBytes(const std::string& path) {
  const std::string s = readFile(path);
  return std::vector<std::uint8_t>(s.begin(), s.end());
}

inline bool writeBytes(const std::string& path, const std::vector<std::uint8_t>& bytes) {
  return writeFile(path, std::string(bytes.begin(), bytes.end()));
}

// Every file of the corpus manifest (empty without a corpus).
inline const std::vector<manifest::File>& corpusFiles() {
  static const std::vector<manifest::File> files = manifest::load(MOX_CORPUS_DIR);
  return files;
}

}  // namespace moxtest

#endif  // MOXOLEFIO_TESTS_SUPPORT_NATIVE_KIT_H_
