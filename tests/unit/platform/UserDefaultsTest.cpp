#include "ServerClient/platform/UserDefaults.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/LogCapture.h"

namespace kel::platform {
namespace {

namespace fs = std::filesystem;

class UserDefaultsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "kel-defaults-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    directory_ = pattern;
    path_ = directory_ / "nested" / "defaults.json";
  }
  void TearDown() override { fs::remove_all(directory_); }

  static std::string contents(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }
  static void write(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
  }
  std::size_t filesInDirectory() const {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(path_.parent_path()), fs::directory_iterator()));
  }

  fs::path directory_;
  fs::path path_;
};

TEST_F(UserDefaultsTest, ValuesSurviveANewInstanceAndTypesDoNotCross) {
  {
    FileUserDefaults defaults(path_);
    EXPECT_FALSE(defaults.boolForKey("io.kelclient.sdk"));
    EXPECT_FALSE(defaults.setBool(true, "io.kelclient.sdk"));
    EXPECT_FALSE(defaults.setString("h\xc3\xa9llo \"quoted\"", "name"));
    EXPECT_FALSE(defaults.setBool(true, "gone"));
    EXPECT_FALSE(defaults.removeObject("gone"));
  }
  FileUserDefaults reread(path_);
  EXPECT_TRUE(reread.boolForKey("io.kelclient.sdk"));
  EXPECT_EQ(reread.stringForKey("name"), "h\xc3\xa9llo \"quoted\"");
  EXPECT_FALSE(reread.boolForKey("gone"));
  EXPECT_FALSE(reread.boolForKey("name"));
  EXPECT_EQ(reread.stringForKey("io.kelclient.sdk"), std::nullopt);

  EXPECT_FALSE(reread.setBool(false, "io.kelclient.sdk"));
  EXPECT_FALSE(FileUserDefaults(path_).boolForKey("io.kelclient.sdk"));
  // Only the file itself remains: no temporary file is left behind.
  EXPECT_EQ(filesInDirectory(), 1u);
}

TEST_F(UserDefaultsTest, InvalidUTF8IsRefusedAndNothingChanges) {
  FileUserDefaults defaults(path_);
  EXPECT_EQ(defaults.setString("\xff", "key"), std::errc::illegal_byte_sequence);
  EXPECT_EQ(defaults.setBool(true, "\xc0\x80"), std::errc::illegal_byte_sequence);
  EXPECT_EQ(defaults.stringForKey("key"), std::nullopt);
  EXPECT_FALSE(fs::exists(path_));
}

TEST_F(UserDefaultsTest, CorruptOrForeignFileReadsAsEmptyWithALoggedErrorAndIsReplaced) {
  const std::string texts[] = {"{\"flag\": tru", "[true]", std::string("\0\x01", 2), ""};
  for (const std::string& text : texts) {
    write(path_, text);
    kel::testing::LogCapture log;
    FileUserDefaults defaults(path_);
    EXPECT_FALSE(defaults.boolForKey("flag")) << text;
    EXPECT_TRUE(log.contains("not a JSON object")) << text;
  }

  write(path_, R"({"flag": true, "number": 3, "name": "x"})");
  {
    kel::testing::LogCapture log;
    FileUserDefaults defaults(path_);
    EXPECT_TRUE(defaults.boolForKey("flag"));
    EXPECT_EQ(defaults.stringForKey("name"), "x");
    EXPECT_TRUE(log.contains("ignoring \"number\""));
  }

  write(path_, "garbage");
  FileUserDefaults defaults(path_);
  EXPECT_FALSE(defaults.setBool(true, "flag"));
  EXPECT_TRUE(FileUserDefaults(path_).boolForKey("flag"));
}

TEST_F(UserDefaultsTest, FailedWriteKeepsThePreviousFileAndLeavesNoTemporary) {
  FileUserDefaults(path_).setBool(true, "kept");
  const std::string before = contents(path_);

  // Half the bytes reach the disk, then it is full.
  FileUserDefaults defaults(path_, [](int fd, std::string_view bytes) {
    const auto half = bytes.size() / 2;
    EXPECT_EQ(::write(fd, bytes.data(), half), static_cast<ssize_t>(half));
    return std::error_code(ENOSPC, std::generic_category());
  });
  kel::testing::LogCapture log;
  EXPECT_EQ(defaults.setBool(false, "kept"), std::errc::no_space_on_device);
  EXPECT_TRUE(log.contains("keeps its previous content"));

  EXPECT_EQ(contents(path_), before);
  EXPECT_EQ(filesInDirectory(), 1u);
  // This process still sees what it set.
  EXPECT_FALSE(defaults.boolForKey("kept"));
  EXPECT_TRUE(FileUserDefaults(path_).boolForKey("kept"));
}

TEST_F(UserDefaultsTest, UnwritableDirectoryGivesAnError) {
  // A regular file where the directory should be: refused even to a privileged user.
  write(directory_ / "blocker", "");
  FileUserDefaults defaults(directory_ / "blocker" / "sub" / "defaults.json");
  kel::testing::LogCapture log;
  const std::error_code error = defaults.setBool(true, "flag");
  EXPECT_TRUE(error);
  EXPECT_TRUE(log.contains("cannot write"));

  if (::geteuid() != 0) {
    fs::create_directories(path_.parent_path());
    fs::permissions(path_.parent_path(), fs::perms::owner_read | fs::perms::owner_exec);
    EXPECT_EQ(FileUserDefaults(path_).setBool(true, "flag"), std::errc::permission_denied);
    fs::permissions(path_.parent_path(), fs::perms::owner_all);
  }
}

TEST(UserDefaultsPathTest, FollowsXdgConfigHomeThenHome) {
  const auto restore = [](const char* name, const char* old) {
    old != nullptr ? ::setenv(name, old, 1) : ::unsetenv(name);
  };
  const char* oldConfig = std::getenv("XDG_CONFIG_HOME");
  const char* oldHome = std::getenv("HOME");
  const std::string savedConfig = oldConfig != nullptr ? oldConfig : "";
  const std::string savedHome = oldHome != nullptr ? oldHome : "";

  ::setenv("XDG_CONFIG_HOME", "/cfg", 1);
  ::setenv("HOME", "/home/u", 1);
  EXPECT_EQ(FileUserDefaults::defaultPath(), fs::path("/cfg/ServerClient/defaults.json"));
  // Each application a file of its own, whatever its identifier holds.
  EXPECT_EQ(FileUserDefaults::defaultPath("AB12_x-9"),
            fs::path("/cfg/ServerClient/defaults-AB12_x-9.json"));
  EXPECT_EQ(FileUserDefaults::defaultPath("../a b"),
            fs::path("/cfg/ServerClient/defaults-%2E%2E%2Fa%20b.json"));
  ::setenv("XDG_CONFIG_HOME", "relative", 1);
  EXPECT_EQ(FileUserDefaults::defaultPath(),
            fs::path("/home/u/.config/ServerClient/defaults.json"));
  ::unsetenv("XDG_CONFIG_HOME");
  ::unsetenv("HOME");
  EXPECT_EQ(FileUserDefaults::defaultPath(), std::nullopt);

  restore("XDG_CONFIG_HOME", oldConfig != nullptr ? savedConfig.c_str() : nullptr);
  restore("HOME", oldHome != nullptr ? savedHome.c_str() : nullptr);
}

}  // namespace
}  // namespace kel::platform
