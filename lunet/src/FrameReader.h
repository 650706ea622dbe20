#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <span>
#include <string_view>

#include "Frame.h"

namespace lunet {

/// A buffer from malloc: realloc can grow the buffer, and a plain pointer can pass it on.
struct FreeDeleter {
  void operator()(char* memory) const { std::free(memory); }
};
using MallocBuffer = std::unique_ptr<char, FreeDeleter>;

/// Cuts the bytes of one connection into frames. Small frames share one block. A large frame has a buffer
/// that grows with the bytes that arrive, not with the announced length. One thread at a time.
class FrameReader {
 public:
  /// maxLength: the limit of a frame's body.
  explicit FrameReader(std::uint32_t maxLength = kMaxMessageBytes);

  /// The space for the next bytes; never empty.
  std::span<char> space();
  /// To be called with the number of bytes put into space().
  void filled(std::size_t count);

  enum class Next { kFrame, kMore, kBad };
  /// Takes the next whole frame. body() is then valid until the following next() or space().
  Next next();
  const FrameHeader& header() const { return header_; }
  std::string_view body() const { return {body_, header_.length}; }
  /// The body of the current frame in a buffer of its own, with a NUL behind.
  MallocBuffer takeBody();
  /// After kBad.
  const char* defect() const { return why_; }
  /// True while a frame is incomplete: an end of the connection now cuts a frame.
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
