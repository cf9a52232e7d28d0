// Runs a fuzz target once over every input kept for it (the seeds and the
// corpus the fuzzer grew), as an ordinary program of the test suite: each
// input a campaign found worth keeping is then a regression case, and the
// target's own model checks run wherever the suite runs, compilers without
// libFuzzer included.  A target reports a fault by aborting.
//
//   fuzz_replay_TARGET [--options ignored]   the folders are built in
#include <dirent.h>
#include <stdint.h>
#include <stdio.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

std::vector<std::string> inputsIn(const std::string& folder) {
  std::vector<std::string> paths;
  if (DIR* dir = opendir(folder.c_str())) {
    while (const dirent* e = readdir(dir)) {
      if (e->d_name[0] != '.') paths.push_back(folder + "/" + e->d_name);
    }
    closedir(dir);
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

}  // namespace

int main() {
  std::size_t count = 0;
  for (const char* folder : {MOX_REPLAY_SEEDS, MOX_REPLAY_CORPUS}) {
    for (const std::string& path : inputsIn(folder)) {
      std::ifstream in(path, std::ios::binary);
      const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      ++count;
    }
  }
  printf("%zu inputs replayed\n", count);
  return count == 0 ? 1 : 0;
}
