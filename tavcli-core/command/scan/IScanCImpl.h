#pragma once

#include "jsonrpchelper/IScanCAbstract.h"

/// Shows what the agent finds while a scan runs; in an unattended run it feeds the report instead. Made once
/// a process. The operations run on the bus's delivery thread.
class IScanCImpl : public IScanCAbstract {
 public:
  using IScanCAbstract::IScanCAbstract;

  void reportRiskInfo(const jsonrpchelper::ReportRiskInfo& report) override;
  void reportRiskFixInfo(const jsonrpchelper::ReportRiskFixInfo& report) override;
  void reportScanBusOverView(const jsonrpchelper::ReportScanBusOverView& report) override;
  void reportScanBusStage(const jsonrpchelper::ReportScanBusStage& report) override;
  /// Accepted and ignored.
  void reportScanAttributeInfo(const jsonrpchelper::ReportScanAttributeInfo& report) override;
};
