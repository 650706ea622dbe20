#include "store/Recovery.h"

#include <fcntl.h>
#include <unistd.h>

#include "engine/Digest.h"
#include "store/FolderWalk.h"
#include "store/ItemFile.h"
#include "store/OriginalFile.h"

namespace agent::store {
namespace {

/// Opens a regular file in a folder for reading, without following a link.
platform::Descriptor openEntry(int folder, const std::string& name, struct stat* st) {
  platform::Descriptor file = platform::openReading(folder, name);
  const bool regular = file && ::fstat(file.get(), st) == 0 && S_ISREG(st->st_mode);
  return regular ? std::move(file) : platform::Descriptor();
}

bool hasContent(int file, const struct stat& st, const ItemMeta& meta) {
  if (static_cast<std::uint64_t>(st.st_size) != meta.size) {
    return false;
  }
  return digestOfFile(file, Digest::Kind::kSha256) == meta.sha256;
}

bool isInode(const struct stat& st, const ItemMeta& meta) {
  return st.st_dev == meta.device && st.st_ino == meta.inode;
}

}  // namespace

void Recovery::run() {
  if (!vault_.waitIdle()) {
    notices_.push_back("quarantine: a restore of an earlier agent is still under way");
  }
  settleFiles();
  for (const ItemRow& row : table_.halfDone()) {
    const auto meta = ItemMeta::fromText(row.meta);
    if (!meta) {
      notice(row.uuid, "half-done, and its record cannot be read: left as it is");
    } else if (row.state == ItemState::kRemoving) {
      settleRemoval(row, *meta);
    } else {
      settleRestore(row, *meta);
    }
  }
}

void Recovery::settleFiles() {
  std::set<std::string> rows, whole;
  for (const ItemRow& row : table_.halfDone()) {
    rows.insert(row.uuid);
  }
  const std::vector<std::string> listed = table_.uuids();
  rows.insert(listed.begin(), listed.end());
  for (const Vault::File& file : vault_.files()) {
    const bool known = rows.contains(file.uuid);
    switch (file.kind) {
      case Vault::File::Kind::kPart:
        if (!known) {
          vault_.discardPart(file.uuid);
        }
        break;
      case Vault::File::Kind::kGone:
        if (known) {
          vault_.revive(file.uuid);
          whole.insert(file.uuid);
        } else {
          vault_.discardGone(file.uuid);
        }
        break;
      case Vault::File::Kind::kItem:
        whole.insert(file.uuid);
        if (!known) {
          adopt(file.uuid);
        }
        break;
    }
  }
  for (const std::string& uuid : listed) {
    if (!whole.contains(uuid)) {
      notice(uuid, "its file in the quarantine is missing");
    }
  }
}

void Recovery::adopt(const std::string& uuid) try {
  const platform::Descriptor file = vault_.open(uuid);
  struct stat st {};
  ::fstat(file.get(), &st);
  const ItemReader reader(file.get());
  if (reader.meta().uuid != uuid) {
    notice(uuid, "a file in the quarantine that belongs to another item: left as it is");
    return;
  }
  table_.insert(reader.meta(), ItemState::kComplete, static_cast<std::uint64_t>(st.st_size));
  notice(uuid, "had no record; taken up again from its file");
} catch (const StoreError& error) {
  notice(uuid, std::string("a file in the quarantine without a record: ") + error.what());
}

void Recovery::settleRemoval(const ItemRow& row, const ItemMeta& meta) {
  const platform::SplitPath was = platform::splitPath(meta.realPath);
  const platform::Expected<platform::Descriptor> folder = openFolder(was.folder);
  struct stat st {};
  const platform::Descriptor original =
      folder ? openEntry(folder->get(), was.name, &st) : platform::Descriptor();
  if (original && isInode(st, meta) && hasContent(original.get(), st, meta)) {
    drop(row);
    notice(row.uuid, "its removal had not begun: the file stays where it was");
    return;
  }
  if (folder && !finishRemoval(meta, folder->get())) {
    drop(row);
    notice(row.uuid, "was not whole: the file was put back where it was");
    return;
  }
  keep(row);
}

/// Deletes the entry that was set aside if the item is whole; else gives the entry its name back. False: the
/// file is back, and the item is worth nothing.
bool Recovery::finishRemoval(const ItemMeta& meta, int folder) {
  const std::string aside = privateName(meta.uuid);
  struct stat st {};
  if (::fstatat(folder, aside.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    return true;
  }
  const std::string name = platform::splitPath(meta.realPath).name;
  if (checkItemFile(meta.uuid) && isInode(st, meta) && static_cast<std::uint64_t>(st.st_size) == meta.size) {
    ::unlinkat(folder, aside.c_str(), 0);
    platform::syncFolder(folder, -1);
    notice(meta.uuid, "its removal was ended");
    return true;
  }
  const int error = renameWithin(folder, aside, name);
  if (error != 0) {
    notice(meta.uuid, "the file that was set aside could not be put back (" + platform::errnoText(error) +
                          "): it stands as " + platform::quoted(aside) + " in " +
                          platform::quoted(platform::splitPath(meta.realPath).folder));
  }
  // If another file was set aside, the detected file is gone, and the item is all that is left.
  return error != 0 || !isInode(st, meta);
}

void Recovery::settleRestore(const ItemRow& row, const ItemMeta& meta) {
  const auto plan = RestorePlan::fromText(row.pending);
  const platform::Expected<platform::Descriptor> folder = openFolder(plan ? plan->folder : "");
  struct stat st {};
  if (folder && ::fstatat(folder->get(), privateName(meta.uuid).c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISREG(st.st_mode)) {
    ::unlinkat(folder->get(), privateName(meta.uuid).c_str(), 0);
  }
  const platform::Descriptor restored =
      folder ? openEntry(folder->get(), plan->name, &st) : platform::Descriptor();
  if (!restored || !hasContent(restored.get(), st, meta)) {
    keep(row);
    notice(row.uuid, "its restore had not ended: it stays in the quarantine");
    return;
  }
  platform::syncFolder(folder->get(), restored.get());
  const platform::Expected<void> trusted = plan->applyTrust(regions_);
  drop(row);
  notice(row.uuid, "its restore had ended" + (trusted ? "" : ", but it is not trusted: " + trusted.error()));
}

void Recovery::drop(const ItemRow& row) {
  if (vault_.isWhole(row.uuid)) {
    vault_.markGone(row.uuid);
  }
  table_.erase(row.uuid);
  vault_.discardGone(row.uuid);
  vault_.discardPart(row.uuid);
}

void Recovery::keep(const ItemRow& row) {
  if (const auto whole = checkItemFile(row.uuid); !whole) {
    notice(row.uuid, whole.error());
  }
  table_.setState(row.uuid, ItemState::kComplete, "");
}

platform::Expected<void> Recovery::checkItemFile(const std::string& uuid) const try {
  return checkItem(vault_.open(uuid).get());
} catch (const StoreError& error) {
  return platform::failure(error.what());
}

void Recovery::notice(const std::string& uuid, const std::string& what) {
  notices_.push_back("quarantine: item " + platform::quoted(uuid) + ": " + what);
}

}  // namespace agent::store
