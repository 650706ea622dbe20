#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "EngineFixture.h"
#include "worker/Channel.h"
#include "worker/Messages.h"
#include "worker/TempFolders.h"

namespace agent {
namespace {

TEST(Channels, APacketArrivesWholeWithItsDescriptor) {
  const testsupport::TempDir dir;
  auto [one, two] = Channel::pair();
  const UniqueFd file(open(dir.write("file", "content").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(one.send("first", file.get()));
  ASSERT_TRUE(one.send("second"));
  Channel::Packet packet;
  ASSERT_EQ(two.receive(packet, true), Channel::Received::kPacket);
  EXPECT_EQ(packet.bytes, "first");
  struct stat sent {};
  struct stat got {};
  ASSERT_EQ(fstat(file.get(), &sent), 0);
  ASSERT_EQ(fstat(packet.fd.get(), &got), 0);
  EXPECT_EQ(sent.st_ino, got.st_ino);
  EXPECT_NE(fcntl(packet.fd.get(), F_GETFD) & FD_CLOEXEC, 0);
  ASSERT_EQ(two.receive(packet, true), Channel::Received::kPacket);
  EXPECT_EQ(packet.bytes, "second");
  EXPECT_FALSE(packet.fd);
}

TEST(Channels, NothingThereIsToldWithoutWaiting) {
  auto [one, two] = Channel::pair();
  Channel::Packet packet;
  EXPECT_EQ(two.receive(packet, false), Channel::Received::kNothing);
}

TEST(Channels, WhatWasSentBeforeTheEndIsStillHeard) {
  auto [one, two] = Channel::pair();
  ASSERT_TRUE(two.send("unread by the other end"));
  ASSERT_TRUE(one.send("last words"));
  one.close();
  Channel::Packet packet;
  ASSERT_EQ(two.receive(packet, true), Channel::Received::kPacket);
  EXPECT_EQ(packet.bytes, "last words");
  EXPECT_EQ(two.receive(packet, true), Channel::Received::kEnded);
  EXPECT_FALSE(two.send("to nobody"));
}

TEST(Channels, WhatHadArrivedIsHeardAfterAShutDownAndNothingElse) {
  auto [one, two] = Channel::pair();
  ASSERT_TRUE(one.send("early"));
  two.shutDown();
  EXPECT_FALSE(one.send("late"));
  Channel::Packet packet;
  ASSERT_EQ(two.receive(packet, false), Channel::Received::kPacket);
  EXPECT_EQ(packet.bytes, "early");
  EXPECT_EQ(two.receive(packet, false), Channel::Received::kEnded);
}

TEST(Channels, APacketTooLargeForItsReaderEndsTheTalk) {
  auto [one, two] = Channel::pair();
  ASSERT_TRUE(one.send(std::string(kLongestPacket + 1, 'x')));
  Channel::Packet packet;
  EXPECT_EQ(two.receive(packet, true), Channel::Received::kEnded);
}

class Temporaries : public ::testing::Test {
 protected:
  testsupport::TempDir dir_;
};

TEST_F(Temporaries, AreForTheirOwnerOnlyAndRemovedWithTheirContent) {
  TempFolders folders(dir_.path());
  ASSERT_FALSE(folders.disk().empty()) << folders.problem();
  struct stat status {};
  ASSERT_EQ(stat(folders.disk().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0700U);
  const auto worker = WorkerFolders::make(folders, 1);
  std::filesystem::create_directory(worker.disk + "/inner");
  folders.remove();
  EXPECT_TRUE(std::filesystem::is_empty(dir_.path()));
}

TEST_F(Temporaries, WhatAKilledAgentLeftBehindIsRemoved) {
  dir_.write("tavagent-AAAAAA/12-1/unpacked", "content");
  TempFolders folders(dir_.path());
  EXPECT_FALSE(std::filesystem::exists(dir_.at("tavagent-AAAAAA")));
  folders.remove();
}

TEST_F(Temporaries, ThoseOfALivingAgentStay) {
  TempFolders first(dir_.path());
  TempFolders second(dir_.path());
  EXPECT_TRUE(std::filesystem::exists(first.disk()));
  EXPECT_NE(first.disk(), second.disk());
  first.remove();
  second.remove();
}

TEST_F(Temporaries, ALinkWithTheirNameIsNotFollowed) {
  const testsupport::TempDir other;
  other.write("kept", "content");
  std::filesystem::create_directory_symlink(other.path(), dir_.at("tavagent-BBBBBB"));
  TempFolders folders(dir_.path());
  EXPECT_TRUE(std::filesystem::exists(other.at("kept")));
  folders.remove();
}

TEST_F(Temporaries, OfAnEndedTemplateAreRemovedAlone) {
  TempFolders folders(dir_.path());
  std::filesystem::create_directory(folders.disk() + "/77-1");
  std::filesystem::create_directory(folders.disk() + "/777-1");
  WorkerFolders::removeOf(folders, 77);
  EXPECT_FALSE(std::filesystem::exists(folders.disk() + "/77-1"));
  EXPECT_TRUE(std::filesystem::exists(folders.disk() + "/777-1"));
  folders.remove();
}

}  // namespace
}  // namespace agent
