#pragma once

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "jsonrpchelper/JsonRpcCpp.h"

namespace jsonrpchelper {

/// The servers that listen on one connector, each with the names of its procedures. The library's connector
/// has room for a single one, the last built. Any thread.
class HandlerList {
 public:
  /// The handler must live until remove has returned. Adding it again replaces its names.
  void add(jsonrpc::IClientConnectionHandler& handler, std::set<std::string> procedures);
  /// Returns when the handler handles nothing any more, unless called from inside it.
  void remove(jsonrpc::IClientConnectionHandler& handler);

  /// Lets the handler that has the procedure handle the request; any one when none has it, so that the
  /// error is the library's own. False when there is no handler at all. One request at a time a handler.
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
