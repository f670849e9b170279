/** \file orqsdk_sim.h
 * OrqSDK simulator exports: only in orqsdk_sim, the SDK built on virtual cameras instead of USB.
 *
 * A virtual camera of a supported model is attached to the library's virtual bus; the SDK sees
 * it arrive as a USB camera would (the camera-list event fires) and drives it through the same
 * protocol. These calls play the part of the person holding the camera: plugging and pulling
 * the cable, turning the mode wheel, changing batteries, filling the card. Faults make the
 * camera misbehave on the wire. All calls are thread-safe; none of them calls back.
 */
#ifndef ORQSDK_SIM_H
#define ORQSDK_SIM_H

#include "orqsdk.h"

#ifdef __cplusplus
extern "C" {
#endif

/** A virtual camera; 0 stands for none. */
typedef int32_t OrqSimCamera;

/** What a fault does; see OrqSimInjectFault. */
typedef enum OrqSimFaultKind {
    /* Per operation: match `opcode` (0: any) and `subCommand` of the vendor operation 0x9999
     * (0 or -1: any), let `skip` matches pass, then hit `times` of them (0: once, -1: all). */
    ORQSIM_GENERAL_ERROR = 0,   /* a 0x2002 response instead of the answer */
    ORQSIM_RESPONSE_CODE = 1,   /* response code `value` instead of the answer */
    ORQSIM_ECHO_CODE = 2,       /* success answered with the operation code */
    ORQSIM_DATA_TYPE = 3,       /* data container Type = value */
    ORQSIM_DATA_CODE = 4,       /* data container Code = value */
    ORQSIM_RESPONSE_TYPE = 5,   /* response container Type = value */
    ORQSIM_DATA_LENGTH = 6,     /* data container Length field = value */
    ORQSIM_RESPONSE_LENGTH = 7, /* response Length field = value */
    ORQSIM_TRUNCATE_DATA = 8,   /* only `value` payload bytes, then silence */
    ORQSIM_STALL = 9,           /* no answer at all */
    ORQSIM_STALL_RESPONSE = 10, /* data phase, then no response */
    ORQSIM_DISCONNECT = 11,     /* cable pulled after `value` bytes of the answer */
    ORQSIM_RAW_REPLY = 12,      /* `bytes` instead of the answer */
    ORQSIM_DELAY = 13,          /* the answer comes `value` ms late */
    /* Per transfer: the `transfer`th transfer on `pipe` from now (0 or 1: the next), `times`
     * in a row. */
    ORQSIM_TRANSFER_STALL = 14,      /* waits for the host's timeout */
    ORQSIM_TRANSFER_ERROR = 15,      /* fails at once */
    ORQSIM_TRANSFER_DISCONNECT = 16, /* cable pulled during the transfer */
    ORQSIM_TRANSFER_SHORT = 17       /* at most `value` bytes move */
} OrqSimFaultKind;

/** The pipe of a per-transfer fault. */
typedef enum OrqSimPipe { ORQSIM_BULK_IN = 0, ORQSIM_BULK_OUT = 1 } OrqSimPipe;

/** A scripted misbehaviour; zero-filled fields mean any operation, once, the next transfer. */
typedef struct OrqSimFault {
    int32_t kind;         /**< an OrqSimFaultKind */
    uint16_t opcode;      /**< per operation: the PTP operation code to match; 0: any */
    int32_t subCommand;   /**< per operation: the vendor sub-command to match; 0 or -1: any */
    int32_t skip;         /**< per operation: matches let through before the fault hits */
    int32_t times;        /**< how many it hits: 0 once, -1 all; per transfer: in a row */
    int32_t pipe;         /**< per transfer: an OrqSimPipe */
    uint32_t transfer;    /**< per transfer: which transfer from now, 0 or 1 the next */
    uint32_t value;       /**< the kind's number: a code, a length, a byte count, milliseconds */
    const uint8_t* bytes; /**< ORQSIM_RAW_REPLY: the reply, copied by OrqSimInjectFault */
    uint32_t byteCount;   /**< ORQSIM_RAW_REPLY: its length */
} OrqSimFault;

/** Attaches a new camera of a model and tells the SDK, as plugging in its cable would.
 *
 * The models that can be attached: A1400, A2200, A4000, A495, A800, A810, G15, IXUS145, SX130,
 * SX150, SX160, SX170, SX40, SX500, SX510 (the spelling is exact). Any other text is accepted too,
 * so that an unknown model can be tried: the SDK then refuses the camera.
 *
 * The camera starts as one out of the box: in record mode, every setting on the model's first
 * value except exposure and flash compensation, which start at 0 (ORQ_COMP_ZERO). Its serial
 * (OrqCameraInfo.serial) is 32 hex digits made from the model and the camera id, so that every
 * camera of a process has its own, and the same attach order gives the same serials in every
 * run. Where the environment variable ORQSIM_SERIAL_SEED is set (read at each attach), its text
 * is mixed in too, so that processes standing for different machines, as a rig's nodes, give
 * their cameras different serials. Its card is in memory until OrqSimSetCardFolder.
 *
 * Its pictures are JPEG files at the pixel size of the current Image Size, as the model's size
 * table gives it (OrqPropertyDesc): colour bars and a box naming the model, serial, shot number
 * and time (UTC); pictures sent straight to the host are made alike, and movies are QuickTime
 * files of small JPEG frames. A still carries Exif: Make "Orqwerk", Model (the model as
 * attached), BodySerialNumber (its serial), DateTimeOriginal with SubSecTimeOriginal (six digits)
 * and OffsetTimeOriginal "+00:00" from the camera's clock, which is the host's in UTC, and
 * FocalLength and FocalLengthIn35mmFilm from the zoom step at the shot and the model's lens; a
 * build without libexif (Windows without its source package) writes none. A Windows build made
 * without libjpeg-turbo's source package has no JPEG encoder: its pictures are bytes between JPEG
 * markers. Its live view moves: every frame read
 * shows a bar further on and the frame's number, in colours of the camera's own, at the scale of
 * the current zoom.
 *
 * Returns the camera (1, 2, ... in attach order; ids are not reused), 0 when model is null or
 * memory ran out. Thread-safe; may be called before or after OrqInitializeSDK. */
ORQ_API OrqSimCamera OrqSimAttachCamera(const char* model);
/** Pulls the cable: the SDK sees the camera go, transfers in flight fail. The camera keeps its
 * card and settings and can be plugged in again. ORQ_OK; ORQ_ERROR for an unknown camera or one
 * already detached. Thread-safe. */
ORQ_API OrqResult OrqSimDetachCamera(OrqSimCamera camera);
/** Plugs a detached camera in again under its path; the SDK starts it as a new arrival.
 * ORQ_OK; ORQ_ERROR for an unknown camera or one plugged in. Thread-safe. */
ORQ_API OrqResult OrqSimReattachCamera(OrqSimCamera camera);
/** Pulls the cable and forgets the camera; its id is not used again. ORQ_OK; ORQ_ERROR for an
 * unknown camera. Thread-safe. */
ORQ_API OrqResult OrqSimRemoveCamera(OrqSimCamera camera);
/** Removes every camera, as OrqSimRemoveCamera on each. Thread-safe. */
ORQ_API void OrqSimRemoveAll(void);
/** Copies the device path the SDK knows the camera by (as in OrqCameraInfo.path), NUL-terminated,
 * into the caller's `path` of `capacity` units. ORQ_OK; ORQ_ERROR for an unknown camera, a null
 * `path` or one too short. Thread-safe. */
ORQ_API OrqResult OrqSimGetCameraPath(OrqSimCamera camera, OrqChar* path, int capacity);

/** Turns the mode wheel: the raw shooting-mode value the camera then reports. ORQ_OK; ORQ_ERROR
 * for an unknown camera. The calls below that change the camera likewise return ORQ_OK, or
 * ORQ_ERROR for an unknown camera; they take effect at the camera's next answer and raise no
 * SDK event by themselves. Thread-safe. */
ORQ_API OrqResult OrqSimSetModeWheel(OrqSimCamera camera, int32_t rawMode);
/** The camera's answer to the mode request: 1 record, otherwise play. */
ORQ_API OrqResult OrqSimSetCameraMode(OrqSimCamera camera, int32_t mode);
/** The battery voltages in millivolts the camera reports (by default 4000, 4200, 3300). */
ORQ_API OrqResult OrqSimSetBattery(OrqSimCamera camera, int32_t current, int32_t maximum,
                                   int32_t minimum);
/** Sets a property case to a raw value, as a setting changed at the camera would. */
ORQ_API OrqResult OrqSimSetPropCase(OrqSimCamera camera, int32_t propCase, int32_t raw);
/** The raw value the camera holds in a property case (0 if never set), into *raw. ORQ_ERROR also
 * for a null `raw`. */
ORQ_API OrqResult OrqSimGetPropCase(OrqSimCamera camera, int32_t propCase, int32_t* raw);
/** The lens moved at the camera itself: zoom step, at once and without an event. */
ORQ_API OrqResult OrqSimSetZoom(OrqSimCamera camera, int32_t position);
/** Focus moved at the camera itself. */
ORQ_API OrqResult OrqSimSetFocus(OrqSimCamera camera, int32_t position);

/** Makes a folder on disk the camera's card, so that pictures outlast the process: the folder
 * is made if it is missing, the files in it (not its subfolders) replace what the card held,
 * and from then on every file the camera writes (shots, movies, its log, OrqSimAddFile) is
 * written there too and every file deleted from the card is deleted there. New files are
 * numbered after the highest number found. `folder` is a NUL-terminated path the caller keeps;
 * null stands for "orqsim-cards/<serial>" beside the SDK's logs, one folder per serial, which is
 * what `orqcam --virtual` uses.
 *
 * Call it before OrqInitializeSDK, or while the camera is detached (OrqSimDetachCamera, then
 * OrqSimReattachCamera): the SDK lists the card when the camera arrives, and its start-up
 * moves pictures numbered 10 and up off the card into its clean-up folder, as with any camera.
 * Returns ORQ_OK, or ORQ_ERROR for an unknown camera or a folder that cannot be made or read
 * (the card is then left as it was). Thread-safe. */
ORQ_API OrqResult OrqSimSetCardFolder(OrqSimCamera camera, const OrqChar* folder);

/** Puts a file on the card (in its card folder too, if it has one): `size` bytes copied from
 * `data` under the NUL-terminated `name`; the caller keeps both. Returns the new object handle,
 * or -1 for an unknown camera or null arguments. The SDK sees it at its next listing. */
ORQ_API int32_t OrqSimAddFile(OrqSimCamera camera, const OrqChar* name, const void* data,
                              uint32_t size);
/** Removes a file from the card (and its card folder). ORQ_OK; ORQ_ERROR for an unknown camera
 * or handle. */
ORQ_API OrqResult OrqSimDeleteFile(OrqSimCamera camera, int32_t handle);
/** Files on the card (folders not counted), or -1 for an unknown camera. */
ORQ_API int32_t OrqSimGetFileCount(OrqSimCamera camera);

/** Makes the camera misbehave as `fault` says (copied; `bytes` too). ORQ_OK; ORQ_ERROR for an
 * unknown camera, a null fault or an unknown kind. */
ORQ_API OrqResult OrqSimInjectFault(OrqSimCamera camera, const OrqSimFault* fault);
/** Drops every fault not yet spent. ORQ_OK; ORQ_ERROR for an unknown camera. */
ORQ_API OrqResult OrqSimClearFaults(OrqSimCamera camera);
/** Latency of every transfer and of every byte, e.g. 125 us and 28 ns to model a USB 2.0 link;
 * slept on the thread that moves the transfer. ORQ_OK; ORQ_ERROR for an unknown camera. */
ORQ_API OrqResult OrqSimSetLatency(OrqSimCamera camera, uint32_t perTransferMicroseconds,
                                   uint32_t perByteNanoseconds);
/** Operations received since attach or the last clear: of that code, and of that vendor
 * sub-command (0 or -1: any). -1 for an unknown camera. */
ORQ_API int32_t OrqSimCountOperations(OrqSimCamera camera, uint16_t opcode, int32_t subCommand);
/** Forgets the operations and Shoot times recorded. ORQ_OK; ORQ_ERROR for an unknown camera. */
ORQ_API OrqResult OrqSimClearOperations(OrqSimCamera camera);
/** When the camera received each Shoot command (accepted or refused) since attach or the last
 * OrqSimClearOperations, oldest first, as nanoseconds of one monotonic clock that every camera
 * of the process shares, so that the spread of a synchronised shot can be read from the
 * cameras' side. The camera keeps the latest 4096. Fills at most `capacity` values (`nanoseconds`
 * may be null) and returns how many the camera holds, which may be more; -1 for an unknown
 * camera. */
ORQ_API int32_t OrqSimGetShootTimes(OrqSimCamera camera, int64_t* nanoseconds, int32_t capacity);

#ifdef __cplusplus
}
#endif

#endif /* ORQSDK_SIM_H */
