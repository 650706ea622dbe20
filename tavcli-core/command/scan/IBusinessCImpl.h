#pragma once

#include "jsonrpchelper/IBusinessCAbstract.h"

/// Shows the state and the progress of a scan task. In an unattended run, writes the report and sets
/// g_lastBusState. A process has one such object. The operations run on the bus's delivery thread.
class IBusinessCImpl : public IBusinessCAbstract {
 public:
  using IBusinessCAbstract::IBusinessCAbstract;

  void reportBusStatus(const jsonrpchelper::ReportBusStatus& report) override;
  void reportBusProgress(const jsonrpchelper::ReportBusProgress& report) override;
};
