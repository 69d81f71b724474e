// FakeNetworkInterfaces lives with the doubles.
#pragma once
#include "support/HostDoubles.h"
