#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "engine/Inflater.h"

namespace agent {

/// Reads the members of an ar file. libarchive refuses the table of long names that programs for Windows
/// write.
class ArReader {
 public:
  explicit ArReader(const FileRange& range) : range_(range) {}

  /// Goes to the next member. False at the end, and where no header follows.
  bool next();
  const std::string& name() const { return name_; }
  /// The next bytes of the current member; 0 at its end.
  std::size_t read(char* buffer, std::size_t size);
  /// Behind the last member, or of the bytes that are no header.
  std::uint64_t position() const { return position_; }
  const std::string& problem() const { return problem_; }

 private:
  static constexpr std::size_t kHeader = 60;
  bool readHeader(std::uint64_t at);

  FileRange range_;
  std::uint64_t position_ = 8;      // behind the magic bytes
  std::uint64_t at_ = 0, end_ = 0;  // what is left of the current member
  std::string name_, problem_;
};

}  // namespace agent
