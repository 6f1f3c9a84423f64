// Browsing the user's call history page by page, newest first.
//
//   call_history KEL_URL SOCKET_URL SIGN_IN_TOKEN [PAGE_SIZE]
//
// Each page asks for the entries created before the oldest one of the page before, so a call
// that ends while the user browses never shifts the pages.

#include <chrono>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "Await.h"
#include "ServerClient/Client/KelServer.h"
#include "ServerClient/ConferenceLog/Service/ConferenceLogService.h"

namespace {

std::string describe(const kel::ConferenceEntry& entry) {
  std::string text = entry.id + ": ";
  for (const auto& invite : entry.invites) {
    text += invite.from + " -> " + invite.to;
    switch (invite.state) {
      case kel::ConferenceEntry::CallState::accepted:
        text += " (answered)";
        break;
      case kel::ConferenceEntry::CallState::declined:
        text += " (declined)";
        break;
      case kel::ConferenceEntry::CallState::cancelByCreator:
        text += " (cancelled)";
        break;
      case kel::ConferenceEntry::CallState::timeout:
        text += " (not answered)";
        break;
      case kel::ConferenceEntry::CallState::unknown:
        break;
    }
  }
  if (entry.finishedAt > entry.createdAt) {
    text += ", " +
            std::to_string(static_cast<long long>((entry.finishedAt - entry.createdAt) / 1000)) +
            " s";
  }
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4 || argc > 5) {
    std::fprintf(stderr, "usage: call_history KEL_URL SOCKET_URL SIGN_IN_TOKEN [PAGE_SIZE]\n");
    return 2;
  }
  const int pageSize = argc == 5 ? std::stoi(argv[4]) : 10;
  try {
    auto server = kel::KelServer::create(example::url(argv[1]), example::url(argv[2]), "1.0",
                                         "example.call-history");
    example::await(server->connect(argv[3]), "sign-in");
    const auto log = server->conferenceLogService();

    // Instants in the log are milliseconds since 1970.
    std::optional<std::chrono::system_clock::time_point> before;
    for (int page = 1;; ++page) {
      const auto entries = example::await(
          log->conferencesEntries(before, std::nullopt, pageSize, true).take(1).asSingle(),
          "page " + std::to_string(page));
      if (entries.empty()) break;
      std::printf("page %d\n", page);
      for (const auto& entry : entries) std::printf("  %s\n", describe(entry).c_str());
      before = std::chrono::system_clock::time_point(
          std::chrono::milliseconds(static_cast<long long>(entries.back().createdAt)));
      if (static_cast<int>(entries.size()) < pageSize) break;
    }
    server->suspend();
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "failed: %s\n", error.what());
    return 1;
  }
}
