#pragma once

#include <string>

#include "lunet/Lunet.h"
#include "platform/Expected.h"

namespace lunet {

/// libLunetClientMgr.so, loaded for the life of this object. `load` checks the file before any of its code
/// runs: only root and the caller can change it or make its path lead elsewhere (CDir::resolveSafe).
class ClientLibrary {
 public:
  ClientLibrary() = default;
  ~ClientLibrary() { (void)unload(); }
  ClientLibrary(const ClientLibrary&) = delete;
  ClientLibrary& operator=(const ClientLibrary&) = delete;

  /// "dlopen failed: …." among the failures.
  [[nodiscard]] platform::Expected<void> load(const std::string& path);
  /// "dlsym CreateInstance failed: …." among the failures.
  [[nodiscard]] platform::Expected<void> createClient();
  /// Destroys the client, if any, and unloads. "dlsym DestoryInstance failed: …." when the library lacks that
  /// entry: the client is leaked, the library unloaded all the same.
  platform::Expected<void> unload();

  IClient* client() const { return client_; }

 private:
  void* handle_ = nullptr;
  IClient* client_ = nullptr;
};

}  // namespace lunet
