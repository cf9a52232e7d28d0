// Bounded allocation.  No test ever lets the allocator hand out 2 GiB:
// sizes above the limit are shown to skip the allocator (errno stays
// untouched, where any failing allocator would set ENOMEM), and sizes at the
// limit are shown to reach it in a child whose address space is too small
// for them (the allocator answers null with ENOMEM).
#include <errno.h>
#include <malloc.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "moxvos.h"
#include "support/vos_scratch.h"

#if defined(__SANITIZE_ADDRESS__)
#define MOX_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MOX_TEST_ASAN 1
#endif
#endif

#ifdef MOX_TEST_ASAN
#include <sanitizer/asan_interface.h>
// An allocation refused under the child's RLIMIT_AS must come back as null,
// as it does without the sanitizer, instead of ending the process.
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}
#endif

namespace {

constexpr uint64_t kLimit = 2147483647ULL;

// True when block has been given back to the allocator.  Only ever asked
// about a block the test allocated itself and then handed to the layer.
// With AddressSanitizer a freed block is poisoned (it sits in quarantine);
// without it, a block above the mmap threshold is unmapped on release and
// leaves glibc's count of mapped bytes.
struct ReleaseProbe {
  static constexpr size_t kSize = 8u << 20;
  void* block = nullptr;
  size_t mappedBefore = 0;

  ReleaseProbe() {
#ifndef MOX_TEST_ASAN
    // Pin the threshold: glibc raises it after each release of a mapped
    // block, which would put the next probe block on the heap.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
#endif
    block = malloc(kSize);
    memset(block, 1, kSize);
    mappedBefore = mapped();
  }
  static size_t mapped() { return mallinfo2().hblkhd; }
  bool released() const {
#ifdef MOX_TEST_ASAN
    return __asan_address_is_poisoned(block) != 0;
#else
    return mapped() + kSize <= mappedBefore;
#endif
  }
};

// Runs body in a child whose address space can grow by 256 MiB at most.
int underSmallAddressSpace(const std::function<int()>& body) {
  return moxtest::runInChild([&] {
    long pages = 0;
    FILE* statm = fopen("/proc/self/statm", "r");
    if (statm == nullptr || fscanf(statm, "%ld", &pages) != 1) return 90;
    fclose(statm);
    const rlim_t room =
        static_cast<rlim_t>(pages) * sysconf(_SC_PAGESIZE) + (256u << 20);
    struct rlimit limit = {room, room};
    if (setrlimit(RLIMIT_AS, &limit) != 0) return 91;
    return body();
  });
}

TEST(VosMemory, MallocLimits) {
  errno = 0;
  EXPECT_EQ(nullptr, moxvos_malloc(0));
  EXPECT_EQ(nullptr, moxvos_malloc(kLimit + 1));
  EXPECT_EQ(nullptr, moxvos_malloc(UINT64_MAX));
  EXPECT_EQ(0, errno);  // never reached the allocator

  void* block = moxvos_malloc(1);
  ASSERT_NE(nullptr, block);
  moxvos_free(block);
  block = moxvos_malloc(1 << 20);
  ASSERT_NE(nullptr, block);
  memset(block, 0, 1 << 20);
  moxvos_free(block);
  moxvos_free(nullptr);  // does nothing
}

TEST(VosMemory, CallocLimits) {
  errno = 0;
  EXPECT_EQ(nullptr, moxvos_calloc(65536, 65536));  // product 2^32
  EXPECT_EQ(nullptr, moxvos_calloc(65536, 32768));  // product exactly 2^31
  EXPECT_EQ(nullptr, moxvos_calloc(0, 8));
  EXPECT_EQ(nullptr, moxvos_calloc(8, 0));
  EXPECT_EQ(nullptr, moxvos_calloc(kLimit + 1, 1));
  EXPECT_EQ(nullptr, moxvos_calloc(1, kLimit + 1));
  EXPECT_EQ(nullptr, moxvos_calloc(UINT64_MAX, UINT64_MAX));  // would wrap
  EXPECT_EQ(nullptr, moxvos_calloc(1ULL << 33, 1ULL << 31));  // wraps to 0
  EXPECT_EQ(0, errno);

  unsigned char* block = static_cast<unsigned char*>(moxvos_calloc(100, 7));
  ASSERT_NE(nullptr, block);
  for (int i = 0; i < 700; ++i) ASSERT_EQ(0, block[i]);
  moxvos_free(block);
}

TEST(VosMemory, SizesAtTheLimitReachTheAllocator) {
  // 256 MiB of head room: a small block still works, 2^31 - 1 cannot.
  int code = underSmallAddressSpace([] {
    void* small = moxvos_malloc(4096);
    if (small == nullptr) return 10;
    errno = 0;
    if (moxvos_malloc(kLimit) != nullptr || errno != ENOMEM) return 11;
    errno = 0;
    if (moxvos_calloc(1, kLimit) != nullptr || errno != ENOMEM) return 12;
    errno = 0;
    if (moxvos_calloc(65535, 32768) != nullptr || errno != ENOMEM) return 13;
    errno = 0;
    if (moxvos_realloc(nullptr, kLimit) != nullptr || errno != ENOMEM) {
      return 14;
    }
    errno = 0;
    if (moxvos_realloc(small, kLimit) != nullptr || errno != ENOMEM) {
      return 15;
    }
    errno = 0;  // a failing realloc keeps the block
    void* kept = moxvos_Saferealloc(small, kLimit);
    if (kept != nullptr || errno != ENOMEM) return 16;
    errno = 0;  // valloc has no limit of its own: 2^31 reaches the allocator
    if (moxvos_valloc(kLimit + 1) != nullptr || errno != ENOMEM) return 17;
    memset(small, 0, 4096);  // still valid
    moxvos_free(small);
    return 0;
  });
  EXPECT_EQ(0, code);
}

TEST(VosMemory, ReallocAboveTheLimitKeepsTheBlock) {
  char* block = static_cast<char*>(moxvos_realloc(nullptr, 16));
  ASSERT_NE(nullptr, block);
  memcpy(block, "fifteen chars!!", 16);
  errno = 0;
  EXPECT_EQ(nullptr, moxvos_realloc(block, kLimit + 1));
  EXPECT_EQ(0, errno);
  EXPECT_STREQ("fifteen chars!!", block);  // still valid and unchanged
  block = static_cast<char*>(moxvos_realloc(block, 4096));
  ASSERT_NE(nullptr, block);
  EXPECT_STREQ("fifteen chars!!", block);
  moxvos_free(block);
}

TEST(VosMemory, SafereallocAboveTheLimitReleasesTheBlock) {
  ReleaseProbe probe;
  ASSERT_FALSE(probe.released());
  errno = 0;
  EXPECT_EQ(nullptr, moxvos_Saferealloc(probe.block, kLimit + 1));
  EXPECT_EQ(0, errno);
  EXPECT_TRUE(probe.released());
  EXPECT_EQ(nullptr, moxvos_Saferealloc(nullptr, kLimit + 1));
}

TEST(VosMemory, SafereallocToZeroReleasesOnce) {
  // A second release would be a double free, which the sanitizer build
  // reports and aborts on.
  ReleaseProbe probe;
  EXPECT_EQ(nullptr, moxvos_Saferealloc(probe.block, 0));
  EXPECT_TRUE(probe.released());

  char* grown = static_cast<char*>(moxvos_Saferealloc(nullptr, 8));
  ASSERT_NE(nullptr, grown);
  memcpy(grown, "abcdefg", 8);
  grown = static_cast<char*>(moxvos_Saferealloc(grown, 1 << 16));
  ASSERT_NE(nullptr, grown);
  EXPECT_STREQ("abcdefg", grown);
  moxvos_free(grown);
}

TEST(VosMemory, VallocHasNoLimitOfItsOwn) {
  void* block = moxvos_valloc(64);
  ASSERT_NE(nullptr, block);
  moxvos_free(block);
}

}  // namespace
