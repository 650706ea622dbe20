#include "worker/ScannerProgram.h"

int main(int count, char** arguments) {
  agent::runScannerProgram(count, arguments);
}
