#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "support/TempDir.h"
#include "support/Wait.h"
#include "task/LinkedFiles.h"

namespace agent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Turn = LinkedFiles::Turn;

class LinkedFilesTest : public ::testing::Test {
 protected:
  LinkedFiles::File file(const std::string& path) {
    auto met = std::make_shared<EncounteredFile>();
    met->path = path;
    EXPECT_EQ(0, stat(path.c_str(), &met->status));
    return met;
  }
  LinkedFiles::File name(const char* of, const char* name) {
    EXPECT_EQ(0, link(dir.at(of).c_str(), dir.at(name).c_str()));
    return file(dir.at(name));
  }
  static std::shared_ptr<const FileEnd> clean() {
    auto end = std::make_shared<FileEnd>();
    end->verdict.outcome = Outcome::kClean;
    return end;
  }
  testsupport::TempDir dir;
  LinkedFiles links;
};

TEST_F(LinkedFilesTest, AFileWithOneNameIsScannedEachTime) {
  const auto only = file(dir.write("a", "x"));
  EXPECT_EQ(Turn::kScan, links.meet(only).turn);
  EXPECT_EQ(Turn::kScan, links.meet(only).turn);
  EXPECT_THAT(links.ended(*only, clean()), IsEmpty());
}

TEST_F(LinkedFilesTest, AFurtherNameWaitsForTheEndOfTheFirstAndLaterOnesHaveIt) {
  dir.write("a", "x");
  name("a", "b");
  name("a", "c");
  const auto second = file(dir.at("b"));
  EXPECT_EQ(Turn::kScan, links.meet(file(dir.at("a"))).turn);
  EXPECT_EQ(Turn::kWaits, links.meet(second).turn);
  const auto end = clean();
  EXPECT_THAT(links.ended(*second, end), ElementsAre(second));
  const LinkedFiles::Met third = links.meet(file(dir.at("c")));
  EXPECT_EQ(Turn::kEnded, third.turn);
  EXPECT_EQ(end, third.end);
}

TEST_F(LinkedFilesTest, BehindTheLastNameNothingIsKept) {
  dir.write("a", "x");
  name("a", "b");
  for (int round = 0; round < 2; ++round) {
    const auto first = file(dir.at("a"));
    EXPECT_EQ(Turn::kScan, links.meet(first).turn);
    links.ended(*first, clean());
    EXPECT_EQ(Turn::kEnded, links.meet(file(dir.at("b"))).turn);
  }
}

TEST_F(LinkedFilesTest, AFileThatChangedBetweenTwoNamesIsAnotherFile) {
  const std::string path = dir.write("a", "x");
  name("a", "b");
  const auto first = file(path);
  const timespec past[2] = {{1000, 0}, {1000, 0}};
  EXPECT_EQ(Turn::kScan, links.meet(first).turn);
  links.ended(*first, clean());
  ASSERT_TRUE(
      testsupport::waitFor([&] {  // the same size, and times that a program set: the change time differs
        dir.write("a", "y");
        EXPECT_EQ(0, utimensat(AT_FDCWD, path.c_str(), past, 0));
        return file(path)->status.st_ctim.tv_nsec != first->status.st_ctim.tv_nsec;
      }));
  EXPECT_EQ(Turn::kScan, links.meet(file(dir.at("b"))).turn);
}

TEST_F(LinkedFilesTest, FewNamesWaitAtATimeAndTheRestWhenTheFirstHasEnded) {
  dir.write("a", "x");
  for (int i = 0; i < 100; ++i) {
    name("a", std::to_string(i).c_str());
  }
  const auto first = file(dir.at("a"));
  EXPECT_EQ(Turn::kScan, links.meet(first).turn);
  std::atomic<int> waits{0}, ended{0};
  std::thread walk([&] {
    for (int i = 0; i < 100; ++i) {
      ++(links.meet(file(dir.at(std::to_string(i)))).turn == Turn::kWaits ? waits : ended);
    }
  });
  EXPECT_TRUE(testsupport::waitFor([&] { return waits == 64; }));
  EXPECT_EQ(64U, links.ended(*first, clean()).size());
  walk.join();
  EXPECT_EQ(64, waits);
  EXPECT_EQ(36, ended);
}

TEST_F(LinkedFilesTest, AHoldEndsTheWaitForAFewerNumberOfNames) {
  dir.write("a", "x");
  for (int i = 0; i < 66; ++i) {
    name("a", std::to_string(i).c_str());
  }
  const auto first = file(dir.at("a"));
  EXPECT_EQ(Turn::kScan, links.meet(first).turn);
  std::atomic<int> waits{0}, ended{0};
  std::thread walk([&] {
    for (int i = 0; i < 66; ++i) {
      ++(links.meet(file(dir.at(std::to_string(i)))).turn == Turn::kWaits ? waits : ended);
    }
  });
  EXPECT_TRUE(testsupport::waitFor([&] { return waits == 64; }));
  links.hold();
  walk.join();
  EXPECT_EQ(66, waits);
  links.release();
  EXPECT_EQ(66U, links.ended(*first, clean()).size());
}

}  // namespace
}  // namespace agent
