#pragma once

#include <string>

#include "SocketFolder.h"
#include "platform/Descriptor.h"

namespace lunet {

/// An address that this process holds: a lock on <GUID>.lock, kept by the kernel until the process ends or
/// gives it back, and a socket that listens at <GUID>.sock. Whoever has the lock may replace the socket
/// file, so that what a crash left is taken over by exactly one.
class Address {
 public:
  Address() = default;
  ~Address() { release(); }
  Address(const Address&) = delete;
  Address& operator=(const Address&) = delete;

  /// kErrInUse when another has it, kErrPath or kErrSystem when it cannot be made; *why is one line.
  Error claim(const SocketFolder& folder, const Guid& guid, std::string* why);
  /// Takes the socket out of the folder: nobody finds it any more. The address stays held.
  void hide();
  /// Gives the address up: removes both files and closes the socket.
  void release();
  int listener() const { return listener_.get(); }

 private:
  Error lock(const std::string& path, const std::string& aside, bool agents, std::string* why);
  Error listen(const SocketFolder& folder, const Guid& guid, std::string* why);

  std::string lockPath_;
  std::string socketPath_;
  ino_t socketInode_ = 0;
  platform::Descriptor lock_;
  platform::Descriptor listener_;
};

/// Removes what crashed endpoints left behind and their own users may not have come back to. For root and
/// the folder's owner, who are the only ones who can.
void clearLeftovers(const SocketFolder& folder);

}  // namespace lunet
