#include "store/Deletions.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/Text.h"
#include "store/FolderWalk.h"
#include "store/OriginalFile.h"
#include "store/StepHook.h"

namespace agent::store {
namespace {

bool isFile(const struct stat& st, const FileIdentity& file) {
  return S_ISREG(st.st_mode) && FileIdentity::of(st).sameContent(file);
}

}  // namespace

void Deletions::run(const QuarantineRequest& request) {
  OriginalFile original(request);
  if (original.needsProof()) {
    throw StoreError("it was changed after it was scanned");  // nothing would compare the content
  }
  const Row row{
      .uuid = CUuid::generate(), .path = original.realPath(), .file = FileIdentity::of(original.st())};
  record(row);
  reached("deletion recorded");
  try {
    original.setAside(privateName(row.uuid));
    reached("set aside");
    original.remove();
    reached("removed");
  } catch (...) {
    forget(row.uuid);
    throw;
  }
  forget(row.uuid);
}

void Deletions::settle(std::vector<std::string>* notices) {
  for (const Row& row : records()) {
    std::string notice;
    if (settleOne(row, &notice)) {
      forget(row.uuid);
    }
    notices->push_back("deletion of " + platform::quoted(row.path) + ": " + notice);
  }
}

/// False: the record stays for a later start.
bool Deletions::settleOne(const Row& row, std::string* notice) {
  const platform::SplitPath was = platform::splitPath(row.path);
  const std::string aside = privateName(row.uuid);
  const std::string asidePath = platform::quoted(platform::joinPath(was.folder, aside));
  const platform::Expected<platform::Descriptor> folder = openFolder(was.folder);
  struct stat st {};
  if (!folder) {
    *notice = "its folder cannot be reached: it may stand there as " + asidePath;
    return false;
  }
  if (::fstatat(folder->get(), aside.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    const bool there =
        ::fstatat(folder->get(), was.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && isFile(st, row.file);
    *notice = there ? "had not begun: the file stays where it was" : "had ended";
    return true;
  }
  if (!isFile(st, row.file)) {
    const int error = renameWithin(folder->get(), aside, was.name);
    *notice = error == 0 ? "another file had taken its place: put back"
                         : "another file had taken its place and could not be put back (" +
                               platform::errnoText(error) + "): it stands as " + asidePath;
    return true;
  }
  if (::unlinkat(folder->get(), aside.c_str(), 0) != 0) {
    *notice = "could not be ended (" + platform::errnoText(errno) + "): it stands as " + asidePath;
    return false;
  }
  platform::syncFolder(folder->get(), -1);
  *notice = "was ended";
  return true;
}

void Deletions::record(const Row& row) {
  const std::lock_guard lock(database_.mutex());
  Statement(database_, "INSERT INTO deletions VALUES (?,?,?,?,?,?)")
      .bind(row.uuid, row.path, row.file.device, row.file.inode, row.file.size, row.file.modifyTimeNs)
      .run();
}

/// A superfluous record does no harm: the next start finds no file of it.
void Deletions::forget(const std::string& uuid) noexcept {
  try {
    const std::lock_guard lock(database_.mutex());
    Statement(database_, "DELETE FROM deletions WHERE uuid=?").bind(uuid).run();
  } catch (const std::exception&) {
  }
}

std::vector<Deletions::Row> Deletions::records() {
  const std::lock_guard lock(database_.mutex());
  Statement rows(database_, "SELECT uuid,path,device,inode,size,modify_ns FROM deletions ORDER BY rowid");
  std::vector<Row> found;
  while (rows.step()) {
    Row row{.uuid = rows.text(0), .path = rows.text(1), .file = {}};
    row.file.device = static_cast<std::uint64_t>(rows.number(2));
    row.file.inode = static_cast<std::uint64_t>(rows.number(3));
    row.file.size = static_cast<std::uint64_t>(rows.number(4));
    row.file.modifyTimeNs = rows.number(5);
    found.push_back(std::move(row));
  }
  return found;
}

}  // namespace agent::store
