#include "engine/FileScan.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

#include "engine/Digest.h"
#include "platform/Text.h"

namespace agent {

void FileScan::scanLayer(int fd, const std::string& name, const Place& place) {
  TempFile kept(tempFolder_, budget_.tempSpace());
  record_.begin(place, kept);
  record_.end(library_(fd, name));
  for (const Pending& archive : record_.takePending()) {
    foundArchives_ = true;
    unpack(archive.kept ? kept.fd() : fd, archive);
  }
}

void FileScan::notWhole(const Pending& archive, const std::string& why) {
  record_.notWhole(archive.name, archive.place.level - 1, why);
}

// False, with the reason in the record, when a limit is reached. After a detection, the rest cannot change
// the outcome.
bool FileScan::mayGoOn(const Pending& archive) {
  if (record_.tempFull() || record_.hasDetection() || budget_.ranOut()) {
    return false;
  }
  if (members_ > limits_.maxFiles || budget_.layersLeft() == 0) {
    notWhole(archive, "more members than the engine's limit");
  } else if (unpackedBytes_ > budget_.budget().unpackedBytes || budget_.bytesLeft() == 0) {
    notWhole(archive, budget_.dataReason());
  } else {
    return true;
  }
  return false;
}

void FileScan::unpack(int fd, const Pending& archive) {
  std::uint64_t unpacked = unpackFrom(fd, archive);
  // Those that the first one has not reached.
  Pending other = archive;
  for (const std::uint64_t offset : archive.later) {
    if (offset >= unpacked) {
      other.offset = archive.offset + offset;
      other.size = archive.size - offset;
      unpacked = offset + unpackFrom(fd, other);
    }
  }
}

// Returns how much of the archive was unpacked.
std::uint64_t FileScan::unpackFrom(int fd, const Pending& archive) {
  if (!mayGoOn(archive)) {
    return archive.size;
  }
  if (archive.place.level > limits_.maxRecursion) {
    notWhole(archive, "nested deeper than the engine's limit");
    return archive.size;
  }
  block_.resize(kBlockBytes);
  if (archive.kind->reader == Reader::kRaw) {
    scanRest(fd, archive, 0);
    return archive.size;
  }
  std::size_t links = archive.links;
  Unpacker unpacker({fd, archive.offset, archive.size}, archive.kind->reader);
  bool any = false;
  while (unpacker.next()) {
    any = true;
    ++members_;
    if (!unpackMember(unpacker, archive, links) || !mayGoOn(archive)) {
      return archive.size;
    }
  }
  const bool counts = archive.failure == Failure::kCounts ||
                      (archive.failure == Failure::kCountsIfYielded && unpacker.hasYielded()) ||
                      (archive.failure == Failure::kCountsUnlessYielded && !unpacker.hasYielded()) ||
                      unpacker.isCutZlib();
  if (counts) {
    endOf(fd, archive, unpacker, any);
  }
  // Of an lzh whose member fails, the library may have skipped what other programs read.
  const bool mayHideOthers = archive.kind->reader == Reader::kLha && !unpacker.problem().empty();
  return mayHideOthers ? 0 : unpacker.bytesRead();
}

// False when a limit ends the unpacking of the archive.
bool FileScan::unpackMember(Unpacker& unpacker, const Pending& archive, std::size_t& links) {
  if (unpacker.isEncrypted()) {
    notWhole(archive, "encrypted: its content cannot be scanned");
  }
  TempFile copy(tempFolder_, budget_.tempSpace());
  std::string sha256;
  const bool isCutLink = unpacker.isCutLink();
  const bool goesOn = copyMember(unpacker, archive, copy, sha256);
  if (copy.size() == 0 || record_.tempFull()) {
    return goesOn;
  }
  if (!isWhole(archive, isCutLink, ScanRecord::layerKey(sha256, copy.size()), links)) {
    notWhole(archive, "a symbolic link whose content may be longer than its target");
  }
  if (!record_.isKnown(sha256)) {
    scanLayer(copy.fd(), unpacker.name().empty() ? archive.name : unpacker.name(), archive.place);
  }
  return goesOn;
}

// links: of a zip, that are unpacked besides and were not met yet. libclamav, too, unpacks a link whole: what
// both unpack alike is not cut.
bool FileScan::isWhole(const Pending& archive, bool isCutLink, const std::string& memberKey,
                       std::size_t& links) {
  if (archive.kind->reader == Reader::kZip) {
    return !isCutLink || links-- > 0;
  }
  if (isCutLink) {
    cutLinks_.insert(memberKey);
  }
  return record_.takeUnpacked(memberKey) || cutLinks_.count(memberKey) == 0;
}

// All members were unpacked, or no more could be.
void FileScan::endOf(int fd, const Pending& archive, const Unpacker& unpacker, bool any) {
  std::string problem = unpacker.problem();
  // A zip is pending only when its directory has members.
  const bool isZip = archive.kind->reader == Reader::kZip;
  // The library takes a gz that is cut off in its header for an empty one.
  const bool nothingRead = archive.kind->reader == Reader::kGzip && unpacker.bytesRead() == 0;
  if (problem.empty() && !any && (archive.kind->mustYield || isZip || nothingRead)) {
    problem = "no member came out";
  }
  if (!problem.empty()) {
    const std::string why = "a " + nameOf(*archive.kind) +
                            " archive that could not be unpacked whole: " + platform::visibleText(problem);
    notWhole(archive, archive.otherwise.empty() ? why : archive.otherwise);
  } else if ((unpacker.bytesRead() > 0 || archive.kind->reader == Reader::kAr) &&
             mayHaveRest(*archive.kind)) {
    scanRest(fd, archive, unpacker.bytesRead());
  }
}

// Other programs unpack what follows the end of a compressed file or a cpio, or take the rest for another
// file. In an ar, the rest is the part of a header: the archive is cut off.
void FileScan::scanRest(int fd, const Pending& archive, std::uint64_t unpacked) {
  TempFile rest(tempFolder_, budget_.tempSpace());
  std::uint64_t zeros = 0;  // in front
  bool anything = false;
  for (std::uint64_t at = unpacked; at < archive.size && mayGoOn(archive);) {
    const ssize_t got = pread(fd, block_.data(), std::min<std::uint64_t>(block_.size(), archive.size - at),
                              static_cast<off_t>(archive.offset + at));
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      notWhole(archive, "cannot be read to its end");
      return;
    }
    const auto* end = block_.data() + got;
    const auto* first = std::find_if(std::as_const(block_).data(), end, [](char c) { return c != 0; });
    zeros += anything ? 0 : static_cast<std::uint64_t>(first - block_.data());
    anything = anything || std::any_of(first, end, [](char c) { return c != 0 && c != '\n'; });
    const auto bytes = static_cast<std::size_t>(got);
    if (const auto written = rest.append(block_.data(), bytes); !written) {
      record_.onFailure(written.error());
      return;
    }
    at += bytes;
    unpackedBytes_ += bytes;
  }
  if (!anything || !mayGoOn(archive)) {
    return;
  }
  if (archive.kind->reader == Reader::kAr) {
    notWhole(archive, "an ar archive that is cut off");
    return;
  }
  scanLayer(rest.fd(), archive.name, archive.place);
  if (zeros > 0) {
    scanRest(fd, archive, unpacked + zeros);  // other programs skip them
  }
}

// False when a limit ends the unpacking of the archive.
bool FileScan::copyMember(Unpacker& unpacker, const Pending& archive, TempFile& copy, std::string& sha256) {
  Digest digest(Digest::Kind::kSha256);
  bool goesOn = true;
  while (const std::size_t got = unpacker.read(block_.data(), block_.size())) {
    digest.add(block_.data(), got);
    unpackedBytes_ += got;
    if (copy.size() + got > record_.maxFileBytes()) {
      notWhole(archive, "its member is larger than the engine's limit of " +
                            std::to_string(record_.maxFileBytes()) + " bytes");
      goesOn = archive.kind->reader == Reader::kZip;  // in others, the rest would be unpacked at once
      break;
    }
    if (const auto written = copy.append(block_.data(), got); !written) {
      record_.onFailure(written.error());
      goesOn = false;
      break;
    }
    if (!mayGoOn(archive)) {
      goesOn = false;
      break;
    }
  }
  sha256 = digest.hex();
  return goesOn;
}

}  // namespace agent
