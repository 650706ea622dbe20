#pragma once

#include <sys/stat.h>

#include <string>

#include "platform/Posix.h"
#include "store/ItemMeta.h"
#include "store/StoreTypes.h"

namespace agent::store {

/// The file to quarantine or delete: held open, together with its folder. The entry in the folder is removed
/// only while the entry still names the file. Each failure is a StoreError with the reason.
class OriginalFile {
 public:
  /// Opens the file by the request's descriptor, else by its path without following a link in the last
  /// component. Refuses anything but a regular file, a file changed since the scan, and a read-only file
  /// system.
  explicit OriginalFile(const QuarantineRequest& request);

  int fd() const { return file_.get(); }
  const struct stat& st() const { return st_; }
  const std::string& realPath() const { return realPath_; }
  const std::string& name() const { return name_; }
  /// True when only the change time differs from the scanned file (a new name, another mode). The hash must
  /// then prove the content.
  bool needsProof() const { return needsProof_; }

  /// Throws when the file was changed since it was opened.
  void checkUnchanged() const;
  /// Renames the entry to the private name in the same folder and checks that the entry is the file. Another
  /// file in the place of the original gets its name back.
  void setAside(const std::string& privateName);
  /// Removes the entry that was set aside, and syncs the folder.
  void remove();

 private:
  void openFile(const QuarantineRequest& request);
  void findFolder();
  void checkEntry(const std::string& name, const char* ifAnother) const;
  void putBack();

  platform::Descriptor file_, folder_;
  struct stat st_ {};
  std::string realPath_, name_, aside_;
  bool needsProof_ = false;
};

/// The private name of an entry during its removal.
std::string privateName(const std::string& uuid);
/// Renames an entry within a folder, never over another entry. 0 or an errno value: the restore child uses it
/// after the fork.
int renameWithin(int folder, const std::string& from, const std::string& to);

}  // namespace agent::store
