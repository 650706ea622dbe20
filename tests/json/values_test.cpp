#include "json/Values.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

template <class E>
class EveryList : public testing::Test {};
using Lists =
    testing::Types<json::ConfigType, json::RequestSource, json::BusinessType, json::TaskState,
                   json::ControlAction, json::ScanMode, json::RiskInfoType, json::RiskType, json::Finder,
                   json::HandleResult, json::HandleAction, json::ProcessFix, json::ScanFileType,
                   json::FixMethod, json::CloudScan, json::ProtectLevel, json::FileTrace, json::CloudType,
                   json::CleanType, json::CleanUnit, json::Region, json::RegionAction, json::RegionDomain,
                   json::RegionItemType, json::RegionValidity, json::RestoreAction>;
TYPED_TEST_SUITE(EveryList, Lists);

TYPED_TEST(EveryList, ReadsItsOwnNumbersAndNoOther) {
  for (std::int32_t number = -2; number <= 16; ++number) {
    const auto value = json::fromNumber<TypeParam>(number);
    const bool listed =
        std::any_of(json::kValuesOf<TypeParam>.begin(), json::kValuesOf<TypeParam>.end(),
                    [number](TypeParam known) { return static_cast<std::int32_t>(known) == number; });
    ASSERT_EQ(value.has_value(), listed) << number;
    if (value) {
      EXPECT_EQ(json::toNumber(*value), number);
    }
  }
}

TYPED_TEST(EveryList, ReadsNoNumberBeyondThirtyTwoBits) {
  for (const TypeParam value : json::kValuesOf<TypeParam>) {
    EXPECT_EQ(json::fromNumber<TypeParam>(json::toNumber(value) + (std::int64_t{1} << 32)), std::nullopt);
  }
}

TEST(Handling, TravelsAsFixMethod0Or2) {
  EXPECT_EQ(json::toFixMethod(json::Handling::kAutomatic), 0);
  EXPECT_EQ(json::toFixMethod(json::Handling::kReportOnly), 2);
}

TEST(Handling, IsAutomaticInTheAgentForFixMethod0Alone) {
  EXPECT_EQ(json::handlingInForce(0), json::Handling::kAutomatic);
  for (const int other : {-1, 1, 2, 3, 7}) {
    EXPECT_EQ(json::handlingInForce(other), json::Handling::kReportOnly) << other;
  }
}

TEST(Handling, IsReportOnlyInTheConsoleForTheSettings1And2Alone) {
  EXPECT_EQ(json::handlingOfSetting(1), json::Handling::kReportOnly);
  EXPECT_EQ(json::handlingOfSetting(2), json::Handling::kReportOnly);
  for (const int other : {-1, 0, 3, 7}) {
    EXPECT_EQ(json::handlingOfSetting(other), json::Handling::kAutomatic) << other;
  }
}

TEST(Handling, StandsInTheReportAs1ForReportOnlyAnd2ForAutomatic) {
  EXPECT_EQ(json::toFixHandle(json::Handling::kReportOnly), 1);
  EXPECT_EQ(json::toFixHandle(json::Handling::kAutomatic), 2);
}

TEST(ScanType, IsTheModeAndThreeMoreWithStrongScan) {
  EXPECT_EQ(json::toScanType(json::ScanMode::kFast, false), 0);
  EXPECT_EQ(json::toScanType(json::ScanMode::kFull, false), 1);
  EXPECT_EQ(json::toScanType(json::ScanMode::kCustom, false), 2);
  EXPECT_EQ(json::toScanType(json::ScanMode::kFast, true), 3);
  EXPECT_EQ(json::toScanType(json::ScanMode::kFull, true), 4);
  EXPECT_EQ(json::toScanType(json::ScanMode::kCustom, true), 5);
}

}  // namespace
