// One camera session played from start-up to unplug, operation by operation, as the SDK's main
// loop would run it. The fuzzer plays it against bytes it invents, the seed recorder against the
// virtual camera; both choose the operations and answer the transfers through a SessionSource.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "Kernel/UsbLib.h"
#include "SDKConfig.h"

namespace orqfuzz {

// Operations of a session after start-up, chosen by one byte each (modulo kOperationCount).
enum Operation : uint8_t {
    kPoll,      // the periodic poll: mode, zoom, battery, focus
    kShoot,     // to the card, or to the host when Direct Transfer is on
    kFileList,  // a listing of the card
    kDownload,  // arg: which file (card or host memory)
    kRemove,    // arg: which file
    kPreview,   // one live-view frame, fetched and released as an application would
    kVideoStart,
    kVideoStop,
    kZoom,         // arg: target step
    kFocus,        // arg: position, or a shift when its top bit is set
    kSetProperty,  // args: which property, which of its values
    kUpdateAeAf,
    kCamLog,
    kUnplug,  // the cable goes: the next operation meets a closed device, and the session ends
    kOperationCount,
};

class SessionSource {
public:
    virtual ~SessionSource() = default;
    // The next byte of the script (an operation or its argument); false once it has ended.
    virtual bool Choose(uint8_t& value) = 0;
    // An operation's step asked to run again after this delay.
    virtual void Wait(std::chrono::milliseconds delay) = 0;
};

// Opens the camera at path on usb, starts it up as the SDK does and, if that succeeds, runs the
// operations the source chooses; then pulls the cable and frees everything. Downloads go to
// downloadPath.
void PlaySession(orq::UsbLib* usb, const std::u16string& path, SessionSource& source,
                 const orq::SDKConfig& config, const std::u16string& downloadPath);

}  // namespace orqfuzz
