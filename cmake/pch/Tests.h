// The library's heavy third-party headers plus the test framework, for the test programs.
#pragma once

#include "Library.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
