// The device side of one USB camera: what it does with bytes the host sends on the bulk-out
// pipe and what it puts on the bulk-in pipe. Transports (the in-process virtual bus, an emulated
// USB device) drive an endpoint; they know nothing of what it speaks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace orqsim {

struct TransferResult {
    enum Status { Ok, Timeout, Error, Disconnected };
    Status status = Ok;
    size_t count = 0;  // bytes moved (may be fewer than asked on a bulk-in read)
};

class VirtualEndpoint {
public:
    virtual ~VirtualEndpoint() = default;

    // Product string (string descriptor 2) as 16-bit units.
    virtual std::u16string ProductString() const = 0;

    // One transfer from the host. Blocks at most timeoutMs where a fault asks it to stall.
    virtual TransferResult BulkOut(const uint8_t* data, size_t size, unsigned timeoutMs) = 0;

    // Up to size bytes for the host; a read shorter than the pending packet leaves the rest for
    // the next read. Blocks at most timeoutMs when nothing is pending.
    virtual TransferResult BulkIn(uint8_t* data, size_t size, unsigned timeoutMs) = 0;

    // Makes every blocked or later transfer fail at once (the host closed the device).
    virtual void Abort() = 0;
    // Undoes Abort for a new open of the same device.
    virtual void Reset() = 0;
};

}  // namespace orqsim
