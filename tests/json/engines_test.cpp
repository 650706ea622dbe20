#include <gtest/gtest.h>

#include <set>

#include "json/CppJson.h"

namespace {

TEST(Engines, HaveTheCodesZeroToNineInOrder) {
  ASSERT_EQ(json::kEngineCount, 10);
  for (int i = 0; i < json::kEngineCount; ++i) {
    EXPECT_EQ(json::engineAt(i).code, i);
  }
}

TEST(Engines, HaveDistinctNamesAndSayWhatTheyAre) {
  std::set<std::string> names;
  for (int i = 0; i < json::kEngineCount; ++i) {
    const json::Engine& engine = json::engineAt(i);
    EXPECT_TRUE(names.insert(engine.name).second) << engine.name;
    EXPECT_EQ(json::engineName(i), engine.name);
    EXPECT_NE(std::string(engine.what), "");
  }
}

TEST(Engines, OfACodeOutsideTheTableAreCalledOther) {
  for (const int code : {-1, 10, 11, 1000, -2147483647}) {
    EXPECT_EQ(json::engineName(code), "其他");
  }
}

TEST(Engines, CoverEverySwitchOfTheSettings) {
  std::set<std::string> scan;
  std::set<std::string> realTime;
  for (int i = 0; i < json::kEngineCount; ++i) {
    const json::Engine& engine = json::engineAt(i);
    ASSERT_EQ(engine.scanKey == nullptr, engine.realTimeKey == nullptr);
    if (engine.scanKey != nullptr) {
      scan.insert(engine.scanKey);
      realTime.insert(engine.realTimeKey);
      EXPECT_EQ(std::string(engine.scanKey) + "RP", engine.realTimeKey);
    }
  }
  EXPECT_EQ(scan, (std::set<std::string>{"HCengine", "UMBengine", "IXOengine", "RDAengine", "RDAOLDengine",
                                         "CloudEngine"}));
  EXPECT_EQ(realTime, (std::set<std::string>{"HCengineRP", "UMBengineRP", "IXOengineRP", "RDAengineRP",
                                             "RDAOLDengineRP", "CloudEngineRP"}));
}

TEST(Engines, OutsideTheTableHaveNoRow) {
  EXPECT_THROW(json::engineAt(10), std::out_of_range);
  EXPECT_THROW(json::engineAt(-1), std::out_of_range);
}

}  // namespace
