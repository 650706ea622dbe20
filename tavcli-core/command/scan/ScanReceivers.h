#pragma once

/// Makes the receivers of the agent's notifications, IScanCImpl and then IBusinessCImpl, on the process-wide
/// JSON-RPC server. Once a process: further calls do nothing, nor does one before there is a server. They
/// live to the end of the process. Main thread.
void createScanReceivers();
