#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace agent {

/// Numbers in a block of bytes, least significant byte first; in big…(), most significant byte first. The
/// caller asks has() before a read.
class Bytes {
 public:
  Bytes(const char* data, std::size_t size) : data_(data), size_(size) {}
  std::size_t size() const { return size_; }
  bool has(std::uint64_t offset, std::uint64_t count) const {
    return offset <= size_ && count <= size_ - offset;
  }
  std::uint32_t at8(std::uint64_t offset) const { return static_cast<unsigned char>(data_[offset]); }
  std::uint32_t at16(std::uint64_t offset) const { return at8(offset) | at8(offset + 1) << 8; }
  std::uint32_t at32(std::uint64_t offset) const { return at16(offset) | at16(offset + 2) << 16; }
  std::uint64_t at64(std::uint64_t offset) const {
    return at32(offset) | std::uint64_t{at32(offset + 4)} << 32;
  }
  std::uint32_t big16(std::uint64_t offset) const { return at8(offset) << 8 | at8(offset + 1); }
  std::uint32_t big32(std::uint64_t offset) const { return big16(offset) << 16 | big16(offset + 2); }
  std::string_view text(std::uint64_t offset, std::size_t count) const { return {data_ + offset, count}; }
  bool startsWith(std::string_view text) const { return std::string_view(data_, size_).starts_with(text); }
  Bytes from(std::uint64_t offset) const {
    return {data_ + offset, static_cast<std::size_t>(size_ - offset)};
  }

 private:
  const char* data_;
  std::size_t size_;
};

}  // namespace agent
