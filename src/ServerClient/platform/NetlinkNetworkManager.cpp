#include "ServerClient/platform/NetlinkNetworkManager.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <system_error>
#include <utility>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/network_v4.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ServerClient/Log/ServerLog.h"

namespace kel::platform {

namespace {

namespace asio = boost::asio;

bool isGlobal(const std::string& text) {
  boost::system::error_code ec;
  const auto address = asio::ip::make_address(text, ec);
  if (ec || address.is_unspecified() || address.is_loopback() || address.is_multicast()) {
    return false;
  }
  if (address.is_v4()) {
    static const auto linkLocal = asio::ip::make_network_v4("169.254.0.0/16");
    const auto v4 = address.to_v4();
    return !asio::ip::network_v4(v4, 32).is_subnet_of(linkLocal);
  }
  return !address.to_v6().is_link_local();
}

// A netlink socket subscribed to link and address changes; -1 when none can be had.
int openNetlinkSocket() {
  const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (fd < 0) return -1;
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int error = errno;
    ::close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

}  // namespace

OvNetworkStatus reachabilityOf(const std::vector<NetworkInterface>& interfaces) {
  const bool reachable =
      std::any_of(interfaces.begin(), interfaces.end(), [](const NetworkInterface& interface) {
        return interface.up && interface.running && !interface.loopback &&
               std::any_of(interface.addresses.begin(), interface.addresses.end(), isGlobal);
      });
  return reachable ? OvNetworkStatus::reachable : OvNetworkStatus::notReachable;
}

std::vector<NetworkInterface> currentNetworkInterfaces() {
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) {
    KEL_LOG_ERROR("readStatus()",
                  std::string("Network interfaces cannot be read: ") + std::strerror(errno));
    return {};
  }
  std::map<std::string, NetworkInterface> byName;
  for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
    if (!entry->ifa_name) continue;
    auto& interface = byName[entry->ifa_name];
    interface.name = entry->ifa_name;
    interface.up = (entry->ifa_flags & IFF_UP) != 0;
    interface.running = (entry->ifa_flags & IFF_RUNNING) != 0;
    interface.loopback = (entry->ifa_flags & IFF_LOOPBACK) != 0;
    if (!entry->ifa_addr) continue;
    std::array<char, INET6_ADDRSTRLEN> text{};
    const void* raw = nullptr;
    if (entry->ifa_addr->sa_family == AF_INET) {
      raw = &reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr;
    } else if (entry->ifa_addr->sa_family == AF_INET6) {
      raw = &reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr)->sin6_addr;
    }
    if (raw && ::inet_ntop(entry->ifa_addr->sa_family, raw, text.data(), text.size())) {
      interface.addresses.emplace_back(text.data());
    }
  }
  ::freeifaddrs(list);
  std::vector<NetworkInterface> interfaces;
  for (auto& [name, interface] : byName) interfaces.push_back(std::move(interface));
  return interfaces;
}

// Waits for netlink notifications on its own thread and publishes the status they lead to.
struct NetlinkNetworkManager::Watcher {
  Watcher(int fd, Rule r, rx::BehaviorRelay<OvNetworkStatus> relay, OvNetworkStatus initial)
      : descriptor(ioContext, fd), rule(std::move(r)), status(std::move(relay)), last(initial) {}

  void watch() {
    descriptor.async_wait(asio::posix::descriptor_base::wait_read,
                          [this](boost::system::error_code ec) {
                            if (!ec) notified();
                          });
  }

  void notified() {
    std::array<char, 8192> buffer;
    bool changed = false;
    for (;;) {
      const auto n = ::recv(descriptor.native_handle(), buffer.data(), buffer.size(), MSG_DONTWAIT);
      if (n > 0) {
        changed = true;
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
      if (n < 0 && errno == ENOBUFS) {  // notifications were lost: read everything again
        changed = true;
        continue;
      }
      KEL_LOG_ERROR("listen()", std::string("Network changes can no longer be followed: ") +
                                    (n < 0 ? std::strerror(errno) : "netlink socket closed"));
      return;
    }
    if (changed) {
      const auto now = rule(currentNetworkInterfaces());
      if (now != last) {
        last = now;
        KEL_LOG_DEBUG("listen()", std::string("Network status: ") + std::string(name(now)));
        status.accept(now);
      }
    }
    watch();
  }

  asio::io_context ioContext{1};
  asio::posix::stream_descriptor descriptor;
  const Rule rule;
  rx::BehaviorRelay<OvNetworkStatus> status;  // shares the manager's relay
  OvNetworkStatus last;                       // watcher thread only
};

const std::shared_ptr<NetlinkNetworkManager>& NetlinkNetworkManager::shared() {
  static const auto instance = std::make_shared<NetlinkNetworkManager>();
  return instance;
}

NetlinkNetworkManager::NetlinkNetworkManager(Rule rule) : status_(OvNetworkStatus::unknown) {
  // Listening starts before the first reading, so that no change falls between the two.
  const int fd = openNetlinkSocket();
  const int openError = errno;
  const auto initial = rule(currentNetworkInterfaces());
  status_.accept(initial);
  if (fd < 0) {
    KEL_LOG_ERROR("start()",
                  std::string("Network changes cannot be followed (no netlink socket): ") +
                      std::strerror(openError));
    return;
  }
  watcher_ = std::make_shared<Watcher>(fd, std::move(rule), status_, initial);
  watcher_->watch();
  thread_ = std::thread([watcher = watcher_] {
    pthread_setname_np(pthread_self(), "kel-netlink");
    watcher->ioContext.run();
  });
}

NetlinkNetworkManager::~NetlinkNetworkManager() {
  if (!watcher_) return;
  // Closing the descriptor ends the only pending wait, and with it the thread's work.
  asio::post(watcher_->ioContext, [watcher = watcher_] {
    boost::system::error_code ignored;
    watcher->descriptor.close(ignored);
  });
  if (std::this_thread::get_id() == thread_.get_id()) {
    thread_.detach();  // destroyed by a subscriber: the thread ends on its own right after
  } else {
    thread_.join();
  }
}

rx::Observable<OvNetworkStatus> NetlinkNetworkManager::networkStatusStream() const {
  return status_.asObservable();
}

OvNetworkStatus NetlinkNetworkManager::status() const {
  return status_.value();
}

}  // namespace kel::platform
