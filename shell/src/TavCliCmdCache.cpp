#include "shell/TavCliCmdCache.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>

#include "json/CppJson.h"
#include "jsonrpchelper/AgentStub.h"
#include "jsonrpchelper/Holders.h"
#include "jsonrpchelper/IJsonRpcClientHelper.h"
#include "jsonrpchelper/JsonRpcCpp.h"
#include "lunet/Lunet.h"
#include "shell/TaskHandlers.h"

namespace {

using shell::GrammarRow;
using shell::kChoice;
using shell::kNoHint;
using shell::kNoValue;

using Exec = TavCliCmdCacheExec;

template <Exec::Action action>
std::uint8_t setScanCacheAction(const CliNodeInfo& /*node*/, const std::string& /*value*/) {
  return shell::changeTask<Exec>([](Exec& task) {
    task.action = action;
    task.subject = Exec::kScanCache;
  });
}

/// The message with its line ends and tabs. A message may quote an answer of the agent, so other control
/// characters are made visible.
std::string shownMessage(const jsonrpc::JsonRpcException& exception) {
  std::string shown;
  for (std::string_view rest = exception.GetMessage(); !rest.empty();) {
    const std::string_view text = rest.substr(0, rest.find_first_of("\n\t"));
    shown += json::visiblePath(text);
    rest.remove_prefix(text.size());
    shown += rest.substr(0, 1);
    rest.remove_prefix(std::min<std::size_t>(rest.size(), 1));
  }
  return shown;
}

const GrammarRow kGrammar[] = {
    {"CACHE", "缓存管理", kNoHint, kChoice, kNoValue, shell::startTask<Exec>},
    {"CACHE SHOW", "显示缓存信息", kNoHint, kChoice, kNoValue, nullptr},
    {"CACHE SHOW SCANCACHE", "扫描缓存", kNoHint, kChoice, kNoValue, setScanCacheAction<Exec::kShow>},
    {"CACHE CLEAN", "清理缓存", kNoHint, kChoice, kNoValue, nullptr},
    {"CACHE CLEAN SCANCACHE", "扫描缓存", kNoHint, kChoice, kNoValue, setScanCacheAction<Exec::kClean>},
};

}  // namespace

std::int32_t TavCliCmdCacheExec::execute() {
  jsonrpchelper::IJsonRpcClientHelper* const client =
      jsonrpchelper::ClientRegistry::instance().getClient(lunet::kAgentGuid);
  if (client == nullptr || subject != kScanCache) {
    return 0;
  }
  try {
    jsonrpchelper::AgentStub agent(*client);
    if (action == kShow) {
      std::printf("  当前存在%d项扫描缓存\n", agent.call(jsonrpchelper::GetScanCacheDetail{}));
    } else if (action == kClean) {
      agent.call(jsonrpchelper::CleanScanCache{});
    }
  } catch (const jsonrpc::JsonRpcException& exception) {
    std::printf("Caught exception:\n%s\n", shownMessage(exception).c_str());
  }
  return 0;
}

TavCliCmdCache TavCliCmdCache::module;

TavCliCmdCache::TavCliCmdCache() : TavcliCmdInterface("cache") {
  registerSelf();
}

int TavCliCmdCache::load(CObject* /*owner*/) {
  std::puts("[Load Command] Cache");
  return 1;
}

int TavCliCmdCache::buildTree(CliTree* tree) {
  grammar_.build(*tree, kGrammar);
  return 1;
}
