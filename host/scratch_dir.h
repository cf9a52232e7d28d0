// A fresh directory under $TMPDIR (or /tmp), removed with everything in it
// when the object goes.  Tests, benchmarks and fuzzers keep their files
// there, never in the repository or the user's folders.
#ifndef MOXOLEFIO_HOST_SCRATCH_DIR_H_
#define MOXOLEFIO_HOST_SCRATCH_DIR_H_

#include <string>

namespace moxhost {

class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  // Empty when the directory could not be made.
  const std::string& path() const { return path_; }
  // path() + "/" + name
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace moxhost

#endif  // MOXOLEFIO_HOST_SCRATCH_DIR_H_
