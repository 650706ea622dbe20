#include "worker/ScannerProgram.h"

int main() {
  agent::runScannerProgram();
}
