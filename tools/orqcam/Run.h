// One orqcam command, from its arguments to its exit code.
#pragma once

#include <string>
#include <vector>

namespace orqcam {

// `simulated` loads the simulator build even without --virtual: the caller has attached the
// virtual cameras itself (tests do, so that a camera outlives one command as a real one does).
int Run(const std::vector<std::string>& arguments, bool simulated = false);

}  // namespace orqcam
