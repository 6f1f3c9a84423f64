#pragma once

#include <memory>

#include "ServerClient/rx/Event.h"
#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Subjects.h"

namespace kel::platform {

/// The application's foreground and background transitions. Linux has no such notion, so the
/// application (or a mobile binding) posts them; the library only listens.
class ApplicationLifecycle {
 public:
  /// The process-wide instance the library listens to unless given another.
  static const std::shared_ptr<ApplicationLifecycle>& shared();

  /// Emits on the posting thread each time the application is about to enter the foreground.
  rx::Observable<rx::Unit> willEnterForeground() const {
    return willEnterForeground_.asObservable();
  }
  /// Emits on the posting thread each time the application has entered the background.
  rx::Observable<rx::Unit> didEnterBackground() const { return didEnterBackground_.asObservable(); }

  void postWillEnterForeground() const { willEnterForeground_.accept(rx::Unit{}); }
  void postDidEnterBackground() const { didEnterBackground_.accept(rx::Unit{}); }

 private:
  rx::PublishRelay<rx::Unit> willEnterForeground_;
  rx::PublishRelay<rx::Unit> didEnterBackground_;
};

}  // namespace kel::platform
