// The wire to one camera: PTP containers and transactions on the two bulk pipes of the device
// record this link opens and owns. One transaction at a time, whole, so threads may share it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Kernel/PtpCodes.h"
#include "Kernel/UsbLib.h"
#include "orqsdk.h"

namespace orq {

// Data phase of a transaction; owned by the caller after a successful return.
struct PtpDataBlock {
    std::unique_ptr<uint8_t[]> data;
    uint64_t size = 0;

    // Little-endian 32-bit word at index i; 0 past the end.
    uint32_t Word(size_t i) const;
};

using PtpParams = std::vector<uint32_t>;

// Direction of a transaction's data phase; the host never sends one.
enum PtpDirection : int32_t { PTP_DATA_IN = 1, PTP_NO_DATA = 2 };

class PtpLink {
public:
    // Most that a data phase may bring unless the operation says otherwise: far above any answer
    // but a file's, a picture chunk's or a live-view frame's, which set their own bound.
    static constexpr uint64_t kDataLimit = 32ull << 20;
    // Command and response containers never exceed this.
    static constexpr size_t kContainerBuffer = 512;

    // usb is borrowed: the camera manager's, which outlives every camera.
    explicit PtpLink(UsbLib* usb);
    // Every thread that transferred on the link has ended by now.
    ~PtpLink();

    PtpLink(const PtpLink&) = delete;
    PtpLink& operator=(const PtpLink&) = delete;

    // Opens the device of path and gives its product name: ORQ_OK, ORQ_NO_PERMISSION or
    // ORQ_ERROR. Refused once ForceClose has run.
    OrqResult Open(const std::u16string& path, std::u16string& name);
    // Closes the device so that a blocked transfer fails at once; the record stays until
    // destruction, so a transfer in flight keeps a valid handle.
    void ForceClose();

    // One attempt. A data phase announcing more than dataLimit bytes fails before anything is
    // allocated; generalError tells the one failure after which the stream is still in step.
    bool PtpTransaction(uint16_t code, const PtpParams& params, int32_t direction,
                        bool& generalError, PtpDataBlock* data,
                        std::vector<uint32_t>* responseParams, uint64_t dataLimit = kDataLimit);
    // Up to three attempts while the camera answers a general error.
    bool PtpTransactionRetry(uint16_t code, const PtpParams& params, int32_t direction,
                             PtpDataBlock* data, std::vector<uint32_t>* responseParams,
                             uint64_t dataLimit = kDataLimit);
    // Numbers transactions afresh from 0 and opens session 1.
    bool OpenSession();
    // General errors met so far, retried or not.
    uint64_t GeneralErrors() const { return generalErrors.load(); }

private:
    // The steps of one transaction, under ptpLock.
    bool SendCommand(uint16_t code, const PtpParams& params);
    bool ReceiveData(uint16_t code, uint64_t dataLimit, bool& generalError, PtpDataBlock& payload);
    bool ReadDataHeader(uint16_t code, uint64_t dataLimit, bool& generalError,
                        uint64_t& payloadSize);
    // The data phase's size bytes into payload, which grows as they arrive (see the .cpp).
    bool ReadDataPhase(std::unique_ptr<uint8_t[]>& payload, uint64_t size);
    bool ReceiveResponse(uint16_t code, bool& generalError, std::vector<uint32_t>* responseParams);
    bool PtpReadContainer(uint8_t (&response)[kContainerBuffer]);

    UsbLib* usb;
    // Set by Open before any transaction, released at destruction; between the two it is only
    // closed, so transactions read it without closeLock.
    UsbDevice* device = nullptr;
    // Orders ForceClose against Open, so that a camera closed while it was being opened stays
    // closed.
    std::mutex closeLock;
    std::atomic<bool> forceClosed{false};
    // Held for a whole transaction, data phase included; never across the pause between attempts.
    std::mutex ptpLock;
    uint32_t transactionId = 0;
    uint32_t sessionId = 0;  // only recorded: no container carries it
    std::atomic<uint64_t> generalErrors{0};
};

}  // namespace orq
