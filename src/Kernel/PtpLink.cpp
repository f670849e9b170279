// PTP transactions: a command container out, an optional data phase in, a response in.
#include "Kernel/PtpLink.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <thread>

#include "Kernel/Bytes.h"
#include "Logger.h"

namespace orq {

using bytes::GetLe16;
using bytes::GetLe32;
using bytes::PutLe16;
using bytes::PutLe32;

namespace {

enum : uint16_t { CONTAINER_COMMAND = 1, CONTAINER_DATA = 2, CONTAINER_RESPONSE = 3 };

constexpr size_t kHeaderSize = 12;
constexpr size_t kMaxCommandParams = (PtpLink::kContainerBuffer - kHeaderSize) / 4;

}  // namespace

uint32_t PtpDataBlock::Word(size_t i) const {
    if (!data || size < 4 * (static_cast<uint64_t>(i) + 1)) return 0;
    return GetLe32(data.get() + 4 * i);
}

PtpLink::PtpLink(UsbLib* usb) : usb(usb) {}

PtpLink::~PtpLink() {
    std::lock_guard<std::mutex> guard(closeLock);
    if (device) usb->ReleaseDevice(device);
    device = nullptr;
}

OrqResult PtpLink::Open(const std::u16string& path, std::u16string& name) {
    std::lock_guard<std::mutex> guard(closeLock);
    if (forceClosed) return ORQ_ERROR;
    device = usb->OpenDevice(path);
    if (!device) return usb->OpenDenied(path) ? ORQ_NO_PERMISSION : ORQ_ERROR;
    name = usb->GetDeviceName(device);
    return ORQ_OK;
}

void PtpLink::ForceClose() {
    // Not under ptpLock: that is held by the very transfer this is to fail.
    std::lock_guard<std::mutex> guard(closeLock);
    forceClosed = true;
    if (device) {
        ORQ_LOG(DEB, "ForceCloseUSB");
        usb->CloseDevice(device);
    }
}

// ---------------------------------------------------------------------------------------------
// One transaction

bool PtpLink::PtpTransaction(uint16_t code, const PtpParams& params, int32_t direction,
                             bool& generalError, PtpDataBlock* data,
                             std::vector<uint32_t>* responseParams, uint64_t dataLimit) {
    std::lock_guard<std::mutex> guard(ptpLock);
    generalError = false;
    if (!SendCommand(code, params)) return false;
    PtpDataBlock payload;
    if (direction == PTP_DATA_IN && !ReceiveData(code, dataLimit, generalError, payload)) {
        return false;
    }
    if (!ReceiveResponse(code, generalError, responseParams)) return false;
    if (data && direction == PTP_DATA_IN) *data = std::move(payload);
    return true;
}

bool PtpLink::SendCommand(uint16_t code, const PtpParams& params) {
    if (!device || forceClosed) {
        // Closed under us (the cable went, or the session is being torn down).
        ORQ_LOG(ERR, "PtpTransaction failed");
        ORQ_LOG(ERR, "PtpTransaction: device is closed");
        return false;
    }
    if (params.size() > kMaxCommandParams) {
        ORQ_LOG(ERR, "PtpTransaction failed");
        ORQ_LOG(ERR, "PtpTransaction: too many parameters: %d", static_cast<int>(params.size()));
        return false;
    }
    uint8_t command[kContainerBuffer] = {};
    const uint32_t length = static_cast<uint32_t>(kHeaderSize + 4 * params.size());
    PutLe32(command, length);
    PutLe16(command + 4, CONTAINER_COMMAND);
    PutLe16(command + 6, code);
    PutLe32(command + 8, transactionId);
    for (size_t i = 0; i < params.size(); ++i) PutLe32(command + kHeaderSize + 4 * i, params[i]);
    // The id is spent even if the transaction fails further on.
    ++transactionId;
    if (!usb->UsbWrite({command, length}, device)) {
        ORQ_LOG(ERR, "PtpTransaction failed");
        return false;
    }
    return true;
}

// False with generalError set when a general error came in place of the data: it has been taken
// off the pipe whole, so a retry starts in step.
bool PtpLink::ReceiveData(uint16_t code, uint64_t dataLimit, bool& generalError,
                          PtpDataBlock& payload) {
    if (!ReadDataHeader(code, dataLimit, generalError, payload.size)) return false;
    if (!ReadDataPhase(payload.data, payload.size)) {
        generalError = false;
        return false;
    }
    // That container was the response: there is no other to read.
    return !generalError;
}

bool PtpLink::ReadDataHeader(uint16_t code, uint64_t dataLimit, bool& generalError,
                             uint64_t& payloadSize) {
    uint8_t header[kHeaderSize];
    if (!usb->UsbReadExactly({header, kHeaderSize}, device)) {
        ORQ_LOG(ERR, "PtpTransaction failed");
        ORQ_LOG(ERR, "GETDATA failed: can't read header");
        return false;
    }
    const uint32_t dataLength = GetLe32(header);
    const uint16_t type = GetLe16(header + 4);
    const uint16_t dataCode = GetLe16(header + 6);
    if (type == CONTAINER_DATA && dataCode != code) {
        ORQ_LOG(ERR, "PtpTransaction failed");
        ORQ_LOG(ERR, "GETDATA failed: wrong code");
        return false;
    }
    if (type != CONTAINER_DATA) {
        ORQ_LOG(ERR, "PtpTransaction failed");
        ORQ_LOG(ERR, "GETDATA failed: wrong CONTAINER_DATA");
        if (type != CONTAINER_RESPONSE || dataCode != PTP_RC_GeneralError) return false;
        ORQ_LOG(ERR, "PTP_RC_GeneralError");
        generalError = true;
    }
    if (dataLength < kHeaderSize) {
        generalError = false;
        ORQ_LOG(ERR, "PtpTransaction failed");
        ORQ_LOG(ERR, "GETDATA failed: container length %u below header", dataLength);
        return false;
    }
    payloadSize = dataLength - kHeaderSize;
    if (payloadSize > dataLimit) {
        generalError = false;
        ORQ_LOG(ERR, "PtpTransaction failed");
        ORQ_LOG(ERR, "GETDATA failed: container length %u above limit %llu", dataLength,
                static_cast<unsigned long long>(dataLimit));
        return false;
    }
    return true;
}

// The declared length is the camera's word; only the bytes it sends are worth memory. The buffer
// starts at 1 MiB at most and grows fourfold as they arrive, so a camera that declares 32 MiB and
// sends a few bytes costs what it sent (or 1 MiB), never the 32 MiB. Doubling made a 10 MB
// download in the link bench twenty times slower (two more steps of allocating and copying).
bool PtpLink::ReadDataPhase(std::unique_ptr<uint8_t[]>& payload, uint64_t size) {
    constexpr uint64_t kFirstStep = 1 << 20;
    uint64_t capacity = std::min(size, kFirstStep);
    uint64_t received = 0;
    do {
        // new may fail on an absurd length: that fails the transaction, it does not throw.
        std::unique_ptr<uint8_t[]> grown(new (std::nothrow) uint8_t[capacity ? capacity : 1]);
        if (!grown) {
            ORQ_LOG(ERR, "PtpTransaction failed");
            ORQ_LOG(ERR, "GETDATA failed: can't allocate %llu bytes",
                    static_cast<unsigned long long>(capacity));
            return false;
        }
        if (received) std::memcpy(grown.get(), payload.get(), received);
        payload = std::move(grown);
        if (!usb->UsbReadExactly({payload.get() + received, capacity - received}, device)) {
            ORQ_LOG(ERR, "PtpTransaction failed");
            ORQ_LOG(ERR, "GETDATA failed: tail data stage");
            return false;
        }
        received = capacity;
        capacity = std::min(size, capacity * 4);
    } while (received < size);
    return true;
}

bool PtpLink::ReceiveResponse(uint16_t code, bool& generalError,
                              std::vector<uint32_t>* responseParams) {
    uint8_t response[kContainerBuffer];
    if (!PtpReadContainer(response)) {
        ORQ_LOG(ERR, "PtpTransaction failed");
        return false;
    }
    const uint16_t type = GetLe16(response + 4);
    const uint16_t responseCode = GetLe16(response + 6);
    if (type != CONTAINER_RESPONSE) {
        ORQ_LOG(ERR, "PtpTransaction failed");
        ORQ_LOG(ERR, "incorrect response type %d", type);
        return false;
    }
    // Some operations answer with their own code instead of OK.
    if (responseCode != code && responseCode != PTP_RC_OK) {
        if (responseCode == PTP_RC_GeneralError) {
            generalError = true;
            ORQ_LOG(ERR, "PTP_RC_GeneralError");
        }
        ORQ_LOG(ERR, "PtpTransaction failed");
        ORQ_LOG(ERR, "incorrect response code %d", responseCode);
        return false;
    }
    if (responseParams) {
        responseParams->clear();
        for (size_t i = 0; i < 5; ++i) responseParams->push_back(GetLe32(response + 12 + 4 * i));
    }
    return true;
}

bool PtpLink::PtpReadContainer(uint8_t (&response)[kContainerBuffer]) {
    std::memset(response, 0, sizeof response);
    if (!usb->UsbReadExactly({response, 4}, device)) {
        ORQ_LOG(ERR, "PtpReadContainer: packed length read failed");
        return false;
    }
    uint32_t length = GetLe32(response);
    if (length > kContainerBuffer) {
        ORQ_LOG(ERR, "PtpReadContainer: packed to long");
        return false;
    }
    if (length < kHeaderSize) {
        ORQ_LOG(ERR, "PtpReadContainer: packed length %u below header", length);
        return false;
    }
    if (!usb->UsbReadExactly({response + 4, length - 4}, device)) {
        ORQ_LOG(ERR, "PtpReadContainer: packed data read failed");
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// Retry and session

bool PtpLink::PtpTransactionRetry(uint16_t code, const PtpParams& params, int32_t direction,
                                  PtpDataBlock* data, std::vector<uint32_t>* responseParams,
                                  uint64_t dataLimit) {
    for (int attempt = 0; attempt < 3; ++attempt) {
        bool generalError = false;
        if (PtpTransaction(code, params, direction, generalError, data, responseParams,
                           dataLimit)) {
            return true;
        }
        if (!generalError) return false;
        ++generalErrors;
        ORQ_LOG(ERR, "PTP General Error. Retry %d", attempt);
        // ptpLock is free here: other threads may slip a transaction in.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    return false;
}

bool PtpLink::OpenSession() {
    {
        std::lock_guard<std::mutex> guard(ptpLock);
        sessionId = 0;
        transactionId = 0;
    }
    if (!PtpTransactionRetry(PTP_OC_OpenSession, {1}, PTP_NO_DATA, nullptr, nullptr)) return false;
    std::lock_guard<std::mutex> guard(ptpLock);
    sessionId = 1;
    return true;
}

}  // namespace orq
