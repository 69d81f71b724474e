// ScriptedCommandRunner, FakeKernelModules, FakeFirewall live with the doubles.
#pragma once
#include "support/HostDoubles.h"
