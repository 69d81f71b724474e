// Kept for the tests that include it: UnreachableDirectory and
// PublishAndWait live with the directory's double.
#pragma once

#include "support/HostDoubles.h"
