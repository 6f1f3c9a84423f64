#pragma once
/// @file
/// The reactive core in one include.
///
/// Contract, for everything in kel::rx:
/// - Observables are cold and lazy: nothing runs until subscribe(), and every subscription runs
///   the producer anew. Subjects and share() are the hot exceptions.
/// - Notifications come on the thread that produces them: synchronously inside subscribe() for
///   sources such as just() or from(), on the scheduler's thread for time-based operators and
///   observeOn(), on the calling thread for subjects. Nothing hops threads unless an operator says
///   so (observeOn, subscribeOn, delaySubscription, timeout, timer, interval).
/// - An observer receives notifications one at a time, never concurrently, and nothing after an
///   error or completion. Operators with several inputs serialise them without holding a lock while
///   calling downstream.
/// - dispose() is idempotent and thread-safe and stops upstream work: timers are cancelled, inner
///   subscriptions disposed, scheduled actions released. A notification already being delivered
///   when dispose() is called may complete; no new one starts afterwards.
/// - Dropping a Disposable does not cancel: the subscription lives while its producer (a subject,
///   a pending timer, a create() producer) holds the observer. Keep handles in a DisposeBag.
/// - After termination or disposal a subscription lets go of its observer and captured functions.
///   Subscriptions hold no reference cycles of their own, so a producer that goes away takes its
///   undisposed subscriptions with it. Pending scheduled work counts as a producer: an operator
///   holds its scheduler, so a TestScheduler with pending work for a live subscription lives until
///   that work runs or the subscription is disposed.
/// - An exception thrown by a function given to an operator becomes that subscription's onError,
///   and upstream is disposed. Errors with nowhere to go reach setUnhandledErrorHandler()
///   (Errors.h).
/// - Time-based operators take their scheduler as an argument; tests use TestScheduler.

#include "ServerClient/rx/DispatchQueue.h"
#include "ServerClient/rx/Disposable.h"
#include "ServerClient/rx/Errors.h"
#include "ServerClient/rx/Event.h"
#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Observer.h"
#include "ServerClient/rx/Scheduler.h"
#include "ServerClient/rx/Schedulers.h"
#include "ServerClient/rx/SerialEmitter.h"
#include "ServerClient/rx/Subjects.h"
