#include "host/scratch_dir.h"

#include <stdlib.h>

#include <filesystem>
#include <vector>

namespace moxhost {

ScratchDir::ScratchDir() {
  const char* base = getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/moxolefio-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) != nullptr) path_ = buffer.data();
}

ScratchDir::~ScratchDir() {
  if (path_.empty()) return;
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace moxhost
