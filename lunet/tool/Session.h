#pragma once

#include <json/value.h>

#include <stdexcept>
#include <string>

#include "lunet/BusClient.h"

namespace lunetctl {

/// Ends the program with status 1. The text is one line for the user.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The bus configuration of a tree; an empty object when the tree has none. Throws Failure.
Json::Value readConfig(const std::string& runtime);

/// This program on the bus of a tree, with one endpoint. The library's errors go to standard error.
class Session {
 public:
  /// Throws Failure.
  explicit Session(const std::string& runtime);

  lunet::IEndpoint& endpoint() { return *bus_.endpoint(); }
  /// Throws Failure.
  void open(const lunet::Guid& guid);
  void openAnywhere();  ///< at a fresh address

 private:
  lunet::BusClient bus_;
};

}  // namespace lunetctl
