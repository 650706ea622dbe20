#include "engine/Inflater.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace agent {

Inflater::Inflater(const FileRange& range) : range_(range) {
  constexpr int kLargestWindow = 15, kZlibOrGzip = 32;
  ready_ = inflateInit2(&stream_, kLargestWindow + kZlibOrGzip) == Z_OK;
}

Inflater::~Inflater() {
  inflateEnd(&stream_);
}

bool Inflater::fill() {
  constexpr char kOldSecond = '\x9E', kSecond = '\x8B', kFirst = '\x1F';
  ssize_t got = 0;
  do {
    got = pread(range_.fd, block_.data(), std::min<std::uint64_t>(block_.size(), range_.size - position_),
                static_cast<off_t>(range_.offset + position_));
  } while (got < 0 && errno == EINTR);
  if (got <= 0) {
    return false;
  }
  if (position_ == 0 && got > 1 && block_[0] == kFirst && block_[1] == kOldSecond) {
    block_[1] = kSecond;
  }
  position_ += static_cast<std::uint64_t>(got);
  stream_.next_in = reinterpret_cast<Bytef*>(block_.data());
  stream_.avail_in = static_cast<uInt>(got);
  return true;
}

std::size_t Inflater::read(char* buffer, std::size_t size) {
  stream_.next_out = reinterpret_cast<Bytef*>(buffer);
  stream_.avail_out = static_cast<uInt>(size);
  while (ready_ && stream_.avail_out > 0) {
    if (stream_.avail_in == 0 && !fill()) {
      break;
    }
    const int result = inflate(&stream_, Z_NO_FLUSH);
    whole_ = result == Z_STREAM_END;
    ready_ = result == Z_OK;
  }
  return size - stream_.avail_out;
}

}  // namespace agent
