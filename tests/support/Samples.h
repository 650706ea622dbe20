#pragma once

#include <string>

namespace testsupport {

/// Content that the shipped signatures find. Put together here piece by piece, so that neither the sources
/// nor the test programs are test files themselves.
inline std::string joined(std::initializer_list<const char*> pieces) {
  std::string text;
  for (const char* piece : pieces) {
    text += piece;
  }
  return text;
}

/// The standard anti-virus test file. TAV.Test.EICAR
inline std::string eicar() {
  return joined({"X5O!P%@AP[4\\PZX54(P^)", "7CC)7}$EICAR-", "STANDARD-ANTIVIRUS-", "TEST-FILE!$H+H*"});
}
/// Found anywhere in a file. TAV.Test.Generic
inline std::string genericSample() {
  return joined({"tav-harm", "less-generic-test-", "string-2b8d51c07e"});
}
/// Found in text, in whatever case it is written. TAV.Test.Script
inline std::string scriptSample() {
  return joined({"TAV_Harm", "less_Script_", "Test_2b8d51c07e"});
}
/// A whole file, found by its hash. TAV.Hash.Test
inline std::string hashSample() {
  return joined({"TAV harm", "less file for tests of ", "hash signatures 2b8d51c07e\n"});
}

}  // namespace testsupport
