#include "store/WorkerDeaths.h"

#include <algorithm>
#include <set>

namespace agent::store {

WorkerDeaths::WorkerDeaths(Database& database, std::size_t maxDeaths, std::size_t maxGivenUp)
    : database_(database), maxDeaths_(maxDeaths), maxGivenUp_(maxGivenUp) {
  const std::lock_guard lock(database_.mutex());
  Statement all(database_,
                "SELECT device,inode,size,change_ns,modify_ns,signatures,seq FROM given_up ORDER BY seq");
  while (all.step()) {
    GivenUp entry;
    entry.file = {.device = static_cast<std::uint64_t>(all.number(0)),
                  .inode = static_cast<std::uint64_t>(all.number(1)),
                  .size = static_cast<std::uint64_t>(all.number(2)),
                  .changeTimeNs = all.number(3),
                  .modifyTimeNs = all.number(4)};
    entry.signatures = all.text(5);
    entry.seq = lastSeq_ = all.number(6);
    givenUp_.insert_or_assign({entry.file.device, entry.file.inode}, std::move(entry));
  }
}

WorkerDeaths::Count WorkerDeaths::add(const FileIdentity& file, uid_t owner, const std::string& signatures,
                                      Clock::time_point now) {
  const std::lock_guard lock(mutex_);
  while (!deaths_.empty() && (deaths_.front().at + kPeriod <= now || deaths_.size() >= maxDeaths_)) {
    deaths_.pop_front();
  }
  deaths_.push_back({now, file, owner, signatures});
  Count count;
  std::set<Place> files;
  for (const Death& death : deaths_) {
    count.ofFile += death.file == file && death.signatures == signatures ? 1 : 0;
    if (death.owner == owner) {
      ++count.ofOwner;
      files.insert({death.file.device, death.file.inode});
    }
  }
  count.ownersFiles = files.size();
  if (count.ofFile >= kDeathsToGiveUp) {
    count.givenUp = true;
    giveUp(file, signatures);
  }
  return count;
}

bool WorkerDeaths::isGivenUp(const FileIdentity& file, const std::string& signatures) const {
  const std::lock_guard lock(mutex_);
  const auto found = givenUp_.find({file.device, file.inode});
  return found != givenUp_.end() && found->second.file == file && found->second.signatures == signatures;
}

// With the mutex held.
void WorkerDeaths::giveUp(const FileIdentity& file, const std::string& signatures) {
  const GivenUp entry{file, signatures, ++lastSeq_};
  givenUp_.insert_or_assign({file.device, file.inode}, entry);
  if (givenUp_.size() > maxGivenUp_) {
    givenUp_.erase(oldest());
  }
  try {
    write(entry);
  } catch (const StoreError&) {  // NOLINT(bugprone-empty-catch): the entry in memory holds until the end
  }
}

std::map<WorkerDeaths::Place, WorkerDeaths::GivenUp>::const_iterator WorkerDeaths::oldest() const {
  return std::min_element(givenUp_.begin(), givenUp_.end(), [](const auto& one, const auto& other) {
    return one.second.seq < other.second.seq;
  });
}

void WorkerDeaths::write(const GivenUp& entry) {
  const std::lock_guard lock(database_.mutex());
  Transaction transaction(database_);
  const FileIdentity& file = entry.file;
  Statement(database_, "INSERT OR REPLACE INTO given_up VALUES (?,?,?,?,?,?,?)")
      .bind(file.device, file.inode, file.size, file.changeTimeNs, file.modifyTimeNs, entry.signatures,
            entry.seq)
      .run();
  Statement(database_, "DELETE FROM given_up WHERE seq<?").bind(oldest()->second.seq).run();
  transaction.commit();
}

}  // namespace agent::store
