#include <cstring>
#include <new>

#include "Client.h"

#define LUNET_EXPORT extern "C" __attribute__((visibility("default")))

LUNET_EXPORT lunet::IClient* CreateInstance(const char* interfaceGuid) {
  if (interfaceGuid == nullptr || std::strcmp(interfaceGuid, lunet::kInterfaceGuid) != 0) {
    return nullptr;
  }
  return new (std::nothrow) lunet::Client();
}

LUNET_EXPORT void DestoryInstance(const char* interfaceGuid, lunet::IClient* client) {
  if (interfaceGuid != nullptr && std::strcmp(interfaceGuid, lunet::kInterfaceGuid) == 0) {
    delete static_cast<lunet::Client*>(client);
  }
}
