#include "cli/MainLoop.h"

#include <algorithm>

namespace kel::cli {

namespace {
// How often a waiting loop looks at its condition when no handler ran in between.
constexpr std::chrono::milliseconds kPollPeriod{10};
}  // namespace

MainLoop::MainLoop() {
  rx::MainScheduler::instance()->install(loop_.executor());
}

MainLoop::~MainLoop() {
  rx::MainScheduler::instance()->reset();
  loop_.runUntilIdle();
}

bool MainLoop::runUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    const auto left = deadline - std::chrono::steady_clock::now();
    if (left <= std::chrono::steady_clock::duration::zero()) return false;
    loop_.runFor(std::min<std::chrono::steady_clock::duration>(left, kPollPeriod));
  }
  return true;
}

void MainLoop::runFor(std::chrono::milliseconds duration) {
  const auto deadline = std::chrono::steady_clock::now() + duration;
  while (std::chrono::steady_clock::now() < deadline) {
    loop_.runFor(deadline - std::chrono::steady_clock::now());
  }
}

}  // namespace kel::cli
