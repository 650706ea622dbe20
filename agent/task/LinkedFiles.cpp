#include "task/LinkedFiles.h"

#include <utility>

namespace agent {

namespace {

constexpr std::size_t kMostFiles = 1u << 18;  // 50 MB; of further files, each name is scanned
constexpr std::size_t kMostWaiting = 64;

}  // namespace

LinkedFiles::Met LinkedFiles::meet(const File& file) {
  if (file->status.st_nlink < 2) {
    return {};
  }
  const FileIdentity identity = FileIdentity::of(file->status);
  std::unique_lock lock(mutex_);
  fewer_.wait(lock, [this] { return held_ || waiting_ < kMostWaiting; });
  auto entry = entries_.find(identity);
  if (entry == entries_.end()) {
    if (entries_.size() < kMostFiles) {
      entries_[identity].namesLeft = file->status.st_nlink - 1;
    }
    return {};
  }
  Entry& known = entry->second;
  known.namesLeft -= known.namesLeft > 0 ? 1 : 0;  // one name may be met twice
  if (known.end == nullptr) {
    known.waiting.push_back(file);
    ++waiting_;
    return {Turn::kWaits, nullptr};
  }
  const std::shared_ptr<const FileEnd> end = known.end;
  if (known.namesLeft == 0) {
    entries_.erase(entry);
  }
  return {Turn::kEnded, end};
}

void LinkedFiles::setHeld(bool held) {
  const std::lock_guard guard(mutex_);
  held_ = held;
  fewer_.notify_all();
}

std::vector<LinkedFiles::File> LinkedFiles::ended(const EncounteredFile& first,
                                                  const std::shared_ptr<const FileEnd>& end) {
  const std::lock_guard guard(mutex_);
  const auto entry = entries_.find(FileIdentity::of(first.status));
  if (entry == entries_.end()) {
    return {};
  }
  entry->second.end = end;
  std::vector<File> waited = std::exchange(entry->second.waiting, {});
  if (entry->second.namesLeft == 0) {
    entries_.erase(entry);
  }
  waiting_ -= waited.size();
  fewer_.notify_all();
  return waited;
}

}  // namespace agent
