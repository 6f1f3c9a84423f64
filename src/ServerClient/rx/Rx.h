#pragma once
// The reactive core in one include.

#include "ServerClient/rx/DispatchQueue.h"
#include "ServerClient/rx/Disposable.h"
#include "ServerClient/rx/Errors.h"
#include "ServerClient/rx/Event.h"
#include "ServerClient/rx/Observable.h"
#include "ServerClient/rx/Observer.h"
#include "ServerClient/rx/Scheduler.h"
#include "ServerClient/rx/Schedulers.h"
#include "ServerClient/rx/Subjects.h"
