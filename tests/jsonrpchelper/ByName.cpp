#include "ByName.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace rpctest {
namespace {

using namespace jsonrpchelper;

/// As requestOf, with objects of any kind.
template <class Method>
Method uncheckedRequestOf(const Json::Value& parameters) {
  Method request{};
  const auto read = [&parameters]<class T>(const char* name, T& member) {
    member = valueAs<T>(parameters[name]);
  };
  Method::members(request, read);
  return request;
}

/// Makes the request of that name from the parameters, for `send`.
template <class... Methods, class Send>
void withRequest(MethodList<Methods...>, const std::string& name, const Json::Value& parameters, Send send) {
  const bool known =
      ((name == Methods::kName ? (send(uncheckedRequestOf<Methods>(parameters)), true) : false) || ...);
  EXPECT_TRUE(known) << name;
}

}  // namespace

Json::Value callStub(AgentStub& stub, const std::string& name, const Json::Value& parameters) {
  Json::Value result;
  withRequest(AgentMethods(), name, parameters, [&]<class Method>(const Method& request) {
    if constexpr (std::is_void_v<typename Method::Result>) {
      stub.call(request);
    } else {
      result = stub.call(request);
    }
  });
  return result;
}

std::uint32_t notify(ConsoleNotifier& notifier, const std::string& name, const Json::Value& parameters) {
  std::uint32_t error = lunet::kErrArgument;
  withRequest(ConsoleNotifications(), name, parameters,
              [&](const auto& notification) { error = notifier.send(notification); });
  return error;
}

}  // namespace rpctest
