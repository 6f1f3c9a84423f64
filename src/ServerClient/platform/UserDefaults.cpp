#include "ServerClient/platform/UserDefaults.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <utility>

#include <nlohmann/json.hpp>

#include "ServerClient/Common/Json.h"
#include "ServerClient/Log/ServerLog.h"

namespace kel::platform {

namespace fs = std::filesystem;

namespace {

// A defaults file is a few hundred bytes; anything far larger is not one of ours.
constexpr std::uintmax_t kMaxFileSize = 1 << 20;

std::error_code lastError() {
  return {errno, std::generic_category()};
}

std::error_code writeAllTo(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return lastError();
    }
    if (written == 0) return std::make_error_code(std::errc::io_error);
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return {};
}

std::error_code invalidText() {
  return std::make_error_code(std::errc::illegal_byte_sequence);
}

template <class Map>
bool boolIn(const Map& values, std::string_view key) {
  const auto it = values.find(key);
  if (it == values.end()) return false;
  const bool* value = std::get_if<bool>(&it->second);
  return value != nullptr && *value;
}

template <class Map>
std::optional<std::string> stringIn(const Map& values, std::string_view key) {
  const auto it = values.find(key);
  if (it == values.end()) return std::nullopt;
  const std::string* value = std::get_if<std::string>(&it->second);
  if (value == nullptr) return std::nullopt;
  return *value;
}

}  // namespace

std::shared_ptr<UserDefaults> UserDefaults::standard() {
  return forApplication({});
}

std::shared_ptr<UserDefaults> UserDefaults::forApplication(std::string_view applicationId) {
  static std::mutex mutex;  // guards instances
  static std::map<std::string, std::shared_ptr<UserDefaults>, std::less<>> instances;
  std::lock_guard lock(mutex);
  if (const auto it = instances.find(applicationId); it != instances.end()) return it->second;
  std::shared_ptr<UserDefaults> instance;
  if (const auto path = FileUserDefaults::defaultPath(applicationId)) {
    instance = std::make_shared<FileUserDefaults>(*path);
  } else {
    KEL_LOG_ERROR(
        "standard",
        "User defaults: neither XDG_CONFIG_HOME nor HOME is an absolute path; values are kept in "
        "memory only");
    instance = std::make_shared<InMemoryUserDefaults>();
  }
  instances.emplace(std::string(applicationId), instance);
  return instance;
}

// --- InMemoryUserDefaults

bool InMemoryUserDefaults::boolForKey(std::string_view key) const {
  std::lock_guard lock(mutex_);
  return boolIn(values_, key);
}

std::optional<std::string> InMemoryUserDefaults::stringForKey(std::string_view key) const {
  std::lock_guard lock(mutex_);
  return stringIn(values_, key);
}

std::error_code InMemoryUserDefaults::setBool(bool value, std::string_view key) {
  std::lock_guard lock(mutex_);
  values_.insert_or_assign(std::string(key), value);
  return {};
}

std::error_code InMemoryUserDefaults::setString(std::string_view value, std::string_view key) {
  std::lock_guard lock(mutex_);
  values_.insert_or_assign(std::string(key), std::string(value));
  return {};
}

std::error_code InMemoryUserDefaults::removeObject(std::string_view key) {
  std::lock_guard lock(mutex_);
  if (const auto it = values_.find(key); it != values_.end()) values_.erase(it);
  return {};
}

// --- FileUserDefaults

FileUserDefaults::FileUserDefaults(fs::path path, WriteAll writeAll)
    : path_(std::move(path)), writeAll_(writeAll ? std::move(writeAll) : WriteAll(writeAllTo)) {
  load();
}

std::optional<fs::path> FileUserDefaults::defaultPath(std::string_view applicationId) {
  fs::path base;
  if (const char* config = std::getenv("XDG_CONFIG_HOME");
      config != nullptr && fs::path(config).is_absolute()) {
    base = config;
  } else if (const char* home = std::getenv("HOME");
             home != nullptr && fs::path(home).is_absolute()) {
    base = fs::path(home) / ".config";
  } else {
    return std::nullopt;
  }
  if (applicationId.empty()) return base / "ServerClient" / "defaults.json";
  std::string name = "defaults-";
  for (const char c : applicationId) {
    const auto byte = static_cast<unsigned char>(c);
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
        c == '_') {
      name += c;
    } else {
      static constexpr char kHex[] = "0123456789ABCDEF";
      name += '%';
      name += kHex[byte >> 4];
      name += kHex[byte & 0xF];
    }
  }
  return base / "ServerClient" / (name + ".json");
}

bool FileUserDefaults::boolForKey(std::string_view key) const {
  std::lock_guard lock(mutex_);
  return boolIn(values_, key);
}

std::optional<std::string> FileUserDefaults::stringForKey(std::string_view key) const {
  std::lock_guard lock(mutex_);
  return stringIn(values_, key);
}

std::error_code FileUserDefaults::setBool(bool value, std::string_view key) {
  if (!isValidUtf8(key)) return invalidText();
  std::lock_guard lock(mutex_);
  values_.insert_or_assign(std::string(key), value);
  return persist();
}

std::error_code FileUserDefaults::setString(std::string_view value, std::string_view key) {
  // The file is JSON, which holds UTF-8 text only.
  if (!isValidUtf8(key) || !isValidUtf8(value)) return invalidText();
  std::lock_guard lock(mutex_);
  values_.insert_or_assign(std::string(key), std::string(value));
  return persist();
}

std::error_code FileUserDefaults::removeObject(std::string_view key) {
  std::lock_guard lock(mutex_);
  const auto it = values_.find(key);
  if (it == values_.end()) return {};
  values_.erase(it);
  return persist();
}

void FileUserDefaults::load() {
  std::error_code error;
  const auto size = fs::file_size(path_, error);
  if (error) {
    if (error != std::errc::no_such_file_or_directory) {
      KEL_LOG_ERROR("load()", "User defaults: cannot read " + path_.string() + ": " +
                                  error.message() + "; starting empty");
    }
    return;
  }
  if (size > kMaxFileSize) {
    KEL_LOG_ERROR("load()", "User defaults: " + path_.string() + " is too large (" +
                                std::to_string(size) + " bytes); starting empty");
    return;
  }
  std::ifstream in(path_, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (in.bad() || !in.is_open()) {
    KEL_LOG_ERROR("load()", "User defaults: cannot read " + path_.string() + "; starting empty");
    return;
  }
  const auto json = parseJson(text);
  if (!json || !json->is_object()) {
    KEL_LOG_ERROR("load()",
                  "User defaults: " + path_.string() +
                      " is not a JSON object; starting empty, the next change replaces it");
    return;
  }
  for (const auto& [key, value] : json->items()) {
    if (value.is_boolean()) {
      values_.insert_or_assign(key, value.get<bool>());
    } else if (value.is_string()) {
      values_.insert_or_assign(key, value.get<std::string>());
    } else {
      KEL_LOG_ERROR("load()", "User defaults: ignoring \"" + key + "\" in " + path_.string() +
                                  ", neither a boolean nor a text");
    }
  }
}

std::error_code FileUserDefaults::persist() {
  nlohmann::json object = nlohmann::json::object();
  for (const auto& [key, value] : values_) {
    std::visit([&object, &key](const auto& v) { object[key] = v; }, value);
  }
  // Keys and texts were checked on the way in, so this always succeeds.
  const std::string text = dumpJson(object, 2).value_or("{}") + "\n";

  const fs::path directory = path_.has_parent_path() ? path_.parent_path() : fs::path(".");
  std::string temporary = (directory / ("." + path_.filename().string() + ".XXXXXX")).string();
  const auto fail = [this](const char* step, std::error_code error, bool replaced = false) {
    KEL_LOG_ERROR("synchronize()",
                  "User defaults: cannot write " + path_.string() + " (" + step +
                      "): " + error.message() +
                      (replaced ? "; the new content is in place but may not survive a crash"
                                : "; the file keeps its previous content"));
    return error;
  };

  std::error_code error;
  fs::create_directories(directory, error);
  if (error) return fail("creating its directory", error);
  const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0) return fail("creating a temporary file", lastError());

  const char* step = "writing";
  error = writeAll_(fd, text);
  if (!error && ::fsync(fd) != 0) {
    step = "flushing";
    error = lastError();
  }
  if (::close(fd) != 0 && !error) {
    step = "closing";
    error = lastError();
  }
  if (!error && ::rename(temporary.c_str(), path_.c_str()) != 0) {
    step = "renaming";
    error = lastError();
  }
  if (error) {
    ::unlink(temporary.c_str());
    return fail(step, error);
  }

  // Makes the rename itself durable; the new content is already in place.
  const int directoryFd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directoryFd < 0) return fail("opening its directory", lastError(), true);
  if (::fsync(directoryFd) != 0) error = lastError();
  ::close(directoryFd);
  if (error) return fail("flushing its directory", error, true);
  return {};
}

}  // namespace kel::platform
