#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <span>
#include <string_view>

#include "Frame.h"

namespace lunet {

/// A buffer from malloc, so that it can grow in place and be handed over an interface of plain pointers.
struct FreeDeleter {
  void operator()(char* memory) const { std::free(memory); }
};
using MallocBuffer = std::unique_ptr<char, FreeDeleter>;

/// Cuts the bytes of one connection into frames. Small frames are read many at a time into one block; a
/// large one gets a buffer of its own, which grows with what has arrived, never with what was announced.
/// One thread at a time.
class FrameReader {
 public:
  /// maxLength: of a frame's body, at most kMaxMessageBytes.
  explicit FrameReader(std::uint32_t maxLength = kMaxMessageBytes);

  /// Where the next bytes go; never empty.
  std::span<char> space();
  /// Tells how many bytes were put there.
  void filled(std::size_t count);

  enum class Next { kFrame, kMore, kBad };
  /// The next whole frame. Its body (see body()) is good until the following next() or space().
  Next next();
  const FrameHeader& header() const { return header_; }
  std::string_view body() const { return {body_, header_.length}; }
  /// The body of the current frame as a buffer of its own, a NUL behind it.
  MallocBuffer takeBody();
  /// After kBad: why.
  const char* whyBadFrame() const { return why_; }
  /// True when a frame has begun and is not whole: an end of the connection here is one in mid-frame.
  bool inFrame() const { return state_ == State::kLarge || begin_ != end_; }

 private:
  enum class State { kSmall, kLarge, kLargeDelivered };
  void compact();
  void growLarge();
  void beginLarge();

  const std::uint32_t maxLength_;
  MallocBuffer block_;
  std::size_t begin_ = 0;  ///< of the unread bytes in the block
  std::size_t end_ = 0;
  State state_ = State::kSmall;
  MallocBuffer large_;
  std::size_t largeHave_ = 0;
  std::size_t largeCapacity_ = 0;
  FrameHeader header_;
  const char* body_ = nullptr;
  const char* why_ = nullptr;
};

}  // namespace lunet
