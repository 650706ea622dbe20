#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "engine/ArReader.h"
#include "engine/ArchiveKinds.h"
#include "engine/Inflater.h"

struct archive;  // of libarchive

namespace agent {

/// The version of the library that unpacks.
std::string unpackerVersion();

/// Reads the members of an archive by libarchive, one after the other, without a file or program of its own.
/// One layer only: a tar inside a gzip is the one member of the gzip.
class Unpacker {
 public:
  Unpacker(const FileRange& range, Reader reader);
  ~Unpacker();
  Unpacker(const Unpacker&) = delete;
  Unpacker& operator=(const Unpacker&) = delete;

  /// Goes to the next member. False at the end of the archive or of the part that can be read.
  bool next();
  /// Of the current member; may be empty.
  const std::string& name() const { return name_; }
  bool isEncrypted() const { return encrypted_; }
  /// Whether the current member is a symbolic link whose content may be longer than what read() gives: the
  /// library ends it at the first zero byte. Some programs write such a member as an ordinary file.
  bool isCutLink() const { return cutLink_; }
  /// The next bytes of the current member; 0 at its end, or where it cannot be read further. size: 128 KiB or
  /// more.
  std::size_t read(char* buffer, std::size_t size);

  /// How much of the range was unpacked so far.
  std::uint64_t bytesRead() const;
  /// The first reason why something could not be unpacked whole; empty: none.
  const std::string& problem() const { return problem_; }
  /// Whether so much of a zlib file was unpacked to the end of the range, without an error, that it is no
  /// text.
  bool isCutZlib() const;
  /// Whether any byte of a member came out.
  bool hasYielded() const { return yielded_; }

 private:
  struct Input;
  void fail();
  bool isCut(std::uint64_t headerBytes) const;
  std::size_t readOwn(char* buffer, std::size_t size);
  std::int64_t readBlock(char* buffer, std::size_t size);

  std::unique_ptr<Input> input_;
  // In place of libarchive, for their kinds.
  std::unique_ptr<Inflater> inflater_;
  std::unique_ptr<ArReader> ar_;
  Reader reader_;
  ::archive* archive_ = nullptr;
  bool open_ = false;
  bool encrypted_ = false;
  bool yielded_ = false;
  bool cutLink_ = false;
  std::string name_, problem_;
  std::string link_;  // what read() has not given yet
};

}  // namespace agent
