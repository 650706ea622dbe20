#include "command/scan/ScanReceivers.h"

#include "command/scan/IBusinessCImpl.h"
#include "command/scan/IScanCImpl.h"
#include "jsonrpchelper/Holders.h"

namespace {

IScanCImpl* gScanReceiver = nullptr;
IBusinessCImpl* gBusinessReceiver = nullptr;

}  // namespace

void createScanReceivers() {
  IJsonRpcServerHelper* const server = jsonrpchelper::serverHelper();
  if (server == nullptr || gScanReceiver != nullptr) {
    return;
  }
  gScanReceiver = new IScanCImpl(*server);
  gScanReceiver->StartListening();
  gBusinessReceiver = new IBusinessCImpl(*server);
  gBusinessReceiver->StartListening();
}
