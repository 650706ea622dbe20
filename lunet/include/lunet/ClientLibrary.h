#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "lunet/Lunet.h"

namespace lunet {

/// libLunetClientMgr.so, loaded for the life of this object. Used by every program on the bus; the checks
/// on the file are made here, once, before any of its code runs: nobody but root and the caller can change
/// the file or make its path lead elsewhere (CDir::resolveSafe).
class ClientLibrary {
 public:
  ClientLibrary() = default;
  ~ClientLibrary();  ///< destroys the client, if any, then unloads
  ClientLibrary(const ClientLibrary&) = delete;
  ClientLibrary& operator=(const ClientLibrary&) = delete;

  /// What a step came to: empty text for success, else one line fit for a log, which says what failed on
  /// what and why ("dlopen failed: …." and "dlsym CreateInstance failed: …." among them).
  [[nodiscard]] std::string load(const std::string& path);
  [[nodiscard]] std::string createClient();
  /// Calls DestoryInstance and unloads; "dlsym DestoryInstance failed: …." when the entry is missing (the
  /// client is then leaked, the library unloaded all the same).
  [[nodiscard]] std::string unload();

  IClient* client() const { return client_; }

 private:
  void* handle_ = nullptr;
  IClient* client_ = nullptr;
};

/// The folder of the sockets for a tree and the text of its bus configuration (JSON; an empty or
/// unreadable text counts as {}): "socket_dir", absolute or below runtimePath, default "run/lunet".
/// The console's single-instance mark lies in the same folder.
std::string socketDirectory(const std::string& runtimePath, const std::string& configText);

/// Who listens at an address, on the kernel's word.
struct Listener {
  pid_t pid = 0;  ///< at least 1
  uid_t uid = static_cast<uid_t>(-1);
  bool trusted = false;  ///< root, this process's own user, or the owner of the socket folder
};
/// Nothing when nobody does, or when it cannot be told.
std::optional<Listener> listenerAt(const std::string& socketDirectory, const Guid& address);

/// An error number in words, for a log or a person: "nobody is at that address now (0xE0010002)".
std::string describeError(std::uint32_t error);

}  // namespace lunet
