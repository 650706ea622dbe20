#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

#include "lunet/Lunet.h"

namespace jsonrpchelper {

/// The notifications of the table as the agent sends them, to one process: whoever holds the address by the
/// time of a send, nobody but that process gets it. Never waits for an answer. The result is the bus's error
/// number, 0 for success. Any thread; nothing throws but for want of memory. An object argument that is no
/// object travels as {}.
class ConsoleNotifier {
 public:
  ConsoleNotifier(lunet::IEndpoint& endpoint, const lunet::Guid& target, const lunet::PeerIdentity& process)
      : endpoint_(endpoint), target_(target), process_(process) {}

  std::uint32_t reportRiskInfo(int business_type, int fix_method, const Json::Value& risk_info,
                               int risk_info_type, const std::string& token_id);
  std::uint32_t reportRiskFixInfo(int business_type, int fix_method, const Json::Value& risk_info,
                                  int risk_info_type, const Json::Value& risk_repair_result,
                                  const std::string& token_id);
  std::uint32_t reportScanBusOverView(const Json::Value& overview, const std::string& token_id);
  std::uint32_t reportScanBusStage(const std::string& datail, int stage, const std::string& token_id);
  std::uint32_t reportScanAttributeInfo(const Json::Value& payload, int source, const std::string& token_id);
  std::uint32_t reportBusStatus(const Json::Value& ctx, const std::string& detail, const Json::Value& params,
                                int source, int state, const std::string& token_id, int type);
  std::uint32_t reportBusProgress(int progress, const std::string& token_id);

  const lunet::Guid& target() const { return target_; }
  const lunet::PeerIdentity& process() const { return process_; }

 private:
  std::uint32_t send(const char* name, Json::Value parameters);

  lunet::IEndpoint& endpoint_;
  lunet::Guid target_;
  lunet::PeerIdentity process_;
};

}  // namespace jsonrpchelper
