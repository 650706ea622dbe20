#pragma once

#include <json/json.h>

#include <csignal>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/InstallTree.h"
#include "support/Wait.h"

namespace testsupport {

inline constexpr const char* kAgentAddress = "FBE54D8E-D8E6-41F8-BE05-A94CE5469587";
inline constexpr const char* kConsoleAddress = "A4F72BA6-6DE6-44D4-B955-5A880273427E";

/// The agent of an install tree, played by hand: `lunetctl listen` on the agent's address, driven line by
/// line as a script would. Needs the lunetctl target built. Failures throw std::runtime_error.
class LunetctlAgent {
 public:
  struct Call {
    int messageId = 0;
    Json::Value request;  ///< the JSON-RPC request
    const Json::Value& params() const { return request["params"]; }
  };

  explicit LunetctlAgent(const InstallTree& tree, const char* address = kAgentAddress)
      : process_(tree.start("lunetctl", {"--runtime", tree.path(), "listen", address})) {
    if (!process_->waitForOut(R"("event":"ready")")) {
      throw std::runtime_error("lunetctl is not ready: " + process_->out() + process_->err());
    }
  }

  /// Waits for the next call of that method behind those taken already.
  Call waitForCall(const std::string& method) {
    Call found;
    if (!waitFor([&] { return takeCall(method, found); })) {
      throw std::runtime_error("no call of " + method + " came: " + process_->out() + process_->err());
    }
    return found;
  }

  void answer(const Call& call, const Json::Value& result) {
    Json::Value response;
    response["jsonrpc"] = "2.0";
    response["id"] = call.request["id"];
    response["result"] = result;
    Json::Value line;
    line["reply"] = call.messageId;
    line["data"] = compact(response);
    say(line);
  }

  /// Sends a notification to the console and waits until the bus has taken it; the bus's error number.
  Json::Value::UInt notify(const std::string& method, const Json::Value& params) {
    Json::Value notification;
    notification["jsonrpc"] = "2.0";
    notification["method"] = method;
    notification["params"] = params;
    Json::Value line;
    line["send"] = kConsoleAddress;
    line["channel"] = 20991;
    line["data"] = compact(notification);
    const std::size_t before = events("sent").size();
    say(line);
    if (!waitFor([&] { return events("sent").size() > before; })) {
      throw std::runtime_error("lunetctl sent nothing: " + process_->out());
    }
    return events("sent").back()["error"].asUInt();
  }

  // The notifications of a scan task.
  void state(int number, const std::string& detail = "", const std::string& token = "token", int type = 0) {
    Json::Value params;
    params["ctx"] = Json::objectValue;
    params["detail"] = detail;
    params["params"] = Json::objectValue;
    params["source"] = 1;
    params["state"] = number;
    params["token_id"] = token;
    params["type"] = type;
    notify("reportBusStatus", params);
  }
  void progress(int percent) {
    Json::Value params;
    params["progress"] = percent;
    params["token_id"] = "token";
    notify("reportBusProgress", params);
  }
  void overview(int checked, int found, const std::string& current = "", int failed = 0) {
    Json::Value params;
    params["overview"]["failed_item_count"] = failed;
    params["overview"]["checked_item_count"] = checked;
    params["overview"]["checkout_risk_count"] = found;
    params["overview"]["cur_item"] = current;
    params["token_id"] = "token";
    notify("reportScanBusOverView", params);
  }
  void repair(const std::string& item, const std::string& name, int size, int handleResult) {
    Json::Value params;
    params["business_type"] = 0;
    params["fix_method"] = 2;
    params["risk_info"]["item"] = item;
    params["risk_info"]["risk_name"] = name;
    params["risk_info"]["filesize_src"] = size;
    params["risk_info_type"] = 5;
    params["risk_repair_result"]["handle_result"] = handleResult;
    params["token_id"] = "token";
    notify("reportRiskFixInfo", params);
  }

  /// Serves the start of an unattended scan; returns the scan's request record.
  Json::Value acceptScan(int fixMethod = 2) {
    Json::Value settings;
    settings["Common"]["FixMethod"] = fixMethod;
    answer(waitForCall("getAVConfig"), compact(settings));
    const Call start = waitForCall("startScanTask");
    Json::Value result;
    result["status"] = true;
    answer(start, result);
    return start.params()["params"];
  }

  void kill() {
    process_->kill(SIGKILL);
    process_->wait();
  }
  std::size_t callsSeen() const { return taken_.size(); }

 private:
  static std::string compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
  }
  void say(const Json::Value& line) { process_->write(compact(line) + "\n"); }

  std::vector<Json::Value> events(const std::string& kind) const {
    std::vector<Json::Value> found;
    std::istringstream lines(process_->out());
    for (std::string line; std::getline(lines, line);) {
      if (!lines.eof()) {  // a last line without its end may be half
        Json::Value event;
        std::istringstream(line) >> event;
        if (event["event"] == kind) {
          found.push_back(event);
        }
      }
    }
    return found;
  }

  bool takeCall(const std::string& method, Call& call) {
    for (const Json::Value& event : events("message")) {
      const int id = event["id"].asInt();
      Json::Value request;
      std::istringstream(event["data"].asString()) >> request;
      if (request["method"] == method && taken_.insert(id).second) {
        call = {id, request};
        return true;
      }
    }
    return false;
  }

  std::unique_ptr<Process> process_;
  std::set<int> taken_;
};

}  // namespace testsupport
