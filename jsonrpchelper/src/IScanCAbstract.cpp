#include "jsonrpchelper/IScanCAbstract.h"

IScanCAbstract::IScanCAbstract(jsonrpchelper::IJsonRpcServerHelper& helper) : BusServer(helper) {
  bindAll<jsonrpchelper::ScanNotifications, &IScanCAbstract::reportRiskInfo,
          &IScanCAbstract::reportRiskFixInfo, &IScanCAbstract::reportScanBusOverView,
          &IScanCAbstract::reportScanBusStage, &IScanCAbstract::reportScanAttributeInfo>();
}
