// The integrator's settings, read once from "ORQSDK.cfg" beside the host executable.
#pragma once

#include <cstdint>
#include <string>

namespace orq {

struct SDKConfig {
    bool MemLogging = false;
    int32_t PreviewFrameInterval = 60;
    bool TestOrqmVer = true;
};

// Fills config from the XML file at path; the caller has set the defaults.
void LoadConfig(SDKConfig& config, const std::u16string& path);

}  // namespace orq
