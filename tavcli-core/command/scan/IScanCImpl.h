#pragma once

#include "jsonrpchelper/ScanServers.h"

/// Shows what the agent finds while a scan runs; in an unattended run it feeds the report instead. Made once
/// a process. The operations run on the bus's delivery thread.
class IScanCImpl : public IScanCAbstract {
 public:
  using IScanCAbstract::IScanCAbstract;

  void reportRiskInfo(int business_type, int fix_method, const Json::Value& risk_info, int risk_info_type,
                      const std::string& token_id) override;
  void reportRiskFixInfo(int business_type, int fix_method, const Json::Value& risk_info, int risk_info_type,
                         const Json::Value& risk_repair_result, const std::string& token_id) override;
  void reportScanBusOverView(const Json::Value& overview, const std::string& token_id) override;
  void reportScanBusStage(const std::string& datail, int stage, const std::string& token_id) override;
  /// Accepted and ignored.
  void reportScanAttributeInfo(const Json::Value& payload, int source, const std::string& token_id) override;
};
