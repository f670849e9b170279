// orqcam serve: every camera's live view and controls as a web page and a JSON API.
#pragma once

#include <string>
#include <vector>

#include "Args.h"
#include "Output.h"
#include "Session.h"

namespace orqcam {

// Serves until SIGINT or SIGTERM, then lets downloads under way finish.
Outcome Serve(const Options& options, const std::vector<Camera*>& cameras);

}  // namespace orqcam
