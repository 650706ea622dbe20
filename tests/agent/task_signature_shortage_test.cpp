// Scans with less than the system's signatures.

#include <gmock/gmock.h>

#include "ScanTaskTest.h"

namespace agent {
namespace {

using ::testing::HasSubstr;
constexpr std::chrono::seconds kLoad(20);
const std::string kSignature = "Other.Trojan.One:0:*:6f6e65206f66207468652073797374656d73\n";

class ScansWithLess : public ScanTaskTest {
 protected:
  void reload() {
    ASSERT_TRUE(spawner.waitLoaded(kLoad).loaded);
    ASSERT_TRUE(spawner.reload());
  }
};

TEST_F(ScansWithLess, SaySoAtTheirStartAndInTheirAttributes) {
  const std::string shortage =
      "the system's signatures are not in use: " + dir.at("system") + ": No such file or directory";
  scan({dir.write("file", "clean")});
  EXPECT_EQ(owner->startDetail(), shortage);
  EXPECT_EQ(owner->attributes()["signature_shortage"].asString(), shortage);
  dir.write("system/a.ndb", kSignature);
  reload();
  scan({dir.at("file")});
  EXPECT_EQ(owner->startDetail(), "") << "all of the system's signatures are in use";
  EXPECT_EQ(owner->attributes()["signature_shortage"].asString(), "");
  dir.write("system/b.ndb", "this is no signature\n");
  reload();
  scan({dir.at("file")});
  EXPECT_THAT(owner->startDetail(), HasSubstr("b.ndb is left out"));
}

TEST_F(ScansWithLess, RememberNothingAsCleanForAScanWithMore) {
  dir.write("system/a.ndb", kSignature);
  reload();
  const std::string other = dir.write("other/b", "also clean");
  // The other file is then old enough for the cache, too.
  ASSERT_TRUE(becomesKnownClean(dir.write("data/a", "clean")));
  hold();
  const std::unique_ptr<ScanTask> task = begin(custom({dir.at("other")}));
  ASSERT_TRUE(testsupport::waitFor([&] { return begun(other) == 1; }));
  std::filesystem::remove(dir.at("system/a.ndb"));
  ASSERT_TRUE(spawner.reload());
  release();
  EXPECT_TRUE(task->waitOver(std::chrono::seconds(20)));
  EXPECT_EQ(store->cache().count(), 1) << "of the first file";
}

}  // namespace
}  // namespace agent
