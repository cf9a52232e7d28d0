// check(): the structural scan over small files each breaking one rule
// (tests/test_native_corpus.cpp runs it over the shared corpus); strict
// opens, which fail on its errors; and `moxole check`, which prints it.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "moxolefio/moxolefio.hpp"
#include "support/cfb_builder.h"
#include "support/moxole_cli.h"
#include "support/native_kit.h"

namespace {

using Defects = std::vector<mox::Defect>;
using moxtest::hasError;

std::string listing(const Defects& defects) {
  std::string text;
  for (const mox::Defect& d : defects) {
    text += std::string(d.severity == mox::Severity::error ? "error " : "warning ") + d.code + " '" + d.path +
            "' " + std::to_string(d.sector) + ": " + d.message + "\n";
  }
  return text;
}

// --- Files broken one rule at a time -------------------------------------------

// Entries of the sample: a regular stream, a mini stream, and a storage
// holding another mini stream.  Three siblings under the root make a
// perfect all-black tree, so the unbroken file has no defect at all.
enum { kBig = 1, kSmall = 2, kStore = 3, kInner = 4 };

cfb::CfbLayout sample(unsigned shift = 9) {
  cfb::CfbBuilder b(shift);
  b.setPaddingSectors(1);  // a free sector after the directory
  b.addStream(0, "Big", cfb::Bytes(5000, 1));
  b.addStream(0, "Small", cfb::Bytes(100, 2));
  b.addStream(b.addStorage(0, "Store"), "Inner", cfb::Bytes(200, 3));
  return b.layout();
}

Defects check(const cfb::Bytes& bytes) {
  return mox::CompoundFile::open_memory(bytes.data(), bytes.size()).check();
}

// Regular sector k of "Big", and the free padding sector.
std::uint32_t big(const cfb::CfbLayout& l, std::uint32_t k) { return l.dir[kBig].start + k; }
std::uint32_t spare(const cfb::CfbLayout& l) { return l.dirSectors.back() + 1; }

struct Broken {
  const char* code;
  mox::Severity severity;
  const char* path;
  // Breaks the rule; returns the sector the defect must name (-1: none).
  std::function<std::int64_t(cfb::CfbLayout&)> breakIt;
  const char* says = "";  // part of the message, when it names another entry
};

constexpr mox::Severity kError = mox::Severity::error;
constexpr mox::Severity kWarning = mox::Severity::warning;

const Broken kBroken[] = {
    // Chains of the FAT.
    {"sector-shared", kError, "Big", [](cfb::CfbLayout& l) { return l.fat[big(l, 1)] = l.dirSectors[0]; }},
    {"fat-cycle", kError, "Big", [](cfb::CfbLayout& l) { return l.fat[big(l, 4)] = big(l, 2); }},
    {"chain-broken", kError, "Big", [](cfb::CfbLayout& l) { l.fat[big(l, 3)] = cfb::kFree; return big(l, 3); }},
    {"sector-range", kError, "Big", [](cfb::CfbLayout& l) { return l.fat[big(l, 5)] = 100; }},
    {"chain-short", kError, "Big", [](cfb::CfbLayout& l) { l.fat[big(l, 6)] = cfb::kEnd; return big(l, 6); }},
    {"chain-long", kWarning, "Big", [](cfb::CfbLayout& l) { l.dir[kBig].sizeLow = 4600; return big(l, 9); }},
    // The mini stream is the last sector; the file ends 300 bytes into
    // it, inside "Inner" (mini stream bytes 128..328).
    {"sector-truncated", kError, "Store/Inner",
     [](cfb::CfbLayout& l) { l.truncateTo = (l.dir[0].start + 1) * 512 + 300; return l.dir[0].start; }},
    {"sector-orphan", kWarning, "", [](cfb::CfbLayout& l) { l.fat[spare(l)] = cfb::kEnd; return spare(l); }},
    {"table-mark", kWarning, "", [](cfb::CfbLayout& l) { l.fat[l.fatSectors[0]] = cfb::kFree; return l.fatSectors[0]; }},
    // The mini FAT and the mini stream ("Small" has mini sectors 0-1,
    // "Inner" 2-5).
    {"mini-sector-shared", kError, "Store/Inner", [](cfb::CfbLayout& l) { return l.miniFat[3] = 1; }},
    {"minifat-cycle", kError, "Store/Inner", [](cfb::CfbLayout& l) { return l.miniFat[4] = 2; }},
    {"mini-chain-short", kError, "Store/Inner", [](cfb::CfbLayout& l) { l.miniFat[3] = cfb::kEnd; return 3; }},
    {"mini-sector-range", kError, "Store/Inner", [](cfb::CfbLayout& l) { return l.miniFat[3] = 200; }},
    {"mini-beyond-stream", kError, "Small",
     [](cfb::CfbLayout& l) {
       l.miniFat.resize(8, cfb::kFree);
       l.miniFat[6] = 7;
       l.miniFat[7] = cfb::kEnd;
       return l.dir[kSmall].start = 6;
     }},
    {"ministream-chain", kError, "", [](cfb::CfbLayout& l) { l.dir[0].sizeLow += 512; return l.dir[0].start; }},
    {"ministream-cycle", kError, "",
     [](cfb::CfbLayout& l) { l.dir[0].sizeLow += 512; l.fat[l.dir[0].start] = l.dir[0].start; return -1; }},
    {"mini-sector-orphan", kWarning, "",
     [](cfb::CfbLayout& l) { l.miniFat.resize(11, cfb::kFree); l.miniFat[10] = cfb::kEnd; return 10; }},
    // The directory.
    {"dir-link-range", kError, "Big", [](cfb::CfbLayout& l) { l.dir[kBig].left = 99; return -1; }},
    {"dir-link-shared", kError, "Store/Inner", [](cfb::CfbLayout& l) { l.dir[kInner].left = kBig; return -1; },
     "already in the tree as 'Big'"},
    {"entry-empty", kError, "Store/Inner", [](cfb::CfbLayout& l) { l.dir[kInner].type = 0; return -1; }},
    {"entry-child", kError, "Big", [](cfb::CfbLayout& l) { l.dir[kBig].child = 99; return -1; }},
    {"sibling-order", kError, "Small", [](cfb::CfbLayout& l) { l.dir[kBig].name = cfb::units("Zzzzzz"); return -1; }},
    {"sibling-duplicate", kError, "SMALL", [](cfb::CfbLayout& l) { l.dir[kStore].name = cfb::units("SMALL"); return -1; }},
    {"name-length", kError, "Bi", [](cfb::CfbLayout& l) { l.dir[kBig].nameLength = 7; return -1; }},
    {"name-unterminated", kError, "B", [](cfb::CfbLayout& l) { l.dir[kBig].nameLength = 4; return -1; }},
    {"rb-red-red", kWarning, "",
     [](cfb::CfbLayout& l) { l.dir[kBig].colour = l.dir[kSmall].colour = l.dir[kStore].colour = 0; return -1; }},
    {"rb-black-height", kWarning, "", [](cfb::CfbLayout& l) { l.dir[kBig].colour = 0; return -1; }},
    {"entry-unreachable", kWarning, "", [](cfb::CfbLayout& l) { l.dir[kSmall].right = cfb::kNone; return -1; }},
    {"root-siblings", kWarning, "", [](cfb::CfbLayout& l) { l.dir[0].left = kInner; return -1; }},
    // The header and the DIFAT.
    {"header-byte-order", kError, "", [](cfb::CfbLayout& l) { l.bigEndian = true; return -1; }},
    {"header-version", kWarning, "", [](cfb::CfbLayout& l) { l.header.major[0] = 5; return -1; }},
    {"header-sector-size", kWarning, "", [](cfb::CfbLayout& l) { l.header.major[0] = 4; return -1; }},
    {"header-mini-cutoff", kWarning, "", [](cfb::CfbLayout& l) { l.header.miniCutoff = 2048; return -1; }},
    {"header-dir-count", kWarning, "", [](cfb::CfbLayout& l) { l.header.dirSectors = 2; return -1; }},
    {"fat-count", kError, "", [](cfb::CfbLayout& l) { l.header.fatSectors = 1000; return -1; }},
    // More FAT sectors than the header's slots hold, and no DIFAT.
    {"fat-count", kError, "", [](cfb::CfbLayout& l) { l.sector(200); l.header.fatSectors = 110; return -1; }},
    {"difat-slot", kWarning, "",
     [](cfb::CfbLayout& l) {
       l.deriveDifat = false;
       l.header.difat[0] = l.fatSectors[0];
       return l.header.difat[3] = 7;
     }},
    {"difat-cycle", kError, "",
     [](cfb::CfbLayout& l) {
       // Two DIFAT sectors declared though the header holds the whole
       // FAT; the first links to itself.
       const std::uint32_t p = l.header.difatStart = spare(l);
       l.deriveDifat = false;
       l.header.difat[0] = l.fatSectors[0];
       l.header.difatSectors = 2;
       cfb::Bytes& s = l.sector(p);
       std::fill(s.begin(), s.end(), 0xFF);
       for (int k = 0; k < 4; ++k) s[508 + k] = static_cast<std::uint8_t>(p >> (8 * k));
       l.fat[p] = cfb::kDifSect;
       return p;
     }},
};

TEST(NativeCheck, UnbrokenFilesHaveNoDefectsAndEachBrokenRuleIsReportedWithItsPathAndSector) {
  for (unsigned shift : {9u, 12u}) EXPECT_EQ(listing(check(sample(shift).serialize())), "") << "shift " << shift;
  for (const Broken& b : kBroken) {
    SCOPED_TRACE(b.code);
    cfb::CfbLayout l = sample();
    const std::int64_t sector = b.breakIt(l);
    const cfb::Bytes bytes = l.serialize();
    const Defects defects = check(bytes);
    const auto d = std::find_if(defects.begin(), defects.end(), [&](const mox::Defect& x) { return x.code == b.code; });
    ASSERT_NE(d, defects.end()) << listing(defects);
    EXPECT_EQ(d->severity, b.severity);
    EXPECT_EQ(d->path, b.path);
    EXPECT_EQ(d->sector, sector);
    EXPECT_NE(d->message.find(b.says), std::string::npos) << d->message;
    EXPECT_FALSE(d->message.empty());
    // A warning is all a tolerated oddity brings.
    EXPECT_EQ(hasError(defects), b.severity == kError) << listing(defects);
    // A strict open fails exactly on an error, as a damaged file.
    EXPECT_EQ(moxtest::errorOf([&] { mox::CompoundFile::open_memory(bytes.data(), bytes.size(), mox::OpenOptions{true}); }),
              hasError(defects) ? mox::Errc::damaged : mox::Errc{});
  }
}

// The paths of the defects listed one by one, and the message of the one
// that counts the rest (the one without a path).
std::pair<std::vector<std::string>, std::string> listedAndCounted(const Defects& defects) {
  std::pair<std::vector<std::string>, std::string> out;
  for (const mox::Defect& d : defects) {
    if (d.path.empty()) out.second = d.message;
    else out.first.push_back(d.path);
  }
  return out;
}

TEST(NativeCheck, RepeatedDefectsAreListedUpToALimitThenCounted) {
  cfb::CfbBuilder b;
  for (int i = 0; i < 150; ++i) b.addStream(0, "S" + std::to_string(i), cfb::Bytes(10, 1));
  cfb::CfbLayout l = b.layout();
  for (std::size_t i = 1; i < l.dir.size(); ++i) l.dir[i].child = 9999;
  Defects defects = check(l.serialize());
  defects.erase(std::remove_if(defects.begin(), defects.end(), [](const mox::Defect& d) { return d.code != "entry-child"; }),
                defects.end());
  const auto [listed, counted] = listedAndCounted(defects);
  EXPECT_EQ(listed.size(), 100u);
  EXPECT_EQ(counted.rfind("50 more", 0), 0u) << listing(defects);
}

TEST(NativeCheck, PathsOfDeeplyNestedEntriesStayWithinABoundedReport) {
  // Storages nested 30000 deep, the deepest 1000 with a defect each: their
  // paths run to 60 KB, so only some fit in the report and the rest are
  // counted.
  constexpr int kDepth = 30000, kBroken = 1000;
  cfb::CfbBuilder b;
  int at = 0;
  for (int i = 0; i < kDepth; ++i) at = b.addStorage(at, "a");
  cfb::CfbLayout l = b.layout();
  for (int i = kDepth - kBroken + 1; i <= kDepth; ++i) l.dir[i].nameLength = 1;
  const Defects defects = check(l.serialize());
  for (const mox::Defect& d : defects) ASSERT_EQ(d.code, "name-length");
  const auto [listed, counted] = listedAndCounted(defects);
  std::size_t pathBytes = 0;
  for (const std::string& path : listed) {
    pathBytes += path.size();
    EXPECT_GE(path.size(), 2u * (kDepth - kBroken));
  }
  EXPECT_GT(listed.size(), 0u);
  EXPECT_LE(pathBytes, std::size_t{4} << 20);
  EXPECT_EQ(listed.size() + std::stoul(counted), static_cast<std::size_t>(kBroken));
}

// --- moxole check -------------------------------------------------------------

TEST(MoxoleCheck, PrintsADefectALineAndExitsByTheWorstSeverity) {
  moxtest::ScratchDir scratch;
  auto write = [&](const std::string& name, const cfb::Bytes& bytes) {
    EXPECT_TRUE(moxtest::writeBytes(scratch.file(name), bytes));
    return scratch.file(name);
  };

  moxtest::ProgramResult clean = moxole({"check", write("clean.cfb", sample().serialize())});
  EXPECT_EQ(clean.status, 0) << clean.err;
  EXPECT_EQ(clean.out, "");

  cfb::CfbLayout loose = sample();
  loose.dir[kBig].sizeLow = 4600;
  moxtest::ProgramResult warned = moxole({"check", write("loose.cfb", loose.serialize())});
  EXPECT_EQ(warned.status, 0) << warned.err;
  EXPECT_EQ(warned.out.rfind("warning\tchain-long\tBig\t" + std::to_string(big(loose, 9)) + "\t", 0), 0u)
      << warned.out;

  // Names are escaped as 'ls' shows them; table defects have no path.
  cfb::CfbBuilder b;
  b.addStream(0, std::string("\x05Info"), cfb::Bytes(5000, 1));
  cfb::CfbLayout l = b.layout();
  l.fat[l.dir[1].start + 2] = l.dir[1].start;
  l.fat[l.fatSectors[0]] = cfb::kFree;
  moxtest::ProgramResult broken = moxole({"check", write("broken.cfb", l.serialize())});
  EXPECT_EQ(broken.status, 2) << broken.err;
  EXPECT_NE(broken.out.find("error\tfat-cycle\t\\x05Info\t" + std::to_string(l.dir[1].start) + "\t"),
            std::string::npos)
      << broken.out;
  EXPECT_NE(broken.out.find("warning\ttable-mark\t-\t" + std::to_string(l.fatSectors[0]) + "\t"),
            std::string::npos)
      << broken.out;
  EXPECT_EQ(broken.err, "");
  // Files that are not documents: tests/test_moxole.cpp's failure table.
}

}  // namespace
