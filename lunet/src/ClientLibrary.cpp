#include "lunet/ClientLibrary.h"

#include <dlfcn.h>

#include <filesystem>

#include "platform/Files.h"
#include "platform/Text.h"

namespace lunet {

namespace {

/// dlerror's text as the given sentence, control characters visible.
tl::unexpected<std::string> loaderFailure(const char* step) {
  const char* why = dlerror();
  return platform::failure(platform::visibleText(
      std::string(step) + " failed: " + (why != nullptr ? why : "unknown error") + "."));
}

template <class Function>
Function entry(void* library, const char* name) {
  dlerror();
  return reinterpret_cast<Function>(dlsym(library, name));
}

}  // namespace

platform::Expected<void> ClientLibrary::load(const std::string& path) {
  if (handle_ != nullptr) {
    return platform::failure("the bus library is loaded already");
  }
  std::error_code error;
  static_cast<void>(std::filesystem::canonical(path, error));
  if (error) {
    // dlopen's words without dlopen: by then the file could be there.
    return platform::failure(platform::visibleText(
        "dlopen failed: " + path + ": cannot open shared object file: " + error.message() + "."));
  }
  const auto resolved = CDir::resolveSafe(path);  // what is checked is what is loaded
  if (!resolved) {
    return platform::failure("the bus library is not loaded: " + resolved.error());
  }
  handle_ = dlopen(resolved->c_str(), RTLD_LAZY);
  if (handle_ == nullptr) {
    return loaderFailure("dlopen");
  }
  return {};
}

platform::Expected<void> ClientLibrary::createClient() {
  if (handle_ == nullptr || client_ != nullptr) {
    return platform::failure(handle_ == nullptr ? "the bus library is not loaded"
                                                : "the bus client exists already");
  }
  const auto create = entry<CreateInstanceFn>(handle_, "CreateInstance");
  if (create == nullptr) {
    return loaderFailure("dlsym CreateInstance");
  }
  client_ = create(kInterfaceGuid);
  if (client_ == nullptr) {
    return platform::failure("the bus library gave no client");
  }
  return {};
}

platform::Expected<void> ClientLibrary::unload() {
  platform::Expected<void> result;
  if (client_ != nullptr) {
    if (const auto destroy = entry<DestoryInstanceFn>(handle_, "DestoryInstance"); destroy != nullptr) {
      destroy(kInterfaceGuid, client_);
    } else {
      result = loaderFailure("dlsym DestoryInstance");
    }
    client_ = nullptr;
  }
  if (handle_ != nullptr) {
    dlclose(handle_);
    handle_ = nullptr;
  }
  return result;
}

}  // namespace lunet
