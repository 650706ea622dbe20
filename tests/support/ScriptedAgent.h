#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "lunet/Lunet.h"

namespace testsupport {

/// Plays the agent on the bus of a private tree: records the console's calls, gives the answers of the test,
/// and sends notifications. An answer may be any text, even text that no agent should send. Any thread.
class ScriptedAgent {
 public:
  struct Call {
    std::string method;
    Json::Value params;
    std::uint32_t channel = 0;
    bool wantsReply = false;
    std::string text;  ///< the whole message
    lunet::PeerIdentity process;
  };
  /// Returns the result, or throws one of the next five structs.
  using Respond = std::function<Json::Value(const Json::Value& params)>;
  struct Error {
    int code;
    std::string message;
  };
  struct ResultText {
    std::string json;  ///< of the result; for large ones
  };
  struct Text {
    std::string reply;  ///< the whole reply
  };
  struct Silence {};
  struct Death {};

  /// Joins the bus of an install tree; throws std::runtime_error when the agent cannot join. runtimePath: the
  /// tree's folder, which is made when missing. config: a cli_lunet.conf, for its "socket_dir" and "group".
  explicit ScriptedAgent(const std::string& runtimePath, const std::string& config = "{}");
  ~ScriptedAgent();
  ScriptedAgent(const ScriptedAgent&) = delete;
  ScriptedAgent& operator=(const ScriptedAgent&) = delete;

  // The answer to a method; the last setting counts. A method without an answer gets METHOD_NOT_FOUND.
  void answer(const std::string& method, const Json::Value& result);
  void answerWith(const std::string& method, Respond respond);  ///< called on the bus's thread
  void answerError(const std::string& method, int code, const std::string& message);
  void answerText(const std::string& method, const std::string& reply);  ///< the whole reply
  void neverAnswer(const std::string& method);
  void dieAt(const std::string& method);  ///< leaves the bus instead of answering

  std::vector<Call> calls() const;
  std::vector<Call> calls(const std::string& method) const;
  void forgetCalls();
  bool waitForCall(const std::string& method, std::size_t count = 1,
                   std::chrono::milliseconds limit = std::chrono::seconds(20)) const;

  /// Sends a notification to the console. Returns the bus's error number.
  std::uint32_t notify(const std::string& method, const Json::Value& params);
  /// The same with any text.
  std::uint32_t notifyText(const std::string& text);

  void leave();
  void join();  ///< again
  bool present() const;

 private:
  class Bus;
  std::unique_ptr<Bus> bus_;
};

}  // namespace testsupport
