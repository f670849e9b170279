// The pipes of the virtual camera: parsing commands, queueing containers, faults, latency and
// the cable. What each operation does is in CameraOperations.cpp.
#include "sim/VirtualCamera.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>

#include "Kernel/Bytes.h"
#include "sim/VirtualBus.h"

namespace orqsim {

namespace {

constexpr uint16_t kCommand = 1, kData = 2, kResponse = 3;
constexpr size_t kHeader = 12;
constexpr size_t kRecordLimit = 1000000;

using orq::bytes::GetLe16;
using orq::bytes::GetLe32;
using orq::bytes::PutLe16;
using orq::bytes::PutLe32;

Bytes Header(uint32_t length, uint16_t type, uint16_t code, uint32_t transactionId) {
    Bytes head(kHeader);
    PutLe32(head.data(), length);
    PutLe16(head.data() + 4, type);
    PutLe16(head.data() + 6, code);
    PutLe32(head.data() + 8, transactionId);
    return head;
}

}  // namespace

int64_t OperationRecord::SubCommand() const {
    if (code != orq::PTP_OC_Vendor || params.empty()) return -1;
    return params[0];
}

Fault Fault::Operation(Kind kind, uint16_t opcode, int64_t subCommand, uint32_t value) {
    Fault fault;
    fault.kind = kind;
    fault.opcode = opcode;
    fault.subCommand = subCommand;
    fault.value = value;
    return fault;
}

Fault Fault::Transfer(Kind kind, Pipe pipe, uint64_t transfer, uint32_t value) {
    Fault fault;
    fault.kind = kind;
    fault.pipe = pipe;
    fault.transfer = transfer;
    fault.value = value;
    return fault;
}

void VirtualCamera::Answer::Data(Bytes bytes) {
    hasData = true;
    payload = std::move(bytes);
    shared.reset();
}

void VirtualCamera::Answer::DataView(SharedBytes owner, const uint8_t* data, size_t size) {
    hasData = true;
    shared = std::move(owner);
    sharedData = data;
    sharedSize = size;
}

void VirtualCamera::Answer::Fail(uint16_t rc) {
    hasData = false;
    payload.clear();
    shared.reset();
    code = rc;
    params.clear();
}

namespace {
std::atomic<int> alive{0};
}

namespace {
std::atomic<uint32_t> madeCameras{0};
}

VirtualCamera::VirtualCamera(CameraOptions options) : options(std::move(options)) {
    ++alive;
    const uint32_t number = ++madeCameras;
    if (this->options.serialNumber.empty()) {
        this->options.serialNumber = SerialFor(this->options.model, number);
    }
    productString = this->options.productString.empty()
                        ? u"Orq Camera " +
                              std::u16string(this->options.model.begin(), this->options.model.end())
                        : this->options.productString;
    nextFileNumber = this->options.firstFileNumber;
    InitialiseFromProfile();
}

VirtualCamera::~VirtualCamera() {
    --alive;
}

int VirtualCamera::Alive() {
    return alive.load();
}

std::u16string VirtualCamera::ProductString() const {
    return productString;
}

// ---------------------------------------------------------------------------------------------
// Pipes

VirtualCamera::Clock::time_point VirtualCamera::Deadline(unsigned timeoutMs) const {
    unsigned limit = stallLimitMs && stallLimitMs < timeoutMs ? stallLimitMs : timeoutMs;
    return Clock::now() + std::chrono::milliseconds(limit);
}

std::chrono::nanoseconds VirtualCamera::Latency(size_t bytes) const {
    return latencyPerTransfer + latencyPerByte * static_cast<int64_t>(bytes);
}

void VirtualCamera::Wait(std::chrono::nanoseconds wait) {
    // Sleeps: a spin would take the core from the library's own threads and skew what is
    // measured through the camera. The system's timer slack may add tens of microseconds.
    if (wait.count() > 0) std::this_thread::sleep_for(wait);
}

TransferResult VirtualCamera::DisconnectNow(std::unique_lock<std::mutex>& guard) {
    unplugged = true;
    disconnectArmed = false;
    pending.clear();
    bool wasOnBus = onBus;
    onBus = false;
    std::u16string where = path;
    guard.unlock();
    // The bus aborts us again and tells every transport; neither may run under our lock.
    if (wasOnBus) VirtualBus::Instance().Detach(where);
    pendingChanged.notify_all();
    return {TransferResult::Disconnected, 0};
}

bool VirtualCamera::TakeTransferFault(Pipe pipe, uint64_t index, Fault& hit) {
    for (auto it = transferFaults.begin(); it != transferFaults.end(); ++it) {
        if (it->pipe != pipe || it->transfer != index) continue;
        hit = *it;
        if (it->times > 1 || it->times < 0) {
            if (it->times > 0) --it->times;
            ++it->transfer;
        } else {
            transferFaults.erase(it);
        }
        return true;
    }
    return false;
}

std::vector<Fault> VirtualCamera::TakeOperationFaults(const Command& command) {
    std::vector<Fault> hits;
    int64_t sub =
        command.code == orq::PTP_OC_Vendor && !command.params.empty() ? command.params[0] : -1;
    for (auto it = operationFaults.begin(); it != operationFaults.end();) {
        bool matches = (it->opcode == 0 || it->opcode == command.code) &&
                       (it->subCommand < 0 || it->subCommand == sub);
        if (!matches) {
            ++it;
            continue;
        }
        if (it->skip > 0) {
            --it->skip;
            ++it;
            continue;
        }
        hits.push_back(*it);
        if (it->times > 0 && --it->times == 0) {
            it = operationFaults.erase(it);
        } else {
            ++it;
        }
    }
    return hits;
}

void VirtualCamera::Record(const Command& command) {
    if (!recordOperations) return;
    if (record.size() >= kRecordLimit) record.pop_front();
    record.push_back({command.code, command.params, command.transactionId});
}

TransferResult VirtualCamera::BulkOut(const uint8_t* data, size_t size, unsigned timeoutMs) {
    std::unique_lock<std::mutex> guard(lock);
    if (Gone()) return {TransferResult::Disconnected, 0};
    const uint64_t index = ++outCount;
    Fault fault;
    if (TakeTransferFault(Pipe::Out, index, fault)) {
        switch (fault.kind) {
            case Fault::TransferStall: {
                auto deadline = Deadline(timeoutMs);
                pendingChanged.wait_until(guard, deadline, [this] { return Gone(); });
                return {Gone() ? TransferResult::Disconnected : TransferResult::Timeout, 0};
            }
            case Fault::TransferError:
                return {TransferResult::Error, 0};
            case Fault::TransferDisconnect:
                return DisconnectNow(guard);
            case Fault::TransferShort:
                // Part of a command is no command: the camera drops it.
                return {TransferResult::Ok, std::min<size_t>(size, fault.value)};
            default:
                break;
        }
    }

    Command command;
    if (size < kHeader || GetLe32(data) != size || GetLe16(data + 4) != kCommand ||
        (size % 4) != 0) {
        ++protocolErrors;
        return {TransferResult::Ok, size};
    }
    command.code = GetLe16(data + 6);
    command.transactionId = GetLe32(data + 8);
    for (size_t offset = kHeader; offset < size; offset += 4) {
        command.params.push_back(GetLe32(data + offset));
    }
    Record(command);

    const auto now = Clock::now();
    Advance(now);
    Answer answer;
    Execute(command, answer, now);
    std::vector<Fault> faults;
    if (!operationFaults.empty()) faults = TakeOperationFaults(command);
    Queue(command, answer, faults, now);
    const auto latency = Latency(size);
    guard.unlock();
    pendingChanged.notify_all();
    Wait(latency);
    return {TransferResult::Ok, size};
}

void VirtualCamera::Queue(const Command& command, Answer& answer, const std::vector<Fault>& faults,
                          Clock::time_point now) {
    uint16_t dataType = kData, dataCode = command.code, responseType = kResponse;
    int64_t dataLength = -1, responseLength = -1, truncate = -1, disconnectAfter = -1;
    bool sendData = answer.hasData, sendResponse = true;
    const Bytes* raw = nullptr;
    auto readyAt = now;
    for (const Fault& fault : faults) {
        switch (fault.kind) {
            case Fault::GeneralError:
                answer.Fail(orq::PTP_RC_GeneralError);
                sendData = false;
                break;
            case Fault::ResponseCode:
                answer.Fail(static_cast<uint16_t>(fault.value));
                sendData = false;
                break;
            case Fault::EchoCode:
                if (answer.code == orq::PTP_RC_OK) answer.code = command.code;
                break;
            case Fault::DataType:
                dataType = static_cast<uint16_t>(fault.value);
                break;
            case Fault::DataCode:
                dataCode = static_cast<uint16_t>(fault.value);
                break;
            case Fault::ResponseType:
                responseType = static_cast<uint16_t>(fault.value);
                break;
            case Fault::DataLength:
                dataLength = fault.value;
                break;
            case Fault::ResponseLength:
                responseLength = fault.value;
                break;
            case Fault::TruncateData:
                truncate = fault.value;
                sendResponse = false;
                break;
            case Fault::Stall:
                sendData = sendResponse = false;
                break;
            case Fault::StallResponse:
                sendResponse = false;
                break;
            case Fault::Disconnect:
                disconnectAfter = fault.value;
                break;
            case Fault::RawReply:
                raw = &fault.bytes;
                break;
            case Fault::Delay:
                readyAt = now + std::chrono::milliseconds(fault.value);
                break;
            default:
                break;
        }
    }

    std::deque<Packet> packets;
    if (raw) {
        Packet packet;
        packet.head = *raw;
        packets.push_back(std::move(packet));
    } else {
        if (sendData) {
            Packet packet;
            const size_t payload = answer.PayloadSize();
            uint32_t length = static_cast<uint32_t>(kHeader + payload);
            packet.head = Header(dataLength >= 0 ? static_cast<uint32_t>(dataLength) : length,
                                 dataType, dataCode, command.transactionId);
            if (answer.shared) {
                // Large payloads go out straight from the camera's storage.
                packet.body = answer.shared;
                packet.bodyData = answer.sharedData;
                packet.bodySize = payload;
            } else {
                packet.head.insert(packet.head.end(), answer.payload.begin(), answer.payload.end());
            }
            if (truncate >= 0) {
                size_t keep = kHeader + static_cast<size_t>(truncate);
                if (keep < packet.head.size()) packet.head.resize(keep);
                if (packet.body) packet.bodySize = std::min(packet.bodySize, keep - kHeader);
            }
            packets.push_back(std::move(packet));
        }
        if (sendResponse) {
            Packet packet;
            const size_t natural = kHeader + 4 * answer.params.size();
            packet.head = Header(static_cast<uint32_t>(natural), responseType, answer.code,
                                 command.transactionId);
            for (uint32_t word : answer.params) {
                uint8_t bytes[4];
                PutLe32(bytes, word);
                packet.head.insert(packet.head.end(), bytes, bytes + 4);
            }
            if (responseLength >= 0) {
                PutLe32(packet.head.data(), static_cast<uint32_t>(responseLength));
                packet.head.resize(std::max<size_t>(static_cast<size_t>(responseLength), 4));
            }
            packets.push_back(std::move(packet));
        }
    }
    for (Packet& packet : packets) {
        packet.limit = packet.head.size() + packet.bodySize;
        packet.readyAt = readyAt;
    }
    if (disconnectAfter >= 0) {
        // Whatever fits in the first `disconnectAfter` bytes goes out; then the cable goes.
        size_t budget = static_cast<size_t>(disconnectAfter);
        std::deque<Packet> kept;
        for (Packet& packet : packets) {
            if (budget == 0) break;
            packet.limit = std::min(packet.limit, budget);
            budget -= packet.limit;
            kept.push_back(std::move(packet));
        }
        packets.swap(kept);
        disconnectArmed = true;
    }
    for (Packet& packet : packets) pending.push_back(std::move(packet));
}

TransferResult VirtualCamera::BulkIn(uint8_t* data, size_t size, unsigned timeoutMs) {
    std::unique_lock<std::mutex> guard(lock);
    if (Gone()) return {TransferResult::Disconnected, 0};
    const uint64_t index = ++inCount;
    const auto deadline = Deadline(timeoutMs);
    size_t cap = size;
    Fault fault;
    if (TakeTransferFault(Pipe::In, index, fault)) {
        switch (fault.kind) {
            case Fault::TransferStall:
                pendingChanged.wait_until(guard, deadline, [this] { return Gone(); });
                return {Gone() ? TransferResult::Disconnected : TransferResult::Timeout, 0};
            case Fault::TransferError:
                return {TransferResult::Error, 0};
            case Fault::TransferDisconnect:
                return DisconnectNow(guard);
            case Fault::TransferShort:
                cap = std::min<size_t>(size, fault.value);
                break;
            default:
                break;
        }
    }

    while (true) {
        if (Gone()) return {TransferResult::Disconnected, 0};
        const auto now = Clock::now();
        if (!pending.empty() && pending.front().readyAt <= now) break;
        if (pending.empty() && disconnectArmed) return DisconnectNow(guard);
        if (now >= deadline) return {TransferResult::Timeout, 0};
        auto until = pending.empty() ? deadline : std::min(deadline, pending.front().readyAt);
        pendingChanged.wait_until(guard, until);
    }

    Packet& packet = pending.front();
    size_t count = std::min(cap, packet.limit - packet.offset);
    size_t copied = 0;
    const size_t headEnd = std::min(packet.head.size(), packet.limit);
    if (packet.offset < headEnd) {
        size_t n = std::min(count, headEnd - packet.offset);
        std::memcpy(data, packet.head.data() + packet.offset, n);
        copied = n;
    }
    if (copied < count) {
        size_t bodyOffset = packet.offset + copied - packet.head.size();
        std::memcpy(data + copied, packet.bodyData + bodyOffset, count - copied);
    }
    packet.offset += count;
    if (packet.offset >= packet.limit) pending.pop_front();
    const auto latency = Latency(count);
    guard.unlock();
    Wait(latency);
    return {TransferResult::Ok, count};
}

void VirtualCamera::Abort() {
    {
        std::lock_guard<std::mutex> guard(lock);
        aborted = true;
    }
    pendingChanged.notify_all();
}

void VirtualCamera::Reset() {
    std::lock_guard<std::mutex> guard(lock);
    // A new open: the host starts on an empty pipe and with a new session.
    aborted = false;
    pending.clear();
    disconnectArmed = false;
    sessionOpen = false;
}

// ---------------------------------------------------------------------------------------------
// Cable

bool VirtualCamera::PlugIn(const std::u16string& where) {
    {
        std::lock_guard<std::mutex> guard(lock);
        if (onBus) return false;
        path = where;
        unplugged = false;
        aborted = false;
        pending.clear();
        disconnectArmed = false;
        onBus = true;
    }
    if (VirtualBus::Instance().Attach(where, shared_from_this())) return true;
    std::lock_guard<std::mutex> guard(lock);
    onBus = false;
    return false;
}

void VirtualCamera::Unplug() {
    std::unique_lock<std::mutex> guard(lock);
    DisconnectNow(guard);
}

std::u16string VirtualCamera::Path() const {
    std::lock_guard<std::mutex> guard(lock);
    return path;
}

bool VirtualCamera::PluggedIn() const {
    std::lock_guard<std::mutex> guard(lock);
    return onBus && !unplugged;
}

// ---------------------------------------------------------------------------------------------
// Faults, record, timing

void VirtualCamera::InjectFault(Fault fault) {
    std::lock_guard<std::mutex> guard(lock);
    if (fault.times == 0) fault.times = 1;
    if (fault.PerTransfer()) {
        fault.transfer += (fault.pipe == Pipe::In ? inCount : outCount);
        if (fault.transfer == 0) fault.transfer = 1;
        transferFaults.push_back(std::move(fault));
    } else {
        operationFaults.push_back(std::move(fault));
    }
}

void VirtualCamera::ClearFaults() {
    std::lock_guard<std::mutex> guard(lock);
    operationFaults.clear();
    transferFaults.clear();
}

std::vector<OperationRecord> VirtualCamera::Operations() const {
    std::lock_guard<std::mutex> guard(lock);
    return {record.begin(), record.end()};
}

void VirtualCamera::ClearOperations() {
    std::lock_guard<std::mutex> guard(lock);
    record.clear();
    shootTimes.clear();
}

std::vector<std::chrono::steady_clock::time_point> VirtualCamera::ShootTimes() const {
    std::lock_guard<std::mutex> guard(lock);
    return shootTimes;
}

size_t VirtualCamera::CountOperations(uint16_t code, int64_t subCommand) const {
    std::lock_guard<std::mutex> guard(lock);
    return static_cast<size_t>(std::count_if(record.begin(), record.end(), [&](const auto& op) {
        return op.code == code && (subCommand < 0 || op.SubCommand() == subCommand);
    }));
}

void VirtualCamera::SetRecordOperations(bool on) {
    std::lock_guard<std::mutex> guard(lock);
    recordOperations = on;
}

void VirtualCamera::SetLatency(std::chrono::nanoseconds perTransfer,
                               std::chrono::nanoseconds perByte) {
    std::lock_guard<std::mutex> guard(lock);
    latencyPerTransfer = perTransfer;
    latencyPerByte = perByte;
}

void VirtualCamera::SetStallLimit(unsigned milliseconds) {
    std::lock_guard<std::mutex> guard(lock);
    stallLimitMs = milliseconds;
}

uint64_t VirtualCamera::BulkInCount() const {
    std::lock_guard<std::mutex> guard(lock);
    return inCount;
}

uint64_t VirtualCamera::BulkOutCount() const {
    std::lock_guard<std::mutex> guard(lock);
    return outCount;
}

uint64_t VirtualCamera::ProtocolErrors() const {
    std::lock_guard<std::mutex> guard(lock);
    return protocolErrors;
}

}  // namespace orqsim
