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

  /// Empty on success, else one line. guid: the address to open.
  std::string open(const Tree& tree, const BusSettings& settings, const std::string& guid);
  lunet::IEndpoint& endpoint() { return *endpoint_; }

 private:
  lunet::ClientLibrary library_;
  lunet::IEndpoint* endpoint_ = nullptr;
  bool initialised_ = false;
};

}  // namespace agent
