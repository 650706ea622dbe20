#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "lunet/BusClient.h"
#include "support/Reason.h"
#include "support/TempDir.h"

namespace {

using testsupport::reasonOf;

constexpr const char* kLibrary = TAV_LIB_DIR "/libLunetClientMgr.so";

std::string fake(const char* kind) {
  return std::string(TAV_LIB_DIR "/liblunet_fake_") + kind + ".so";
}

}  // namespace

TEST(LoaderTest, TheLibraryIsLoadedAndGivesAClient) {
  lunet::BusClient library;
  EXPECT_EQ(reasonOf(library.load(kLibrary)), "");
  EXPECT_NE(library.client(), nullptr);
  EXPECT_EQ(reasonOf(library.close()), "");
  EXPECT_EQ(library.client(), nullptr);
}

TEST(LoaderTest, TheLibraryIsLoadedOnce) {
  lunet::BusClient library;
  ASSERT_EQ(reasonOf(library.load(kLibrary)), "");
  EXPECT_EQ(reasonOf(library.load(kLibrary)), "the bus library is loaded already");
}

TEST(LoaderTest, ANameWithoutAFolderIsTheFileInTheCurrentFolder) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(TAV_LIB_DIR);
  lunet::BusClient library;
  EXPECT_EQ(reasonOf(library.load("libLunetClientMgr.so")), "");
  std::filesystem::current_path(before);
}

TEST(LoaderTest, UnloadingEndsTheClientAndGivesItsAddressesUp) {
  testsupport::TempDir tree;
  const std::string socket = tree.at(std::string("run/lunet/") + lunet::kAgentGuid + ".sock");
  lunet::BusClient library;
  ASSERT_EQ(reasonOf(library.load(kLibrary)), "");
  ASSERT_EQ(library.client()->Init(("{\"runtime_path\":\"" + tree.path() + "\"}").c_str(), "test"),
            lunet::kOk);
  ASSERT_EQ(library.client()->CreateEndpoint()->Open(lunet::parseGuid(lunet::kAgentGuid)), lunet::kOk);
  EXPECT_TRUE(std::filesystem::exists(socket));
  EXPECT_EQ(reasonOf(library.close()), "");
  EXPECT_FALSE(std::filesystem::exists(socket));
}

TEST(LoaderTest, WhatIsNotLoadedOrClosedAlreadyClosesWithoutAFailure) {
  lunet::BusClient library;
  EXPECT_EQ(reasonOf(library.close()), "");
  ASSERT_EQ(reasonOf(library.load(kLibrary)), "");
  EXPECT_EQ(reasonOf(library.close()), "");
  EXPECT_EQ(reasonOf(library.close()), "");
}

TEST(LoaderTest, AMissingLibraryGivesTheDlopenLine) {
  lunet::BusClient library;
  const std::string why = reasonOf(library.load("/nowhere/libLunetClientMgr.so"));
  EXPECT_TRUE(why.starts_with("dlopen failed: ")) << why;
  EXPECT_TRUE(why.ends_with(".")) << why;
  EXPECT_NE(why.find("/nowhere/libLunetClientMgr.so"), std::string::npos) << why;
}

TEST(LoaderTest, ALibraryWithoutCreateInstanceIsNamed) {
  lunet::BusClient library;
  const std::string why = reasonOf(library.load(fake("no_create")));
  EXPECT_TRUE(why.starts_with("dlsym CreateInstance failed: ")) << why;
}

TEST(LoaderTest, ALibraryThatGivesNoClientIsNamed) {
  lunet::BusClient library;
  EXPECT_EQ(reasonOf(library.load(fake("no_client"))), "the bus library gave no client");
}

TEST(LoaderTest, ALibraryWithoutDestoryInstanceIsNamedAndUnloaded) {
  lunet::BusClient library;
  ASSERT_EQ(reasonOf(library.load(fake("no_destory"))), "");
  const std::string why = reasonOf(library.close());
  EXPECT_TRUE(why.starts_with("dlsym DestoryInstance failed: ")) << why;
  EXPECT_EQ(library.client(), nullptr);
  EXPECT_EQ(dlopen(fake("no_destory").c_str(), RTLD_LAZY | RTLD_NOLOAD), nullptr);
}

TEST(LoaderTest, ALibraryThatOthersCanWriteIsNotRun) {
  testsupport::TempDir dir;
  const std::string copy = dir.at("libLunetClientMgr.so");
  std::filesystem::copy_file(kLibrary, copy);
  ASSERT_EQ(chmod(copy.c_str(), 0777), 0);
  lunet::BusClient library;
  const std::string why = reasonOf(library.load(copy));
  EXPECT_TRUE(why.starts_with("the bus library is not loaded: ")) << why;
  EXPECT_NE(why.find(copy), std::string::npos) << why;
  EXPECT_EQ(library.client(), nullptr);
}

TEST(LoaderTest, ALibraryInAFolderThatOthersCanWriteIsNotRun) {
  testsupport::TempDir dir;
  std::filesystem::create_directory(dir.at("modules"));
  const std::string copy = dir.at("modules/libLunetClientMgr.so");
  std::filesystem::copy_file(kLibrary, copy);
  ASSERT_EQ(chmod(dir.at("modules").c_str(), 0777), 0);
  lunet::BusClient library;
  EXPECT_NE(reasonOf(library.load(copy)).find("can be written by others"), std::string::npos);
}

TEST(LoaderTest, ALinkToALibraryThatOthersCanWriteIsNotRun) {
  testsupport::TempDir dir;
  std::filesystem::create_directory(dir.at("theirs"));
  std::filesystem::copy_file(kLibrary, dir.at("theirs/lib.so"));
  ASSERT_EQ(chmod(dir.at("theirs").c_str(), 0777), 0);
  std::filesystem::create_symlink(dir.at("theirs/lib.so"), dir.at("lib.so"));
  lunet::BusClient library;
  EXPECT_NE(reasonOf(library.load(dir.at("lib.so"))).find("can be written by others"), std::string::npos);
}

TEST(LoaderTest, OnlyTheTwoEntryPointsAreVisible) {
  void* handle = dlopen(kLibrary, RTLD_LAZY);
  ASSERT_NE(handle, nullptr);
  EXPECT_NE(dlsym(handle, "CreateInstance"), nullptr);
  EXPECT_NE(dlsym(handle, "DestoryInstance"), nullptr);
  EXPECT_EQ(dlsym(handle, "_ZN5lunet6ClientC1Ev"), nullptr);
  EXPECT_EQ(dlsym(handle, "_ZN5lunet9parseGuidEPKc"), nullptr);
  dlclose(handle);
}

TEST(LoaderTest, AnotherInterfaceGetsNoClient) {
  void* handle = dlopen(kLibrary, RTLD_LAZY);
  ASSERT_NE(handle, nullptr);
  const auto create = reinterpret_cast<lunet::CreateInstanceFn>(dlsym(handle, "CreateInstance"));
  EXPECT_EQ(create(lunet::kAgentGuid), nullptr);
  EXPECT_EQ(create(nullptr), nullptr);
  dlclose(handle);
}

TEST(LoaderTest, AClientIsNotDestroyedAsAnotherInterface) {
  testsupport::TempDir tree;
  void* handle = dlopen(kLibrary, RTLD_LAZY);
  ASSERT_NE(handle, nullptr);
  const auto create = reinterpret_cast<lunet::CreateInstanceFn>(dlsym(handle, "CreateInstance"));
  const auto destroy = reinterpret_cast<lunet::DestoryInstanceFn>(dlsym(handle, "DestoryInstance"));
  lunet::IClient* const client = create(lunet::kInterfaceGuid);
  ASSERT_EQ(client->Init(("{\"runtime_path\":\"" + tree.path() + "\"}").c_str(), "test"), lunet::kOk);
  lunet::IEndpoint* const endpoint = client->CreateEndpoint();
  ASSERT_EQ(endpoint->Open(lunet::parseGuid(lunet::kAgentGuid)), lunet::kOk);
  destroy(lunet::kAgentGuid, client);
  destroy(nullptr, client);
  EXPECT_EQ(client->Connect(10), lunet::kOk);
  destroy(lunet::kInterfaceGuid, client);
  dlclose(handle);
}

TEST(LoaderTest, AGoodLibraryBehindAnotherUsersLinkIsNotRun) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a link to a second user";
  }
  testsupport::TempDir dir;
  std::filesystem::create_directory_symlink(TAV_LIB_DIR, dir.at("lib"));
  ASSERT_EQ(lchown(dir.at("lib").c_str(), 12345, 12345), 0);
  lunet::BusClient library;
  EXPECT_NE(reasonOf(library.load(dir.at("lib/libLunetClientMgr.so"))).find("lib belongs to user 12345"),
            std::string::npos);
}
