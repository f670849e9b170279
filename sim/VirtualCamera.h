// A virtual camera: the device side of the camera protocol, byte for byte. It takes command
// containers from the bulk-out pipe and puts data and response containers on the bulk-in pipe
// as the on-camera module would, keeps the state a camera has (card, property cases, lens, mode,
// battery, events) and can be told to misbehave, per operation or per transfer.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Kernel/PtpCodes.h"
#include "orqsdk_sim.h"
#include "sim/Pictures.h"
#include "sim/VirtualEndpoint.h"

namespace orq {
struct CameraConfig;
}

namespace orqsim {

using Bytes = std::vector<uint8_t>;
using SharedBytes = std::shared_ptr<const Bytes>;

struct CameraOptions {
    std::string model = "SX160";   // model code; the product string carries it
    std::u16string productString;  // empty: "Orq Camera " + model
    std::string orqmVersion = "3.1.3.0";
    // Empty: SerialFor(model, n) where this is the process's nth camera.
    std::u16string serialNumber;
    bool camLogSupported = true;
    std::string camLog = "Orqm camera log\nboot ok\n";
    bool folders = true;  // DCIM and one picture folder as association objects
    uint32_t firstFileNumber = 100;
    uint32_t zoomStepMs = 10;  // lens travel per zoom step
    uint32_t shootMs = 0;      // from the shoot command to SHOOT_FINISHED and the new file
    // 0: a JPEG of the current Image Size that shows the camera and the shot; otherwise that
    // many bytes between JPEG markers.
    uint32_t shotFileSize = 0;
    uint32_t remoteReadyMs = 0;
    uint32_t remotePictureSize = 0;  // as shotFileSize, for remote captures
    uint32_t remoteChunkSize = 512 * 1024;
    // 0: a QuickTime movie of small JPEG frames; otherwise a file of that many bytes a second.
    uint32_t videoBytesPerSecond = 0;
};

// One operation as the camera received it.
struct OperationRecord {
    uint16_t code = 0;
    std::vector<uint32_t> params;
    uint32_t transactionId = 0;
    // The vendor sub-command, or -1 for a standard operation.
    int64_t SubCommand() const;
};

enum class Pipe { In, Out };

// A scripted misbehaviour. Per-operation kinds match on opcode (0: any) and sub-command (-1:
// any), let `skip` matches pass, then hit `times` matches (-1: all). Per-transfer kinds hit the
// `transfer`th transfer on `pipe` counted from the injection (1: the next), `times` in a row.
// The kinds are the public header's, by number.
struct Fault {
    enum Kind {
        // Per operation.
        // A 0x2002 response in place of the answer (and of any data phase).
        GeneralError = ORQSIM_GENERAL_ERROR,
        // Response code `value` in place of the answer, no data phase.
        ResponseCode = ORQSIM_RESPONSE_CODE,
        // Success answered with the operation code instead of OK.
        EchoCode = ORQSIM_ECHO_CODE,
        DataType = ORQSIM_DATA_TYPE,          // data container Type = value
        DataCode = ORQSIM_DATA_CODE,          // data container Code = value
        ResponseType = ORQSIM_RESPONSE_TYPE,  // response container Type = value
        // Data container Length field = value; the payload sent is unchanged.
        DataLength = ORQSIM_DATA_LENGTH,
        // Response Length field = value; max(value, 4) bytes are sent.
        ResponseLength = ORQSIM_RESPONSE_LENGTH,
        // Only `value` payload bytes are sent, then nothing more.
        TruncateData = ORQSIM_TRUNCATE_DATA,
        // Nothing at all comes back for the operation.
        Stall = ORQSIM_STALL,
        // The data phase comes, the response never does.
        StallResponse = ORQSIM_STALL_RESPONSE,
        // After `value` bytes of the answer the camera is unplugged.
        Disconnect = ORQSIM_DISCONNECT,
        // `bytes` go on the bulk-in pipe instead of the answer.
        RawReply = ORQSIM_RAW_REPLY,
        Delay = ORQSIM_DELAY,  // the answer comes `value` ms late
        // Per transfer.
        // The transfer waits until the host's timeout.
        TransferStall = ORQSIM_TRANSFER_STALL,
        TransferError = ORQSIM_TRANSFER_ERROR,  // the transfer fails at once
        // The camera is unplugged during the transfer.
        TransferDisconnect = ORQSIM_TRANSFER_DISCONNECT,
        // At most `value` bytes move (bulk-out: the command is dropped).
        TransferShort = ORQSIM_TRANSFER_SHORT,
    };

    Kind kind = GeneralError;
    uint16_t opcode = 0;
    int64_t subCommand = -1;
    int skip = 0;
    int times = 1;
    Pipe pipe = Pipe::In;
    uint64_t transfer = 1;
    uint32_t value = 0;
    Bytes bytes;

    static Fault Operation(Kind kind, uint16_t opcode, int64_t subCommand = -1, uint32_t value = 0);
    static Fault Transfer(Kind kind, Pipe pipe, uint64_t transfer, uint32_t value = 0);
    bool PerTransfer() const { return kind >= TransferStall; }
};

// One object of the card.
struct CardObject {
    uint32_t handle = 0;
    std::u16string name;
    // The content; a generated picture may instead have `make`, and is built when it is read.
    // Its `size` is measured when it is first asked for (`measure`, then cleared).
    SharedBytes bytes;
    std::function<SharedBytes()> make;
    std::function<size_t()> measure;
    size_t size = 0;
    uint32_t width = 0, height = 0;  // of a picture, 0 where unknown
    bool folder = false;
    uint32_t parent = 0;
    int hiddenListings = 0;  // listings that do not show it yet
};

// The serial of the nth camera of a model: 32 hex digits, the same for the same n, different
// for different n.
std::u16string SerialFor(const std::string& model, uint32_t number);

class VirtualCamera : public VirtualEndpoint, public std::enable_shared_from_this<VirtualCamera> {
public:
    explicit VirtualCamera(CameraOptions options = {});
    ~VirtualCamera() override;
    // Cameras in existence, whoever holds them: what a host keeps after a camera has gone.
    static int Alive();

    // --- VirtualEndpoint --------------------------------------------------------------------
    std::u16string ProductString() const override;
    TransferResult BulkOut(const uint8_t* data, size_t size, unsigned timeoutMs) override;
    TransferResult BulkIn(uint8_t* data, size_t size, unsigned timeoutMs) override;
    void Abort() override;
    void Reset() override;

    // --- The cable --------------------------------------------------------------------------
    // Attaches to the process's virtual bus under path (false if the path is taken).
    bool PlugIn(const std::u16string& path);
    // Detaches from the bus; transfers in flight fail.
    void Unplug();
    std::u16string Path() const;
    bool PluggedIn() const;

    // --- Camera state -----------------------------------------------------------------------
    CameraOptions Options() const;
    // Answer of the mode request: 1 is record mode, anything else play mode.
    void SetCameraMode(uint32_t mode);
    uint32_t CameraMode() const;
    // The raw shooting mode, as turning the mode wheel sets it.
    void SetModeWheel(int32_t rawMode);
    int32_t ShootingModeCase() const { return shootingModeCase; }
    void SetPropCase(int32_t propCase, int32_t raw);
    int32_t PropCase(int32_t propCase) const;
    void SetBattery(int32_t current, int32_t maximum, int32_t minimum);
    // The lens moved by hand: no event.
    void SetZoomPosition(int32_t position);
    int32_t ZoomPosition();
    int32_t MaxZoom() const { return maxZoom; }
    void SetFocusPosition(int32_t position);
    int32_t FocusPosition() const;
    bool ManualFocus() const;
    // The lens refuses to move: every move reports the present position.
    void SetFocusStuck(bool stuck);
    void RaiseEvents(uint32_t mask);
    uint32_t PendingEvents() const;
    void SetVideoSettings(const std::array<uint32_t, 22>& words);
    std::array<uint32_t, 22> VideoSettings() const;
    // Live-view memory (address 0); empty: a generated pattern of the requested size.
    void SetLiveView(Bytes frame);
    // The next shots' files stay out of that many listings; a shot may produce no file at all.
    void SetShotFileDelay(int listings);
    void SetShotProducesFile(bool produces);
    // The picture of the next remote captures; empty: a generated JPEG of the options' size.
    void SetRemotePicture(Bytes picture);
    bool Recording() const;
    void SetOrqmVersion(const std::string& version);
    void SetCamLogSupported(bool supported);

    // --- The card ---------------------------------------------------------------------------
    uint32_t AddFile(const std::u16string& name, Bytes bytes, int hiddenListings = 0);
    // A file of `size` bytes of generated content.
    uint32_t AddFileOfSize(const std::u16string& name, size_t size);
    bool ReplaceFile(uint32_t handle, Bytes bytes);
    bool RemoveFile(uint32_t handle);
    void ClearCard();
    // Files only (no folders), in card order, with their bytes.
    std::vector<CardObject> Files() const;
    size_t FileCount() const;
    SharedBytes FileBytes(uint32_t handle) const;
    // Makes a folder on disk the card: its files are loaded now (folders stay the camera's own),
    // and from then on every file the camera writes or deletes is written or deleted there too,
    // so a camera with the same folder finds the card as it was left. New files are numbered
    // after the highest number on the card. Empty: the card is in memory again. False if the
    // folder cannot be made or read.
    bool SetCardFolder(const std::u16string& folder);
    std::u16string CardFolder() const;
    // Live-view frames handed out since attach.
    uint64_t LiveViewFrames() const;

    // --- Faults, record, timing -------------------------------------------------------------
    void InjectFault(Fault fault);
    void ClearFaults();
    std::vector<OperationRecord> Operations() const;
    void ClearOperations();
    // When each Shoot command arrived (the latest kShootTimesKept), oldest first; cleared with
    // the operations.
    static constexpr size_t kShootTimesKept = 4096;
    std::vector<std::chrono::steady_clock::time_point> ShootTimes() const;
    // How many operations of that code (and sub-command, -1: any) were received.
    size_t CountOperations(uint16_t code, int64_t subCommand = -1) const;
    // The benchmark turns the record off: it keeps every operation otherwise.
    void SetRecordOperations(bool record);
    // Latency added to every transfer, and per byte moved.
    void SetLatency(std::chrono::nanoseconds perTransfer, std::chrono::nanoseconds perByte);
    // Caps every wait of the camera (a stall, an empty pipe): a test need not wait the
    // transport's full timeout. 0: the transport's timeout.
    void SetStallLimit(unsigned milliseconds);
    uint64_t BulkInCount() const;
    uint64_t BulkOutCount() const;
    // Commands the camera could not parse (short, wrong type, wrong length).
    uint64_t ProtocolErrors() const;

private:
    using Clock = std::chrono::steady_clock;

    struct Command {
        uint16_t code = 0;
        uint32_t transactionId = 0;
        std::vector<uint32_t> params;
    };

    // What an operation gives back before any fault.
    struct Answer {
        bool hasData = false;
        Bytes payload;       // small, generated payloads
        SharedBytes shared;  // large payloads, sent straight from storage
        const uint8_t* sharedData = nullptr;
        size_t sharedSize = 0;
        uint16_t code = orq::PTP_RC_OK;
        std::vector<uint32_t> params;

        void Data(Bytes bytes);
        void DataView(SharedBytes owner, const uint8_t* data, size_t size);
        void Fail(uint16_t rc);
        const uint8_t* PayloadData() const { return shared ? sharedData : payload.data(); }
        size_t PayloadSize() const { return shared ? sharedSize : payload.size(); }
    };

    // One container (or raw bytes) queued on the bulk-in pipe. A read never crosses its end.
    struct Packet {
        Bytes head;
        SharedBytes body;
        const uint8_t* bodyData = nullptr;
        size_t bodySize = 0;
        size_t limit = 0;  // bytes that will actually go out
        size_t offset = 0;
        Clock::time_point readyAt;
    };

    // The picture of the next shot, at the current Image Size.
    struct Picture {
        PictureLabel label;
        int width = 640, height = 480;
    };

    struct RemoteCapture {
        SharedBytes picture;  // built at the first read when `next` is set
        std::unique_ptr<Picture> next;
        size_t offset = 0;
        Clock::time_point readyAt;
        bool announced = false;
    };

    // Operations (CameraOperations.cpp); all run with `lock` held.
    void InitialiseFromProfile();
    void Advance(Clock::time_point now);
    void Execute(const Command& command, Answer& answer, Clock::time_point now);
    void ExecuteVendor(const Command& command, Answer& answer, Clock::time_point now);
    void ObjectInfo(const CardObject& object, Answer& answer) const;
    CardObject* FindVisible(uint32_t handle);
    uint32_t AddObjectLocked(const std::u16string& name, SharedBytes bytes, bool folder,
                             uint32_t parent, int hiddenListings);
    void GetMemory(uint32_t address, uint32_t size, Answer& answer);
    void AddShotFile(Clock::time_point now);
    std::u16string NextFileName(const char* prefix, const char* extension);
    // Card (Card.cpp).
    SharedBytes Content(const CardObject& object) const;
    void Measure(CardObject& object);
    bool WriteToFolder(const CardObject& object);
    void RemoveFromFolder(const CardObject& object);
    void EraseObject(std::vector<CardObject>::iterator object);
    // The picture of the next shot, at the current Image Size.
    Picture NextPicture(Clock::time_point now);

    // Transfers (VirtualCamera.cpp).
    bool TakeTransferFault(Pipe pipe, uint64_t index, Fault& hit);
    std::vector<Fault> TakeOperationFaults(const Command& command);
    void Queue(const Command& command, Answer& answer, const std::vector<Fault>& faults,
               Clock::time_point now);
    void Record(const Command& command);
    bool Gone() const { return aborted || unplugged; }
    Clock::time_point Deadline(unsigned timeoutMs) const;
    std::chrono::nanoseconds Latency(size_t bytes) const;
    static void Wait(std::chrono::nanoseconds wait);
    TransferResult DisconnectNow(std::unique_lock<std::mutex>& guard);

    CameraOptions options;
    std::u16string productString;

    mutable std::mutex lock;
    std::condition_variable pendingChanged;
    std::deque<Packet> pending;
    bool aborted = false;
    bool unplugged = false;
    bool disconnectArmed = false;  // unplug once the pipe has been read empty
    std::u16string path;
    bool onBus = false;

    // Faults and record.
    std::vector<Fault> operationFaults;
    std::vector<Fault> transferFaults;
    std::deque<OperationRecord> record;
    bool recordOperations = true;
    uint64_t inCount = 0;
    uint64_t outCount = 0;
    uint64_t protocolErrors = 0;
    std::chrono::nanoseconds latencyPerTransfer{0};
    std::chrono::nanoseconds latencyPerByte{0};
    unsigned stallLimitMs = 0;

    // Camera.
    bool sessionOpen = false;
    uint32_t cameraMode = 1;
    std::map<int32_t, int32_t> propCases;
    int32_t shootingModeCase = 49;
    int32_t maxZoom = 10;
    std::vector<std::vector<int32_t>> focusTable;
    int32_t batteryCurrent = 4000, batteryMaximum = 4200, batteryMinimum = 3300;
    uint32_t events = 0;
    // Zoom travel.
    int32_t zoomPosition = 0;
    int32_t zoomFrom = 0;
    int32_t zoomTarget = 0;
    bool zoomMoving = false;
    Clock::time_point zoomStarted;
    // Focus.
    int32_t focusPosition = 0;
    bool manualFocus = false;
    bool focusStuck = false;
    // Shots.
    bool shotPending = false;
    Clock::time_point shotDue;
    std::vector<Clock::time_point> shootTimes;
    int shotFileDelay = 0;
    bool shotProducesFile = true;
    uint32_t nextFileNumber = 100;
    // Remote capture.
    std::unique_ptr<RemoteCapture> remote;
    Bytes remotePicture;
    // Video.
    bool recording = false;
    Clock::time_point recordingStarted;
    // Live view.
    std::array<uint32_t, 22> videoSettings{};
    SharedBytes liveView;
    bool liveViewGiven = false;
    uint64_t liveViewFrames = 0;
    // Card.
    const orq::CameraConfig* profile = nullptr;
    uint32_t shots = 0;
    std::vector<CardObject> card;
    std::u16string cardFolder;
    // The picture built last, so that a second read of it costs nothing.
    mutable uint32_t madeHandle = 0;
    mutable SharedBytes made;
    uint32_t nextHandle = 1;
    uint32_t pictureFolder = 0;
};

}  // namespace orqsim
