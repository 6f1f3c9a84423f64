#include "ServerClient/platform/DeviceInfo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>

#include "ServerClient/Common/Random.h"
#include "ServerClient/Log/ServerLog.h"

namespace kel::platform {

namespace fs = std::filesystem;

namespace {

constexpr const char* kIdentifierFileName = "device-id";
constexpr const char* kTemporaryPattern = "device-id.XXXXXX";  // for mkstemp

// The value of KEY=value in an os-release file, unquoted; empty when absent.
std::string osReleaseValue(const fs::path& file, std::string_view key) {
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    if (line.size() <= key.size() || line.compare(0, key.size(), key) != 0 ||
        line[key.size()] != '=') {
      continue;
    }
    std::string value = line.substr(key.size() + 1);
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
        value.back() == value.front()) {
      value = value.substr(1, value.size() - 2);
    }
    std::string unescaped;
    for (std::size_t i = 0; i < value.size(); ++i) {
      if (value[i] == '\\' && i + 1 < value.size()) ++i;
      unescaped += value[i];
    }
    return unescaped;
  }
  return {};
}

std::optional<fs::path> osReleasePath() {
  for (const char* candidate : {"/etc/os-release", "/usr/lib/os-release"}) {
    std::error_code ec;
    if (fs::is_regular_file(candidate, ec)) return fs::path(candidate);
  }
  return std::nullopt;
}

utsname systemUname() {
  utsname names{};
  if (uname(&names) != 0) return utsname{};
  return names;
}

std::string cleaned(std::string text) {
  for (auto& c : text) {
    if (c == ';' || std::iscntrl(static_cast<unsigned char>(c))) c = ' ';
  }
  while (!text.empty() && text.back() == ' ') text.pop_back();
  while (!text.empty() && text.front() == ' ') text.erase(text.begin());
  return text;
}

std::optional<std::string> readIdentifier(const fs::path& file) {
  std::ifstream in(file);
  std::string text;
  if (!in || !std::getline(in, text)) return std::nullopt;
  if (!isUUIDText(text)) return std::nullopt;
  for (auto& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

// Writes `text` to a fresh temporary file in `directory`, synced; its path, or nothing.
std::optional<fs::path> writeTemporary(const fs::path& directory, const std::string& text) {
  auto pattern = (directory / kTemporaryPattern).string();
  const int fd = mkstemp(pattern.data());
  if (fd < 0) return std::nullopt;
  const std::string line = text + "\n";
  bool ok = ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  ok = ::fsync(fd) == 0 && ok;
  ok = ::close(fd) == 0 && ok;
  if (!ok) {
    ::unlink(pattern.c_str());
    return std::nullopt;
  }
  return fs::path(pattern);
}

void syncDirectory(const fs::path& directory) {
  const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

std::optional<std::string> loadOrCreateIdentifier(const fs::path& directory) {
  const auto file = directory / kIdentifierFileName;
  if (auto existing = readIdentifier(file)) return existing;

  std::error_code ec;
  fs::create_directories(directory, ec);
  if (ec) {
    KEL_LOG_ERROR("identifierForVendor",
                  "Cannot create " + directory.string() + ": " + ec.message());
    return std::nullopt;
  }
  const auto identifier = makeUUIDString();
  const auto temporary = writeTemporary(directory, identifier);
  if (!temporary) {
    KEL_LOG_ERROR("identifierForVendor",
                  "Cannot write the device identifier in " + directory.string());
    return std::nullopt;
  }
  // link() never replaces: when another process got there first, its identifier wins.
  if (::link(temporary->c_str(), file.c_str()) != 0 && errno == EEXIST) {
    if (auto theirs = readIdentifier(file)) {
      ::unlink(temporary->c_str());
      return theirs;
    }
    // What is there is not an identifier: replace it.
    if (::rename(temporary->c_str(), file.c_str()) != 0) {
      ::unlink(temporary->c_str());
      return std::nullopt;
    }
    syncDirectory(directory);
    return identifier;
  }
  ::unlink(temporary->c_str());
  syncDirectory(directory);
  return readIdentifier(file);
}

}  // namespace

bool isUUIDText(std::string_view text) noexcept {
  if (text.size() != 36) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
  }
  return true;
}

LinuxDeviceInfo::LinuxDeviceInfo()
    : configDirectory_(defaultConfigDirectory()), osReleaseFile_(osReleasePath()) {}

LinuxDeviceInfo::LinuxDeviceInfo(fs::path configDirectory, std::optional<fs::path> osReleaseFile)
    : configDirectory_(std::move(configDirectory)),
      osReleaseFile_(osReleaseFile ? std::move(osReleaseFile) : osReleasePath()) {}

std::optional<fs::path> LinuxDeviceInfo::defaultConfigDirectory() {
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg == '/') {
    return fs::path(xdg) / "ServerClient";
  }
  if (const char* home = std::getenv("HOME"); home && *home == '/') {
    return fs::path(home) / ".config" / "ServerClient";
  }
  return std::nullopt;
}

std::string LinuxDeviceInfo::systemName() const {
  if (osReleaseFile_) {
    if (auto name = cleaned(osReleaseValue(*osReleaseFile_, "NAME")); !name.empty()) return name;
  }
  return cleaned(systemUname().sysname);
}

std::string LinuxDeviceInfo::systemVersion() const {
  if (osReleaseFile_) {
    if (auto version = cleaned(osReleaseValue(*osReleaseFile_, "VERSION_ID")); !version.empty()) {
      return version;
    }
  }
  return cleaned(systemUname().release);
}

std::string LinuxDeviceInfo::modelName() const {
  std::ifstream in("/sys/class/dmi/id/product_name");
  std::string product;
  if (in && std::getline(in, product)) {
    if (product = cleaned(product); !product.empty()) return product;
  }
  return cleaned(systemUname().machine);
}

std::optional<std::string> LinuxDeviceInfo::identifierForVendor() const {
  std::lock_guard lock(mutex_);
  if (!identifier_ && configDirectory_) identifier_ = loadOrCreateIdentifier(*configDirectory_);
  return identifier_;
}

}  // namespace kel::platform
