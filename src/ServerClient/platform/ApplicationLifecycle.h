#pragma once

#include <memory>

#include "ServerClient/rx/Event.h"
#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/SerialEmitter.h"
#include "ServerClient/rx/Subjects.h"

namespace kel::platform {

/// The application's foreground and background transitions. Linux has no such notion, so the
/// application (or a mobile binding) posts them; the library only listens.
///
/// Posts may come from any thread, also at the same time and from inside a subscriber. Each is
/// delivered to the subscribers of that moment, one at a time across both streams and in the
/// order of the posts: on the posting thread, unless another post is being delivered, in which
/// case the thread delivering that one delivers this one right after it.
class ApplicationLifecycle {
 public:
  /// The process-wide instance the library listens to unless given another.
  static const std::shared_ptr<ApplicationLifecycle>& shared();

  /// Emits each time the application is about to enter the foreground; never completes.
  rx::Observable<rx::Unit> willEnterForeground() const {
    return willEnterForeground_.asObservable();
  }
  /// Emits each time the application has entered the background; never completes.
  rx::Observable<rx::Unit> didEnterBackground() const { return didEnterBackground_.asObservable(); }

  /// Tells the library that the application is about to enter the foreground:
  /// willEnterForeground() emits. Thread-safe; may return before delivery (see the class).
  void postWillEnterForeground() const {
    emitter_.run([this] { willEnterForeground_.accept(rx::Unit{}); });
  }
  /// Tells the library that the application has entered the background: didEnterBackground()
  /// emits. Thread-safe; may return before delivery (see the class).
  void postDidEnterBackground() const {
    emitter_.run([this] { didEnterBackground_.accept(rx::Unit{}); });
  }

 private:
  // Relays expect their emissions serialised; posts come from any thread.
  mutable rx::SerialEmitter emitter_;
  rx::PublishRelay<rx::Unit> willEnterForeground_;
  rx::PublishRelay<rx::Unit> didEnterBackground_;
};

}  // namespace kel::platform
