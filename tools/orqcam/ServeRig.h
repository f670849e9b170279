// orqcam serve --broker URL --rig NAME: the page's view of a rig, followed over its broker.
#pragma once

#include <memory>

#include "Args.h"
#include "Output.h"

namespace httplib {
class Server;
}

namespace orqcam {
namespace serve {

class RigView {
public:
    virtual ~RigView() = default;
    // GET /api/rig and POST /api/rig/fire (docs/serve-api.md).
    virtual void Routes(httplib::Server& http) = 0;
};

// Connects to the broker and waits for the rig's retained state; null and the failure (exit 7
// when the broker refused us or cannot be reached) otherwise.
std::unique_ptr<RigView> FollowRig(const Options& options, Outcome& failure);

}  // namespace serve
}  // namespace orqcam
