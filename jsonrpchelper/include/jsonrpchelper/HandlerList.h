#pragma once

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "jsonrpchelper/JsonRpcCpp.h"

namespace jsonrpchelper {

/// The servers that listen on one connector, each with the names of its procedures. The library's own
/// connector holds one server only, the last built. Any thread.
class HandlerList {
 public:
  /// The handler must live until remove has returned. Adding the handler again replaces its names.
  void add(jsonrpc::IClientConnectionHandler& handler, std::set<std::string> procedures);
  /// Returns when the handler handles no request any more, unless called from inside the handler.
  void remove(jsonrpc::IClientConnectionHandler& handler);

  /// Gives the request to the handler that has the procedure. A request for a procedure that no handler has
  /// goes to any handler, for the library's own error answer. False when the list is empty. Each handler
  /// handles one request at a time.
  bool handle(const std::string& procedure, const std::string& request, std::string& response);

 private:
  struct Entry {
    jsonrpc::IClientConnectionHandler* handler;
    std::set<std::string> procedures;
    std::recursive_mutex running;
    bool removed = false;  ///< guarded by `running`
  };
  std::shared_ptr<Entry> find(const std::string& procedure);

  std::mutex lock_;
  std::vector<std::shared_ptr<Entry>> entries_;
};

}  // namespace jsonrpchelper
