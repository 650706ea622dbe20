#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string_view>

namespace testsupport {

/// A copy of some bytes that ends the process when something reads beyond it: at its begin or at its end,
/// memory lies that cannot be read.
class GuardedBytes {
 public:
  enum class Side { kBegin, kEnd };
  GuardedBytes(std::string_view bytes, Side side) : size_(bytes.size()) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t room = (bytes.size() / page + 1) * page;
    whole_ = room + page;
    void* const pages = mmap(nullptr, whole_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(pages, MAP_FAILED);
    pages_ = static_cast<char*>(pages);
    data_ = side == Side::kBegin ? pages_ + page : pages_ + room - size_;
    std::memcpy(data_, bytes.data(), size_);
    EXPECT_EQ(mprotect(side == Side::kBegin ? pages_ : pages_ + room, page, PROT_NONE), 0);
  }
  ~GuardedBytes() { munmap(pages_, whole_); }
  GuardedBytes(const GuardedBytes&) = delete;
  GuardedBytes& operator=(const GuardedBytes&) = delete;

  const char* data() const { return data_; }
  std::string_view view() const { return {data_, size_}; }

 private:
  std::size_t size_;
  std::size_t whole_;
  char* pages_;
  char* data_;
};

}  // namespace testsupport
