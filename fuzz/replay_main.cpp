// Runs a fuzz target once over every input kept for it (the seeds and the
// corpus the fuzzer grew), as an ordinary program of the test suite: each
// input a campaign found worth keeping is then a regression case, and the
// target's own model checks run wherever the suite runs, compilers without
// libFuzzer included.  A target reports a fault by aborting.
//
//   fuzz_replay_TARGET [--options ignored]   the folders are built in
#include <stdint.h>
#include <stdio.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main() {
  std::size_t count = 0;
  for (const char* folder : {MOX_REPLAY_SEEDS, MOX_REPLAY_CORPUS}) {
    std::error_code error;
    std::vector<std::string> paths;
    for (const auto& e : std::filesystem::directory_iterator(folder, error)) {
      if (e.path().filename().string()[0] != '.') paths.push_back(e.path());
    }
    std::sort(paths.begin(), paths.end());
    for (const std::string& path : paths) {
      std::ifstream in(path, std::ios::binary);
      const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      ++count;
    }
  }
  printf("%zu inputs replayed\n", count);
  return count == 0 ? 1 : 0;
}
