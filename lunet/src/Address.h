#pragma once

#include <string>

#include "SocketFolder.h"
#include "platform/Descriptor.h"

namespace lunet {

/// An address that this process holds: a listening socket at <GUID>.sock, and a lock on <GUID>.lock until the
/// process ends. Only the lock's holder replaces the socket file, so exactly one process takes over the files
/// of a crash.
class Address {
 public:
  Address() = default;
  ~Address() { release(); }

  /// kErrInUse: another process holds the address. kErrPath, kErrSystem: the files cannot be made.
  Result<void> claim(const SocketFolder& folder, const Guid& guid);
  /// Removes the socket from the folder, so that no new caller finds the address. The address stays held.
  void hide();
  /// Gives the address up: removes both files and closes the socket.
  void release();
  int listener() const { return listener_.get(); }

 private:
  Result<void> lock(const std::string& path, const std::string& aside, bool agents);
  Result<void> listen(const SocketFolder& folder, const Guid& guid);

  std::string lockPath_;
  std::string socketPath_;
  ino_t socketInode_ = 0;
  platform::Descriptor lock_;
  platform::Descriptor listener_;
};

/// Removes the files of crashed endpoints: root those of all users, the folder's owner its own.
void clearLeftovers(const SocketFolder& folder);

}  // namespace lunet
