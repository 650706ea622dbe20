#pragma once

#include "jsonrpchelper/ScanServers.h"

/// Shows how a scan task stands and how far it is; in an unattended run it has the report written and sets
/// g_lastBusState. Made once a process. The operations run on the bus's delivery thread.
class IBusinessCImpl : public IBusinessCAbstract {
 public:
  using IBusinessCAbstract::IBusinessCAbstract;

  void reportBusStatus(const Json::Value& ctx, const std::string& detail, const Json::Value& params,
                       int source, int state, const std::string& token_id, int type) override;
  void reportBusProgress(int progress, const std::string& token_id) override;
};
