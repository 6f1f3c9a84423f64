// A soak of the facade against the emulator: a steady request load while the server misbehaves at
// random (dropped and closed sockets, delayed, withheld and failed answers, malformed frames,
// expired and ended sessions, refused connections), then a report of what became of every
// request and of the process's heap and threads. Run through scripts/soak.
//
//   soak [MINUTES] [--rate REQUESTS-PER-SECOND] [--seed N]
//
// Heap and threads are taken after a warm-up (20 s quiet, then a minute of faults) and at the end,
// after a cool-down with no request in flight; the report adds the heap's trend over the minutes.
//
// Exit status 0 when every request completed one way or another and neither the heap nor the
// thread count grew between the start (after a warm-up) and the end (after a cool-down).
//
// The emulator runs in a child process, which also injects the faults, so that the heap and the
// threads measured are the client's alone.

#include <malloc.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <future>
#include <iostream>
#include <mutex>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <boost/url/parse.hpp>

#include "ServerClient/Client/KelServer.h"
#include "ServerClient/Common/SDKError.h"
#include "ServerClient/User/UserService.h"
#include "ServerClient/platform/InMemoryKeychain.h"
#include "ServerClient/rx/Errors.h"
#include "emulator/Emulator.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using kel::KelServer;
using kel::emulator::Emulator;
using kel::emulator::Fault;
using kel::emulator::Recipients;

constexpr const char* kUser = "soak";
constexpr const char* kSignInToken = "soak-outside";

struct Tally {
  std::atomic<std::uint64_t> sent{0};
  std::atomic<std::uint64_t> answered{0};         // a record
  std::atomic<std::uint64_t> refusedByServer{0};  // the server's error answer
  std::atomic<std::uint64_t> timedOut{0};
  std::atomic<std::uint64_t> completedByStop{0};  // ended without answer: the socket was stopped
  std::atomic<std::uint64_t> noSocket{0};         // refused at once: no authenticated socket
  std::atomic<std::uint64_t> undecodable{0};      // a malformed answer
  std::atomic<std::uint64_t> otherError{0};
  std::atomic<std::uint64_t> reconnections{0};
  std::atomic<std::uint64_t> signIns{0};

  std::uint64_t completed() const {
    return answered + refusedByServer + timedOut + completedByStop + noSocket + undecodable +
           otherError;
  }
};

struct Resources {
  std::size_t heapBytes = 0;
  long threads = 0;
};

Resources resources() {
  Resources r;
  r.heapBytes = mallinfo2().uordblks;
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("Threads:", 0) == 0) r.threads = std::stol(line.substr(8));
  }
  return r;
}

void classify(Tally& tally, const std::exception_ptr& error) {
  using kel::ConnectionError;
  using kel::ConnectionErrorType;
  using kel::GenericError;
  using kel::GenericErrorType;
  const auto* generic = kel::errorAs<GenericError>(error);
  if (generic && generic->type().kind() == GenericErrorType::Kind::underlying &&
      generic->type().underlyingError()) {
    return classify(tally, generic->type().underlyingError());
  }
  if (kel::errorAs<kel::rx::NoElementsError>(error)) {
    ++tally.completedByStop;
  } else if (generic && generic->type().kind() == GenericErrorType::Kind::decoding) {
    ++tally.undecodable;
  } else if (const auto* connection = kel::errorAs<ConnectionError>(error)) {
    if (connection->type() == ConnectionErrorType::timeout && connection->code() == -1) {
      ++tally.timedOut;
    } else if (connection->type() == ConnectionErrorType::noSocketClient) {
      ++tally.noSocket;
    } else {
      ++tally.refusedByServer;
    }
  } else {
    ++tally.otherError;
  }
}

// The child process: the emulator, and the faults until told to calm down.
class FaultyServer {
 public:
  explicit FaultyServer(unsigned seed) : emulator_(options()), random_(seed) {
    emulator_.addAccount(kel::emulator::defaultAccount(kUser, kSignInToken));
  }

  kel::emulator::Urls start() { return emulator_.start(); }

  // Commands, one byte each: 'f' starts the faults, 'c' clears them, 'q' (or the parent gone)
  // ends. Returns the number of faults injected.
  std::uint64_t serve(int commands) {
    bool faulty = false;
    auto nextFault = Clock::now();
    for (;;) {
      pollfd in{commands, POLLIN, 0};
      if (::poll(&in, 1, 200) > 0) {
        char command = 'q';
        if (::read(commands, &command, 1) != 1) command = 'q';
        if (command == 'q') break;
        faulty = command == 'f';
        if (!faulty) {
          emulator_.clearFaults();
          emulator_.acceptConnections();
        }
        nextFault = Clock::now() + 2s;
      }
      if (faulty && Clock::now() >= nextFault) {
        injectFault();
        nextFault = Clock::now() + std::chrono::milliseconds(pick(1000, 6000));
      }
    }
    emulator_.stop();
    return faults_;
  }

 private:
  static kel::emulator::Options options() {
    kel::emulator::Options options;
    options.pingPeriod = 5s;
    options.recordFrames = false;
    options.signInAttemptLimit = 0;
    return options;
  }

  int pick(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random_); }

  // The session of the newest authenticated socket.
  std::optional<std::string> token() const {
    std::optional<std::string> newest;
    for (const auto& socket : emulator_.sockets()) {
      if (socket.open && socket.authenticated) newest = socket.sessionToken;
    }
    return newest;
  }

  void injectFault() {
    ++faults_;
    using kel::emulator::DropMode;
    using kel::emulator::Malformed;
    switch (pick(0, 10)) {
      case 0:
        emulator_.dropSockets(Recipients::all(), DropMode::reset);
        break;
      case 1:
        emulator_.dropSockets(Recipients::all(), DropMode::finish);
        break;
      case 2:
        emulator_.faultNextRequests(static_cast<std::size_t>(pick(1, 10)),
                                    Fault::delay(std::chrono::milliseconds(pick(50, 3000))));
        break;
      case 3:
        emulator_.faultNextRequests(static_cast<std::size_t>(pick(1, 3)), Fault::withhold());
        break;
      case 4: {
        const Malformed kinds[] = {Malformed::notJson, Malformed::bareThree,   Malformed::list,
                                   Malformed::scalar,  Malformed::stringId,    Malformed::binary,
                                   Malformed::empty,   Malformed::invalidUtf8, Malformed::huge};
        emulator_.sendMalformed(Recipients::all(), kinds[pick(0, 8)]);
        break;
      }
      case 5:
        emulator_.faultNextRequests(
            1, Fault::malformedResponse(pick(0, 1) ? Malformed::notJson : Malformed::list));
        break;
      case 6:
        emulator_.faultNextRequests(static_cast<std::size_t>(pick(1, 5)), Fault::status(500));
        break;
      case 7:
        emulator_.faultNextRequests(1, Fault::dropSocket());
        break;
      case 8:
        // The session expires and the socket drops: reconnecting with it is refused until the
        // soak signs in again.
        if (const auto current = token()) {
          emulator_.expireSession(*current);
          emulator_.dropSockets(Recipients::all(), DropMode::reset);
        }
        break;
      case 9:
        // The server ends the session: the facade asks for a new one.
        if (const auto current = token()) emulator_.endSession(*current);
        break;
      case 10:
        emulator_.refuseConnections(std::chrono::milliseconds(pick(500, 5000)));
        emulator_.dropSockets(Recipients::all(), DropMode::reset);
        break;
    }
  }

  Emulator emulator_;
  std::mt19937 random_;
  std::uint64_t faults_ = 0;
};

class Soak {
 public:
  Soak(kel::emulator::Urls urls, int server, double minutes, double rate)
      : urls_(std::move(urls)),
        server_fd_(server),
        duration_(std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(minutes * 60.0))),
        period_(std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(1.0 / rate))) {}

  int run() {
    const auto& urls = urls_;
    KelServer::Options facadeOptions;
    facadeOptions.keychain = std::make_shared<kel::platform::InMemoryKeychain>();
    facadeOptions.userDefaults = std::make_shared<kel::platform::InMemoryUserDefaults>();
    server_ = KelServer::create(boost::urls::parse_absolute_uri(urls.kelURL).value(),
                                boost::urls::parse_absolute_uri(urls.socketURL).value(), "soak",
                                "SOAK", facadeOptions);
    auto states = server_->states().subscribe([this](const KelServer::State& state) {
      if (state != KelServer::State::connected) return;
      if (connectedOnce_.exchange(true)) ++tally_.reconnections;
    });
    auto ended =
        server_->needsNewSession().subscribe([this](const kel::rx::Unit&) { needsSignIn_ = true; });

    if (!signIn()) {
      std::cerr << "soak: the first sign-in failed\n";
      return 2;
    }
    std::jthread load([this](std::stop_token stop) { sendLoad(stop); });
    // The warm-up ends with a minute of faults: the first failure of each kind allocates once
    // what it keeps for good (error categories, per-thread TLS error state, exception type data),
    // which is not growth.
    say("warm-up (20 s without faults, then 60 s with)");
    std::this_thread::sleep_for(20s);
    tell('f');
    Clock::time_point notConnectedSince{};  // {}: connected
    const auto faultsUntil = [&](Clock::time_point until, bool sample) {
      auto nextSample = Clock::now() + 60s;
      while (Clock::now() < until) {
        std::this_thread::sleep_for(200ms);
        if (sample && Clock::now() >= nextSample) {
          nextSample += 60s;
          const auto now = resources();
          samples_.push_back(now.heapBytes);
          say("heap " + std::to_string(now.heapBytes / 1024) + " KiB, threads " +
              std::to_string(now.threads) + ", requests sent " + std::to_string(tally_.sent) +
              ", completed " + std::to_string(tally_.completed()));
        }
        keepSignedIn(notConnectedSince);
      }
    };
    faultsUntil(Clock::now() + 60s, false);
    const auto start = resources();
    samples_.push_back(start.heapBytes);

    say("faults for " +
        std::to_string(std::chrono::duration_cast<std::chrono::seconds>(duration_).count()) + " s");
    faultsUntil(Clock::now() + duration_, true);

    say("cool-down: faults cleared, load goes on");
    tell('c');
    const auto settled = Clock::now() + 60s;
    while (Clock::now() < settled && !isConnected()) {
      keepSignedIn(notConnectedSince);
      std::this_thread::sleep_for(200ms);
    }
    std::this_thread::sleep_for(30s);  // longer than a request's time-out
    load.request_stop();
    load.join();
    // Every request has had its full time-out by now.
    const auto drained = Clock::now() + 30s;
    while (Clock::now() < drained && tally_.completed() < tally_.sent) {
      std::this_thread::sleep_for(100ms);
    }
    malloc_trim(0);
    const auto finish = resources();
    // What is still pending is ended by stopping; nothing may stay pending after that.
    server_->clearSessionInfo();
    std::this_thread::sleep_for(2s);
    states.dispose();
    ended.dispose();
    return report(start, finish, faults_());
  }

 private:
  static void say(const std::string& text) { std::cerr << "soak: " << text << std::endl; }

  void tell(char command) const {
    if (::write(server_fd_, &command, 1) != 1) say("the emulator's process is gone");
  }

  bool isConnected() const {
    return server_->sessionState()->currentState().value() == KelServer::State::connected;
  }

  bool signIn() {
    ++tally_.signIns;
    needsSignIn_ = false;
    auto outcome = std::make_shared<std::promise<std::exception_ptr>>();
    auto future = outcome->get_future();
    auto subscription =
        server_->connect(kSignInToken)
            .subscribe([outcome](const kel::AuthenticationData&) { outcome->set_value(nullptr); },
                       [outcome](std::exception_ptr error) { outcome->set_value(error); });
    if (future.wait_for(60s) != std::future_status::ready) {
      subscription.dispose();
      say("sign-in: no answer within 60 s");
      return false;
    }
    if (const auto error = future.get()) {
      say("sign-in failed: " + kel::describeError(error));
      return false;
    }
    return true;
  }

  // Signs in again when the server ended the session, or when the facade has not been connected
  // for 8 s (an expired session keeps the reconnection failing).
  void keepSignedIn(Clock::time_point& notConnectedSince) {
    if (isConnected() && !needsSignIn_) {
      notConnectedSince = {};
      return;
    }
    if (notConnectedSince == Clock::time_point{}) notConnectedSince = Clock::now();
    if (needsSignIn_ || Clock::now() - notConnectedSince > 8s) {
      signIn();
      notConnectedSince = {};
    }
  }

  void sendLoad(std::stop_token stop) {
    auto next = Clock::now();
    while (!stop.stop_requested()) {
      next += period_;
      std::this_thread::sleep_until(next);
      ++tally_.sent;
      try {
        server_->userService()->user(kUser).subscribe(
            [this](const kel::User&) { ++tally_.answered; },
            [this](std::exception_ptr error) { classify(tally_, error); });
      } catch (...) {
        classify(tally_, std::current_exception());
      }
    }
  }

  int report(const Resources& start, const Resources& end, std::uint64_t faults) const {
    const auto never = tally_.sent - tally_.completed();
    const long heapGrowthKiB =
        (static_cast<long>(end.heapBytes) - static_cast<long>(start.heapBytes)) / 1024;
    // The minute samples, taken with requests in flight, wander by some tens of KiB; the end,
    // with none in flight, must come back within that. A steady leak shows in the slope too.
    const bool heapOk = heapGrowthKiB <= kHeapNoiseKiB;
    const bool threadsOk = end.threads <= start.threads;
    std::ostringstream out;
    out << "soak report (" << std::chrono::duration_cast<std::chrono::seconds>(duration_).count()
        << " s of faults, " << faults << " faults injected)\n"
        << "  requests sent            " << tally_.sent << "\n"
        << "  answered                 " << tally_.answered << "\n"
        << "  refused by the server    " << tally_.refusedByServer << "\n"
        << "  timed out                " << tally_.timedOut << "\n"
        << "  completed by stop        " << tally_.completedByStop << "\n"
        << "  refused, no socket       " << tally_.noSocket << "\n"
        << "  undecodable answers      " << tally_.undecodable << "\n"
        << "  other errors             " << tally_.otherError << "\n"
        << "  never completed          " << never << (never == 0 ? "" : "   FAIL") << "\n"
        << "  reconnections            " << tally_.reconnections << "\n"
        << "  sign-ins                 " << tally_.signIns << "\n"
        << "  heap in use (KiB)        " << start.heapBytes / 1024 << " -> " << end.heapBytes / 1024
        << (heapOk ? "" : "   FAIL") << "\n"
        << "  heap trend (KiB/minute)  " << heapSlopeKiBPerMinute() << "\n"
        << "  threads                  " << start.threads << " -> " << end.threads
        << (threadsOk ? "" : "   FAIL") << "\n";
    std::cout << out.str() << std::flush;
    return never == 0 && heapOk && threadsOk ? 0 : 1;
  }

  // Least squares over the minute samples.
  double heapSlopeKiBPerMinute() const {
    const double n = static_cast<double>(samples_.size());
    if (samples_.size() < 2) return 0;
    double sx = 0, sy = 0, sxy = 0, sxx = 0;
    for (std::size_t i = 0; i < samples_.size(); ++i) {
      const double x = static_cast<double>(i), y = static_cast<double>(samples_[i]) / 1024;
      sx += x, sy += y, sxy += x * y, sxx += x * x;
    }
    return (n * sxy - sx * sy) / (n * sxx - sx * sx);
  }

  static constexpr long kHeapNoiseKiB = 64;
  std::vector<std::size_t> samples_;       // heap in use: the start, then each minute of faults
  std::function<std::uint64_t()> faults_;  // ends the emulator's process, returns its faults

 public:
  void onFinish(std::function<std::uint64_t()> faults) { faults_ = std::move(faults); }

 private:
  const kel::emulator::Urls urls_;
  const int server_fd_;  // commands to the emulator's process
  const Clock::duration duration_;
  const Clock::duration period_;
  std::shared_ptr<KelServer> server_;
  Tally tally_;
  std::atomic<bool> connectedOnce_{false};
  std::atomic<bool> needsSignIn_{false};
};

}  // namespace

int main(int argc, char** argv) {
  double minutes = 10;
  double rate = 20;
  unsigned seed = std::random_device{}();
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--rate" && i + 1 < argc) {
      rate = std::atof(argv[++i]);
    } else if (arg == "--seed" && i + 1 < argc) {
      seed = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
    } else {
      minutes = std::atof(arg.c_str());
    }
  }
  if (!(minutes > 0) || !(rate > 0)) {
    std::cerr << "usage: soak [MINUTES] [--rate REQUESTS-PER-SECOND] [--seed N]\n";
    return 2;
  }
  std::cerr << "soak: seed " << seed << ", " << rate << " requests/s\n";

  // Forked before either side starts a thread.
  int commands[2];
  int answers[2];
  if (::pipe(commands) != 0 || ::pipe(answers) != 0) return 2;
  const pid_t child = ::fork();
  if (child < 0) return 2;
  if (child == 0) {
    ::close(commands[1]);
    ::close(answers[0]);
    FaultyServer server(seed);
    const auto urls = server.start();
    const std::string line = urls.kelURL + " " + urls.socketURL + " " + std::to_string(urls.port);
    if (::write(answers[1], line.data(), line.size()) < 0 || ::write(answers[1], "\n", 1) < 0) {
      ::_exit(2);
    }
    const auto faults = server.serve(commands[0]);
    if (::write(answers[1], &faults, sizeof faults) < 0) ::_exit(2);
    ::_exit(0);
  }
  ::close(commands[0]);
  ::close(answers[1]);
  std::string line;
  for (char c = 0; ::read(answers[0], &c, 1) == 1 && c != '\n';) line += c;
  kel::emulator::Urls urls;
  std::istringstream(line) >> urls.kelURL >> urls.socketURL >> urls.port;
  if (urls.kelURL.empty()) return 2;

  Soak soak(urls, commands[1], minutes, rate);
  soak.onFinish([&] {
    const char quit = 'q';
    std::uint64_t faults = 0;
    if (::write(commands[1], &quit, 1) != 1 ||
        ::read(answers[0], &faults, sizeof faults) != sizeof faults) {
      faults = 0;
    }
    ::waitpid(child, nullptr, 0);
    return faults;
  });
  return soak.run();
}
