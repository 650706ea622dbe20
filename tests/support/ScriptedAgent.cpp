#include "support/ScriptedAgent.h"

#include <condition_variable>
#include <filesystem>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "lunet/BusClient.h"
#include "support/Json.h"
#include "support/Wait.h"

namespace testsupport {

namespace {

constexpr int kMethodNotFound = -32601;

/// An answer to the request, its result or error still missing.
Json::Value envelope(const Json::Value& request) {
  Json::Value answer;
  answer["jsonrpc"] = "2.0";
  answer["id"] = request.isObject() ? request["id"] : Json::Value();
  return answer;
}

}  // namespace

class ScriptedAgent::Bus final : public lunet::IMRReceiveComplete {
 public:
  Bus(std::string runtimePath, const std::string& config);
  ~Bus();

  void setScript(const std::string& method, Respond respond);
  std::vector<Call> calls() const;
  void forgetCalls();
  std::uint32_t send(const std::string& text);
  void join();
  void leave();
  bool present() const;

  void ReceiveCallback(std::uint32_t channel, std::uint64_t messageId, const void* data, std::uint32_t length,
                       void* replyContext, void* registrationContext) override;

 private:
  Respond scriptOf(const std::string& method) const;
  void closeWhenTold();

  lunet::BusClient bus_;
  mutable std::mutex mutex_;       ///< guards scripts and calls
  mutable std::mutex stateMutex_;  ///< guards joining and leaving
  std::map<std::string, Respond> scripts_;
  std::vector<Call> calls_;
  lunet::IEndpoint* endpoint_ = nullptr;
  // An endpoint cannot be closed from its own callback: a thread stands by for it.
  std::mutex closerMutex_;
  std::condition_variable closerWake_;
  bool dieNow_ = false;
  bool ending_ = false;
  std::thread closer_;
};

ScriptedAgent::Bus::Bus(std::string runtimePath, const std::string& config) {
  std::filesystem::create_directories(runtimePath);
  if (const auto loaded = bus_.load(TAV_LIB_DIR "/libLunetClientMgr.so"); !loaded) {
    throw std::runtime_error("scripted agent: " + loaded.error());
  }
  Json::Value settings = jsonOf(config);
  settings["runtime_path"] = runtimePath;
  settings["log_level"] = -1;
  const std::uint32_t error = bus_.init(jsonText(settings), "scripted-agent");
  if (error != lunet::kOk) {
    throw std::runtime_error("scripted agent: Init failed with " + std::to_string(error));
  }
  join();
  closer_ = std::thread([this] { closeWhenTold(); });
}

ScriptedAgent::Bus::~Bus() {
  {
    const std::lock_guard lock(closerMutex_);
    ending_ = true;
  }
  closerWake_.notify_all();
  closer_.join();
  leave();
}

void ScriptedAgent::Bus::join() {
  const std::lock_guard lock(stateMutex_);
  if (endpoint_ != nullptr) {
    return;
  }
  lunet::IEndpoint* const endpoint = bus_.client()->CreateEndpoint();
  if (endpoint == nullptr) {
    throw std::runtime_error("scripted agent: no endpoint");
  }
  endpoint->RegisterReceiver(lunet::kRequestChannel, this, endpoint);
  endpoint->RegisterReceiver(lunet::kOnewayChannel, this, endpoint);
  const std::uint32_t error = endpoint->Open(lunet::parseGuid(lunet::kAgentGuid));
  if (error != lunet::kOk) {
    bus_.client()->DestroyEndpoint(endpoint);
    throw std::runtime_error("scripted agent: Open failed with " + std::to_string(error));
  }
  endpoint_ = endpoint;
}

void ScriptedAgent::Bus::leave() {
  const std::lock_guard lock(stateMutex_);
  if (endpoint_ != nullptr) {
    bus_.client()->DestroyEndpoint(endpoint_);
    endpoint_ = nullptr;
  }
}

bool ScriptedAgent::Bus::present() const {
  const std::lock_guard lock(stateMutex_);
  return endpoint_ != nullptr;
}

void ScriptedAgent::Bus::closeWhenTold() {
  std::unique_lock lock(closerMutex_);
  while (!ending_) {
    closerWake_.wait(lock, [this] { return dieNow_ || ending_; });
    if (dieNow_) {
      dieNow_ = false;
      lock.unlock();
      leave();
      lock.lock();
    }
  }
}

void ScriptedAgent::Bus::setScript(const std::string& method, Respond respond) {
  const std::lock_guard lock(mutex_);
  scripts_[method] = std::move(respond);
}

ScriptedAgent::Respond ScriptedAgent::Bus::scriptOf(const std::string& method) const {
  const std::lock_guard lock(mutex_);
  const auto found = scripts_.find(method);
  if (found != scripts_.end()) {
    return found->second;
  }
  return [](const Json::Value&) -> Json::Value { throw Error{kMethodNotFound, "METHOD_NOT_FOUND"}; };
}

std::vector<ScriptedAgent::Call> ScriptedAgent::Bus::calls() const {
  const std::lock_guard lock(mutex_);
  return calls_;
}

void ScriptedAgent::Bus::forgetCalls() {
  const std::lock_guard lock(mutex_);
  calls_.clear();
}

std::uint32_t ScriptedAgent::Bus::send(const std::string& text) {
  const std::lock_guard lock(stateMutex_);
  if (endpoint_ == nullptr) {
    return lunet::kErrNotOpen;
  }
  return endpoint_->OnewaySend(lunet::parseGuid(lunet::kConsoleGuid), lunet::kOnewayChannel, text.data(),
                               static_cast<std::uint32_t>(text.size()));
}

void ScriptedAgent::Bus::ReceiveCallback(std::uint32_t channel, std::uint64_t messageId, const void* data,
                                         std::uint32_t length, void* replyContext,
                                         void* registrationContext) {
  Call call;
  call.text.assign(static_cast<const char*>(data), length);
  const Json::Value request = tryJson(call.text).value_or(Json::Value());
  if (request.isObject()) {
    call.method = request["method"].isString() ? request["method"].asString() : "";
    call.params = request["params"];
  }
  call.channel = channel;
  call.wantsReply = replyContext != nullptr;
  auto* const endpoint = static_cast<lunet::IEndpoint*>(registrationContext);
  endpoint->GetPeerIdentity(&call.process);
  const Respond respond = scriptOf(call.method);
  {
    const std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
  }
  std::string reply;
  try {
    Json::Value answer = envelope(request);
    answer["result"] = respond(request.isObject() ? request["params"] : Json::Value());
    reply = jsonText(answer);
  } catch (const Error& error) {
    Json::Value answer = envelope(request);
    answer["error"]["code"] = error.code;
    answer["error"]["message"] = error.message;
    reply = jsonText(answer);
  } catch (const ResultText& result) {
    reply = jsonText(envelope(request));
    reply.insert(reply.rfind('}'), ",\"result\":" + result.json);
  } catch (const Text& text) {
    reply = text.reply;
  } catch (const Silence&) {
    return;
  } catch (const Death&) {
    const std::lock_guard lock(closerMutex_);
    dieNow_ = true;
    closerWake_.notify_all();
    return;
  }
  if (replyContext != nullptr) {
    endpoint->Reply(0, messageId, reply.data(), static_cast<std::uint32_t>(reply.size()), replyContext);
  }
}

ScriptedAgent::ScriptedAgent(const std::string& runtimePath, const std::string& config)
    : bus_(std::make_unique<Bus>(runtimePath, config)) {}

ScriptedAgent::~ScriptedAgent() = default;

void ScriptedAgent::answer(const std::string& method, const Json::Value& result) {
  answerWith(method, [result](const Json::Value&) { return result; });
}

void ScriptedAgent::answerWith(const std::string& method, Respond respond) {
  bus_->setScript(method, std::move(respond));
}

void ScriptedAgent::answerError(const std::string& method, int code, const std::string& message) {
  answerWith(method, [=](const Json::Value&) -> Json::Value { throw Error{code, message}; });
}

void ScriptedAgent::answerText(const std::string& method, const std::string& reply) {
  answerWith(method, [reply](const Json::Value&) -> Json::Value { throw Text{reply}; });
}

void ScriptedAgent::neverAnswer(const std::string& method) {
  answerWith(method, [](const Json::Value&) -> Json::Value { throw Silence{}; });
}

void ScriptedAgent::dieAt(const std::string& method) {
  answerWith(method, [](const Json::Value&) -> Json::Value { throw Death{}; });
}

std::vector<ScriptedAgent::Call> ScriptedAgent::calls() const {
  return bus_->calls();
}

std::vector<ScriptedAgent::Call> ScriptedAgent::calls(const std::string& method) const {
  std::vector<Call> found;
  for (Call& call : bus_->calls()) {
    if (call.method == method) {
      found.push_back(std::move(call));
    }
  }
  return found;
}

void ScriptedAgent::forgetCalls() {
  bus_->forgetCalls();
}

bool ScriptedAgent::waitForCall(const std::string& method, std::size_t count,
                                std::chrono::milliseconds limit) const {
  return waitFor([&] { return calls(method).size() >= count; }, limit);
}

std::uint32_t ScriptedAgent::notify(const std::string& method, const Json::Value& params) {
  Json::Value message;
  message["jsonrpc"] = "2.0";
  message["method"] = method;
  message["params"] = params;
  return notifyText(jsonText(message));
}

std::uint32_t ScriptedAgent::notifyText(const std::string& text) {
  return bus_->send(text);
}

void ScriptedAgent::leave() {
  bus_->leave();
}
void ScriptedAgent::join() {
  bus_->join();
}
bool ScriptedAgent::present() const {
  return bus_->present();
}

}  // namespace testsupport
