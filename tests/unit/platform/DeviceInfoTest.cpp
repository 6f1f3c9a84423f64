#include "ServerClient/platform/DeviceInfo.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "ServerClient/Common/Random.h"

namespace kel::platform {
namespace {

namespace fs = std::filesystem;

class DeviceInfoTest : public testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::temp_directory_path() / ("device-info-" + randomString(12));
    fs::create_directories(root_);
  }
  void TearDown() override { fs::remove_all(root_); }

  fs::path write(const std::string& name, const std::string& text) {
    std::ofstream(root_ / name) << text;
    return root_ / name;
  }

  fs::path root_;
};

TEST_F(DeviceInfoTest, TheIdentifierIsCreatedOnceAndKeptForTheInstallation) {
  const auto directory = root_ / "config" / "ServerClient";
  std::vector<std::optional<std::string>> seen(4);
  std::vector<std::thread> threads;
  for (auto& slot : seen) {
    threads.emplace_back([&] { slot = LinuxDeviceInfo(directory).identifierForVendor(); });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(seen[0].has_value());
  EXPECT_TRUE(isUUIDText(*seen[0]));
  for (const auto& other : seen) EXPECT_EQ(seen[0], other);
  EXPECT_EQ(seen[0], LinuxDeviceInfo(directory).identifierForVendor());
  // Only the identifier file is left behind.
  EXPECT_EQ(1, std::distance(fs::directory_iterator(directory), fs::directory_iterator()));

  write("config/ServerClient/device-id", "garbage\n");
  const auto replaced = LinuxDeviceInfo(directory).identifierForVendor();
  ASSERT_TRUE(replaced.has_value());
  EXPECT_NE(seen[0], replaced);
  EXPECT_EQ(replaced, LinuxDeviceInfo(directory).identifierForVendor());
  // Nowhere to write: no identifier.
  EXPECT_EQ(std::nullopt,
            LinuxDeviceInfo(write("blocker", "x") / "ServerClient").identifierForVendor());
}

TEST_F(DeviceInfoTest, SystemNameAndVersionComeFromOsRelease) {
  const auto osRelease = write("os-release",
                               "ID=debian\nNAME=\"Debian GNU/Linux\"\nVERSION_ID='12'\n"
                               "PRETTY_NAME=\"x\"\n");
  LinuxDeviceInfo info(root_, osRelease);
  EXPECT_EQ("Debian GNU/Linux", info.systemName());
  EXPECT_EQ("12", info.systemVersion());

  // Without the keys, uname answers.
  LinuxDeviceInfo bare(root_, write("empty-os-release", "ID=x\n"));
  EXPECT_EQ("Linux", bare.systemName());
  EXPECT_FALSE(bare.systemVersion().empty());
}

}  // namespace
}  // namespace kel::platform
