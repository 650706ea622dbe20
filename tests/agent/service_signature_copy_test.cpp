// The copy of the last good signature files: real files, links and full disks.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>

#include "OwnMounts.h"
#include "engine/Digest.h"
#include "service/SignatureCopy.h"
#include "support/TempDir.h"

namespace agent {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testsupport::readFile;

class CopyOfSignatures : public ::testing::Test {
 protected:
  /// Writes files of the system's folder, and returns their load.
  SignatureState loaded(const std::map<std::string, std::string>& files) const {
    SignatureState state;
    for (const auto& [name, content] : files) {
      dir_.write("system/" + name, content);
      state.files.push_back({name, content.size(), sha256Of(content)});
    }
    return state;
  }
  /// The reason of a failure; empty after a success.
  std::string update(const SignatureState& state, SignatureCopy::Limits limits = {}) const {
    const auto updated = SignatureCopy(copies_, limits).update(dir_.at("system"), state, ended_);
    return updated ? "" : updated.error();
  }
  std::set<std::string> names() const {
    std::set<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(copies_)) {
      found.insert(entry.path().filename());
    }
    return found;
  }
  std::string copyOf(const std::string& name) const { return readFile(copies_ + "/" + name); }

  testsupport::TempDir dir_;
  std::string copies_ = dir_.at("copies");
  std::atomic<bool> ended_{false};
};

TEST_F(CopyOfSignatures, HoldsTheFilesOfTheLastLoad) {
  EXPECT_EQ(update(loaded({{"a.ndb", "one"}, {"b.ndb", std::string(700000, 'b')}})), "");
  EXPECT_EQ(copyOf("a.ndb"), "one");
  EXPECT_EQ(copyOf("b.ndb"), std::string(700000, 'b'));
  struct stat status {};
  ASSERT_EQ(stat((copies_ + "/a.ndb").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644U) << "the confined processes read it";
  EXPECT_EQ(update(loaded({{"a.ndb", "two"}})), "");
  EXPECT_EQ(copyOf("a.ndb"), "two");
  EXPECT_THAT(names(), ElementsAre("a.ndb")) << "the other is removed";
}

TEST_F(CopyOfSignatures, IsNotWrittenAgainWhereItIsTheSame) {
  const SignatureState state = loaded({{"a.ndb", "one"}});
  EXPECT_EQ(update(state), "");
  struct stat before {
  }, now{};
  ASSERT_EQ(stat((copies_ + "/a.ndb").c_str(), &before), 0);
  EXPECT_EQ(update(state), "");
  ASSERT_EQ(stat((copies_ + "/a.ndb").c_str(), &now), 0);
  EXPECT_EQ(now.st_ino, before.st_ino);
}

TEST_F(CopyOfSignatures, KeepsTheCopiesThatAreInUse) {
  EXPECT_EQ(update(loaded({{"a.ndb", "one"}, {"b.ndb", "good"}, {"c.ndb", "gone"}})), "");
  SignatureState state = loaded({{"a.ndb", "two"}});
  state.copies = {"b.ndb"};
  EXPECT_EQ(update(state), "");
  EXPECT_THAT(names(), ElementsAre("a.ndb", "b.ndb"));
  EXPECT_EQ(copyOf("b.ndb"), "good");
}

TEST_F(CopyOfSignatures, IsMadeOfLoadedContentOnlyAndElseStaysAsItIs) {
  EXPECT_EQ(update(loaded({{"a.ndb", "one"}, {"b.ndb", "good"}})), "");
  SignatureState state = loaded({{"a.ndb", "two"}, {"b.ndb", "better"}});
  for (const char* other : {"bettex", "bette", "better!"}) {
    dir_.write("system/b.ndb", other);
    EXPECT_EQ(update(state), "'b.ndb': has changed since its load") << other;
  }
  EXPECT_EQ(copyOf("a.ndb") + copyOf("b.ndb"), "onegood");
  EXPECT_THAT(names(), ElementsAre("a.ndb", "b.ndb"));
}

TEST_F(CopyOfSignatures, FollowsNoLinkOfTheSystemsFolder) {
  const SignatureState state = loaded({{"a.ndb", "one"}});
  std::filesystem::rename(dir_.at("system/a.ndb"), dir_.at("elsewhere"));
  std::filesystem::create_symlink(dir_.at("elsewhere"), dir_.at("system/a.ndb"));
  EXPECT_THAT(update(state), HasSubstr("'a.ndb': cannot be read"));
  std::filesystem::remove(dir_.at("system/a.ndb"));
  ASSERT_EQ(mkfifo(dir_.at("system/a.ndb").c_str(), 0666), 0);
  EXPECT_EQ(update(state), "'a.ndb': not a regular file");
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(CopyOfSignatures, IsNotWrittenThroughALink) {
  const SignatureState state = loaded({{"a.ndb", "one"}});
  const std::string other = dir_.write("other", "kept");
  std::filesystem::create_directory(copies_);
  std::filesystem::create_symlink(other, copies_ + "/a.ndb");
  std::filesystem::create_symlink(other, copies_ + "/a.ndb.new");
  EXPECT_EQ(update(state), "");
  EXPECT_EQ(readFile(other), "kept");
  EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(copies_ + "/a.ndb")));
  std::filesystem::rename(copies_, dir_.at("real"));
  std::filesystem::create_directory_symlink(dir_.at("real"), copies_);
  EXPECT_NE(update(loaded({{"a.ndb", "two"}})), "");
  EXPECT_EQ(readFile(dir_.at("real/a.ndb")), "one");
}

TEST_F(CopyOfSignatures, RefusesANameThatLeadsElsewhere) {
  dir_.write("evil.ndb", "one");
  std::filesystem::create_directory(dir_.at("system"));
  for (const char* name : {"../evil.ndb", "..", "", ".hidden.ndb", "a.ndb.new"}) {
    SignatureState state;
    state.files.push_back({name, 3, sha256Of("one")});
    EXPECT_THAT(update(state), HasSubstr("is no name of a signature file")) << name;
  }
}

TEST_F(CopyOfSignatures, StaysAsItIsWhereTheFilesAreTooLarge) {
  EXPECT_EQ(update(loaded({{"a.ndb", "one"}})), "");
  SignatureCopy::Limits limits;
  limits.mostBytes = 10;
  EXPECT_THAT(update(loaded({{"a.ndb", "twotwo"}, {"b.ndb", "threet"}}), limits),
              HasSubstr("are larger than 10 bytes"));
  EXPECT_EQ(copyOf("a.ndb"), "one");
}

TEST_F(CopyOfSignatures, StaysAsItIsWhenTheAgentEnds) {
  EXPECT_EQ(update(loaded({{"a.ndb", "one"}})), "");
  ended_ = true;
  EXPECT_EQ(update(loaded({{"a.ndb", "two"}})), "'a.ndb': the agent is ending");
  EXPECT_EQ(copyOf("a.ndb"), "one");
  EXPECT_THAT(names(), ElementsAre("a.ndb"));
}

TEST_F(CopyOfSignatures, StaysAsItIsOnAFullDisk) {
  std::filesystem::create_directory(copies_);
  std::string first, full, noEntries;
  std::set<std::string> left;
  const bool ran = withOwnMounts(
      [&] { return mount("tmpfs", copies_.c_str(), "tmpfs", 0, "size=1m,nr_inodes=4") == 0; },
      [&] {
        SignatureCopy::Limits limits;
        limits.freeBytes = 0;
        first = update(loaded({{"a.ndb", "one"}, {"b.ndb", "two"}}), limits);
        full = update(loaded({{"a.ndb", "new"}, {"b.ndb", std::string(2U << 20, 'x')}}), limits);
        noEntries = update(loaded({{"a.ndb", "new"}, {"b.ndb", "new"}}), limits);
        left = names();
        EXPECT_EQ(copyOf("a.ndb") + copyOf("b.ndb"), "onetwo");
      });
  if (!ran) {
    GTEST_SKIP() << "this process may not mount";
  }
  EXPECT_EQ(first, "");
  EXPECT_THAT(full, HasSubstr("the disk is full: "));
  EXPECT_EQ(noEntries, "'b.ndb': cannot be written: No space left on device");
  EXPECT_THAT(left, ElementsAre("a.ndb", "b.ndb"));
}

}  // namespace
}  // namespace agent
