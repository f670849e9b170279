// What the virtual camera does for each operation: the standard PTP operations on its card and
// the vendor sub-commands of the on-camera module, with a lens that takes time to move.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "Kernel/Bytes.h"
#include "models/CameraConfig.h"
#include "sim/Pictures.h"
#include "sim/VirtualCamera.h"

namespace orqsim {

namespace {

enum : uint16_t { FMT_Association = 0x3001, FMT_Undefined = 0x3000, FMT_QT = 0x300D };
enum : uint16_t { FMT_EXIF_JPEG = 0x3801 };

constexpr uint32_t kStorageId = 0x00010001;
constexpr uint32_t kMaxMemoryRead = 64u << 20;

void Append16(Bytes& out, uint16_t v) {
    out.resize(out.size() + 2);
    orq::bytes::PutLe16(out.data() + out.size() - 2, v);
}

void Append32(Bytes& out, uint32_t v) {
    out.resize(out.size() + 4);
    orq::bytes::PutLe32(out.data() + out.size() - 4, v);
}

Bytes Words(std::initializer_list<uint32_t> words) {
    Bytes out;
    for (uint32_t w : words) Append32(out, w);
    return out;
}

// A PTP string: count of 16-bit units with the terminator, then the units; 0 for empty.
void AppendString(Bytes& out, const std::u16string& text) {
    size_t units = std::min<size_t>(text.size(), 254);
    if (units == 0) {
        out.push_back(0);
        return;
    }
    out.push_back(static_cast<uint8_t>(units + 1));
    for (size_t i = 0; i < units; ++i) Append16(out, text[i]);
    Append16(out, 0);
}

bool EndsWithIgnoringCase(const std::u16string& name, const char* extension) {
    size_t length = std::char_traits<char>::length(extension);
    if (name.size() < length) return false;
    for (size_t i = 0; i < length; ++i) {
        char16_t c = name[name.size() - length + i];
        if (c >= 'A' && c <= 'Z') c = static_cast<char16_t>(c - 'A' + 'a');
        if (c != static_cast<char16_t>(extension[i])) return false;
    }
    return true;
}

}  // namespace

void VirtualCamera::InitialiseFromProfile() {
    videoSettings = {1, 360, 240, 0, 0, 240};
    profile = orq::FindCameraConfig(productString);
    if (profile) {
        maxZoom = profile->maxZoom;
        focusTable = profile->focusTable;
        // Every case starts on the first legal value, so a fresh camera loads cleanly.
        for (const auto& [id, entry] : profile->properties) {
            if (id == ORQ_PROP_SHOOTING_MODE && entry.propCase >= 0) {
                shootingModeCase = entry.propCase;
            }
            if (entry.kind == orq::PropertyKind::FlashPower) {
                propCases[entry.subCase1] = 0;
                propCases[entry.subCase2] = 0;
                continue;
            }
            if (entry.propCase < 0 || entry.values.empty()) continue;
            int32_t raw = entry.values.front().cameraValue;
            // Out of the box a camera compensates nothing.
            const orq::PropertyValue* zero = entry.FromSdk(ORQ_COMP_ZERO);
            if (zero &&
                (id == ORQ_PROP_EXPOSURE_COMPENSATION || id == ORQ_PROP_FLASH_COMPENSATION)) {
                raw = zero->cameraValue;
            }
            propCases[entry.propCase] = raw;
            if (entry.kind == orq::PropertyKind::SubProperty ||
                entry.kind == orq::PropertyKind::SubProperty2) {
                propCases[entry.subCase1] = raw;
            }
            if (entry.kind == orq::PropertyKind::SubProperty2) propCases[entry.subCase2] = raw;
        }
        // The largest size comes first, and the finest quality is not allowed with it.
        const orq::PropertyEntry* size = profile->Find(ORQ_PROP_IMAGE_SIZE);
        const orq::PropertyEntry* quality = profile->Find(ORQ_PROP_JPEG_QUALITY);
        if (profile->HasConstraint(orq::CONSTRAINT_QUALITY_BY_SIZE) && size && quality &&
            !size->values.empty() && size->values.front().value == ORQ_IMAGE_SIZE_LARGE &&
            quality->propCase >= 0) {
            for (const orq::PropertyValue& value : quality->values) {
                if (value.value != ORQ_JPEG_QUALITY_SUPERFINE) {
                    propCases[quality->propCase] = value.cameraValue;
                    break;
                }
            }
        }
    }
    if (options.folders) {
        uint32_t dcim = AddObjectLocked(u"DCIM", nullptr, true, 0, 0);
        pictureFolder = AddObjectLocked(u"100ORQ__", nullptr, true, dcim, 0);
    }
}

// ---------------------------------------------------------------------------------------------
// Time

void VirtualCamera::Advance(Clock::time_point now) {
    if (zoomMoving) {
        auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(now - zoomStarted);
        int64_t steps = options.zoomStepMs ? elapsed.count() / options.zoomStepMs : INT32_MAX;
        int64_t distance = std::abs(int64_t(zoomTarget) - zoomFrom);
        int64_t moved = std::min<int64_t>(steps, distance);
        zoomPosition = static_cast<int32_t>(zoomFrom + (zoomTarget > zoomFrom ? moved : -moved));
        if (zoomPosition == zoomTarget) {
            zoomMoving = false;
            events |= orq::ZOOM_FINISHED;
        }
    }
    if (shotPending && now >= shotDue) {
        shotPending = false;
        if (shotProducesFile) AddShotFile(now);
        events |= orq::SHOOT_FINISHED;
    }
}

// ---------------------------------------------------------------------------------------------
// Card

void VirtualCamera::ObjectInfo(const CardObject& object, Answer& answer) const {
    Bytes info;
    uint16_t format = FMT_Undefined;
    if (object.folder) {
        format = FMT_Association;
    } else if (EndsWithIgnoringCase(object.name, ".jpg")) {
        format = FMT_EXIF_JPEG;
    } else if (EndsWithIgnoringCase(object.name, ".mov")) {
        format = FMT_QT;
    }
    Append32(info, kStorageId);
    Append16(info, format);
    Append16(info, 0);  // protection
    const bool jpeg = format == FMT_EXIF_JPEG;
    // A picture of unknown size (put on the card whole) tells the largest.
    const uint32_t width = object.width ? object.width : 4000;
    const uint32_t height = object.height ? object.height : 3000;
    Append32(info, static_cast<uint32_t>(object.bytes ? object.bytes->size() : object.size));
    Append16(info, format == FMT_EXIF_JPEG ? FMT_EXIF_JPEG : 0);  // thumb format
    Append32(info, 0);                                            // thumb size
    Append32(info, format == FMT_EXIF_JPEG ? 160 : 0);            // thumb width
    Append32(info, format == FMT_EXIF_JPEG ? 120 : 0);            // thumb height
    Append32(info, jpeg ? width : 0);                             // image width
    Append32(info, jpeg ? height : 0);                            // image height
    Append32(info, format == FMT_EXIF_JPEG ? 24 : 0);             // bit depth
    Append32(info, object.parent);                                // parent
    Append16(info, object.folder ? 1 : 0);                        // association type
    Append32(info, 0);                                            // association description
    Append32(info, 0);                                            // sequence number
    AppendString(info, object.name);
    AppendString(info, u"20240601T101500.0");
    AppendString(info, u"20240601T101500.0");
    AppendString(info, u"");
    answer.Data(std::move(info));
}

// ---------------------------------------------------------------------------------------------
// Operations

void VirtualCamera::Execute(const Command& command, Answer& answer, Clock::time_point now) {
    const auto& p = command.params;
    if (command.code == orq::PTP_OC_OpenSession) {
        // A session left open by an earlier host is simply taken over.
        if (p.empty() || p[0] == 0) return answer.Fail(orq::PTP_RC_InvalidParameter);
        sessionOpen = true;
        return;
    }
    if (!sessionOpen) return answer.Fail(orq::PTP_RC_SessionNotOpen);

    switch (command.code) {
        case orq::PTP_OC_GetStorageIDs:
            return answer.Data(Words({1, kStorageId}));
        case orq::PTP_OC_GetObjectHandles: {
            if (p.empty() || (p[0] != kStorageId && p[0] != 0xFFFFFFFF)) {
                return answer.Fail(orq::PTP_RC_InvalidStorageID);
            }
            Bytes list;
            Append32(list, 0);
            uint32_t count = 0;
            for (CardObject& object : card) {
                if (object.hiddenListings > 0) {
                    --object.hiddenListings;
                    continue;
                }
                Append32(list, object.handle);
                ++count;
            }
            list[0] = static_cast<uint8_t>(count);
            list[1] = static_cast<uint8_t>(count >> 8);
            list[2] = static_cast<uint8_t>(count >> 16);
            list[3] = static_cast<uint8_t>(count >> 24);
            return answer.Data(std::move(list));
        }
        case orq::PTP_OC_GetObjectInfo: {
            CardObject* object = p.empty() ? nullptr : FindVisible(p[0]);
            if (!object) return answer.Fail(orq::PTP_RC_InvalidObjectHandle);
            Measure(*object);
            return ObjectInfo(*object, answer);
        }
        case orq::PTP_OC_GetObject: {
            CardObject* object = p.empty() ? nullptr : FindVisible(p[0]);
            if (!object || object->folder) return answer.Fail(orq::PTP_RC_InvalidObjectHandle);
            SharedBytes bytes = Content(*object);
            return answer.DataView(bytes, bytes->data(), bytes->size());
        }
        case orq::PTP_OC_DeleteObject: {
            CardObject* object = p.empty() ? nullptr : FindVisible(p[0]);
            if (!object) return answer.Fail(orq::PTP_RC_InvalidObjectHandle);
            if (object->folder) return answer.Fail(orq::PTP_RC_AccessDenied);
            EraseObject(card.begin() + (object - card.data()));
            return;
        }
        case orq::PTP_OC_Vendor:
            return ExecuteVendor(command, answer, now);
        default:
            return answer.Fail(orq::PTP_RC_OperationNotSupported);
    }
}

void VirtualCamera::GetMemory(uint32_t address, uint32_t size, Answer& answer) {
    if (size > kMaxMemoryRead) return answer.Fail(orq::PTP_RC_InvalidParameter);
    if (address == 0) {
        // The live-view buffer: a frame given by a test, handed out from where it lies, or a new
        // frame of the moving scene at each read.
        ++liveViewFrames;
        if (!liveViewGiven || !liveView || liveView->size() < size) {
            LiveViewScene scene;
            scene.width = videoSettings[1];
            scene.height = videoSettings[2] == 180 ? videoSettings[5] : videoSettings[2];
            scene.frame = liveViewFrames;
            scene.zoom = zoomPosition;
            scene.maxZoom = maxZoom;
            scene.seed =
                Seed(std::string(options.serialNumber.begin(), options.serialNumber.end()));
            scene.model = options.model;
            Bytes frame = LiveViewFrame(scene, size);
            if (liveViewGiven && liveView) {
                std::copy(liveView->begin(), liveView->end(), frame.begin());
            }
            liveView = std::make_shared<const Bytes>(std::move(frame));
        }
        return answer.DataView(liveView, liveView->data(), size);
    }
    Bytes memory(size);
    // Where the record lies is the model's (its profile, as the host reads it); what it holds
    // is this camera's own.
    if (address == (profile ? profile->allocatorAddress : orq::kAllocatorAddress)) {
        static constexpr std::array<uint32_t, orq::kAllocatorRecordWords> kRecord = {
            0x00000001, 0x00360000, 0x00180000, 0x00000010, 0x00000000,
            0x00000000, 0x000A0000, 0x00061A80, 0x00000137};
        Bytes record;
        for (uint32_t word : kRecord) Append32(record, word);
        std::copy_n(record.begin(), std::min(record.size(), memory.size()), memory.begin());
    }
    answer.Data(std::move(memory));
}

void VirtualCamera::ExecuteVendor(const Command& command, Answer& answer, Clock::time_point now) {
    const auto& p = command.params;
    if (p.empty()) return answer.Fail(orq::PTP_RC_InvalidParameter);
    auto needs = [&](size_t count) { return p.size() >= count + 1; };
    switch (p[0]) {
        case orq::CHDK_GetMemory:
            if (!needs(2)) return answer.Fail(orq::PTP_RC_InvalidParameter);
            return GetMemory(p[1], p[2], answer);
        case orq::CHDK_GetVideoSettings: {
            Bytes block;
            for (uint32_t word : videoSettings) Append32(block, word);
            return answer.Data(std::move(block));
        }
        case orq::ORQM_GetPropCase:
            if (!needs(1)) return answer.Fail(orq::PTP_RC_InvalidParameter);
            return answer.Data(
                Words({static_cast<uint32_t>(propCases[static_cast<int32_t>(p[1])])}));
        case orq::ORQM_SetPropCase:
            if (!needs(2)) return answer.Fail(orq::PTP_RC_InvalidParameter);
            propCases[static_cast<int32_t>(p[1])] = static_cast<int32_t>(p[2]);
            return;
        case orq::ORQM_GetZoom:
            return answer.Data(Words({static_cast<uint32_t>(zoomPosition)}));
        case orq::ORQM_SetZoom: {
            if (!needs(1)) return answer.Fail(orq::PTP_RC_InvalidParameter);
            int32_t target = std::clamp(static_cast<int32_t>(p[1]), 0, maxZoom);
            zoomFrom = zoomPosition;
            zoomTarget = target;
            zoomStarted = now;
            zoomMoving = true;
            Advance(now);
            return;
        }
        case orq::ORQM_Set_Play_Mode:
            cameraMode = 0;
            return;
        case orq::ORQM_GetOrqmVersion: {
            Bytes text(options.orqmVersion.begin(), options.orqmVersion.end());
            text.push_back(0);
            return answer.Data(std::move(text));
        }
        case orq::ORQM_Shoot:
            if (shootTimes.size() >= kShootTimesKept) shootTimes.erase(shootTimes.begin());
            shootTimes.push_back(now);
            if (cameraMode != 1 || recording || shotPending)
                return answer.Fail(orq::PTP_RC_DeviceBusy);
            shotPending = true;
            shotDue = now + std::chrono::milliseconds(options.shootMs);
            Advance(now);
            return;
        case orq::ORQM_UpdateAEAF:
            return;
        case orq::ORQM_GetEvents: {  // reading clears them
            uint32_t bits = events;
            events = 0;
            return answer.Data(Words({bits}));
        }
        case orq::ORQM_GetMode:
            return answer.Data(Words({cameraMode}));
        case orq::ORQM_GetCamLog: {  // the log is written to the card as a picture-named object
            if (!options.camLogSupported) return answer.Fail(orq::PTP_RC_OperationNotSupported);
            auto text = std::make_shared<Bytes>(options.camLog.begin(), options.camLog.end());
            text->push_back(0);
            for (CardObject& object : card) {
                if (object.name == u"img_0002.jpg") {
                    object.bytes = std::move(text);
                    object.size = object.bytes->size();
                    object.make = nullptr;
                    object.measure = nullptr;
                    WriteToFolder(object);
                    return;
                }
            }
            AddObjectLocked(u"img_0002.jpg", std::move(text), false, pictureFolder, 0);
            return;
        }
        case orq::ORQM_MfOn:
            manualFocus = true;
            return;
        case orq::ORQM_MfOff:
            manualFocus = false;
            return;
        case orq::ORQM_MoveFocusTo: {
            if (!needs(1)) return answer.Fail(orq::PTP_RC_InvalidParameter);
            int32_t wanted = static_cast<int32_t>(p[1]);
            int32_t reached = wanted;
            if (focusStuck) {
                reached = focusPosition;
            } else if (!focusTable.empty() && wanted != -1) {
                const auto& stops =
                    focusTable[static_cast<size_t>(std::clamp(zoomPosition, 0, maxZoom)) %
                               focusTable.size()];
                if (!stops.empty()) reached = std::clamp(wanted, stops.front(), stops.back());
            }
            focusPosition = reached;
            return answer.Data(Words({0, static_cast<uint32_t>(reached)}));
        }
        case orq::ORQM_GetFocusParams:
            return answer.Data(
                Words({manualFocus ? 1u : 0u, static_cast<uint32_t>(focusPosition)}));
        case orq::ORQM_GetVBat:
            return answer.Data(
                Words({static_cast<uint32_t>(batteryCurrent), static_cast<uint32_t>(batteryMaximum),
                       static_cast<uint32_t>(batteryMinimum)}));
        case orq::ORQM_SetCaptureMode:
            if (!needs(1)) return answer.Fail(orq::PTP_RC_InvalidParameter);
            propCases[shootingModeCase] = static_cast<int32_t>(p[1]);
            return;
        case orq::ORQM_GetSerialNumber: {  // 16-bit text, no terminator
            Bytes text;
            for (char16_t c : options.serialNumber) Append16(text, c);
            return answer.Data(std::move(text));
        }
        case orq::ORQM_Reset:
            cameraMode = 1;
            events = 0;
            manualFocus = false;
            remote.reset();
            recording = false;
            shotPending = false;
            return;
        case orq::ORQM_RemoteCaptureStart: {
            if (cameraMode != 1 || recording || remote) return answer.Fail(orq::PTP_RC_DeviceBusy);
            remote = std::make_unique<RemoteCapture>();
            if (remotePicture.empty() && !options.remotePictureSize && JpegPicturesBuilt()) {
                // A picture sent straight to the host is taken as any other shot, and built
                // when the host first reads it.
                remote->next = std::make_unique<Picture>(NextPicture(now));
            } else {
                remote->picture = std::make_shared<const Bytes>(
                    remotePicture.empty()
                        ? JpegLike(
                              options.remotePictureSize ? options.remotePictureSize : 1536 * 1024,
                              nextHandle)
                        : remotePicture);
            }
            remote->readyAt = now + std::chrono::milliseconds(options.remoteReadyMs);
            return;
        }
        case orq::ORQM_RemoteCaptureIsReady: {
            bool ready = remote && now >= remote->readyAt;
            if (ready && !remote->announced) {
                remote->announced = true;
                events |= orq::EVENT_REMOTE_AVAILABLE;
            }
            answer.params = {ready ? 1u : 0u};
            return;
        }
        case orq::ORQM_RemoteCaptureGetData: {
            if (!remote || now < remote->readyAt) return answer.Fail(orq::PTP_RC_DeviceBusy);
            if (remote->next) {
                const Picture& next = *remote->next;
                remote->picture = std::make_shared<const Bytes>(
                    StillPicture(next.label, next.width, next.height));
                remote->next.reset();
            }
            const Bytes& picture = *remote->picture;
            size_t offset = remote->offset;
            size_t chunk =
                std::min<size_t>(options.remoteChunkSize ? options.remoteChunkSize : picture.size(),
                                 picture.size() - offset);
            answer.DataView(remote->picture, picture.data() + offset, chunk);
            remote->offset += chunk;
            bool more = remote->offset < picture.size();
            answer.params = {static_cast<uint32_t>(offset), more ? 1u : 0u,
                             static_cast<uint32_t>(picture.size())};
            events |=
                orq::EVENT_GET_JPEG_CHUNK | (more ? 0u : uint32_t{orq::EVENT_LAST_JPEG_CHUNK});
            if (!more) remote.reset();
            return;
        }
        case orq::ORQM_StartVideo:
            if (cameraMode != 1 || recording) return answer.Fail(orq::PTP_RC_DeviceBusy);
            recording = true;
            recordingStarted = now;
            return;
        case orq::ORQM_StopVideo: {
            if (!recording) return answer.Fail(orq::PTP_RC_DeviceBusy);
            recording = false;
            auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now - recordingStarted);
            Bytes movie;
            if (options.videoBytesPerSecond) {
                size_t size = std::max<size_t>(
                    4096, static_cast<size_t>(ms.count()) * options.videoBytesPerSecond / 1000);
                movie = JpegLike(size, nextHandle);
                // A movie file starts with its size and an ftyp atom.
                const char ftyp[] =
                    "\0\0\0\x14"
                    "ftypqt  ";
                std::copy(ftyp, ftyp + 12, movie.begin());
            } else {
                movie = Movie(NextPicture(now).label, static_cast<uint32_t>(ms.count()));
                --shots;  // a movie is not a shot
            }
            AddObjectLocked(NextFileName("MVI", "MOV"), std::make_shared<const Bytes>(movie), false,
                            pictureFolder, 0);
            return;
        }
        default:
            return answer.Fail(orq::PTP_RC_OperationNotSupported);
    }
}

// ---------------------------------------------------------------------------------------------
// State for tests and the OrqSim exports

CameraOptions VirtualCamera::Options() const {
    std::lock_guard<std::mutex> guard(lock);
    return options;
}

void VirtualCamera::SetCameraMode(uint32_t mode) {
    std::lock_guard<std::mutex> guard(lock);
    cameraMode = mode;
}

uint32_t VirtualCamera::CameraMode() const {
    std::lock_guard<std::mutex> guard(lock);
    return cameraMode;
}

void VirtualCamera::SetModeWheel(int32_t rawMode) {
    std::lock_guard<std::mutex> guard(lock);
    propCases[shootingModeCase] = rawMode;
}

void VirtualCamera::SetPropCase(int32_t propCase, int32_t raw) {
    std::lock_guard<std::mutex> guard(lock);
    propCases[propCase] = raw;
}

int32_t VirtualCamera::PropCase(int32_t propCase) const {
    std::lock_guard<std::mutex> guard(lock);
    auto found = propCases.find(propCase);
    return found == propCases.end() ? 0 : found->second;
}

void VirtualCamera::SetBattery(int32_t current, int32_t maximum, int32_t minimum) {
    std::lock_guard<std::mutex> guard(lock);
    batteryCurrent = current;
    batteryMaximum = maximum;
    batteryMinimum = minimum;
}

void VirtualCamera::SetZoomPosition(int32_t position) {
    std::lock_guard<std::mutex> guard(lock);
    zoomMoving = false;
    zoomPosition = position;
}

int32_t VirtualCamera::ZoomPosition() {
    std::lock_guard<std::mutex> guard(lock);
    Advance(Clock::now());
    return zoomPosition;
}

void VirtualCamera::SetFocusPosition(int32_t position) {
    std::lock_guard<std::mutex> guard(lock);
    focusPosition = position;
}

int32_t VirtualCamera::FocusPosition() const {
    std::lock_guard<std::mutex> guard(lock);
    return focusPosition;
}

bool VirtualCamera::ManualFocus() const {
    std::lock_guard<std::mutex> guard(lock);
    return manualFocus;
}

void VirtualCamera::SetFocusStuck(bool stuck) {
    std::lock_guard<std::mutex> guard(lock);
    focusStuck = stuck;
}

void VirtualCamera::RaiseEvents(uint32_t mask) {
    std::lock_guard<std::mutex> guard(lock);
    events |= mask;
}

uint32_t VirtualCamera::PendingEvents() const {
    std::lock_guard<std::mutex> guard(lock);
    return events;
}

void VirtualCamera::SetVideoSettings(const std::array<uint32_t, 22>& words) {
    std::lock_guard<std::mutex> guard(lock);
    videoSettings = words;
    if (!liveViewGiven) liveView.reset();
}

std::array<uint32_t, 22> VirtualCamera::VideoSettings() const {
    std::lock_guard<std::mutex> guard(lock);
    return videoSettings;
}

void VirtualCamera::SetLiveView(Bytes frame) {
    std::lock_guard<std::mutex> guard(lock);
    liveViewGiven = !frame.empty();
    liveView = liveViewGiven ? std::make_shared<const Bytes>(std::move(frame)) : nullptr;
}

uint64_t VirtualCamera::LiveViewFrames() const {
    std::lock_guard<std::mutex> guard(lock);
    return liveViewFrames;
}

void VirtualCamera::SetShotFileDelay(int listings) {
    std::lock_guard<std::mutex> guard(lock);
    shotFileDelay = listings;
}

void VirtualCamera::SetShotProducesFile(bool produces) {
    std::lock_guard<std::mutex> guard(lock);
    shotProducesFile = produces;
}

void VirtualCamera::SetRemotePicture(Bytes picture) {
    std::lock_guard<std::mutex> guard(lock);
    remotePicture = std::move(picture);
}

bool VirtualCamera::Recording() const {
    std::lock_guard<std::mutex> guard(lock);
    return recording;
}

void VirtualCamera::SetOrqmVersion(const std::string& version) {
    std::lock_guard<std::mutex> guard(lock);
    options.orqmVersion = version;
}

void VirtualCamera::SetCamLogSupported(bool supported) {
    std::lock_guard<std::mutex> guard(lock);
    options.camLogSupported = supported;
}

}  // namespace orqsim
