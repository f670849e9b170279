// The verbs. Each works on open cameras and returns its outcome: exit code and JSON document.
#pragma once

#include <functional>
#include <vector>

#include "Args.h"
#include "Output.h"
#include "Session.h"

namespace orqcam {

// Properties and values by name (VerbsCamera.cpp).
std::string PropertyName(int id);
std::string ValueName(int id, int value);

// One camera.
Outcome Info(const Options& options, Camera& camera);
Outcome Props(const Options& options, Camera& camera);
Outcome Get(const Options& options, Camera& camera);
Outcome Set(const Options& options, Camera& camera);
Outcome Reset(const Options& options, Camera& camera);
Outcome Zoom(const Options& options, Camera& camera);
Outcome Focus(const Options& options, Camera& camera);
Outcome Video(const Options& options, Camera& camera);
Outcome Files(const Options& options, Camera& camera);
Outcome Download(const Options& options, Camera& camera);
Outcome Delete(const Options& options, Camera& camera);
Outcome Preview(const Options& options, Camera& camera);
Outcome Shoot(const Options& options, Camera& camera);

// Every selected camera at once.
Outcome ShootAll(const Options& options, const std::vector<Camera*>& cameras);

// How the shots of several cameras are released. FireInTurn calls OrqShoot on each camera back
// to back; a synchronised release of the SDK can take its place without touching ShootAll.
struct Fired {
    OrqResult result = ORQ_OK;
    long long calledUs = 0;  // when the request went out, from the first camera's
};
using FireStrategy = std::function<std::vector<Fired>(const std::vector<Camera*>&)>;
std::vector<Fired> FireInTurn(const std::vector<Camera*>& cameras);
extern FireStrategy fire;

}  // namespace orqcam
