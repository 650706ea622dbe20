#pragma once

#include "jsonrpchelper/IBusinessCAbstract.h"

/// Shows how a scan task stands and how far it is; in an unattended run it has the report written and sets
/// g_lastBusState. Made once a process. The operations run on the bus's delivery thread.
class IBusinessCImpl : public IBusinessCAbstract {
 public:
  using IBusinessCAbstract::IBusinessCAbstract;

  void reportBusStatus(const jsonrpchelper::ReportBusStatus& report) override;
  void reportBusProgress(const jsonrpchelper::ReportBusProgress& report) override;
};
