#include "ServerClient/Common/Random.h"

#include <sys/random.h>

#include <cerrno>
#include <random>
#include <stdexcept>
#include <string_view>

namespace kel {

namespace {

void fillSecureRandom(void* buffer, std::size_t size) {
  auto* out = static_cast<unsigned char*>(buffer);
  while (size > 0) {
    ssize_t got = ::getrandom(out, size, 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      // Kernels without getrandom: fall back to the standard library's secure device.
      std::random_device device;
      for (; size > 0; --size) *out++ = static_cast<unsigned char>(device());
      return;
    }
    out += got;
    size -= static_cast<std::size_t>(got);
  }
}

}  // namespace

std::uint64_t secureRandomBelow(std::uint64_t upperExclusive) {
  if (upperExclusive == 0) throw std::invalid_argument("secureRandomBelow: empty range");
  // Rejection sampling: drop the top partial block so every result is equally likely.
  const std::uint64_t limit = UINT64_MAX - (UINT64_MAX % upperExclusive);
  std::uint64_t value;
  do {
    fillSecureRandom(&value, sizeof value);
  } while (value >= limit);
  return value % upperExclusive;
}

std::string randomString(std::size_t length) {
  static constexpr std::string_view kAlphabet =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  std::string result(length, '\0');
  for (auto& c : result) c = kAlphabet[secureRandomBelow(kAlphabet.size())];
  return result;
}

std::string makeUUIDString() {
  unsigned char bytes[16];
  fillSecureRandom(bytes, sizeof bytes);
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (int i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += kHex[bytes[i] >> 4];
    text += kHex[bytes[i] & 0x0F];
  }
  return text;
}

}  // namespace kel
