#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "engine/EngineLimits.h"
#include "engine/ScanBudget.h"
#include "engine/ScanRecord.h"
#include "engine/Unpacker.h"

namespace agent {

/// The scan of one file by both unpackers. libclamav scans the file first. Then libarchive unpacks the
/// archives that the record has found, and libclamav scans each member that it has not seen yet.
class FileScan {
 public:
  /// Scans an open file by libclamav. Returns libclamav's failure; empty after a success.
  using Library = std::function<std::string(int fd, const std::string& name)>;
  /// tempFolder: for unpacked members and kept layers.
  FileScan(Library library, ScanRecord& record, const EngineLimits& limits, ScanBudget& budget,
           std::string tempFolder)
      : library_(std::move(library)),
        record_(record),
        limits_(limits),
        budget_(budget),
        tempFolder_(std::move(tempFolder)) {}

  void scan(int fd, const std::string& name) { scanLayer(fd, name, {}); }
  /// Whether libarchive had to be asked.
  bool foundArchives() const { return foundArchives_; }

 private:
  static constexpr std::size_t kBlockBytes = 128 * 1024;

  void scanLayer(int fd, const std::string& name, const Place& place);
  void unpack(int fd, const Pending& archive);
  std::uint64_t unpackFrom(int fd, const Pending& archive);
  bool unpackMember(Unpacker& unpacker, const Pending& archive, std::size_t& links);
  bool isWhole(const Pending& archive, bool isCutLink, const std::string& memberKey, std::size_t& links);
  void endOf(int fd, const Pending& archive, const Unpacker& unpacker, bool any);
  void scanRest(int fd, const Pending& archive, std::uint64_t unpacked);
  bool mayGoOn(const Pending& archive);
  bool copyMember(Unpacker& unpacker, const Pending& archive, TempFile& copy, std::string& sha256);
  void notWhole(const Pending& archive, const std::string& why);

  Library library_;
  ScanRecord& record_;
  const EngineLimits& limits_;
  ScanBudget& budget_;
  const std::string tempFolder_;
  bool foundArchives_ = false;
  std::uint64_t members_ = 0;        // unpacked by libarchive
  std::uint64_t unpackedBytes_ = 0;  // by libarchive
  std::set<std::string> cutLinks_;   // what came out of them
  std::vector<char> block_;          // of one copy at a time
};

}  // namespace agent
