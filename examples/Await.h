#pragma once

// What the examples share: waiting for an answer on a plain main() thread.
//
// The library delivers results on its main scheduler. A program without a UI loop can leave that
// as it is (a serial queue of the library's own) and wait for a promise, as here. A program with
// a loop installs the loop's executor instead: rx::MainScheduler::install(...).

#include <chrono>
#include <exception>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>

#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>

#include "ServerClient/rx/Schedulers.h"
#include "ServerClient/rx/Single.h"

namespace example {

/// The answer of `single`, or its error rethrown (every error of the library is a kel::SDKError,
/// a std::exception whose what() never shows a token or password). Gives up after `timeout`:
/// disposing of the subscription drops a late answer.
template <class T>
T await(const kel::rx::Single<T>& single, const std::string& what,
        std::chrono::seconds timeout = std::chrono::seconds(25)) {
  auto promise = std::make_shared<std::promise<T>>();
  auto future = promise->get_future();
  auto subscription = single.subscribe(
      [promise](const T& value) { promise->set_value(value); },
      [promise](std::exception_ptr error) { promise->set_exception(std::move(error)); });
  if (future.wait_for(timeout) != std::future_status::ready) {
    subscription.dispose();
    throw std::runtime_error(what + ": no answer in time");
  }
  return future.get();
}

/// Returns once the main scheduler has run everything queued on it before the call. The domain
/// handlers' streams start listening on the main scheduler, so a program that subscribes and
/// then asks for a change whose event it wants calls this in between; an event the server sends
/// before the subscription listens is not seen.
inline void untilListening() {
  auto ran = std::make_shared<std::promise<void>>();
  auto future = ran->get_future();
  kel::rx::MainScheduler::instance()->schedule([ran] { ran->set_value(); });
  if (future.wait_for(std::chrono::seconds(25)) != std::future_status::ready) {
    throw std::runtime_error("the main scheduler did not run in time");
  }
}

inline boost::urls::url url(const char* text) {
  auto parsed = boost::urls::parse_absolute_uri(text);
  if (!parsed) throw std::invalid_argument(std::string("not a URL: ") + text);
  return boost::urls::url(*parsed);
}

}  // namespace example
