#pragma once

#include <sys/stat.h>

#include <string>

#include "platform/Posix.h"
#include "store/ItemMeta.h"
#include "store/StoreTypes.h"

namespace agent::store {

/// The file that is to be quarantined: held open, and its entry in its folder, from which it is removed only
/// as long as it is that very file. Everything that cannot be is a StoreError with the reason.
class OriginalFile {
 public:
  /// By the request's descriptor, or when it has none by its path, the last component not followed. Refuses
  /// what is no regular file, what is not as it was scanned, and what stands on a read-only file system.
  explicit OriginalFile(const QuarantineRequest& request);

  int fd() const { return file_.get(); }
  const struct stat& st() const { return st_; }
  const std::string& realPath() const { return realPath_; }
  const std::string& name() const { return name_; }
  /// Only the change time differs from what was scanned (a new name, another mode): the content must then be
  /// proved by its hash.
  bool needsProof() const { return needsProof_; }

  /// Throws when the file was changed since it was opened.
  void checkUnchanged() const;
  /// Takes the file's entry to the private name in the same folder and checks that it is the file; another
  /// one, put there meanwhile, is put back.
  void setAside(const std::string& privateName);
  /// Removes what setAside took, and syncs the folder.
  void remove();

 private:
  void openFile(const QuarantineRequest& request);
  void findFolder();
  void checkEntry(const std::string& name, const char* otherwise) const;
  void putBack();

  platform::Descriptor file_, folder_;
  struct stat st_ {};
  std::string realPath_, name_, aside_;
  bool needsProof_ = false;
};

/// The entry's private name while it is being removed.
std::string privateName(const std::string& uuid);
/// Moves an entry within a folder, never over another. 0 or an errno value.
int renameWithin(int folder, const std::string& from, const std::string& to);

}  // namespace agent::store
