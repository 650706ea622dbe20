#pragma once

#include <json/value.h>

#include <cstdint>

#include "jsonrpchelper/ConsoleNotifications.h"
#include "jsonrpchelper/Parameters.h"
#include "lunet/Lunet.h"

namespace jsonrpchelper {

/// Sends notifications from the agent to one process. Another process that holds the address by now gets no
/// notification. Any thread. Throws std::bad_alloc only.
class ConsoleNotifier {
 public:
  ConsoleNotifier(lunet::IEndpoint& endpoint, const lunet::Guid& target, const lunet::PeerIdentity& process)
      : endpoint_(endpoint), target_(target), process_(process) {}

  /// Never waits for an answer. 0 or the bus's error number.
  template <class Notification>
  std::uint32_t send(const Notification& notification) {
    static_assert(kContains<Notification, ConsoleNotifications>, "no notification of the console");
    return send(Notification::kName, parametersOf(notification));
  }

 private:
  std::uint32_t send(const char* name, Json::Value parameters);

  lunet::IEndpoint& endpoint_;
  lunet::Guid target_;
  lunet::PeerIdentity process_;
};

}  // namespace jsonrpchelper
