#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>

#include <memory>
#include <string>

#include "json/CppJson.h"
#include "store/Store.h"
#include "support/Json.h"
#include "support/Samples.h"
#include "support/TempDir.h"

namespace agent {

/// The remark of a success, or the reason of a failure.
inline std::string lineOf(const platform::Expected<Remark>& result) {
  return result ? *result : result.error();
}

/// The reason of a failure: one line.
inline std::string reasonOf(const platform::Expected<void>& result) {
  EXPECT_FALSE(result);
  const std::string reason = result ? "" : result.error();
  EXPECT_FALSE(reason.empty());
  EXPECT_EQ(reason.find('\n'), std::string::npos);
  return reason;
}

/// A store in a private folder, which can be closed and opened again.
class StoreTest : public testing::Test {
 protected:
  void SetUp() override { reopen(); }
  void reopen() {
    store_.reset();
    store_ = Store::open(stateDir());
  }
  std::string stateDir() const { return folder_.at("state"); }
  Store& store() { return *store_; }

  static CallerId root() { return {.uid = 0, .gid = 0, .groups = {}, .pid = 1}; }

  testsupport::TempDir folder_;
  std::unique_ptr<Store> store_;
};

}  // namespace agent
