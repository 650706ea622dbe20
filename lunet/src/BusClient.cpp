#include "lunet/BusClient.h"

#include <dlfcn.h>

#include <filesystem>
#include <utility>

#include "platform/Files.h"
#include "platform/Text.h"

namespace lunet {

namespace {

/// dlerror's text as the given sentence, control characters visible.
tl::unexpected<std::string> loaderFailure(const char* step) {
  const char* text = dlerror();
  return platform::failure(platform::visibleText(
      std::string(step) + " failed: " + (text != nullptr ? text : "unknown error") + "."));
}

template <class Function>
Function entry(void* library, const char* name) {
  dlerror();
  return reinterpret_cast<Function>(dlsym(library, name));
}

}  // namespace

platform::Expected<void> BusClient::load(const std::string& libraryPath) {
  if (library_ != nullptr) {
    return platform::failure("the bus library is loaded already");
  }
  std::error_code error;
  static_cast<void>(std::filesystem::canonical(libraryPath, error));
  if (error) {
    // Imitates the text of dlopen. A call of dlopen could find the file by then.
    return platform::failure(platform::visibleText(
        "dlopen failed: " + libraryPath + ": cannot open shared object file: " + error.message() + "."));
  }
  const auto resolved = CDir::resolveSafe(libraryPath);  // the checked file is the loaded file
  if (!resolved) {
    return platform::failure("the bus library is not loaded: " + resolved.error());
  }
  library_ = dlopen(resolved->c_str(), RTLD_LAZY);
  if (library_ == nullptr) {
    return loaderFailure("dlopen");
  }
  const auto create = entry<CreateInstanceFn>(library_, "CreateInstance");
  if (create == nullptr) {
    return loaderFailure("dlsym CreateInstance");
  }
  client_ = create(kInterfaceGuid);
  if (client_ == nullptr) {
    return platform::failure("the bus library gave no client");
  }
  return {};
}

bool BusClient::createEndpoint() {
  endpoint_ = client_->CreateEndpoint();
  return endpoint_ != nullptr;
}

platform::Expected<void> BusClient::close() {
  platform::Expected<void> result;
  if (client_ != nullptr) {
    if (endpoint_ != nullptr) {
      client_->DestroyEndpoint(std::exchange(endpoint_, nullptr));
      client_->Uninit();
    }
    if (const auto destroy = entry<DestoryInstanceFn>(library_, "DestoryInstance"); destroy != nullptr) {
      destroy(kInterfaceGuid, client_);
    } else {
      result = loaderFailure("dlsym DestoryInstance");
    }
    client_ = nullptr;
  }
  if (library_ != nullptr) {
    dlclose(std::exchange(library_, nullptr));
  }
  return result;
}

}  // namespace lunet
