// orqcam serve: every camera's live view and controls as a web page and a JSON API.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "Args.h"
#include "Output.h"
#include "Session.h"

namespace httplib {
class Server;
}

namespace orqcam {

// What orqcam node adds to the server: routes of its own (behind the token, which it always
// has then), word of the address once listening, and a stop of its own besides the signals.
struct ServeExtension {
    std::function<void(httplib::Server&)> routes;
    std::function<void(const std::string& host, int port, const std::string& token)> listening;
    const std::atomic<bool>* stop = nullptr;
};

// Serves until SIGINT or SIGTERM, then lets downloads under way finish.
Outcome Serve(const Options& options, const std::vector<Camera*>& cameras,
              const ServeExtension* extension = nullptr);

}  // namespace orqcam
