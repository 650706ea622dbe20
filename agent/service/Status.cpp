#include "service/Status.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "jsonrpchelper/AgentStub.h"
#include "jsonrpchelper/IJsonRpcClientHelper.h"
#include "lunet/ErrorText.h"
#include "lunet/ListenerAt.h"
#include "platform/Files.h"
#include "platform/Posix.h"
#include "platform/Text.h"
#include "service/BusLink.h"
#include "service/Options.h"

namespace agent {

namespace {

constexpr std::uint32_t kAnswerLimitMs = 5000;
const std::string kNoShortage = "none";

/// Reports a failure that leaves open whether an agent runs.
int failUnknown(const std::string& reason) {
  std::fprintf(stderr, "tavagentd: %s\n", platform::visibleText(reason).c_str());
  return kExitFailed;
}

int noAnswer(const platform::InstallTree& tree, std::uint32_t busError, const std::string& reason) {
  if (busError == lunet::kErrNoTarget) {
    std::fprintf(stderr, "tavagentd: no agent answers on %s\n", platform::visibleText(tree.root).c_str());
    return kExitNotRunning;
  }
  return failUnknown("the agent of " + tree.root + " gives no answer: " +
                     (busError == lunet::kOk ? reason : lunet::describeError(busError)));
}

/// The pid of the listener, from the kernel. Nothing when the bus does not trust the listener.
std::optional<pid_t> agentPid(const std::string& socketDir) {
  const std::optional<lunet::Listener> listener =
      lunet::listenerAt(socketDir, lunet::parseGuid(lunet::kAgentGuid));
  return listener && listener->trusted ? std::optional<pid_t>(listener->pid) : std::nullopt;
}

/// Compares the bytes: a program that was replaced by an equal one is the same build.
bool sameProgram(const std::string& one, const std::string& other) {
  std::error_code error;
  if (std::filesystem::equivalent(one, other, error)) {
    return true;
  }
  std::ifstream first(one, std::ios::binary);
  std::ifstream second(other, std::ios::binary);
  using Bytes = std::istreambuf_iterator<char>;
  return first && second && std::equal(Bytes(first), Bytes(), Bytes(second), Bytes());
}

std::string confinementOf(const platform::InstallTree& tree) {
  const auto text = CFile::readAll(confinementFile(tree));
  if (!text) {
    return text.error() == ENOENT ? "not known yet" : "not known: " + platform::errnoText(text.error());
  }
  return platform::visibleText(*text);
}

// One line each, whatever the file holds.
std::string versionsOf(const platform::InstallTree& tree) {
  const auto text = CFile::readAll(versionsFile(tree));
  if (!text) {
    return "signatures=not known" +
           (text.error() == ENOENT ? std::string(" yet") : ": " + platform::errnoText(text.error())) + "\n";
  }
  std::string lines;
  for (const std::string_view line : CStr::split(*text, '\n')) {
    lines += platform::visibleText(line) + "\n";
  }
  return lines;
}

}  // namespace

std::string versionsFile(const platform::InstallTree& tree) {
  return tree.state() + "/versions";
}

std::string versionLines(const SignatureState& state) {
  const std::pair<const char*, const std::string&> rows[] = {
      {"rules", state.rules},
      {"limits", state.limits},
      {"signatures", state.detail},
      {"signature_version", state.version},
      {"shortage", state.shortage.empty() ? kNoShortage : state.shortage},
  };
  std::string lines;
  for (const auto& [key, value] : rows) {
    lines += std::string(key) + "=" + platform::visibleText(value) + "\n";
  }
  return lines;
}

std::string confinementFile(const platform::InstallTree& tree) {
  return tree.state() + "/confinement";
}

int printStatus(const platform::InstallTree& tree) {
  const auto settings = readBusSettings(tree, "tavagentd-status");
  if (!settings) {
    return failUnknown(settings.error());
  }
  BusLink bus;
  const std::string guid = CUuid::generate();
  if (const auto opened = bus.prepare(tree, *settings).and_then([&] { return bus.open(guid); }); !opened) {
    return failUnknown(opened.error());
  }
  jsonrpchelper::IJsonRpcClientHelper helper(&bus.endpoint(), lunet::kAgentGuid, lunet::kRequestChannel,
                                             lunet::kOnewayChannel, kAnswerLimitMs);
  Json::Value tasks;
  try {
    tasks = jsonrpchelper::AgentStub(helper).call(jsonrpchelper::GetBusList{});
  } catch (const std::exception& error) {
    return noAnswer(tree, helper.lastBusError(), error.what());
  }
  const std::optional<pid_t> pid = agentPid(settings->socketDir);
  if (!pid) {
    return failUnknown("the process that serves " + tree.root + " cannot be told");
  }
  const std::string program = "/proc/" + std::to_string(*pid) + "/exe";
  std::error_code error;
  std::printf("pid=%d\nprogram=%s\nbuild=%s\ntasks=%u\nconfinement=%s\n%s", *pid,
              platform::visibleText(std::filesystem::read_symlink(program, error).string()).c_str(),
              sameProgram(program, "/proc/self/exe") ? "same" : "other", tasks.size(),
              confinementOf(tree).c_str(), versionsOf(tree).c_str());
  return kExitOk;
}

}  // namespace agent
