#pragma once

/// @file
/// What the library tells the server about the device it runs on: the operating system's name
/// and version, the hardware model and an identifier that stays the same for this installation.
///
/// DeviceInfo is the interface (tests inject fixed values); LinuxDeviceInfo reads the system:
/// - systemName / systemVersion: NAME and VERSION_ID of os-release (/etc/os-release, else
///   /usr/lib/os-release), e.g. "Debian GNU/Linux" and "12"; without them uname's system name
///   and release, e.g. "Linux" and "6.1.0-13-amd64".
/// - modelName: the DMI product name when the firmware gives one, else uname's machine, e.g.
///   "x86_64". Characters that would break the server's user-agent text (";" and control
///   characters) become blanks.
/// - identifierForVendor: an upper-case random UUID kept in the file "device-id" of the
///   configuration directory (`$XDG_CONFIG_HOME/ServerClient`, else `~/.config/ServerClient`). The
///   first call creates it; two processes doing so at once agree on one identifier (the file is
///   written under a temporary name, synced, then linked into place only if still absent). A file
///   that does not hold a UUID is replaced. Nothing when no directory can be found or written: the
///   caller then uses a fresh identifier, as on a device without one.

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace kel::platform {

/// What the library tells the server about the device; see DeviceInfo.h for where LinuxDeviceInfo
/// finds each answer. Implementations are thread-safe; the answers are small files read on the
/// calling thread.
class DeviceInfo {
 public:
  virtual ~DeviceInfo() = default;

  /// The operating system's name, such as "Debian GNU/Linux".
  virtual std::string systemName() const = 0;
  /// The operating system's version, such as "12".
  virtual std::string systemVersion() const = 0;
  /// The hardware model, or the machine architecture when the firmware names no model.
  virtual std::string modelName() const = 0;
  /// Upper-case UUID text, stable for this installation; nothing when none can be kept.
  virtual std::optional<std::string> identifierForVendor() const = 0;
};

/// The device as Linux describes it: os-release, uname, DMI, and an identifier file of its own
/// (see DeviceInfo.h). What cannot be read falls back as described there.
class LinuxDeviceInfo final : public DeviceInfo {
 public:
  /// Reads the system's files; the identifier lives in the default configuration directory.
  LinuxDeviceInfo();
  /// For tests: the identifier lives in `configDirectory` (created when missing), os-release is
  /// read from `osReleaseFile`.
  LinuxDeviceInfo(std::filesystem::path configDirectory,
                  std::optional<std::filesystem::path> osReleaseFile = std::nullopt);

  std::string systemName() const override;
  std::string systemVersion() const override;
  std::string modelName() const override;
  /// Thread-safe; reads (or creates) the file once, then answers from memory. When that failed,
  /// it answers nothing and tries again at the next call.
  std::optional<std::string> identifierForVendor() const override;

  /// `$XDG_CONFIG_HOME/ServerClient` or `~/.config/ServerClient`; nothing when neither variable
  /// holds an absolute path.
  static std::optional<std::filesystem::path> defaultConfigDirectory();

 private:
  std::optional<std::filesystem::path> configDirectory_;
  std::optional<std::filesystem::path> osReleaseFile_;
  mutable std::mutex mutex_;                       // guards identifier_
  mutable std::optional<std::string> identifier_;  // once read or created
};

/// Fixed answers, for tests.
struct FixedDeviceInfo final : DeviceInfo {
  std::string name = "Linux";             ///< What systemName() answers.
  std::string version = "1.0";            ///< What systemVersion() answers.
  std::string model = "x86_64";           ///< What modelName() answers.
  std::optional<std::string> identifier;  ///< What identifierForVendor() answers.

  std::string systemName() const override { return name; }
  std::string systemVersion() const override { return version; }
  std::string modelName() const override { return model; }
  std::optional<std::string> identifierForVendor() const override { return identifier; }
};

/// True for the textual form of a UUID (8-4-4-4-12 hexadecimal digits, either case).
bool isUUIDText(std::string_view text) noexcept;

}  // namespace kel::platform
