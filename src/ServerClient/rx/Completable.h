#pragma once
// Completable is declared with Observable<T>, into which it converts both ways.
#include "ServerClient/rx/Observable.h"
