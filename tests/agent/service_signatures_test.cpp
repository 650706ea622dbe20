#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <future>

#include "service/SignatureKeeper.h"
#include "support/TempDir.h"
#include "support/Wait.h"

namespace agent {
namespace {

using testsupport::waitFor;

/// Loads that wait for the test.
class Signatures : public testing::Test {
 protected:
  void TearDown() override { goOn(); }
  void goOn() {
    if (!open_) {
      open_ = true;
      gate_.set_value();
    }
  }
  bool begun(int count) {
    return waitFor([&] {
      keeper_.startWanted();
      return begun_ >= count;
    });
  }

  testsupport::TempDir dir_;
  std::promise<void> gate_;
  bool open_ = false;
  std::atomic<int> begun_{0};
  SignatureKeeper keeper_{{dir_.path()}, [this, gate = gate_.get_future().share()] {
                            ++begun_;
                            gate.wait();
                          }};
};

TEST_F(Signatures, AreNotLoadedAgainWhileNothingChanges) {
  keeper_.look();
  keeper_.look();
  EXPECT_FALSE(keeper_.startWanted());
  EXPECT_EQ(begun_, 0);
}

TEST_F(Signatures, ThatChangeAfterTheKeeperWasMadeAreLoadedAgainOnce) {
  dir_.write("a.ndb", "one");
  keeper_.look();
  EXPECT_FALSE(keeper_.startWanted()) << "still being written, perhaps";
  keeper_.look();
  EXPECT_TRUE(keeper_.startWanted());
  ASSERT_TRUE(begun(1));
  goOn();
  EXPECT_TRUE(waitFor([&] { return !keeper_.startWanted(); }));
  EXPECT_EQ(begun_, 1);
}

TEST_F(Signatures, ThatChangeBehindALinkAreLoadedAgain) {
  const testsupport::TempDir elsewhere;
  const std::string file = elsewhere.write("file", "one");
  std::filesystem::create_symlink(file, dir_.at("a.ndb"));
  keeper_.look();
  keeper_.look();
  ASSERT_TRUE(begun(1));
  goOn();
  ASSERT_TRUE(waitFor([&] { return !keeper_.startWanted(); }));
  elsewhere.write("file", "one and two");
  keeper_.look();
  keeper_.look();
  ASSERT_TRUE(begun(2));
  goOn();
  EXPECT_TRUE(waitFor([&] { return !keeper_.startWanted(); }));
}

TEST_F(Signatures, ThatAreAskedForWhileALoadRunsAreLoadedOnceMoreBehindIt) {
  keeper_.requestLoad();
  ASSERT_TRUE(begun(1));
  keeper_.requestLoad();
  keeper_.requestLoad();
  EXPECT_TRUE(keeper_.startWanted());
  EXPECT_EQ(begun_, 1);
  goOn();
  EXPECT_TRUE(begun(2));
  EXPECT_TRUE(waitFor([&] { return !keeper_.startWanted(); }));
  EXPECT_EQ(begun_, 2);
}

TEST_F(Signatures, ThatChangeWhileALoadRunsAreLoadedOnceMoreBehindIt) {
  keeper_.requestLoad();
  ASSERT_TRUE(begun(1));
  dir_.write("a.ndb", "one");
  keeper_.look();
  keeper_.look();
  keeper_.look();
  EXPECT_TRUE(keeper_.startWanted());
  goOn();
  EXPECT_TRUE(begun(2));
}

}  // namespace
}  // namespace agent
