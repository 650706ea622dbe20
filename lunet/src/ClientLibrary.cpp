#include "lunet/ClientLibrary.h"

#include <dlfcn.h>

#include <filesystem>

#include "platform/Files.h"
#include "platform/Text.h"

namespace lunet {

namespace {

/// dlerror's text as the given sentence; it names files, so it is made fit for a log.
std::string failure(const char* step) {
  const char* why = dlerror();
  return platform::visibleText(std::string(step) + " failed: " + (why != nullptr ? why : "unknown error") +
                               ".");
}

template <class Function>
Function entry(void* library, const char* name) {
  dlerror();
  return reinterpret_cast<Function>(dlsym(library, name));
}

}  // namespace

ClientLibrary::~ClientLibrary() {
  (void)unload();
}

std::string ClientLibrary::load(const std::string& path) {
  if (handle_ != nullptr) {
    return "the bus library is loaded already";
  }
  std::error_code error;
  static_cast<void>(std::filesystem::canonical(path, error));
  if (error) {
    // dlopen's words without dlopen: by then the file could be there.
    return platform::visibleText("dlopen failed: " + path +
                                 ": cannot open shared object file: " + error.message() + ".");
  }
  std::string why;  // what is checked is what is loaded
  const std::string resolved = CDir::resolveSafe(path, &why);
  if (resolved.empty()) {
    return "the bus library is not loaded: " + why;
  }
  handle_ = dlopen(resolved.c_str(), RTLD_LAZY);
  return handle_ != nullptr ? std::string() : failure("dlopen");
}

std::string ClientLibrary::createClient() {
  if (handle_ == nullptr || client_ != nullptr) {
    return handle_ == nullptr ? "the bus library is not loaded" : "the bus client exists already";
  }
  const auto create = entry<CreateInstanceFn>(handle_, "CreateInstance");
  if (create == nullptr) {
    return failure("dlsym CreateInstance");
  }
  client_ = create(kInterfaceGuid);
  return client_ != nullptr ? std::string() : "the bus library gave no client";
}

std::string ClientLibrary::unload() {
  std::string why;
  if (client_ != nullptr) {
    if (const auto destroy = entry<DestoryInstanceFn>(handle_, "DestoryInstance"); destroy != nullptr) {
      destroy(kInterfaceGuid, client_);
    } else {
      why = failure("dlsym DestoryInstance");
    }
    client_ = nullptr;
  }
  if (handle_ != nullptr) {
    dlclose(handle_);
    handle_ = nullptr;
  }
  return why;
}

}  // namespace lunet
