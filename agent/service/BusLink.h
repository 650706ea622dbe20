#pragma once

#include <string>

#include "lunet/ClientLibrary.h"
#include "service/Tree.h"

namespace agent {

/// The bus library of a tree, loaded and set up, with one endpoint of this process on it.
class BusLink {
 public:
  BusLink() = default;
  ~BusLink();  ///< closes the endpoint, then lets the library go
  BusLink(const BusLink&) = delete;
  BusLink& operator=(const BusLink&) = delete;

  /// Loads the library and makes the endpoint: receivers may be registered on it, and are there when the
  /// first message comes. Empty on success, else one line.
  std::string prepare(const Tree& tree, const BusSettings& settings);
  /// Of the prepared endpoint; from then on it is reached. Empty on success, else one line.
  std::string open(const std::string& guid);
  lunet::IEndpoint& endpoint() { return *endpoint_; }  ///< of a prepared link

 private:
  lunet::ClientLibrary library_;
  lunet::IEndpoint* endpoint_ = nullptr;
  bool initialised_ = false;
};

}  // namespace agent
