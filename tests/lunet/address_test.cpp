#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <thread>

#include "BusFixture.h"
#include "platform/Descriptor.h"
#include "support/Wait.h"

using namespace lunettest;
namespace fs = std::filesystem;

namespace {

enum class Planted { kFifo, kFolder, kSocket, kLink };

void plant(Planted what, const std::string& path) {
  switch (what) {
    case Planted::kFifo:
      ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
      break;
    case Planted::kFolder:
      fs::create_directories(path + "/with/content");
      break;
    case Planted::kSocket:
      ASSERT_EQ(mknod(path.c_str(), S_IFSOCK | 0600, 0), 0);
      break;
    case Planted::kLink:
      fs::create_symlink("/etc/passwd", path);
      break;
  }
}

}  // namespace

class AddressTest : public BusTest {
 protected:
  AddressTest() { installTree(); }
  std::vector<std::string> listen(const lunet::Guid& guid) const {
    return lunetctl({"listen", lunet::formatGuid(guid)});
  }
  std::size_t filesInFolder() const {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(socketFolder()), {}));
  }

  Client client{config()};
  const lunet::Guid address = newGuid();
};

TEST_F(AddressTest, OpeningAnAddressThatIsAliveElsewhereFails) {
  Player player(listen(address));
  ASSERT_TRUE(player.ready());
  Endpoint second(client);
  EXPECT_EQ(second->Open(address), lunet::kErrInUse);
  player.process.closeInput();
  EXPECT_EQ(player.process.wait(), 0);
  EXPECT_EQ(second->Open(address), lunet::kOk);
}

TEST_F(AddressTest, OpeningAnAddressThatIsAliveInThisProcessFails) {
  Endpoint first(client, address);
  Endpoint second(client);
  EXPECT_EQ(second->Open(address), lunet::kErrInUse);
  EXPECT_EQ(first->Open(newGuid()), lunet::kErrInUse);
}

TEST_F(AddressTest, WhatACrashLeftIsTakenOver) {
  {
    Player player(listen(address));
    ASSERT_TRUE(player.ready());
    player.process.kill(SIGKILL);
    player.process.wait();
  }
  EXPECT_TRUE(fs::exists(socketOf(address)));
  Endpoint server(client, address, echo);
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(address, "x").data, "x");
}

TEST_F(AddressTest, WhatACrashLeftIsTakenOverByExactlyOne) {
  {
    Player player(listen(address));
    ASSERT_TRUE(player.ready());
    player.process.kill(SIGKILL);
    player.process.wait();
  }
  std::vector<std::unique_ptr<Endpoint>> endpoints;
  std::vector<std::future<std::uint32_t>> opened;
  for (int i = 0; i < 8; ++i) {
    endpoints.push_back(std::make_unique<Endpoint>(client, echo));
    lunet::IEndpoint* endpoint = endpoints.back()->get();
    opened.push_back(std::async(std::launch::async, [this, endpoint] { return endpoint->Open(address); }));
  }
  int winners = 0;
  for (std::future<std::uint32_t>& each : opened) {
    const std::uint32_t error = each.get();
    EXPECT_TRUE(error == lunet::kOk || error == lunet::kErrInUse) << error;
    winners += error == lunet::kOk ? 1 : 0;
  }
  EXPECT_EQ(winners, 1);
  Endpoint caller(client, newGuid());
  EXPECT_EQ(caller.call(address, "x").data, "x");
}

TEST_F(AddressTest, AnAddressThatIsGivenBackLeavesNoFile) {
  {
    Endpoint endpoint(client, address);
    EXPECT_EQ(filesInFolder(), 2u);
  }
  EXPECT_EQ(filesInFolder(), 0u);
}

TEST_F(AddressTest, OpeningAndClosingByManyAtOnceNeverGivesTheAddressTwice) {
  std::atomic<int> holders{0};
  std::atomic<bool> twice{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      Endpoint endpoint(client);
      for (int i = 0; i < 50; ++i) {
        if (endpoint->Open(address) == lunet::kOk) {
          twice = twice || ++holders > 1;
          --holders;
          endpoint->Close();
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_FALSE(twice);
}

TEST_F(AddressTest, RootAndTheFoldersOwnerClearWhatOthersLeft) {
  const lunet::Guid crashed = newGuid();
  {
    Player player(listen(crashed));
    ASSERT_TRUE(player.ready());
    player.process.kill(SIGKILL);
    player.process.wait();
  }
  Player alive(listen(address));
  ASSERT_TRUE(alive.ready());
  Endpoint endpoint(client, newGuid());
  EXPECT_FALSE(fs::exists(socketOf(crashed)));
  EXPECT_FALSE(fs::exists(socketFolder() + "/" + lunet::formatGuid(crashed) + ".lock"));
  EXPECT_TRUE(fs::exists(socketOf(address)));
  EXPECT_EQ(endpoint.send(address, "x"), lunet::kOk);
}

TEST_F(AddressTest, APlantedLinkInPlaceOfTheLockIsNotFollowed) {
  { Endpoint endpoint(client, newGuid()); }  // makes the folder
  tree.write("precious", "content");
  const std::string lock = socketFolder() + "/" + lunet::formatGuid(address) + ".lock";
  fs::create_symlink(tree.at("precious"), lock);
  Endpoint endpoint(client, address);
  EXPECT_FALSE(fs::is_symlink(lock));
  EXPECT_EQ(testsupport::readFile(tree.at("precious")), "content");
}

TEST_F(AddressTest, TheSocketAndItsFolderArePrivateWithoutAGroup) {
  Endpoint endpoint(client, address);
  struct stat st {};
  ASSERT_EQ(stat(socketOf(address).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777u, 0600u);
  ASSERT_EQ(stat(socketFolder().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777u, 0700u);
}

TEST_F(AddressTest, AFolderWhosePathsAreTooLongIsReportedWithTheReason) {
  static std::string seen;
  Client far(config("\"socket_dir\":\"" + std::string(100, 'd') + "\",\"log_level\":0"));
  far->SetLogCallback([](int, const char* text) { seen = text; });
  Endpoint endpoint(far);
  EXPECT_EQ(endpoint->Open(address), lunet::kErrPath);
  EXPECT_NE(seen.find("107"), std::string::npos) << seen;
  seen.clear();
  EXPECT_EQ(far->Connect(10), lunet::kErrPath);
  EXPECT_NE(seen.find("107"), std::string::npos) << seen;
}

struct PlantedRow {
  const char* name;
  Planted what;
  const char* suffix;
};

class PlantedTest : public AddressTest, public testing::WithParamInterface<PlantedRow> {};

TEST_P(PlantedTest, AtOneOfTheNamesOfAnAddressKeepsNobodyFromIt) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give what is planted to a second user";
  }
  { Endpoint endpoint(client, newGuid()); }  // makes the folder
  const std::string path = socketFolder() + "/" + lunet::formatGuid(address) + GetParam().suffix;
  plant(GetParam().what, path);
  // The file is another user's, as in a folder for a group. Root opens the address.
  ASSERT_EQ(lchown(path.c_str(), 23456, 23456), 0);
  {
    Endpoint server(client, address, echo);
    Endpoint caller(client, newGuid());
    EXPECT_EQ(caller.call(address, "x").data, "x");
  }
  EXPECT_EQ(filesInFolder(), GetParam().what == Planted::kFolder ? 1u : 0u);  // the folder's content stays
  Endpoint again(client);
  EXPECT_EQ(again->Open(address), lunet::kOk);
}

INSTANTIATE_TEST_SUITE_P(Table, PlantedTest,
                         testing::Values(PlantedRow{"AFifoForTheLock", Planted::kFifo, ".lock"},
                                         PlantedRow{"AFolderForTheLock", Planted::kFolder, ".lock"},
                                         PlantedRow{"ASocketForTheLock", Planted::kSocket, ".lock"},
                                         PlantedRow{"ALinkForTheLock", Planted::kLink, ".lock"},
                                         PlantedRow{"AFifoForTheNewSocket", Planted::kFifo, ".new"},
                                         PlantedRow{"AFolderForTheNewSocket", Planted::kFolder, ".new"},
                                         PlantedRow{"ASocketForTheNewSocket", Planted::kSocket, ".new"},
                                         PlantedRow{"ALinkForTheNewSocket", Planted::kLink, ".new"},
                                         PlantedRow{"AFifoForTheSocket", Planted::kFifo, ".sock"},
                                         PlantedRow{"AFolderForTheSocket", Planted::kFolder, ".sock"},
                                         PlantedRow{"ASocketForTheSocket", Planted::kSocket, ".sock"},
                                         PlantedRow{"ALinkForTheSocket", Planted::kLink, ".sock"}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(AddressTest, WhoClearsLeftoversKeepsNobodyFromAFreeAddress) {
  { Endpoint endpoint(client, newGuid()); }  // makes the folder
  const std::string lock = socketFolder() + "/" + lunet::formatGuid(address) + ".lock";
  const std::jthread other([&lock](const std::stop_token& ended) {  // holds the lock half of the time
    const auto moment = std::chrono::milliseconds(1);
    while (!ended.stop_requested()) {
      const platform::Descriptor file(open(lock.c_str(), O_RDWR | O_CLOEXEC));
      if (file && flock(file.get(), LOCK_EX | LOCK_NB) == 0) {
        std::this_thread::sleep_for(moment);
        flock(file.get(), LOCK_UN);
      }
      std::this_thread::sleep_for(moment);
    }
  });
  Endpoint endpoint(client);
  for (int i = 0; i < 50; ++i) {
    tree.write("run/lunet/" + lunet::formatGuid(address) + ".lock", "");  // free, as after a crash
    ASSERT_EQ(endpoint->Open(address), lunet::kOk) << "attempt " << i;
    endpoint->Close();
  }
}
