// The engine instances zeld drives: one tgtd per portal, its child,
// reached through its control socket (engine/).
#pragma once

#include <string>

#include "Reconciler.h"

namespace zeltools {

// Starts a tgtd for a portal; its output goes to home/log/engine-<portal>.log.
Reconciler::EngineFactory TgtEngineFactory(const std::string& home);

}  // namespace zeltools
