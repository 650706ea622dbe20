#include "jsonrpchelper/HandlerList.h"

#include <algorithm>

namespace jsonrpchelper {

void HandlerList::add(jsonrpc::IClientConnectionHandler& handler, std::set<std::string> procedures) {
  remove(handler);
  auto entry = std::make_shared<Entry>();
  entry->handler = &handler;
  entry->procedures = std::move(procedures);
  const std::lock_guard<std::mutex> guard(lock_);
  entries_.push_back(std::move(entry));
}

void HandlerList::remove(jsonrpc::IClientConnectionHandler& handler) {
  std::shared_ptr<Entry> entry;
  {
    const std::lock_guard<std::mutex> guard(lock_);
    const auto found = std::find_if(entries_.begin(), entries_.end(),
                                    [&](const auto& one) { return one->handler == &handler; });
    if (found == entries_.end()) {
      return;
    }
    entry = *found;
    entries_.erase(found);
  }
  const std::lock_guard<std::recursive_mutex> guard(entry->running);
  entry->removed = true;
}

std::shared_ptr<HandlerList::Entry> HandlerList::find(const std::string& procedure) {
  const std::lock_guard<std::mutex> guard(lock_);
  for (const auto& entry : entries_) {
    if (entry->procedures.count(procedure) != 0) {
      return entry;
    }
  }
  return entries_.empty() ? nullptr : entries_.front();
}

bool HandlerList::handle(const std::string& procedure, const std::string& request, std::string& response) {
  while (const std::shared_ptr<Entry> entry = find(procedure)) {
    const std::lock_guard<std::recursive_mutex> guard(entry->running);
    if (!entry->removed) {
      entry->handler->HandleRequest(request, response);
      return true;
    }
  }
  return false;
}

}  // namespace jsonrpchelper
