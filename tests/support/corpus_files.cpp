#include "support/corpus_files.h"

#include <algorithm>
#include <filesystem>

#ifndef MOX_CORPUS_DIR
#define MOX_CORPUS_DIR ""
#endif

namespace corpus {

namespace fs = std::filesystem;

std::string directory() {
  const char* env = getenv("MOX_CORPUS_DIR");
  std::string dir = env != nullptr ? env : MOX_CORPUS_DIR;
  std::error_code ec;
  return (!dir.empty() && fs::is_directory(dir, ec)) ? dir : std::string();
}

std::vector<std::string> files() {
  std::vector<std::string> out;
  std::string dir = directory();
  if (dir.empty()) return out;
  for (const auto& e : fs::recursive_directory_iterator(dir)) {
    if (!e.is_regular_file()) continue;
    std::string ext = e.path().extension().string();
    if (ext == ".tsv" || ext == ".md" || ext == ".py") continue;
    out.push_back(fs::relative(e.path(), dir).string());
  }
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace corpus
