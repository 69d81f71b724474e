// UnreachableDirectory and PublishAndWait live with the directory's double.
#pragma once
#include "support/HostDoubles.h"
