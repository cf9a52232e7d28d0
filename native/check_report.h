// The pieces of the structural check (native/check*.cpp) and what they
// share: the directory as the scan found it, and the report they add to.
//
// The check must stay cheap on hostile input, so nothing here walks more
// than once per entry or sector, and paths are only spelled out for the
// defects actually reported: a file nested thousands of entries deep has
// long paths, and a damaged one can have a defect in every entry.
#ifndef MOXOLEFIO_NATIVE_CHECK_REPORT_H_
#define MOXOLEFIO_NATIVE_CHECK_REPORT_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "moxolefio/moxolefio.hpp"
#include "native/bulk_vector.h"
#include "native/image.h"

namespace mox::detail::check {

constexpr std::uint32_t kNone = 0xFFFFFFFF;

// The tree as read from the directory, with the same first-met rule as
// Tree: an entry linked twice belongs where it was met first.
struct DirectoryScan {
  BulkVector<std::uint32_t> parent;  // per entry; kNone when not reached (and for the root)
  std::vector<bool> reached;         // per entry
  BulkVector<std::uint32_t> order;   // reached entries, the root first
  // Reached streams with data, in that order, as the sector half of the
  // check needs them (the directory is read once).
  struct Stream {
    std::uint32_t id;
    std::uint32_t start;
    std::uint64_t size;
    bool mini;
  };
  BulkVector<Stream> streams;
};

class Report {
 public:
  explicit Report(const Image& image) : image_(image) {}

  void setDirectory(const DirectoryScan* scan) { scan_ = scan; }

  // Whether another defect of this code would still be listed; callers
  // use it to skip building costly messages.
  bool full(const char* code) const;
  // `entry` is the directory entry concerned (its path is spelled out),
  // or kNone.
  void add(Severity severity, const char* code, std::uint32_t entry, std::int64_t sector,
           std::string message);
  void addDefect(Defect defect);

  // An entry for messages: "the root", its path in quotes, or "entry N"
  // for one the scan did not reach (or too deep to quote).
  std::string describe(std::uint32_t entry) const;

  bool has(const std::string& code) const;
  // The defects, with a closing line for each code whose list was cut.
  std::vector<Defect> finish();

 private:
  struct Tally {
    std::size_t listed = 0;
    std::size_t dropped = 0;
    Severity severity = Severity::warning;
  };
  // The path of an entry as a walk of the tree gives it ("" for the root
  // and entries the scan did not reach); false when longer than `limit`.
  bool spellPath(std::uint32_t entry, std::size_t limit, std::string& path) const;
  void drop(const std::string& code, Severity severity);

  const Image& image_;
  const DirectoryScan* scan_ = nullptr;
  // Bytes of paths and messages the report may still hold: paths in a
  // deeply nested file are long, and there may be a defect in every entry.
  std::size_t budget_ = std::size_t{4} << 20;
  std::vector<Defect> defects_;
  std::map<std::string, Tally> tallies_;
};

// A count in words: "1 sector", "3 sectors".
std::string counted(std::uint64_t n, const char* singular, const char* plural);

void checkHeader(const Image& image, Report& report);
void checkDirectory(const Image& image, DirectoryScan& scan, Report& report);
void checkSectors(const Image& image, const DirectoryScan& scan, Report& report);

}  // namespace mox::detail::check

#endif  // MOXOLEFIO_NATIVE_CHECK_REPORT_H_
