// Lists every entry of a compound file, then copies one stream to stdout:
//   list_and_read FILE [STREAM-PATH]
#include <moxolefio/moxolefio.hpp>

#include <cstdio>
#include <iostream>

int main(int argc, char** argv) try {
  if (argc < 2) return std::cerr << "usage: list_and_read FILE [STREAM]\n", 1;
  const mox::CompoundFile file = mox::CompoundFile::open(argv[1]);
  for (const mox::Entry& e : file.walk()) {
    std::cout << (e.is_stream() ? "stream  " : "storage ") << e.size << "\t/" << e.path << "\n";
  }
  if (argc < 3) return 0;
  mox::Stream stream = file.open_stream(argv[2]);
  char buffer[65536];
  while (std::size_t n = stream.read(buffer, sizeof buffer)) std::fwrite(buffer, 1, n, stdout);
  return 0;
} catch (const mox::Error& e) {
  std::cerr << "list_and_read: " << e.what() << "\n";
  return 2;
}
