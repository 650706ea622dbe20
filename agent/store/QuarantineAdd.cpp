#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "engine/Digest.h"
#include "platform/Text.h"
#include "store/ItemFile.h"
#include "store/Quarantine.h"
#include "store/Recovery.h"
#include "store/StepHook.h"

namespace agent::store {
namespace {

constexpr std::uint64_t kSyncBytes = 8U << 20;

/// Keeps little unwritten while a long file is copied: the sync of the whole file cannot be interrupted.
class GradualSync {
 public:
  explicit GradualSync(int fd) : fd_(fd) {}
  /// Begins to write what came since the last time, and waits for what came before.
  void writtenSoFar(std::uint64_t bytes) {
    if (bytes - begun_ < kSyncBytes) {
      return;
    }
    sync(begun_, bytes - begun_, SYNC_FILE_RANGE_WRITE);
    sync(0, begun_, SYNC_FILE_RANGE_WAIT_BEFORE);
    begun_ = bytes;
  }

 private:
  // A file system without this call keeps its data for the fsync, which decides.
  void sync(std::uint64_t from, std::uint64_t bytes, unsigned how) const {
    if (bytes > 0) {
      ::sync_file_range(fd_, static_cast<off64_t>(from), static_cast<off64_t>(bytes), how);
    }
  }

  int fd_;
  std::uint64_t begun_ = 0;
};

void checkGoesOn(const QuarantineRequest& request) {
  if (request.keepGoing && !request.keepGoing()) {
    throw StoreError("its quarantine was broken off");
  }
}

}  // namespace

Quarantine::Quarantine(Database& database, const std::string& folder, Settings& settings, Regions& regions,
                       AuditLog& audit, std::chrono::milliseconds restorePatience,
                       std::vector<std::string>* notices)
    : settings_(settings),
      regions_(regions),
      audit_(audit),
      restorePatience_(restorePatience),
      table_(database),
      deletions_(database),
      vault_(folder) {
  Recovery(table_, vault_, regions_, notices).run();
  deletions_.settle(notices);
  usedBytes_ = table_.totalBytes();
}

platform::Expected<Remark> Quarantine::add(const QuarantineRequest& request) {
  try {
    OriginalFile original(request);
    reached("opened");
    cleanWhenFull();
    return take(original, request);
  } catch (const std::exception& error) {
    return platform::failure(error.what());
  }
}

platform::Expected<Remark> Quarantine::remove(const QuarantineRequest& request) {
  try {
    deletions_.run(request);
    return {};
  } catch (const std::exception& error) {
    return platform::failure(error.what());
  }
}

ItemMeta Quarantine::describe(const OriginalFile& original, const QuarantineRequest& request) const {
  ItemMeta meta;
  meta.uuid = CUuid::generate();
  meta.path = request.path.starts_with('/') ? request.path : original.realPath();
  meta.realPath = original.realPath();
  meta.isolateTimeSec = platform::nowSec();
  meta.detection = request.detection;
  readFileMeta(original.fd(), original.st(), &meta);
  return meta;
}

std::uint64_t Quarantine::copy(const OriginalFile& original, const QuarantineRequest& request,
                               ItemMeta* meta) const {
  const platform::Descriptor part = vault_.create(meta->uuid);
  const std::uint64_t limit = limitBytes(), used = usedBytes_;
  ItemWriter writer(part.get(), limit > used ? limit - used : 0);
  Digest md5(Digest::Kind::kMd5), sha256(Digest::Kind::kSha256);
  std::string buffer(1 << 16, '\0');
  GradualSync sync(part.get());
  std::uint64_t total = 0;
  for (;;) {
    checkGoesOn(request);
    const std::int64_t n = platform::readFully(original.fd(), buffer.data(), buffer.size());
    if (n < 0) {
      throw StoreError("cannot read it: " + platform::errnoText(errno));
    }
    if (n == 0) {
      break;
    }
    const auto size = static_cast<std::size_t>(n);
    if (total == 0) {
      meta->fileType = fileTypeOf(buffer.substr(0, std::min<std::size_t>(size, 16)), original.name());
    }
    total += size;
    md5.add(buffer.data(), size);
    sha256.add(buffer.data(), size);
    writer.add(buffer.data(), size);
    sync.writtenSoFar(writer.written());
    reached("copied a block");
  }
  original.checkUnchanged();
  meta->md5 = md5.hex();
  meta->sha256 = sha256.hex();
  if (total != meta->size || (!request.md5.empty() && request.md5 != meta->md5)) {
    throw StoreError("it was changed after it was scanned");
  }
  writer.finish(*meta);
  if (::fsync(part.get()) != 0) {
    throw StoreError("cannot sync the quarantine: " + platform::errnoText(errno));
  }
  return writer.written();
}

platform::Expected<Remark> Quarantine::take(OriginalFile& original, const QuarantineRequest& request) {
  ItemMeta meta = describe(original, request);
  std::uint64_t stored = 0;
  try {
    stored = copy(original, request, &meta);
    reached("copied");
    reserve(stored);
  } catch (...) {
    vault_.discardPart(meta.uuid);
    throw;
  }
  try {
    table_.insert(meta, ItemState::kRemoving, stored);
    reached("recorded");
    vault_.name(meta.uuid);
    reached("named");
    removeOriginal(original, meta.uuid);
  } catch (...) {
    erase(meta.uuid, stored);
    throw;
  }
  try {
    table_.setState(meta.uuid, ItemState::kComplete, "");
  } catch (const StoreError& error) {
    return std::string("quarantined; its record is completed at the next start: ") + error.what();
  }
  reached("completed");
  const std::uint64_t others = meta.links - 1;
  return others == 0 ? "" : "the same file still stands under " + std::to_string(others) + " other name(s)";
}

void Quarantine::removeOriginal(OriginalFile& original, const std::string& uuid) {
  original.setAside(privateName(uuid));
  reached("set aside");
  original.remove();
  reached("removed");
}

Json::Value Quarantine::list(std::optional<uid_t> onlyOwner) const {
  Json::Value items(Json::arrayValue);
  table_.forEach(onlyOwner, [&items](const ItemRow& row) {
    const auto meta = ItemMeta::fromText(row.meta);
    if (meta) {
      items.append(meta->toIsolationItem());
    }
  });
  return items;
}

}  // namespace agent::store
