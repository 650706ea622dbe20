#pragma once

#include <stdexcept>
#include <string>

#include "lunet/ClientLibrary.h"

namespace lunetctl {

/// What ends the program with status 1; the text is one line for a person.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The bus configuration of a tree; "{}" when it has none. Throws Failure when it cannot be read.
std::string readConfig(const std::string& runtime);

/// This program on the bus of a tree, with one endpoint. The library's errors go to standard error.
class Session {
 public:
  /// Throws Failure.
  explicit Session(const std::string& runtime);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  lunet::IEndpoint& endpoint() { return *endpoint_; }
  /// Throws Failure.
  void open(const lunet::Guid& guid);
  void openAnywhere();  ///< at a fresh address

 private:
  lunet::ClientLibrary library_;
  lunet::IEndpoint* endpoint_ = nullptr;
};

}  // namespace lunetctl
