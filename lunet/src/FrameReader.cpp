#include "FrameReader.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace lunet {

namespace {

constexpr std::size_t kBlockBytes = 64 << 10;
/// A frame up to this size is read in the block; the rest of the block keeps batches of small ones cheap.
constexpr std::size_t kSmallFrameBytes = 32 << 10;
constexpr std::size_t kFirstLargeBytes = 256 << 10;

}  // namespace

FrameReader::FrameReader(std::uint32_t maxLength)
    : maxLength_(maxLength), block_(static_cast<char*>(std::malloc(kBlockBytes))) {
  if (!block_) {
    throw std::bad_alloc();
  }
}

std::span<char> FrameReader::space() {
  if (state_ == State::kLarge) {
    growLarge();
    return {large_.get() + largeHave_, std::min<std::size_t>(largeCapacity_, header_.length) - largeHave_};
  }
  compact();
  return {block_.get() + end_, kBlockBytes - end_};
}

void FrameReader::filled(std::size_t count) {
  (state_ == State::kLarge ? largeHave_ : end_) += count;
}

FrameReader::Next FrameReader::next() {
  if (state_ == State::kLargeDelivered) {
    large_.reset();
    state_ = State::kSmall;
  }
  if (state_ == State::kSmall) {
    if (end_ - begin_ < sizeof(FrameHeader)) {
      return Next::kMore;
    }
    std::memcpy(&header_, block_.get() + begin_, sizeof header_);
    if (why_ = defectOf(header_); why_ != nullptr) {
      return Next::kBad;
    }
    if (header_.length > maxLength_) {
      why_ = "announced length over the limit for its sender";
      return Next::kBad;
    }
    const std::size_t whole = sizeof(FrameHeader) + header_.length;
    if (whole <= kSmallFrameBytes) {
      if (end_ - begin_ < whole) {
        return Next::kMore;
      }
      body_ = block_.get() + begin_ + sizeof(FrameHeader);
      begin_ += whole;
      return Next::kFrame;
    }
    beginLarge();
  }
  if (largeHave_ < header_.length) {
    return Next::kMore;
  }
  body_ = large_.get();
  state_ = State::kLargeDelivered;
  return Next::kFrame;
}

MallocBuffer FrameReader::takeBody() {
  if (state_ == State::kLargeDelivered) {
    large_.get()[header_.length] = '\0';
    state_ = State::kSmall;
    return std::move(large_);
  }
  MallocBuffer copy(static_cast<char*>(std::malloc(std::size_t{header_.length} + 1)));
  if (!copy) {
    throw std::bad_alloc();
  }
  std::memcpy(copy.get(), body_, header_.length);
  copy.get()[header_.length] = '\0';
  return copy;
}

void FrameReader::compact() {
  if (begin_ == end_) {
    begin_ = end_ = 0;
  } else if (kBlockBytes - begin_ < kSmallFrameBytes || end_ == kBlockBytes) {
    std::memmove(block_.get(), block_.get() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
}

void FrameReader::beginLarge() {
  begin_ += sizeof(FrameHeader);
  largeHave_ = 0;
  largeCapacity_ = 0;
  state_ = State::kLarge;
  growLarge();
  const std::size_t here = std::min<std::size_t>(end_ - begin_, header_.length);
  std::memcpy(large_.get(), block_.get() + begin_, here);
  largeHave_ = here;
  begin_ += here;
}

void FrameReader::growLarge() {
  if (largeHave_ < largeCapacity_) {
    return;
  }
  const std::size_t wanted = std::max(kFirstLargeBytes, largeCapacity_ * 2);
  const std::size_t capacity = std::min<std::size_t>(wanted, header_.length);
  char* grown = static_cast<char*>(std::realloc(large_.get(), capacity + 1));
  if (grown == nullptr) {
    throw std::bad_alloc();
  }
  (void)large_.release();
  large_.reset(grown);
  largeCapacity_ = capacity;
}

}  // namespace lunet
