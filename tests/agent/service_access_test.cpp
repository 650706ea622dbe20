// Who may call which of the agent's methods: the service itself, without a bus.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "jsonrpchelper/AgentStub.h"
#include "jsonrpchelper/IJsonRpcClientHelper.h"
#include "service/AgentService.h"
#include "support/FakeEndpoint.h"
#include "support/TempDir.h"

namespace agent {
namespace {

using namespace jsonrpchelper;
using testing::HasSubstr;

/// The service, and a console whose user is neither root nor the agent's and in no group.
class ServiceAccess : public testing::Test {
 protected:
  ServiceAccess() {
    helper_.registerOn(endpoint_);
    service_.StartListening();
    endpoint_.peerProcess = {getpid(), kStranger, kStranger, 0};
    endpoint_.answer = [this](const std::string& request) {
      return endpoint_.deliver(lunet::kRequestChannel, request, true).reply;
    };
  }
  ~ServiceAccess() override {
    helper_.unregisterFrom(endpoint_);
    EXPECT_TRUE(outbox_.drain(std::chrono::seconds(20)));
  }

  static constexpr uid_t kStranger = 61234;

  template <class Method>
  typename Method::Result call(const Method& request) {
    return AgentStub(client_).call(request);
  }
  /// Calls with empty parameters; an error answer is as good as any other.
  template <class Method>
  void callEmpty() {
    try {
      call(Method{});
    } catch (const jsonrpc::JsonRpcException&) {
    }
    if (endpoint_.last().operation == "OnewaySend") {
      endpoint_.deliver(lunet::kOnewayChannel, endpoint_.last().text, false);
    }
  }
  template <class... Methods>
  void checkEach(MethodList<Methods...>) {
    (checkOne<Methods>(), ...);
  }

 private:
  template <class Method>
  void checkOne() {
    const std::size_t before = audit().size();
    callEmpty<Method>();
    const bool refused = audit().substr(before).find("refused: not allowed") != std::string::npos;
    EXPECT_EQ(refused, Method::kAccess == Access::kWhoMayChange) << Method::kName;
  }
  std::string audit() const { return testsupport::readFile(dir_.at("state/audit.log")); }
  Spawner::Config config() const {
    Spawner::Config config;
    config.shippedSignatures = TAV_SOURCE_DIR "/packaging/etc/agent/signatures";
    config.tempFolder = dir_.path();
    return config;
  }

  testsupport::TempDir dir_{testsupport::diskFolder()};
  Spawner spawner_{config()};
  std::unique_ptr<Store> store_ = Store::open(dir_.at("state"));
  testsupport::FakeEndpoint notified_;  ///< used on the outbox's thread
  Outbox outbox_;
  TaskManager tasks_{{*store_, spawner_, outbox_, notified_, {}}};
  testsupport::FakeEndpoint endpoint_;
  IJsonRpcServerHelper helper_;
  AgentService service_{helper_, *store_, tasks_, std::nullopt};
  IJsonRpcClientHelper client_{&endpoint_, lunet::kAgentGuid, lunet::kRequestChannel, lunet::kOnewayChannel,
                               1000};
};

TEST_F(ServiceAccess, IsWhatTheTableOfMethodsSays) {
  checkEach(AgentMethods());
}

TEST_F(ServiceAccess, ACallerWhoMayChangeNothingGetsTheAnswerOfEachMethodsKind) {
  EXPECT_FALSE(call(SetAVConfig{.config_str = "{}", .config_type = 0, .request_source = 1}));
  EXPECT_FALSE(call(CtlRegion{.desc = "", .items = {}, .region_type = 0, .source = 1}));
  const Json::Value answer =
      call(StartDeIsolate{.ctx = {}, .desc = "", .params = {}, .source = 1, .token_id = ""});
  EXPECT_EQ(answer["status"], false);
  EXPECT_NE(answer["token_id"].asString(), "");
  ASSERT_EQ(answer["detail"].size(), 1u);
  EXPECT_EQ(answer["detail"][0]["uuid"], "");
  EXPECT_EQ(answer["detail"][0]["reason"], "not allowed");
}

}  // namespace
}  // namespace agent
