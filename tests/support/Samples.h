#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>

namespace testsupport {

/// Content that the shipped signatures find. The content is joined from pieces, so that no engine finds the
/// sources or the test programs.
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

/// Bytes that do not compress and that no signature finds. The same size gives the same bytes.
inline std::string noise(std::size_t size) {
  std::string bytes(size, '\0');
  std::uint32_t state = 12345;
  for (char& byte : bytes) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

}  // namespace testsupport
