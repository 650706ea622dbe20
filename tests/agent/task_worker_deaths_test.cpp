// Files on which the scanning processes die, over several scans.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ScanTaskTest.h"

namespace agent {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

class WorkerDeathScans : public ScanTaskTest {
 protected:
  std::string audit() const { return testsupport::readFile(dir.at("state/audit.log")); }
  static std::size_t count(const std::string& text, const std::string& part) {
    std::size_t found = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
      ++found;
    }
    return found;
  }
  void scanTimes(const std::string& path, int times) {
    for (int i = 0; i < times; ++i) {
      scan({path});
      EXPECT_THAT(owner->detail(), HasSubstr("1 errors")) << i;
    }
  }
};

TEST_F(WorkerDeathScans, TheThirdDeathIsAnEventAndTheFileIsNotTriedAgain) {
  const std::string deadly = dir.write("deadly", "its worker dies");
  scanTimes(deadly, 2);
  EXPECT_THAT(audit(), Not(HasSubstr("death")));
  scanTimes(deadly, 1);
  EXPECT_THAT(audit(), AllOf(HasSubstr("action=\"death of scanning processes\" object=\"" + deadly + "\""),
                             HasSubstr("given up"), HasSubstr("owner " + std::to_string(geteuid()))));
  EXPECT_EQ(begun(deadly), 3);
  scanTimes(deadly, 2);
  EXPECT_EQ(begun(deadly), 3) << "the file ends at once";
  EXPECT_EQ(count(audit(), "death of scanning processes"), 1U) << "one event";
  EXPECT_TRUE(owner->risks().empty()) << "never a detection";
}

TEST_F(WorkerDeathScans, AFileThatWasTouchedIsTriedAgain) {
  const std::string deadly = dir.write("deadly", "its worker dies");
  scanTimes(deadly, 4);
  ASSERT_EQ(begun(deadly), 3);
  ASSERT_EQ(0, utimensat(AT_FDCWD, deadly.c_str(), nullptr, 0));
  scanTimes(deadly, 1);
  EXPECT_EQ(begun(deadly), 4);
}

TEST_F(WorkerDeathScans, AFileIsTriedAgainWithOtherSignatures) {
  const std::string deadly = dir.write("deadly", "its worker dies");
  scanTimes(deadly, 4);
  ASSERT_EQ(begun(deadly), 3);
  dir.write("system/new.ndb", "New.Trojan.Sample:0:*:6f6e6c7920746865206e6577206f6e6573\n");
  ASSERT_TRUE(spawner.reload());
  scanTimes(deadly, 1);
  EXPECT_EQ(begun(deadly), 4);
}

TEST_F(WorkerDeathScans, EveryNameOfAFileThatIsGivenUpIsAnError) {
  const std::string deadly = dir.write("d/deadly", "its worker dies");
  scanTimes(deadly, 3);
  ASSERT_EQ(0, link(deadly.c_str(), dir.at("d/more-deadly").c_str()));  // moves the change time
  for (int i = 0; i < 4; ++i) {
    scan({dir.at("d")});
    EXPECT_THAT(owner->detail(), HasSubstr("2 errors"));
  }
  EXPECT_EQ(begun(deadly) + begun(dir.at("d/more-deadly")), 6);
}

TEST_F(WorkerDeathScans, AFileThatIsGivenUpIsRejectedByItsPathAllTheSame) {
  const std::string deadly = dir.write("deadly", "its worker dies");
  scanTimes(deadly, 3);
  list(json::Region::kReject, deadly);
  scan({deadly});
  EXPECT_THAT(owner->risks(), ::testing::ElementsAre(deadly));
  EXPECT_EQ(begun(deadly), 3);
}

TEST_F(WorkerDeathScans, TenDeathsOnFilesOfOneOwnerAreAnEvent) {
  for (int i = 0; i < 9; ++i) {
    dir.write("d/" + std::to_string(i) + "deadly", "its worker dies");
  }
  scan({dir.at("d")});
  EXPECT_THAT(audit(), Not(HasSubstr("death")));
  scan({dir.write("deadly", "its worker dies")});
  EXPECT_THAT(audit(),
              HasSubstr("action=\"death of scanning processes\" object=\"user " + std::to_string(geteuid()) +
                        "\" outcome=\"10 deaths on 10 files of this user"));
}

}  // namespace
}  // namespace agent
