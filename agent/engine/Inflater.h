#pragma once

#include <zlib.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace agent {

/// A range of an open file. The descriptor stays its owner's; its position does not change.
struct FileRange {
  int fd = -1;
  std::uint64_t offset = 0, size = 0;
};

/// Unpacks what libarchive does not read: a zlib file, or a gzip that begins with the magic bytes of old
/// versions. One stream only.
class Inflater {
 public:
  explicit Inflater(const FileRange& range);
  ~Inflater();
  Inflater(const Inflater&) = delete;
  Inflater& operator=(const Inflater&) = delete;

  /// The next bytes; 0 at the end of the stream, or where the stream cannot be unpacked further.
  std::size_t read(char* buffer, std::size_t size);
  bool isWhole() const { return whole_; }
  /// Whether the range ended within the stream.
  bool isCutOff() const { return ready_ && !whole_; }
  /// How much of the range was unpacked so far.
  std::uint64_t bytesRead() const { return position_ - stream_.avail_in; }

 private:
  bool fill();

  FileRange range_;
  std::uint64_t position_ = 0;
  z_stream stream_{};
  bool ready_ = false;
  bool whole_ = false;
  std::array<char, 64 * 1024> block_;
};

}  // namespace agent
