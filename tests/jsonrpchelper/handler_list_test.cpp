#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

#include "jsonrpchelper/HandlerList.h"
#include "support/Process.h"
#include "support/Wait.h"

namespace {

using jsonrpchelper::HandlerList;

/// Counts its requests and answers with its name.
class Handler final : public jsonrpc::IClientConnectionHandler {
 public:
  explicit Handler(std::string name) : name_(std::move(name)) {}
  void HandleRequest(const std::string&, std::string& response) override {
    ++handled;
    response = name_;
    if (during) {
      during();
    }
  }

  std::atomic<int> handled{0};
  std::function<void()> during;

 private:
  const std::string name_;
};

class Handlers : public testing::Test {
 protected:
  /// The name of the handler that got the request; "-" without a handler.
  std::string handlerOf(const std::string& procedure) {
    std::string response;
    return list.handle(procedure, "{}", response) ? response : "-";
  }

  HandlerList list;
  Handler one{"one"};
  Handler other{"other"};
};

TEST_F(Handlers, GetTheirProceduresAndOneOfThemGetsUnknownOnes) {
  EXPECT_EQ(handlerOf("a"), "-");
  list.add(one, {"a"});
  list.add(other, {"b"});
  EXPECT_EQ(handlerOf("a"), "one");
  EXPECT_EQ(handlerOf("b"), "other");
  EXPECT_NE(handlerOf("c"), "-");
}

TEST_F(Handlers, ThatAreAddedAgainHaveTheirNewNamesOnly) {
  list.add(one, {"a"});
  list.add(other, {"b"});
  list.add(one, {"c"});
  EXPECT_EQ(handlerOf("c"), "one");
  EXPECT_EQ(handlerOf("a"), "other");
  list.remove(one);
  EXPECT_EQ(handlerOf("c"), "other");
}

TEST_F(Handlers, ThatAreNotOnTheListMayBeRemoved) {
  list.add(other, {"b"});
  list.remove(one);
  EXPECT_EQ(handlerOf("b"), "other");
}

TEST_F(Handlers, ThatAreRemovedWhileAMessageWaitsForThemDoNotGetIt) {
  std::atomic<pid_t> waiting{0};
  std::atomic<bool> inside{false};
  one.during = [&] {
    inside = true;
    // The other message's thread sleeps before this handler.
    EXPECT_TRUE(testsupport::waitFor([&] { return testsupport::threadSleeps(waiting); }));
    list.remove(one);
  };
  list.add(one, {"a"});
  std::thread first([&] { EXPECT_EQ(handlerOf("a"), "one"); });
  ASSERT_TRUE(testsupport::waitFor([&] { return inside.load(); }));
  std::thread second([&] {
    waiting = gettid();
    EXPECT_EQ(handlerOf("a"), "-");
  });
  first.join();
  second.join();
  EXPECT_EQ(one.handled, 1);
}

}  // namespace
