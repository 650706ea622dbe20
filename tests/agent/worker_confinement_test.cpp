// The worker template as a program of its own, seen from outside, and workers that are an attacker's.

#include <gmock/gmock.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include "Attempts.h"
#include "WorkerFixture.h"

namespace agent {
namespace {

using testing::describe;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using testsupport::eicar;

constexpr std::chrono::seconds kLoad(20);

class ConfinedWorkers : public testing::ConfinedWorkerFixture {
 protected:
  void SetUp() override {
    ConfinedWorkerFixture::SetUp();
    config().tempBytes = 64U << 20;
  }
  static std::string proc(pid_t process, const std::string& file) {
    return "/proc/" + std::to_string(process) + "/" + file;
  }
  static std::string statusOf(pid_t process, const std::string& key) {
    std::istringstream lines(testsupport::readFile(proc(process, "status")));
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with(key + ":")) {
        std::istringstream words(line.substr(key.size() + 1));
        std::string text;
        for (std::string word; words >> word;) {
          text += (text.empty() ? "" : " ") + word;
        }
        return text;
      }
    }
    return "missing";
  }
  static std::vector<std::string> entries(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      names.push_back(entry.path().filename());
    }
    return names;
  }
  /// The place of the C library in a process's memory.
  static std::string libraryPlace(const std::string& maps) {
    std::istringstream lines(testsupport::readFile(maps));
    for (std::string line; std::getline(lines, line);) {
      if (line.ends_with("libc.so.6")) {
        return line.substr(0, line.find('-'));
      }
    }
    return {};
  }
  /// On a thread whose children never have that right of root's, not even behind an execve.
  static void withoutNamespaces(const std::function<void()>& what) {
    std::thread([&] {
      ASSERT_EQ(prctl(PR_CAPBSET_DROP, CAP_SYS_ADMIN, 0, 0, 0), 0);
      __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
      std::array<__user_cap_data_struct, 2> now{};
      ASSERT_EQ(syscall(SYS_capget, &header, now.data()), 0);
      now[0].permitted &= ~(1U << CAP_SYS_ADMIN);
      now[0].effective = now[0].permitted;
      ASSERT_EQ(syscall(SYS_capset, &header, now.data()), 0);
      what();
    }).join();
  }
};

TEST_F(ConfinedWorkers, TemplateAndWorkersHaveNoRights) {
  const gid_t group = 60123;
  ASSERT_EQ(syscall(SYS_setgroups, 1, &group), 0);  // of this thread
  spawner();
  ASSERT_EQ(syscall(SYS_setgroups, 0, nullptr), 0);
  ASSERT_TRUE(spawner().waitLoaded(kLoad).loaded) << spawner().signatureState().detail;
  EXPECT_EQ(agent::describe(spawner().confinement()), "whole");
  WorkerPool pool(spawner(), 1);
  ASSERT_EQ(scan(pool, "file", eicar()).outcome, Outcome::kInfected) << describe(verdict("file"));
  for (const char* name : {"tav-template", "tav-worker"}) {
    const auto found = processesNamed(name);
    ASSERT_EQ(found.size(), 1U) << name;
    const std::string id = std::to_string(kUser);
    EXPECT_EQ(statusOf(found[0], "Uid"), id + " " + id + " " + id + " " + id) << name;
    EXPECT_EQ(statusOf(found[0], "Gid"), id + " " + id + " " + id + " " + id) << name;
    EXPECT_EQ(statusOf(found[0], "Groups"), "") << name;
    for (const char* set : {"CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb"}) {
      EXPECT_EQ(statusOf(found[0], set), "0000000000000000") << name << set;
    }
    EXPECT_EQ(statusOf(found[0], "NoNewPrivs"), "1") << name;
    EXPECT_EQ(statusOf(found[0], "Seccomp"), "2") << name;
    for (const char* space : {"ns/pid", "ns/mnt", "ns/net", "ns/ipc", "ns/uts"}) {
      EXPECT_NE(std::filesystem::read_symlink(proc(found[0], space)),
                std::filesystem::read_symlink(proc(getpid(), space)))
          << name << space;
    }
    EXPECT_GT(getpriority(PRIO_PROCESS, static_cast<id_t>(found[0])), getpriority(PRIO_PROCESS, 0)) << name;
    EXPECT_EQ(testsupport::readFile(proc(found[0], "environ")), "") << name;
  }
}

TEST_F(ConfinedWorkers, TheTemplateIsExecutedAnew) {
  ASSERT_TRUE(spawner().waitLoaded(kLoad).loaded);
  const pid_t process = processesNamed("tav-template").at(0);
  EXPECT_EQ(std::filesystem::read_symlink(proc(process, "exe")),
            std::filesystem::canonical(config().program));
  const std::string place = libraryPlace(proc(process, "maps"));
  EXPECT_NE(place, "");
  EXPECT_NE(place, libraryPlace("/proc/self/maps"));
}

TEST_F(ConfinedWorkers, TheirRootHoldsNothingButSignaturesAndTheirTemporaryFiles) {
  const std::string system = writeSystem();
  ASSERT_EQ(spawner().waitLoaded(kLoad).system, SystemDatabase::kInForce);
  const pid_t process = processesNamed("tav-template").at(0);
  const std::string root = proc(process, "root/");
  std::vector<std::string> expected{"unpacked"};
  for (const std::string& folder : {config().shippedSignatures, config().systemSignatures}) {
    const std::string first = folder.substr(1, folder.find('/', 1) - 1);
    if (std::find(expected.begin(), expected.end(), first) == expected.end()) {
      expected.push_back(first);
    }
  }
  EXPECT_THAT(entries(root), ::testing::UnorderedElementsAreArray(expected));
  EXPECT_THAT(entries(root + config().systemSignatures), ElementsAre("x.ndb"));
  EXPECT_LT(::open((root + system).c_str(), O_WRONLY), 0)
      << "signatures are read-only there, for root as well";
  EXPECT_EQ(errno, EROFS);
}

TEST_F(ConfinedWorkers, UnpackInTheirRootAndLeaveNothing) {
  WorkerPool pool(spawner(), 1);
  const std::string zip = testsupport::makeZip({{"test.com", eicar()}, {"big", std::string(20U << 20, 'x')}});
  EXPECT_EQ(scan(pool, "zip", zip).outcome, Outcome::kInfected) << describe(verdict("zip"));
  const pid_t process = processesNamed("tav-worker").at(0);
  EXPECT_THAT(entries(proc(process, "cwd")), ElementsAre());
  for (const std::string& folder : spawner().temporaryFolders()) {
    EXPECT_THAT(entries(folder), ElementsAre()) << "the agent's folders are not used";
  }
}

TEST_F(ConfinedWorkers, AFullRootIsAnErrorOfTheFile) {
  config().tempBytes = 1U << 20;
  WorkerPool pool(spawner(), 1);
  const std::string zip = testsupport::makeZip({{"big", std::string(20U << 20, 'x')}});
  EXPECT_EQ(scan(pool, "zip", zip).outcome, Outcome::kError) << describe(verdict("zip"));
  EXPECT_EQ(scan(pool, "next", eicar()).outcome, Outcome::kInfected) << describe(verdict("next"));
}

TEST_F(ConfinedWorkers, AReloadAndADeadTemplateBringConfinedWorkers) {
  ASSERT_TRUE(spawner().waitLoaded(kLoad).loaded);
  ASSERT_TRUE(spawner().reload());
  EXPECT_EQ(agent::describe(spawner().confinement()), "whole");
  ASSERT_TRUE(testsupport::waitFor([] { return processesNamed("tav-template").size() == 1; }));
  kill(processesNamed("tav-template").at(0), SIGKILL);
  WorkerPool pool(spawner(), 1);
  EXPECT_EQ(scan(pool, "file", eicar()).outcome, Outcome::kInfected) << describe(verdict("file"));
}

TEST_F(ConfinedWorkers, AllEndWithTheSpawner) {
  WorkerPool pool(spawner(), 1);
  scan(pool, "file", "some text");
  kill(processesNamed("tav-spawner").at(0), SIGKILL);
  EXPECT_TRUE(
      testsupport::waitFor([] { return processesNamed("tav-template").empty() && workerCount() == 0; }));
}

TEST_F(ConfinedWorkers, AProgramThatCannotBeStartedIsNamed) {
  config().program = dir().at("none");
  const auto state = spawner().waitLoaded(kLoad);
  EXPECT_FALSE(state.loaded);
  EXPECT_THAT(state.detail, HasSubstr(dir().at("none") + " cannot be started: No such file"));
}

TEST_F(ConfinedWorkers, SignaturesThatOnlyRootMayReadAreNotRead) {
  writeSystem();
  ASSERT_EQ(chmod(dir().at("system/x.ndb").c_str(), 0600), 0);
  EXPECT_EQ(spawner().waitLoaded(kLoad).system, SystemDatabase::kLeftOut)
      << spawner().signatureState().detail;
}

TEST_F(ConfinedWorkers, AFileThatIsOpenForWritingIsNotHandedOver) {
  WorkerPool pool(spawner(), 1);
  const std::string path = dir().write("file", "some text");
  pool.scan(platform::Descriptor(::open(path.c_str(), O_RDWR | O_CLOEXEC)), path, {}, keep("file"));
  pool.drain();
  EXPECT_THAT(verdict("file").reason, HasSubstr("it is open for writing"));
}

TEST_F(ConfinedWorkers, WithoutNamespacesScanAndNameThem) {
  withoutNamespaces([this] {
    ASSERT_TRUE(spawner().waitLoaded(kLoad).loaded) << spawner().signatureState().detail;
    {
      WorkerPool pool(spawner(), 1);
      scan(pool, "file", eicar());
      scan(pool, "zip", testsupport::makeZip({{"test.com", eicar()}}));
      EXPECT_EQ(statusOf(processesNamed("tav-worker").at(0), "Seccomp"), "2");
      EXPECT_EQ(statusOf(processesNamed("tav-worker").at(0), "CapEff"), "0000000000000000");
    }
    endSpawner();  // before the thread that started it
  });
  EXPECT_EQ(verdict("file").outcome, Outcome::kInfected) << describe(verdict("file"));
  EXPECT_EQ(verdict("zip").outcome, Outcome::kInfected) << describe(verdict("zip"));
}

TEST_F(ConfinedWorkers, WithoutNamespacesEachMissingPartIsNamed) {
  std::string text;
  withoutNamespaces([&] {
    spawner().waitLoaded(kLoad);
    text = agent::describe(spawner().confinement());
    endSpawner();
  });
  for (const char* part : {"pid namespace", "mount namespace", "network namespace", "IPC namespace"}) {
    EXPECT_THAT(text, HasSubstr(std::string(part) + " (Operation not permitted)"));
  }
  EXPECT_THAT(text, Not(HasSubstr("user")));
}

TEST_F(ConfinedWorkers, WithoutNamespacesScanNothingWhereTheSettingSaysSo) {
  config().unconfined = Unconfined::kNever;
  SignatureState state;
  withoutNamespaces([&] {
    state = spawner().waitLoaded(kLoad);
    endSpawner();
  });
  EXPECT_FALSE(state.loaded);
  EXPECT_THAT(state.detail, HasSubstr("cannot be confined: without pid namespace"));
}

TEST_F(ConfinedWorkers, OfAnAgentThatIsNotRootLackTheirOwnUserOnly) {
  config().user = {};
  ASSERT_EQ(chown(dir().path().c_str(), kUser, kUser), 0);
  std::thread([this] {
    ASSERT_EQ(syscall(SYS_setresuid, kUser, kUser, kUser), 0);  // this thread only
    ASSERT_TRUE(spawner().waitLoaded(kLoad).loaded) << spawner().signatureState().detail;
    EXPECT_EQ(agent::describe(spawner().confinement()),
              "without own user: the agent is not root (Operation not permitted)");
    {
      WorkerPool pool(spawner(), 1);
      scan(pool, "file", testsupport::makeZip({{"test.com", eicar()}}));
      EXPECT_EQ(statusOf(processesNamed("tav-worker").at(0), "CapEff"), "0000000000000000");
      EXPECT_EQ(statusOf(processesNamed("tav-worker").at(0), "CapBnd"), "0000000000000000");
    }
    endSpawner();
  }).join();
  EXPECT_EQ(verdict("file").outcome, Outcome::kInfected) << describe(verdict("file"));
}

TEST_F(ConfinedWorkers, AsRootScanOnlyWhereTheSettingSaysSo) {
  config().user = {~0U, kUser};  // no user: the processes stay root
  EXPECT_THAT(spawner().waitLoaded(kLoad).detail, HasSubstr("cannot be confined: without own user"));
  endSpawner();
  config().unconfined = Unconfined::kAlways;
  EXPECT_TRUE(spawner().waitLoaded(kLoad).loaded) << spawner().signatureState().detail;
}

TEST(Confinements, AreDescribedInOneLine) {
  EXPECT_EQ(describe(ConfinementState{}), "not known yet");
  EXPECT_EQ(describe(ConfinementState{true, {}, false}), "whole");
  EXPECT_EQ(describe(ConfinementState{true, {"a (x)", "b (y)"}, false}), "without a (x); b (y)");
}

TEST(Confinements, AllowAScanByTheirSetting) {
  const ConfinementState whole{true, {}, false};
  const ConfinementState most{true, {"pid namespace"}, false};
  const ConfinementState little{true, {"own user"}, true};
  EXPECT_TRUE(mayScan(whole, Unconfined::kNever));
  EXPECT_FALSE(mayScan(most, Unconfined::kNever));
  EXPECT_TRUE(mayScan(most, Unconfined::kWithoutNamespaces));
  EXPECT_FALSE(mayScan(little, Unconfined::kWithoutNamespaces));
  EXPECT_TRUE(mayScan(little, Unconfined::kAlways));
}

class Attackers : public ConfinedWorkers, public ::testing::WithParamInterface<testing::Attempt> {
 protected:
  void SetUp() override {
    ConfinedWorkers::SetUp();
    config().program = TAV_BIN_DIR "/tav_scan_attempts";
  }
};

TEST_P(Attackers, FailToDoIt) {
#ifdef TAV_SANITIZED
  if (GetParam().needsMemoryLimit) {
    GTEST_SKIP() << "under a sanitizer a worker's memory has no limit";
  }
#endif
  WorkerPool pool(spawner(), 1);
  const Verdict result = scan(pool, GetParam().name, "some text");
  if (GetParam().call != nullptr) {
    EXPECT_EQ(result.reason, std::string("the process that scanned the file was ended: it called ") +
                                 GetParam().call + ", which the filter of its system calls refuses");
  } else {
    EXPECT_EQ(result.outcome, Outcome::kClean) << describe(result);
  }
  EXPECT_EQ(testsupport::readFile(dir().at(GetParam().name)), "some text");
  EXPECT_EQ(scan(pool, "next", eicar()).outcome, Outcome::kInfected) << describe(verdict("next"));
}

INSTANTIATE_TEST_SUITE_P(Each, Attackers, ::testing::ValuesIn(testing::kAttempts),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace agent
