#include "jsonrpchelper/ScanServers.h"

using namespace jsonrpchelper;

IScanCAbstract::IScanCAbstract(IJsonRpcServerHelper& helper) : BusServer(helper) {
  bindNotification<kReportRiskInfo, &IScanCAbstract::reportRiskInfo>();
  bindNotification<kReportRiskFixInfo, &IScanCAbstract::reportRiskFixInfo>();
  bindNotification<kReportScanBusOverView, &IScanCAbstract::reportScanBusOverView>();
  bindNotification<kReportScanBusStage, &IScanCAbstract::reportScanBusStage>();
  bindNotification<kReportScanAttributeInfo, &IScanCAbstract::reportScanAttributeInfo>();
}

IBusinessCAbstract::IBusinessCAbstract(IJsonRpcServerHelper& helper) : BusServer(helper) {
  bindNotification<kReportBusStatus, &IBusinessCAbstract::reportBusStatus>();
  bindNotification<kReportBusProgress, &IBusinessCAbstract::reportBusProgress>();
}
