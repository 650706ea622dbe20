// A library whose client gives no endpoint.
#include "lunet/Lunet.h"

namespace {

class ClientWithoutEndpoint final : public lunet::IClient {
 public:
  lunet::IEndpoint* CreateEndpoint() override { return nullptr; }
  void DestroyEndpoint(lunet::IEndpoint*) override {}
  std::uint32_t Init(const char*, const char*) override { return lunet::kOk; }
  void SetLogCallback(lunet::LogCallback) override {}
  void Reserved() override {}
  std::uint32_t Connect(std::uint32_t) override { return lunet::kOk; }
  void Uninit() override {}
  void Disconnect() override {}
};

ClientWithoutEndpoint theClient;

}  // namespace

extern "C" lunet::IClient* CreateInstance(const char*) {
  return &theClient;
}
extern "C" void DestoryInstance(const char*, lunet::IClient*) {}
