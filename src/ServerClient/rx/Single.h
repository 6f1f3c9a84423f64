#pragma once
// Single<T> and Completable are declared with Observable<T>, into which they convert both ways.
#include "ServerClient/rx/Observable.h"
