#pragma once

#include "jsonrpchelper/IScanCAbstract.h"

/// Shows the agent's detections while a scan runs. In an unattended run, the detections go into the report
/// instead. A process has one such object. The operations run on the bus's delivery thread.
class IScanCImpl : public IScanCAbstract {
 public:
  using IScanCAbstract::IScanCAbstract;

  void reportRiskInfo(const jsonrpchelper::ReportRiskInfo& report) override;
  void reportRiskFixInfo(const jsonrpchelper::ReportRiskFixInfo& report) override;
  void reportScanBusOverView(const jsonrpchelper::ReportScanBusOverView& report) override;
  void reportScanBusStage(const jsonrpchelper::ReportScanBusStage& report) override;
  /// The notification is ignored.
  void reportScanAttributeInfo(const jsonrpchelper::ReportScanAttributeInfo& report) override;
};
