// Links and foreign folders, planted by a second user while the agent as root quarantines and restores files.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "e2e/AgentTree.h"
#include "e2e/SecondUser.h"
#include "json/Values.h"
#include "support/Json.h"
#include "support/Samples.h"

namespace {

using json::TaskState;
using ::testing::HasSubstr;
using testsupport::AgentTree;
using testsupport::eicar;
using testsupport::jsonOf;
using testsupport::kSecondUser;
using testsupport::PeerConsole;
using testsupport::readFile;

class PlantedByASecondUser : public ::testing::Test {
 protected:
  void SetUp() override {
    folder("user", kSecondUser);
    folder("roots", 0);
  }
  std::string folder(const std::string& name, uid_t owner) {
    const std::string path = tree.data() + "/" + name;
    std::filesystem::create_directories(path);
    EXPECT_EQ(0, chmod(path.c_str(), 0755));
    EXPECT_EQ(0, chown(path.c_str(), owner, owner == 0 ? 0 : testsupport::kSecondUsersOwnGroup));
    return path;
  }
  std::string file(const std::string& name, uid_t owner) {
    const std::string path = tree.write(name, eicar());
    EXPECT_EQ(0, chown(path.c_str(), owner, owner == 0 ? 0 : testsupport::kSecondUsersOwnGroup));
    return path;
  }
  void scan(PeerConsole& console) {
    const Json::Value answer = console.startScan({tree.data()}, jsonOf(R"({"fix_method":0})"));
    EXPECT_TRUE(console.waitForState(TaskState::kFinished, answer["token_id"].asString())) << tree.log();
  }
  /// Quarantines a detection of the second user. Returns its id.
  std::string quarantined(PeerConsole& console) {
    file("user/own", kSecondUser);
    scan(console);
    const Json::Value items = console.call("getIsolationInfo", Json::Value());
    EXPECT_EQ(1U, items.size()) << tree.log();
    return items[0]["uuid"].asString();
  }
  /// Restores the item. Returns "", or the reason of a failure.
  std::string restore(PeerConsole& console, const std::string& uuid, const std::string& where = "") {
    Json::Value request = jsonOf(R"({"ctx":null,"desc":"","source":1,"token_id":""})");
    request["params"] = jsonOf(R"({"action":1,"item_number":0,"is_all":false,"items":[]})");
    request["params"]["custom_path"] = where;
    request["params"]["items"].append(uuid);
    const Json::Value answer = console.call("startDeIsolate", request);
    EXPECT_EQ(answer["status"].asBool(), answer["detail"].empty()) << answer.toStyledString();
    return answer["status"].asBool() ? "" : answer["detail"][0]["reason"].asString();
  }
  static bool isEmpty(const std::string& path) { return std::filesystem::is_empty(path); }

  AgentTree tree{{.group = testsupport::secondUsersGroup(), .start = true, .uid = {}}};
  const std::string userFolder = tree.data() + "/user";
  const std::string roots = tree.data() + "/roots";
};

TEST_F(PlantedByASecondUser, HisOwnItemComesBackIntoHisFolderAndIntoNoneOfRoots) {
  PeerConsole user(tree, testsupport::secondUser());
  const std::string uuid = quarantined(user);
  EXPECT_THAT(restore(user, uuid, roots), HasSubstr("Permission denied"));
  EXPECT_TRUE(isEmpty(roots));
  EXPECT_EQ("", restore(user, uuid));
  EXPECT_EQ(eicar(), readFile(userFolder + "/own"));
}

TEST_F(PlantedByASecondUser, AFolderThatBecameRootsIsNotWrittenFor) {
  PeerConsole user(tree, testsupport::secondUser());
  const std::string uuid = quarantined(user);
  ASSERT_EQ(0, chown(userFolder.c_str(), 0, 0));
  EXPECT_THAT(restore(user, uuid), HasSubstr("Permission denied"));
  EXPECT_TRUE(isEmpty(userFolder));
  EXPECT_EQ(1U, user.call("getIsolationInfo", Json::Value()).size());
}

TEST_F(PlantedByASecondUser, ALinkInPlaceOfTheFolderIsNotRestoredThroughForAnybody) {
  std::string uuid;
  {
    PeerConsole user(tree, testsupport::secondUser());
    uuid = quarantined(user);
    std::filesystem::rename(userFolder, userFolder + "-moved");
    ASSERT_EQ(0, symlink(roots.c_str(), userFolder.c_str()));
    ASSERT_EQ(0, lchown(userFolder.c_str(), kSecondUser, 0));
    EXPECT_NE("", restore(user, uuid));
  }
  PeerConsole root(tree);
  EXPECT_THAT(restore(root, uuid), HasSubstr("link"));
  EXPECT_TRUE(isEmpty(roots));
  EXPECT_EQ(1U, root.call("getIsolationInfo", Json::Value()).size());
}

TEST_F(PlantedByASecondUser, ALinkInPlaceOfTheFileIsAnExistingFileAndStays) {
  PeerConsole user(tree, testsupport::secondUser());
  const std::string uuid = quarantined(user);
  ASSERT_EQ(0, symlink((roots + "/new").c_str(), (userFolder + "/own").c_str()));
  EXPECT_NE("", restore(user, uuid));
  EXPECT_TRUE(isEmpty(roots));
  EXPECT_TRUE(std::filesystem::is_symlink(userFolder + "/own"));
}

TEST_F(PlantedByASecondUser, AFolderExchangedForALinkAllTheTimeCostsRootNothingWhileRootScans) {
  // The same names lie in root's folder, outside of what is scanned, and are harmless there.
  const std::string outside = tree.at("outside");
  std::filesystem::create_directories(outside);
  constexpr int kFiles = 60;
  for (int i = 0; i < kFiles; ++i) {
    file("user/sub/" + std::to_string(i), kSecondUser);
    std::ofstream(outside + "/" + std::to_string(i)) << "root's " << i;
  }
  const std::string sub = userFolder + "/sub";
  PeerConsole root(tree);
  std::atomic<bool> over{false};
  std::thread exchanger([&] {
    while (!over) {
      rename(sub.c_str(), (sub + "-away").c_str());
      EXPECT_EQ(0, symlink(outside.c_str(), sub.c_str()));
      unlink(sub.c_str());
      rename((sub + "-away").c_str(), sub.c_str());
    }
  });
  scan(root);
  over = true;
  exchanger.join();
  for (int i = 0; i < kFiles; ++i) {
    EXPECT_EQ("root's " + std::to_string(i), readFile(outside + "/" + std::to_string(i)));
  }
  int there = 0;
  for (const auto& entry : std::filesystem::directory_iterator(sub)) {
    ++there;
    EXPECT_EQ(eicar(), readFile(entry.path())) << entry.path();
  }
  EXPECT_EQ(kFiles, there + static_cast<int>(root.call("getIsolationInfo", Json::Value()).size()));
}

}  // namespace
