#pragma once

#include <csignal>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/Json.h"
#include "support/Process.h"
#include "support/Wait.h"

namespace testsupport {

inline constexpr const char* kAgentAddress = "FBE54D8E-D8E6-41F8-BE05-A94CE5469587";
inline constexpr const char* kConsoleAddress = "A4F72BA6-6DE6-44D4-B955-5A880273427E";

/// An endpoint of a process of its own: `lunetctl listen` on an address, driven line by line as a script
/// drives lunetctl. Keeps the messages in the order of their arrival. Every failure is a std::runtime_error.
class LunetctlPeer {
 public:
  struct Message {
    int id = 0;  ///< of the bus
    std::string method;
    Json::Value params;
    Json::Value requestId;  ///< null for a notification
  };

  /// program: the path of lunetctl. tree: the install tree whose bus the endpoint joins.
  LunetctlPeer(const std::string& program, const std::string& tree, const std::string& address,
               Process::Options options = {})
      : process_({program, "--runtime", tree, "listen", address}, std::move(options)) {
    if (!process_.waitForOut(R"("event":"ready")")) {
      throw std::runtime_error("lunetctl is not ready: " + process_.out() + process_.err());
    }
  }

  /// The messages of a method that have arrived; for "" of all methods.
  std::vector<Message> messages(const std::string& method = "") const {
    std::vector<Message> found;
    for (const Json::Value& event : events("message")) {
      const Json::Value request = tryJson(event["data"].asString()).value_or(Json::Value());
      if (request.isObject() && (method.empty() || request["method"] == method)) {
        found.push_back(
            {event["id"].asInt(), request["method"].asString(), request["params"], request["id"]});
      }
    }
    return found;
  }
  /// Waits for the next call of that method behind those taken already.
  Message waitForCall(const std::string& method) {
    Message found;
    if (!waitFor([&] { return takeCall(method, found); })) {
      throw std::runtime_error("no call of " + method + " came: " + process_.out() + process_.err());
    }
    return found;
  }
  /// How many calls waitForCall has taken.
  std::size_t callsTaken() const { return taken_.size(); }
  void answer(const Message& call, const Json::Value& result) {
    Json::Value response;
    response["jsonrpc"] = "2.0";
    response["id"] = call.requestId;
    response["result"] = result;
    Json::Value line;
    line["reply"] = call.id;
    line["data"] = jsonText(response);
    process_.write(jsonText(line) + "\n");
  }

  /// Sends a notification and waits until the bus has taken it; the bus's error number.
  Json::Value::UInt notify(const char* target, const std::string& method, const Json::Value& params) {
    Json::Value line;
    line["send"] = target;
    line["channel"] = 20991;
    line["data"] = requestText(method, params);
    return exchange(line, "sent")["error"].asUInt();
  }
  /// The answer to a text of any kind on the channel of requests. Throws when the bus brings none.
  Json::Value ask(const char* target, const std::string& text) {
    Json::Value line;
    line["call"] = target;
    line["channel"] = 10990;
    line["data"] = text;
    line["timeout_ms"] = 15000;
    const Json::Value event = exchange(line, "answer");
    if (event["error"].asUInt() != 0) {
      throw std::runtime_error("bus error " + event["error"].asString());
    }
    return jsonOf(event["data"].asString());
  }
  /// The result of a call. Throws the error's text when the call fails.
  Json::Value call(const char* target, const std::string& method, const Json::Value& params) {
    Json::Value answer;
    try {
      answer = ask(target, requestText(method, params, nextId_++));
    } catch (const std::runtime_error& error) {
      throw std::runtime_error(method + ": " + error.what());
    }
    if (answer.isMember("error")) {
      throw std::runtime_error(method + ": " + jsonText(answer["error"]));
    }
    return answer["result"];
  }

  Process& process() { return process_; }
  void kill() {
    process_.kill(SIGKILL);
    process_.wait();
  }

 private:
  static std::string requestText(const std::string& method, const Json::Value& params,
                                 const Json::Value& id = {}) {
    Json::Value request;
    request["jsonrpc"] = "2.0";
    request["method"] = method;
    request["params"] = params;
    if (!id.isNull()) {
      request["id"] = id;
    }
    return jsonText(request);
  }

  std::vector<Json::Value> events(const std::string& kind) const {
    std::vector<Json::Value> found;
    for (Json::Value& event : jsonLines(process_.out())) {
      if (event["event"] == kind) {
        found.push_back(std::move(event));
      }
    }
    return found;
  }

  /// Writes an order and waits for its event.
  Json::Value exchange(const Json::Value& line, const std::string& kind) {
    const std::size_t before = events(kind).size();
    process_.write(jsonText(line) + "\n");
    if (!waitFor([&] { return events(kind).size() > before; })) {
      throw std::runtime_error("lunetctl does not say \"" + kind + "\": " + process_.out());
    }
    return events(kind)[before];
  }

  bool takeCall(const std::string& method, Message& call) {
    for (const Message& message : messages(method)) {
      if (taken_.insert(message.id).second) {
        call = message;
        return true;
      }
    }
    return false;
  }

  Process process_;
  std::set<int> taken_;
  int nextId_ = 1;
};

}  // namespace testsupport
