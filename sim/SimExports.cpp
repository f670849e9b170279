// The OrqSim exports of orqsdk_sim: the application's hand on the virtual cameras.
#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>

#include "orqsdk_sim.h"
#include "platform/Platform.h"
#include "sim/VirtualCamera.h"

namespace orqsim {

namespace {

struct Registry {
    std::mutex lock;
    std::map<OrqSimCamera, std::shared_ptr<VirtualCamera>> cameras;
    OrqSimCamera next = 1;
};

Registry& TheRegistry() {
    // Never destroyed: a camera may be touched while the process exits.
    static Registry* registry = new Registry;
    return *registry;
}

std::shared_ptr<VirtualCamera> Find(OrqSimCamera id) {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> guard(registry.lock);
    auto found = registry.cameras.find(id);
    return found == registry.cameras.end() ? nullptr : found->second;
}

// Runs f on the camera; no exception leaves an export.
template <class F>
OrqResult With(OrqSimCamera id, F f) {
    try {
        auto camera = Find(id);
        if (!camera) return ORQ_ERROR;
        return f(*camera) ? ORQ_OK : ORQ_ERROR;
    } catch (...) {
        return ORQ_ERROR;
    }
}

std::u16string PathFor(const std::string& model, OrqSimCamera id) {
    std::string text = "orqsim://" + model + "/" + std::to_string(id);
    return std::u16string(text.begin(), text.end());
}

}  // namespace

}  // namespace orqsim

using orqsim::With;

extern "C" {

ORQ_API OrqSimCamera OrqSimAttachCamera(const char* model) {
    try {
        if (!model) return 0;
        orqsim::CameraOptions options;
        options.model = model;
        auto& registry = orqsim::TheRegistry();
        OrqSimCamera id;
        {
            std::lock_guard<std::mutex> guard(registry.lock);
            id = registry.next++;
        }
        // The same attach order gives the same serials, run after run; processes that stand for
        // different machines (a rig's nodes) are told apart by a seed of their own.
        const char* seed = std::getenv("ORQSIM_SERIAL_SEED");
        options.serialNumber = orqsim::SerialFor(
            seed && *seed ? options.model + "@" + seed : options.model, static_cast<uint32_t>(id));
        auto camera = std::make_shared<orqsim::VirtualCamera>(options);
        {
            std::lock_guard<std::mutex> guard(registry.lock);
            registry.cameras[id] = camera;
        }
        // Attached outside the registry's lock: the bus tells every transport.
        if (!camera->PlugIn(orqsim::PathFor(options.model, id))) {
            std::lock_guard<std::mutex> guard(registry.lock);
            registry.cameras.erase(id);
            return 0;
        }
        return id;
    } catch (...) {
        return 0;
    }
}

ORQ_API OrqResult OrqSimDetachCamera(OrqSimCamera camera) {
    return With(camera, [](orqsim::VirtualCamera& c) {
        if (!c.PluggedIn()) return false;
        c.Unplug();
        return true;
    });
}

ORQ_API OrqResult OrqSimReattachCamera(OrqSimCamera camera) {
    auto found = orqsim::Find(camera);
    if (!found) return ORQ_ERROR;
    try {
        return found->PlugIn(orqsim::PathFor(found->Options().model, camera)) ? ORQ_OK : ORQ_ERROR;
    } catch (...) {
        return ORQ_ERROR;
    }
}

ORQ_API OrqResult OrqSimRemoveCamera(OrqSimCamera camera) {
    std::shared_ptr<orqsim::VirtualCamera> gone;
    {
        auto& registry = orqsim::TheRegistry();
        std::lock_guard<std::mutex> guard(registry.lock);
        auto found = registry.cameras.find(camera);
        if (found == registry.cameras.end()) return ORQ_ERROR;
        gone = std::move(found->second);
        registry.cameras.erase(found);
    }
    if (gone->PluggedIn()) gone->Unplug();
    return ORQ_OK;
}

ORQ_API void OrqSimRemoveAll(void) {
    std::map<OrqSimCamera, std::shared_ptr<orqsim::VirtualCamera>> gone;
    {
        auto& registry = orqsim::TheRegistry();
        std::lock_guard<std::mutex> guard(registry.lock);
        gone.swap(registry.cameras);
    }
    for (auto& entry : gone) {
        if (entry.second->PluggedIn()) entry.second->Unplug();
    }
}

ORQ_API OrqResult OrqSimGetCameraPath(OrqSimCamera camera, OrqChar* path, int capacity) {
    return With(camera, [&](orqsim::VirtualCamera& c) {
        std::u16string text = c.Path();
        if (!path || capacity <= 0 || text.size() + 1 > static_cast<size_t>(capacity)) {
            return false;
        }
        for (size_t i = 0; i < text.size(); ++i) path[i] = static_cast<OrqChar>(text[i]);
        path[text.size()] = 0;
        return true;
    });
}

ORQ_API OrqResult OrqSimSetModeWheel(OrqSimCamera camera, int32_t rawMode) {
    return With(camera, [&](orqsim::VirtualCamera& c) {
        c.SetModeWheel(rawMode);
        return true;
    });
}

ORQ_API OrqResult OrqSimSetCameraMode(OrqSimCamera camera, int32_t mode) {
    return With(camera, [&](orqsim::VirtualCamera& c) {
        c.SetCameraMode(static_cast<uint32_t>(mode));
        return true;
    });
}

ORQ_API OrqResult OrqSimSetBattery(OrqSimCamera camera, int32_t current, int32_t maximum,
                                   int32_t minimum) {
    return With(camera, [&](orqsim::VirtualCamera& c) {
        c.SetBattery(current, maximum, minimum);
        return true;
    });
}

ORQ_API OrqResult OrqSimSetPropCase(OrqSimCamera camera, int32_t propCase, int32_t raw) {
    return With(camera, [&](orqsim::VirtualCamera& c) {
        c.SetPropCase(propCase, raw);
        return true;
    });
}

ORQ_API OrqResult OrqSimGetPropCase(OrqSimCamera camera, int32_t propCase, int32_t* raw) {
    return With(camera, [&](orqsim::VirtualCamera& c) {
        if (!raw) return false;
        *raw = c.PropCase(propCase);
        return true;
    });
}

ORQ_API OrqResult OrqSimSetZoom(OrqSimCamera camera, int32_t position) {
    return With(camera, [&](orqsim::VirtualCamera& c) {
        c.SetZoomPosition(position);
        return true;
    });
}

ORQ_API OrqResult OrqSimSetFocus(OrqSimCamera camera, int32_t position) {
    return With(camera, [&](orqsim::VirtualCamera& c) {
        c.SetFocusPosition(position);
        return true;
    });
}

ORQ_API int32_t OrqSimAddFile(OrqSimCamera camera, const OrqChar* name, const void* data,
                              uint32_t size) {
    int32_t handle = -1;
    With(camera, [&](orqsim::VirtualCamera& c) {
        if (!name || (!data && size)) return false;
        std::u16string text;
        for (const OrqChar* p = name; *p; ++p) text.push_back(static_cast<char16_t>(*p));
        const auto* bytes = static_cast<const uint8_t*>(data);
        handle = static_cast<int32_t>(c.AddFile(text, orqsim::Bytes(bytes, bytes + size)));
        return true;
    });
    return handle;
}

ORQ_API OrqResult OrqSimDeleteFile(OrqSimCamera camera, int32_t handle) {
    return With(camera, [&](orqsim::VirtualCamera& c) {
        return handle >= 0 && c.RemoveFile(static_cast<uint32_t>(handle));
    });
}

ORQ_API int32_t OrqSimGetFileCount(OrqSimCamera camera) {
    int32_t count = -1;
    With(camera, [&](orqsim::VirtualCamera& c) {
        count = static_cast<int32_t>(c.FileCount());
        return true;
    });
    return count;
}

ORQ_API OrqResult OrqSimSetCardFolder(OrqSimCamera camera, const OrqChar* folder) {
    return With(camera, [&](orqsim::VirtualCamera& c) {
        std::u16string path;
        if (folder) {
            for (const OrqChar* p = folder; *p && path.size() < 4096; ++p) {
                path.push_back(static_cast<char16_t>(*p));
            }
        } else {
            path = orq::platform::LogFolder();
            if (path.empty()) return false;
            const char16_t separator = orq::platform::PathSeparator();
            path +=
                separator + std::u16string(u"orqsim-cards") + separator + c.Options().serialNumber;
        }
        return !path.empty() && c.SetCardFolder(path);
    });
}

ORQ_API OrqResult OrqSimInjectFault(OrqSimCamera camera, const OrqSimFault* fault) {
    return With(camera, [&](orqsim::VirtualCamera& c) {
        if (!fault || fault->kind < ORQSIM_GENERAL_ERROR || fault->kind > ORQSIM_TRANSFER_SHORT) {
            return false;
        }
        orqsim::Fault f;
        f.kind = static_cast<orqsim::Fault::Kind>(fault->kind);
        f.opcode = fault->opcode;
        // Zero-filled records mean "any sub-command", "once", "the next transfer".
        f.subCommand = fault->subCommand > 0 ? fault->subCommand : -1;
        f.skip = fault->skip;
        f.times = fault->times == 0 ? 1 : fault->times;
        f.pipe = fault->pipe == ORQSIM_BULK_OUT ? orqsim::Pipe::Out : orqsim::Pipe::In;
        f.transfer = fault->transfer ? fault->transfer : 1;
        f.value = fault->value;
        if (fault->bytes) f.bytes.assign(fault->bytes, fault->bytes + fault->byteCount);
        c.InjectFault(std::move(f));
        return true;
    });
}

ORQ_API OrqResult OrqSimClearFaults(OrqSimCamera camera) {
    return With(camera, [](orqsim::VirtualCamera& c) {
        c.ClearFaults();
        return true;
    });
}

ORQ_API OrqResult OrqSimSetLatency(OrqSimCamera camera, uint32_t perTransferMicroseconds,
                                   uint32_t perByteNanoseconds) {
    return With(camera, [&](orqsim::VirtualCamera& c) {
        c.SetLatency(std::chrono::microseconds(perTransferMicroseconds),
                     std::chrono::nanoseconds(perByteNanoseconds));
        return true;
    });
}

ORQ_API int32_t OrqSimCountOperations(OrqSimCamera camera, uint16_t opcode, int32_t subCommand) {
    int32_t count = -1;
    With(camera, [&](orqsim::VirtualCamera& c) {
        count = static_cast<int32_t>(c.CountOperations(opcode, subCommand > 0 ? subCommand : -1));
        return true;
    });
    return count;
}

ORQ_API int32_t OrqSimGetShootTimes(OrqSimCamera camera, int64_t* nanoseconds, int32_t capacity) {
    int32_t count = -1;
    With(camera, [&](orqsim::VirtualCamera& c) {
        const auto times = c.ShootTimes();
        count = static_cast<int32_t>(times.size());
        for (int32_t i = 0; nanoseconds && i < capacity && i < count; ++i) {
            nanoseconds[i] = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                 times[static_cast<size_t>(i)].time_since_epoch())
                                 .count();
        }
        return true;
    });
    return count;
}

ORQ_API OrqResult OrqSimClearOperations(OrqSimCamera camera) {
    return With(camera, [](orqsim::VirtualCamera& c) {
        c.ClearOperations();
        return true;
    });
}

}  // extern "C"
