#pragma once

/// Creates the receivers of the agent's notifications on the process-wide JSON-RPC server: IScanCImpl, then
/// IBusinessCImpl. The receivers live to the end of the process. Further calls, and calls without a server,
/// do nothing. Main thread.
void createScanReceivers();
