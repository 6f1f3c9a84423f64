#include "ServerClient/platform/UserDefaults.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>

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

  void write(const std::string& text) const {
    fs::create_directories(path_.parent_path());
    std::ofstream(path_, std::ios::binary) << text;
  }
  std::string contents() const {
    std::ifstream in(path_, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }
  // Only the file itself: no temporary file is left behind.
  void expectOnlyTheFile() const {
    EXPECT_EQ(1, std::distance(fs::directory_iterator(path_.parent_path()), {}));
  }

  fs::path directory_;
  fs::path path_;
};

TEST_F(UserDefaultsTest, ValuesSurviveANewInstanceTypesDoNotCrossAndBadTextIsRefused) {
  {
    FileUserDefaults defaults(path_);
    EXPECT_EQ(defaults.setString("\xff", "key"), std::errc::illegal_byte_sequence);
    EXPECT_EQ(defaults.setBool(true, "\xc0\x80"), std::errc::illegal_byte_sequence);
    EXPECT_FALSE(fs::exists(path_));
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
  EXPECT_EQ(reread.stringForKey("key"), std::nullopt);
  expectOnlyTheFile();
}

TEST_F(UserDefaultsTest, CorruptOrForeignFileReadsAsEmptyWithALoggedErrorAndIsReplaced) {
  for (const std::string& text : {std::string("{\"flag\": tru"), std::string("[true]"),
                                  std::string("\0\x01", 2), std::string()}) {
    write(text);
    kel::testing::LogCapture log;
    EXPECT_FALSE(FileUserDefaults(path_).boolForKey("flag")) << text;
    EXPECT_TRUE(log.contains("not a JSON object")) << text;
  }
  write(R"({"flag": true, "number": 3, "name": "x"})");
  kel::testing::LogCapture log;
  FileUserDefaults defaults(path_);
  EXPECT_TRUE(defaults.boolForKey("flag"));
  EXPECT_EQ(defaults.stringForKey("name"), "x");
  EXPECT_TRUE(log.contains("ignoring \"number\""));

  write("garbage");
  EXPECT_FALSE(FileUserDefaults(path_).setBool(true, "flag"));
  EXPECT_TRUE(FileUserDefaults(path_).boolForKey("flag"));
}

TEST_F(UserDefaultsTest, FailedWriteKeepsThePreviousFileAndLeavesNoTemporary) {
  FileUserDefaults(path_).setBool(true, "kept");
  const std::string before = contents();
  // Half the bytes reach the disk, then it is full.
  FileUserDefaults defaults(path_, [](int fd, std::string_view bytes) {
    const auto half = bytes.size() / 2;
    EXPECT_EQ(::write(fd, bytes.data(), half), static_cast<ssize_t>(half));
    return std::error_code(ENOSPC, std::generic_category());
  });
  kel::testing::LogCapture log;
  EXPECT_EQ(defaults.setBool(false, "kept"), std::errc::no_space_on_device);
  EXPECT_TRUE(log.contains("keeps its previous content"));
  EXPECT_EQ(contents(), before);
  expectOnlyTheFile();
  EXPECT_FALSE(defaults.boolForKey("kept")) << "this process still sees what it set";
  EXPECT_TRUE(FileUserDefaults(path_).boolForKey("kept"));

  // A regular file where the directory should be: refused even to a privileged user.
  FileUserDefaults blocked(path_ / "sub" / "defaults.json");
  EXPECT_TRUE(blocked.setBool(true, "flag"));
  EXPECT_TRUE(log.contains("cannot write"));
}

TEST(UserDefaultsPathTest, FollowsXdgConfigHomeThenHome) {
  const auto saved = [](const char* name) -> std::optional<std::string> {
    const char* value = std::getenv(name);
    return value ? std::optional<std::string>(value) : std::nullopt;
  };
  const auto savedConfig = saved("XDG_CONFIG_HOME");
  const auto savedHome = saved("HOME");

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

  if (savedConfig) ::setenv("XDG_CONFIG_HOME", savedConfig->c_str(), 1);
  if (savedHome) ::setenv("HOME", savedHome->c_str(), 1);
}

}  // namespace
}  // namespace kel::platform
