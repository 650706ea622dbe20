#include "engine/ArReader.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <string_view>

namespace agent {
namespace {

std::size_t readAt(const FileRange& range, std::uint64_t at, char* buffer, std::size_t size) {
  const std::uint64_t left = at < range.size ? range.size - at : 0;
  ssize_t got = 0;
  do {
    got = pread(range.fd, buffer, std::min<std::uint64_t>(size, left), static_cast<off_t>(range.offset + at));
  } while (got < 0 && errno == EINTR);
  return got < 0 ? 0 : static_cast<std::size_t>(got);
}

// Decimal digits, and blanks behind them. False: no number.
bool readNumber(std::string_view text, std::uint64_t& value) {
  return std::from_chars(text.data(), text.data() + text.size(), value).ec == std::errc{};
}

}  // namespace

bool ArReader::readHeader(std::uint64_t at) {
  constexpr std::size_t kName = 16, kSize = 48, kSizeBytes = 10, kEnd = 58;
  std::array<char, kHeader> block{};
  if (readAt(range_, at, block.data(), block.size()) != block.size()) {
    return false;
  }
  const std::string_view header(block.data(), block.size());
  std::uint64_t size = 0;
  if (header.substr(kEnd) != "`\n" || !readNumber(header.substr(kSize, kSizeBytes), size)) {
    return false;
  }
  const std::string_view name = header.substr(0, kName);
  name_ = name.substr(0, name.find_last_not_of(" /") + 1);
  at_ = at + kHeader;
  if (size > range_.size - at_) {
    problem_ = "a member is cut off";
    size = range_.size - at_;
  }
  end_ = position_ = at_ + size;
  std::uint64_t nameBytes = 0;  // "#1/": the name stands in front of the content
  if (name.starts_with("#1/") && readNumber(name.substr(3), nameBytes)) {
    at_ += std::min(nameBytes, size);
  }
  return true;
}

// A member begins at an even offset. Some programs leave the odd byte out.
bool ArReader::next() {
  const std::uint64_t even = position_ + position_ % 2;
  if (readHeader(even) || readHeader(position_)) {
    return true;
  }
  position_ = std::min(even, range_.size);
  if (range_.size - position_ >= kHeader) {
    problem_ = "bytes that are no member";
  }
  return false;
}

std::size_t ArReader::read(char* buffer, std::size_t size) {
  const std::size_t got = readAt(range_, at_, buffer, std::min<std::uint64_t>(size, end_ - at_));
  if (got == 0 && at_ < end_) {
    problem_ = "cannot be read to its end";
  }
  at_ += got;
  return got;
}

}  // namespace agent
