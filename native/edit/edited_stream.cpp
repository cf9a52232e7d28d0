#include "native/edit/edited_stream.h"

#include <string.h>

#include <algorithm>

#include "moxolefio/moxolefio.hpp"

namespace mox::detail {

namespace {
constexpr std::uint64_t kPage = Scratch::kPageSize;
}

EditedStream::EditedStream(std::shared_ptr<Scratch> scratch, std::shared_ptr<StreamData> base,
                           std::uint64_t maxSize, std::string name)
    : scratch_(std::move(scratch)), maxSize_(maxSize), name_(std::move(name)) {
  rebase(std::move(base));
}

EditedStream::~EditedStream() { releasePages(0); }

void EditedStream::rebase(std::shared_ptr<StreamData> base) {
  releasePages(0);
  pages_.clear();
  small_.clear();
  small_.shrink_to_fit();
  base_ = std::move(base);
  size_ = base_ ? base_->size() : 0;
  baseLimit_ = size_;
  inline_ = !base_;
  detached_ = false;
  changed_ = !base_;
}

void EditedStream::detach() { detached_ = true; }

void EditedStream::releasePages(std::size_t from) {
  std::vector<std::uint64_t> given;
  for (std::size_t i = from; i < pages_.size(); ++i) {
    if (pages_[i] != kNoPage) given.push_back(pages_[i]);
    pages_[i] = kNoPage;
  }
  scratch_->release(std::move(given));
}

void EditedStream::checkWritable(std::uint64_t end) const {
  if (detached_) {
    throw Error(Errc::invalid_argument, name_ + ": the stream is no longer part of the file");
  }
  if (end > maxSize_) {
    throw Error(Errc::invalid_argument,
                name_ + ": a stream of this file holds at most " + std::to_string(maxSize_) + " bytes");
  }
}

std::size_t EditedStream::readAt(std::uint64_t offset, void* buffer, std::size_t count) const {
  if (offset >= size_) return 0;
  count = static_cast<std::size_t>(std::min<std::uint64_t>(count, size_ - offset));
  auto* out = static_cast<unsigned char*>(buffer);
  if (inline_) {
    memcpy(out, small_.data() + offset, count);
  } else {
    readPaged(offset, out, count);
  }
  return count;
}

void EditedStream::readBase(std::uint64_t offset, unsigned char* out, std::size_t count) const {
  // Bytes past what the base still shows read as zeros.
  std::size_t fromBase = 0;
  if (offset < baseLimit_) {
    fromBase = static_cast<std::size_t>(std::min<std::uint64_t>(count, baseLimit_ - offset));
    if (base_->readAt(offset, out, fromBase) != fromBase) {
      throw Error(Errc::damaged, name_ + ": the stored stream is shorter than its size");
    }
  }
  memset(out + fromBase, 0, count - fromBase);
}

void EditedStream::readPaged(std::uint64_t offset, unsigned char* out, std::size_t count) const {
  while (count > 0) {
    const std::uint64_t page = offset / kPage;
    const std::size_t at = static_cast<std::size_t>(offset % kPage);
    const std::size_t n = std::min<std::size_t>(count, kPage - at);
    if (page < pages_.size() && pages_[page] != kNoPage) {
      scratch_->read(pages_[page], at, out, n);
    } else {
      readBase(offset, out, n);
    }
    out += n;
    offset += n;
    count -= n;
  }
}

bool EditedStream::scratchRun(std::uint64_t offset, int* fd, std::uint64_t* at, std::uint64_t* count) const {
  const std::uint64_t page = offset / kPage;
  if (inline_ || offset >= size_ || page >= pages_.size() || pages_[page] == kNoPage) return false;
  *fd = scratch_->descriptor();
  if (*fd < 0) return false;
  std::size_t last = static_cast<std::size_t>(page);
  while (last + 1 < pages_.size() && pages_[last + 1] == pages_[last] + 1) ++last;
  *at = pages_[page] * kPage + offset % kPage;
  *count = std::min<std::uint64_t>((last + 1) * kPage, size_) - offset;
  return true;
}

void EditedStream::writeAt(std::uint64_t offset, const void* data, std::size_t count) {
  if (count == 0) return;
  const std::uint64_t end = offset + count;
  checkWritable(end < offset ? ~std::uint64_t{0} : end);
  const std::uint64_t newSize = std::max(size_, end);
  changed_ = true;
  if (!inline_ && newSize < kInlineLimit) toInline();
  if (inline_ && newSize >= kInlineLimit) toPaged();
  if (inline_) {
    if (newSize > small_.size()) small_.resize(static_cast<std::size_t>(newSize));
    memcpy(small_.data() + offset, data, count);
  } else {
    writePaged(offset, static_cast<const unsigned char*>(data), count);
  }
  size_ = newSize;
}

void EditedStream::writePaged(std::uint64_t offset, const unsigned char* data, std::size_t count) {
  std::unique_ptr<unsigned char[]> whole;
  while (count > 0) {
    const std::uint64_t page = offset / kPage;
    const std::size_t at = static_cast<std::size_t>(offset % kPage);
    const std::size_t n = std::min<std::size_t>(count, kPage - at);
    if (page >= pages_.size()) pages_.resize(static_cast<std::size_t>(page + 1), kNoPage);
    if (pages_[page] != kNoPage) {
      scratch_->write(pages_[page], at, data, n);
    } else {
      const Scratch::Page fresh = scratch_->allocate();
      const std::uint64_t start = page * kPage;
      // The page joins the stream once written: a failed write leaves the
      // stream showing what it did before.
      try {
        if (n == kPage || (fresh.zeroed && start >= baseLimit_)) {
          scratch_->write(fresh.number, at, data, n);
        } else {
          // A page met for the first time starts as what it showed before
          // (stored bytes, else zeros), so that it can be written in part.
          if (!whole) whole.reset(new unsigned char[kPage]);
          readBase(start, whole.get(), kPage);
          memcpy(whole.get() + at, data, n);
          scratch_->write(fresh.number, 0, whole.get(), kPage);
        }
      } catch (...) {
        scratch_->release({fresh.number});
        throw;
      }
      pages_[page] = fresh.number;
    }
    data += n;
    offset += n;
    count -= n;
  }
}

void EditedStream::resize(std::uint64_t size) {
  checkWritable(size);
  changed_ = true;
  if (!inline_ && size < kInlineLimit) toInline();
  if (inline_ && size >= kInlineLimit) toPaged();
  if (inline_) {
    small_.resize(static_cast<std::size_t>(size));
  } else if (size < size_) {
    shrinkPaged(size);
  }
  size_ = size;
}

void EditedStream::shrinkPaged(std::uint64_t size) {
  const std::size_t keep = static_cast<std::size_t>((size + kPage - 1) / kPage);
  if (keep < pages_.size()) {
    releasePages(keep);
    pages_.resize(keep);
  }
  // What a later growth exposes must read as zeros: the tail of the last
  // page kept, and whatever the base held past the new end.
  const std::size_t at = static_cast<std::size_t>(size % kPage);
  if (at != 0 && keep > 0 && keep <= pages_.size() && pages_[keep - 1] != kNoPage) {
    const std::uint64_t pageEnd = std::min<std::uint64_t>(size_, (keep)*kPage);
    const std::size_t n = static_cast<std::size_t>(pageEnd - ((keep - 1) * kPage + at));
    if (n > 0) {
      std::vector<unsigned char> zeros(n, 0);
      scratch_->write(pages_[keep - 1], at, zeros.data(), n);
    }
  }
  baseLimit_ = std::min(baseLimit_, size);
}

void EditedStream::toInline() {
  std::vector<unsigned char> bytes(static_cast<std::size_t>(size_));
  if (!bytes.empty()) readPaged(0, bytes.data(), bytes.size());
  releasePages(0);
  pages_.clear();
  base_.reset();
  baseLimit_ = 0;
  small_ = std::move(bytes);
  inline_ = true;
}

void EditedStream::toPaged() {
  // The bytes are in the scratch before the stream leaves memory, so that a
  // failed write keeps them where they were.
  std::vector<std::uint64_t> pages;
  if (!small_.empty()) {
    const Scratch::Page page = scratch_->allocate();
    std::vector<unsigned char> whole(small_);
    whole.resize(kPage, 0);
    try {
      scratch_->write(page.number, 0, whole.data(), kPage);
    } catch (...) {
      scratch_->release({page.number});
      throw;
    }
    pages.push_back(page.number);
  }
  inline_ = false;
  base_.reset();
  baseLimit_ = 0;
  pages_ = std::move(pages);
  small_.clear();
  small_.shrink_to_fit();
}

}  // namespace mox::detail
