#pragma once

/// @file
/// A small persistent store of booleans and texts by key, for the few facts the library keeps
/// between runs outside the keychain (whether a stored session may be restored).
///
/// FileUserDefaults keeps every value in memory and rewrites one JSON object file on each change,
/// atomically: the new content goes to a temporary file in the same directory, which is flushed
/// to disk, renamed over the old file, and the directory is flushed too. A crash or a failed
/// write therefore leaves either the old file or the new one, never a mix. When a write fails
/// (full disk, unwritable directory) the setter returns the error, logs it, and the old file
/// stays as it was; the new value still holds in memory for this process and is written with the
/// next change that succeeds. A file that is not a JSON object reads as empty, with an error in
/// the log, and is replaced by the next write.
///
/// Several processes may share one file; each writes its whole view, so the last writer wins.
/// That is why each application keeps a file of its own (forApplication(), named after its team
/// identifier) rather than a key of its own in one shared file: two applications running at once
/// would otherwise overwrite each other's flags with their stale views, and one application's
/// logout could reset another's "session can be restored" flag. Within one process every user of
/// an application's file shares one instance. All members of every implementation are
/// thread-safe.

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <variant>

namespace kel::platform {

/// A small persistent store of booleans and texts by key; see UserDefaults.h for how the file
/// is written and shared. Thread-safe; getters answer from memory, setters of FileUserDefaults
/// write the file before returning (on the calling thread).
class UserDefaults {
 public:
  virtual ~UserDefaults() = default;

  /// The value stored under `key`; false when there is none or it is not a boolean.
  virtual bool boolForKey(std::string_view key) const = 0;
  /// The text stored under `key`; nothing when there is none or it is not a text.
  virtual std::optional<std::string> stringForKey(std::string_view key) const = 0;

  /// Stores `value` under `key`, replacing what was there. An empty error code once it is
  /// persisted.
  virtual std::error_code setBool(bool value, std::string_view key) = 0;
  /// Stores the text `value` under `key`, replacing what was there. An empty error code once it
  /// is persisted.
  virtual std::error_code setString(std::string_view value, std::string_view key) = 0;
  /// Removes what is stored under `key`; an empty error code once that is persisted (or when
  /// there was nothing).
  virtual std::error_code removeObject(std::string_view key) = 0;

  /// The process-wide store in the default file, see FileUserDefaults::defaultPath().
  static std::shared_ptr<UserDefaults> standard();
  /// The process-wide store of the application `applicationId` (its team identifier): the file
  /// FileUserDefaults::defaultPath(applicationId), one instance per identifier; standard() for
  /// the empty identifier. In memory only, with a logged error, when there is no such path.
  static std::shared_ptr<UserDefaults> forApplication(std::string_view applicationId);
};

/// Values kept in memory only, for tests of code that uses user defaults (and the fallback when
/// no configuration directory exists). Every setter succeeds.
class InMemoryUserDefaults final : public UserDefaults {
 public:
  bool boolForKey(std::string_view key) const override;
  std::optional<std::string> stringForKey(std::string_view key) const override;
  std::error_code setBool(bool value, std::string_view key) override;
  std::error_code setString(std::string_view value, std::string_view key) override;
  std::error_code removeObject(std::string_view key) override;

 private:
  mutable std::mutex mutex_;  // guards values_
  std::map<std::string, std::variant<bool, std::string>, std::less<>> values_;
};

/// Values in one JSON file, written atomically.
///
/// Setters fail with std::errc::illegal_byte_sequence, storing nothing, when the key or text is
/// not valid UTF-8 (JSON holds UTF-8 only); with the system's error (errno) when the file cannot
/// be written, the value then holding in memory only (see UserDefaults.h). The file is created
/// readable by its owner only.
class FileUserDefaults final : public UserDefaults {
 public:
  /// Writes all of `bytes` to the open file `fd`; an error code when that failed. Replaceable for
  /// tests that need a write to fail part-way, as on a full disk.
  using WriteAll = std::function<std::error_code(int fd, std::string_view bytes)>;

  /// The store in `path`, read now; the directory is created on the first write.
  explicit FileUserDefaults(std::filesystem::path path, WriteAll writeAll = {});

  /// "$XDG_CONFIG_HOME/ServerClient/defaults.json", or "~/.config/ServerClient/defaults.json"
  /// when XDG_CONFIG_HOME is unset or not an absolute path; nothing when neither it nor HOME
  /// give an absolute directory. With an application identifier the file is
  /// "defaults-<identifier>.json" in the same directory, every byte of the identifier outside
  /// A-Z, a-z, 0-9, "-" and "_" written as `%XX`, so no identifier can name another directory.
  static std::optional<std::filesystem::path> defaultPath(std::string_view applicationId = {});

  /// The file, as given at construction.
  const std::filesystem::path& path() const noexcept { return path_; }

  bool boolForKey(std::string_view key) const override;
  std::optional<std::string> stringForKey(std::string_view key) const override;
  std::error_code setBool(bool value, std::string_view key) override;
  std::error_code setString(std::string_view value, std::string_view key) override;
  std::error_code removeObject(std::string_view key) override;

 private:
  using Value = std::variant<bool, std::string>;

  void load();
  std::error_code persist();  // needs mutex_

  const std::filesystem::path path_;
  const WriteAll writeAll_;
  mutable std::mutex mutex_;  // guards values_ and every write of the file
  std::map<std::string, Value, std::less<>> values_;
};

}  // namespace kel::platform
