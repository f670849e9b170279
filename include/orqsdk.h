/** \file orqsdk.h
 * OrqSDK: remote control of compact digital cameras over USB.
 *
 * The calling order of an application:
 *   OrqInitializeSDK; OrqGetCameraManager; subscribe to the manager's two events;
 *   OrqGetCameraList; OrqOpenSession; subscribe to the session's events; work;
 *   OrqFree on everything the SDK handed out; OrqTerminateSDK.
 * docs/guide.md walks through it; this header is the reference.
 *
 * Result memory. Every pointer the SDK hands out (lists, records, strings, descriptions, handles,
 * sessions, subscriptions, preview frames) is the caller's until it passes it to OrqFree, once.
 * OrqFree of a session closes it, of a subscription ends it, of a preview frame gives the buffer
 * back. Three things are static strings that must never go to OrqFree: the texts of
 * OrqGetSDKVersion, OrqGetPropertyName and OrqGetPropertyValName. OrqTerminateSDK releases
 * whatever is left (and logs where each was handed out); after it every pointer is dead.
 *
 * Threads. Every export may be called from any thread. Calls that reach a camera are serialised
 * by one SDK-wide lock, and wait while a newly plugged camera is being started. Callbacks run on
 * SDK threads, never on a thread of the application except where a callback says so:
 *   - each camera has one thread of its own that does all its work in order (the "camera
 *     thread"): session events come from there;
 *   - camera-list and start-up-failure events come from the SDK's USB notification thread (or
 *     from the thread inside OrqGetCameraList).
 * A callback may call the session exports and OrqFree (its payload, a frame, a subscription),
 * and may subscribe. It must not call OrqTerminateSDK, and should leave OrqGetCameraList,
 * OrqOpenSession and the closing of sessions to the application's threads: those may have to
 * start or remove a camera, which waits for callbacks. While a callback runs, its camera does
 * nothing else: no queued work, no preview, no watching of the camera; one over 1 s is logged
 * as an error. So keep callbacks short, and never wait in one for another callback or for work
 * queued to the same camera: that work runs on the very thread that is waiting. The usual
 * pattern is to note what happened and wake one of the application's own threads.
 *
 * Queued work. Calls marked "queued" check what they can, post the work to the camera thread
 * and return ORQ_OK at once; their end is told by the event they name. Queued work runs in the
 * order it was queued. A queued request that fails on the camera is not returned to anyone: it
 * ends the camera's session, reported once by the camera-error callback, and every later call on
 * that session returns the failure.
 *
 * Results. Session calls return ORQ_ERROR for a null session or a bad argument,
 * ORQ_DEVICE_NOT_READY once the camera is gone from the SDK's table, and the camera's failure
 * (ORQ_DISCONNECTED, ORQ_BATTERY_LOW, ...) once its session has ended. Each call lists the
 * others it can return. OrqResultName names any of them.
 *
 * Strings are NUL-terminated 16-bit units (UTF-16): wchar_t on Windows, char16_t elsewhere.
 *
 * Cameras of the orqsdk_sim library are virtual (orqsdk_sim.h); the API is the same.
 */
#ifndef ORQSDK_H
#define ORQSDK_H

#include <stdint.h>

#include "orqsdk_props.h"
#include "orqsdk_version.h"

#if !defined(__cplusplus)
#include <uchar.h>
#endif

#ifdef _WIN32
#ifdef ORQSDK_BUILD
#define ORQ_API __declspec(dllexport)
#else
#define ORQ_API __declspec(dllimport)
#endif
typedef wchar_t OrqChar; /**< one UTF-16 unit of the SDK's strings */
#else
/** Marks the exports. */
#define ORQ_API __attribute__((visibility("default")))
/** One UTF-16 unit of the SDK's strings: wchar_t on Windows, char16_t elsewhere. */
typedef char16_t OrqChar;
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** Results of the exports and of the camera-error and start-up-failure callbacks. */
typedef enum OrqResult {
    ORQ_OK = 0,
    ORQ_ERROR = 1,               /**< bad argument, refused request, or a failed camera operation */
    ORQ_SESSION_BUSY = 2,        /**< OrqOpenSession: the camera already has an open session */
    ORQ_DEVICE_NOT_READY = 3,    /**< no such camera (any more), or it is still starting */
    ORQ_NOT_READY = 4,           /**< OrqGetPreviewFrame: no frame has been made yet */
    ORQ_UNKNOWN_PROPERTY = 6,    /**< the camera's model does not have this property */
    ORQ_PROPERTY_CONSTRAINT = 7, /**< the value is not one the property has, or not on offer now */
    ORQ_BATTERY_LOW = 8,         /**< the camera's battery is nearly empty; its session ended */
    ORQ_DISCONNECTED = 9,        /**< the camera was unplugged or switched off; its session ended */
    ORQ_SECOND_PROCESS = 10,     /**< OrqInitializeSDK: another process on this machine runs it */
    ORQ_OLD_MODULE = 13,         /**< start-up: the camera's on-board module is too old */
    ORQ_NO_PERMISSION = 14,      /**< start-up: this user may not open the camera's USB device */
    ORQ_TOO_LATE = 15            /**< OrqShootSynchronizedAt: not ready by the moment; not fired */
} OrqResult;

/** The name of a result ("ORQ_OK", ...), or "ORQ_UNKNOWN_RESULT" for any other number. A static
 * string: never pass it to OrqFree. */
static inline const char* OrqResultName(int result) {
    switch (result) {
        case ORQ_OK:
            return "ORQ_OK";
        case ORQ_ERROR:
            return "ORQ_ERROR";
        case ORQ_SESSION_BUSY:
            return "ORQ_SESSION_BUSY";
        case ORQ_DEVICE_NOT_READY:
            return "ORQ_DEVICE_NOT_READY";
        case ORQ_NOT_READY:
            return "ORQ_NOT_READY";
        case ORQ_UNKNOWN_PROPERTY:
            return "ORQ_UNKNOWN_PROPERTY";
        case ORQ_PROPERTY_CONSTRAINT:
            return "ORQ_PROPERTY_CONSTRAINT";
        case ORQ_BATTERY_LOW:
            return "ORQ_BATTERY_LOW";
        case ORQ_DISCONNECTED:
            return "ORQ_DISCONNECTED";
        case ORQ_SECOND_PROCESS:
            return "ORQ_SECOND_PROCESS";
        case ORQ_OLD_MODULE:
            return "ORQ_OLD_MODULE";
        case ORQ_NO_PERMISSION:
            return "ORQ_NO_PERMISSION";
        case ORQ_TOO_LATE:
            return "ORQ_TOO_LATE";
        default:
            return "ORQ_UNKNOWN_RESULT";
    }
}

/** The state of OrqCameraListChangedCallback and of OrqGetCameraConnectionState. */
enum { ORQ_CAMERA_CONNECTED = 0, ORQ_CAMERA_DISCONNECTED = 1 };
/** The state of OrqSetPreviewState and OrqGetPreviewState. */
enum { ORQ_PREVIEW_OFF = 0, ORQ_PREVIEW_ON = 1 };
/** deleteAfter of OrqDownloadFile and OrqDownloadFileTo: only 1 deletes. */
enum { ORQ_KEEP_FILE = 0, ORQ_DELETE_AFTER_DOWNLOAD = 1 };
/** OrqFileInfo.id of the first picture held in host memory; later ones count down from it. */
enum { ORQ_FIRST_HOST_FILE_ID = -100 };
/** The focus position that stands for infinity. */
enum { ORQ_FOCUS_INFINITY = -1 };

/** A camera as the SDK lists it. The texts are NUL-terminated, cut to fit. */
typedef struct OrqCameraInfo {
    uint32_t id;          /**< pass to OrqOpenSession; valid while the SDK runs */
    OrqChar name[128];    /**< the camera's USB product string */
    OrqChar path[256];    /**< the system's device path */
    OrqChar version[256]; /**< version of the camera's on-board module */
    OrqChar serial[64];   /**< serial number */
} OrqCameraInfo;

/** A file: a picture or movie on the camera's card, or a picture held in host memory. */
typedef struct OrqFileInfo {
    int32_t id; /**< >= 0: object on the card; <= ORQ_FIRST_HOST_FILE_ID: picture in host memory */
    OrqChar name[128]; /**< the camera's name ("IMG_0123.JPG"); "direct_100.jpg" for id -100 */
    uint32_t size;     /**< bytes */
} OrqFileInfo;

/** A size in pixels. */
typedef struct OrqSize {
    int32_t width;  /**< pixels */
    int32_t height; /**< pixels */
} OrqSize;

/** What a property offers now (OrqGetPropertyDesc). One block: release it with OrqFree, not its
 * arrays. */
typedef struct OrqPropertyDesc {
    int32_t* values;  /**< the values on offer now, in the model's order; never null */
    OrqSize* sizes;   /**< pixel size of each offered value that has one (ORQ_PROP_IMAGE_SIZE), in
                         the same order; null when none has */
    int32_t count;    /**< entries in values; 0 when the property is hidden by another's value */
    uint8_t readOnly; /**< 1: OrqSetPropertyData refuses it (ORQ_PROP_BATTERY_LEVEL) */
} OrqPropertyDesc;

/** The camera manager (OrqGetCameraManager); goes back through OrqFree. */
typedef struct OrqCameraManagerCell* OrqCameraManagerHandle;
/** A session on one camera (OrqOpenSession); OrqFree closes it. */
typedef struct OrqSessionRecord* OrqSessionHandle;
/** One callback's subscription to an event; OrqFree ends it. */
typedef struct OrqSubscriber* OrqSubscription;

/* Callbacks. `context` is the pointer given at subscription. Pointers passed in belong to the
 * subscriber that receives them: release each with OrqFree (each subscriber gets its own copy).
 * Threads and allowed calls: see the top of this file. */

/** A camera arrived (state ORQ_CAMERA_CONNECTED) or went (ORQ_CAMERA_DISCONNECTED). Runs on the
 * USB notification thread, or inside OrqGetCameraList on the caller's thread. `info` is yours:
 * OrqFree it. Not raised for the cameras OrqInitializeSDK finds. */
typedef void (*OrqCameraListChangedCallback)(void* context, OrqCameraInfo* info, int state);
/** A plugged-in camera failed to start, with that failure (ORQ_ERROR, ORQ_OLD_MODULE,
 * ORQ_BATTERY_LOW, ...; ORQ_NO_PERMISSION on Linux when the udev rule that gives the user access
 * is not installed); the camera is not listed and is not tried again until it has been
 * unplugged or switched off and on. Runs on the USB notification thread or inside
 * OrqGetCameraList, with the SDK's lock held: every other thread's camera calls wait for it.
 * `path` (the device path) is yours: OrqFree it. */
typedef void (*OrqCameraInitializationErrorCallback)(void* context, int result, OrqChar* path);
/** A shot ended: `file` is the new picture (on the card, or in host memory when Direct Transfer
 * is on). Camera thread. `file` is yours: OrqFree it. */
typedef void (*OrqShootCompletedCallback)(void* context, OrqFileInfo* file);
/** A download ended: the file `fileId` is now at `path`, which the application owns. Camera
 * thread. `path` is yours: OrqFree it. */
typedef void (*OrqDownloadCompletedCallback)(void* context, int fileId, OrqChar* path);
/** The property's value changed other than by the application's own set: on the camera (the
 * mode wheel, ORQ_PROP_SHOOTING_MODE; the battery, ORQ_PROP_BATTERY_LEVEL), or as the knock-on
 * of a set (ORQ_PROP_JPEG_QUALITY after ORQ_PROP_IMAGE_SIZE). Camera thread, or inside
 * OrqSetPropertyData on the caller's thread for knock-on changes. Read the value with
 * OrqGetPropertyData. */
typedef void (*OrqPropertyChangedCallback)(void* context, int propertyId);
/** The camera's session ended with `result`: ORQ_DISCONNECTED (unplugged or switched off),
 * ORQ_BATTERY_LOW, or the failure of a queued request or of the camera's watch (usually
 * ORQ_ERROR). Raised once, on the camera thread, which then ends; every later session call
 * returns `result`. Free your session; the camera is started again when it is plugged in anew. */
typedef void (*OrqCameraErrorCallback)(void* context, OrqResult result);
/** An event with nothing to carry; see each subscribe call. */
typedef void (*OrqNotifyCallback)(void* context);

/* ---- Lifecycle --------------------------------------------------------------------------- */

/** Starts the SDK: finds the attached cameras and starts each of them, blocking until all have
 * started (or failed, which is only logged: no subscriber can exist yet). Starting a camera
 * waits until it is in shooting mode, and clears from its card the files named IMG_0010 and
 * higher (IMG_0000 .. IMG_0009 stay): each is first copied into the folder
 * "orqsdk-card-cleanup/<serial>" beside the logs and read back, and a file whose copy could
 * not be made and verified stays on the card. An older copy of the same name is never replaced.
 * Returns ORQ_OK; ORQ_ERROR if already started in this process; ORQ_SECOND_PROCESS if another
 * process on this machine has it started. May be called again after OrqTerminateSDK. */
ORQ_API OrqResult OrqInitializeSDK(void);
/** Stops the SDK: releases everything not yet passed to OrqFree (ending subscriptions and
 * closing sessions), then stops every camera thread. Does nothing if not started. Call it from
 * an application thread, never from a callback. Afterwards every pointer the SDK handed out is
 * dead. */
ORQ_API void OrqTerminateSDK(void);
/** Sets *version to the SDK's version text ("1.1.0.4"). Static: do not OrqFree. Needs no
 * started SDK. */
ORQ_API void OrqGetSDKVersion(OrqChar** version);
/** Releases anything the SDK handed out by pointer (see the top of this file). Null is ignored;
 * an unknown pointer, or one freed twice, is logged and ignored. Any thread, also callbacks. */
ORQ_API void OrqFree(void* pointer);

/* ---- Cameras and sessions ---------------------------------------------------------------- */

/** A handle on the SDK's camera manager (null when the SDK is not started). OrqFree it when
 * done; the manager itself lives until OrqTerminateSDK. */
ORQ_API OrqCameraManagerHandle OrqGetCameraManager(void);
/** Subscribes to cameras arriving and going. Returns the subscription (OrqFree it to
 * unsubscribe), or null for a null handle. */
ORQ_API OrqSubscription OrqCameraListChangedSubscribe(OrqCameraManagerHandle handle,
                                                      OrqCameraListChangedCallback callback,
                                                      void* context);
/** Subscribes to start-up failures of plugged-in cameras. Returns the subscription, or null. */
ORQ_API OrqSubscription OrqCameraInitializationErrorSubscribe(
    OrqCameraManagerHandle handle, OrqCameraInitializationErrorCallback callback, void* context);
/** Looks for new and gone cameras first (starting new ones, which blocks for their start-up and
 * may raise the two manager events on this thread), then sets *list to a block of *count
 * records, in order of arrival; *list is null when *count is 0. OrqFree the block. A camera
 * unplugged while its session is open stays listed until the session is freed.
 * ORQ_OK; ORQ_ERROR for a null argument. */
ORQ_API OrqResult OrqGetCameraList(OrqCameraManagerHandle handle, OrqCameraInfo** list, int* count);
/** Claims a listed camera (cameraId from OrqCameraInfo.id) and sets *session. A camera has at
 * most one session; OrqFree the session to close it (free its subscriptions first).
 * ORQ_OK; ORQ_DEVICE_NOT_READY for an unknown id (*session untouched) or a camera that is gone;
 * ORQ_SESSION_BUSY if a session is open (*session null); the camera's failure if its session
 * ended; ORQ_ERROR for a null argument. */
ORQ_API OrqResult OrqOpenSession(OrqCameraManagerHandle handle, int cameraId,
                                 OrqSessionHandle* session);
/** Sets *state to ORQ_CAMERA_CONNECTED or ORQ_CAMERA_DISCONNECTED (also for a null session or a
 * camera no longer in the table). ORQ_OK. */
ORQ_API OrqResult OrqGetCameraConnectionState(OrqSessionHandle session, int* state);
/** Copies the camera's record into *info. ORQ_OK; ORQ_ERROR for a null argument. */
ORQ_API OrqResult OrqGetCameraInfo(OrqSessionHandle session, OrqCameraInfo* info);
/** Queued: switches the camera to playback mode and has its on-board module reset the camera.
 * No event of its own. ORQ_OK once queued. */
ORQ_API OrqResult OrqResetCamera(OrqSessionHandle session);
/** Subscribes to the end of the camera's session (OrqCameraErrorCallback). Returns the
 * subscription, or null for a null session or a camera that is gone. */
ORQ_API OrqSubscription OrqCameraErrorSubscribe(OrqSessionHandle session,
                                                OrqCameraErrorCallback callback, void* context);

/* ---- Capture and files ------------------------------------------------------------------- */

/** Queued: has the camera meter and focus anew. No event; the camera takes no further queued
 * work for about 1 s. ORQ_OK once queued. */
ORQ_API OrqResult OrqUpdateAEAF(OrqSessionHandle session);
/** Queued: takes a picture. Its end is the shoot-completed callback with the new file: on the
 * card (id >= 0), or, when ORQ_PROP_DIRECT_TRANSFER is ORQ_SWITCH_ON, held in host memory
 * (negative id) until downloaded with OrqDownloadFileTo or deleted. Live view pauses during the
 * shot. ORQ_OK once queued; ORQ_ERROR while a movie is being recorded. */
ORQ_API OrqResult OrqShoot(OrqSessionHandle session);
/** Blocking: takes a picture with each of `count` cameras (1 to 1024) at the same moment, for
 * rigs. Every camera prepares its shot at once on its own thread (what OrqShoot does before the
 * Shoot command), waits until each other camera is ready or has failed, and then all send their
 * Shoot commands together; each shot ends as OrqShoot's does, with the shoot-completed callback
 * (and a failed shot ends that camera's session as there). A camera that refuses (as OrqShoot
 * would) or fails its preparation holds nobody; one not ready within 10 s no longer holds the
 * others and shoots alone when it is. `sessions` (each at most once) and `results` are the
 * caller's arrays of `count`, used only during the call. Returns once every Shoot command has
 * been answered, at most about 40 s: results[i] is ORQ_OK when camera i's Shoot went out,
 * otherwise why not (ORQ_DEVICE_NOT_READY: no answer by then). ORQ_OK when every camera shot,
 * otherwise ORQ_ERROR (invalid arguments: `results` untouched). Not from a callback: the
 * callback's camera would wait for itself. */
ORQ_API OrqResult OrqShootSynchronized(OrqSessionHandle* sessions, int count, OrqResult* results);
/** One camera's outcome of OrqShootSynchronizedAt. */
typedef struct OrqReleaseReport {
    OrqResult result;  /**< ORQ_OK: its Shoot command went out; ORQ_TOO_LATE: not prepared by
                          the moment, not fired; otherwise why not, as OrqShootSynchronized */
    int64_t sentUtcUs; /**< when its Shoot command left, microseconds since 1970-01-01 UTC by
                          this machine's clock; 0 when it did not */
    int64_t lateUs;    /**< ORQ_OK: sentUtcUs minus the moment; ORQ_TOO_LATE: how long after
                          the moment it was prepared; otherwise 0 */
} OrqReleaseReport;

/** Blocking: takes a picture with each of `count` cameras (1 to 1024) at a given moment,
 * `atUtcUs` (microseconds since 1970-01-01 UTC, by this machine's clock): for rigs whose
 * cameras hang on several machines with agreed clocks (docs/rig.md). Every camera prepares its
 * shot at once on its own thread, as in OrqShootSynchronized, then waits for the moment; the
 * Shoot commands of all cameras prepared by then leave at it. A camera prepared after the moment
 * is not fired late: it takes no picture, keeps its session, and reports ORQ_TOO_LATE; so do all
 * cameras when the call itself comes after the moment. Each shot ends as OrqShoot's does, with
 * the shoot-completed callback (and a failed shot ends that camera's session as there). The
 * moment is turned into this machine's steady clock at the call: a step of the wall clock during
 * the wait does not move it. `sessions` (each at most once) and `reports` are the caller's
 * arrays of `count`, used only during the call. Returns once every Shoot command has been
 * answered, at most about 30 s after the moment. ORQ_OK when every camera shot, otherwise
 * ORQ_ERROR; invalid arguments (also a moment more than 60 s ahead) leave `reports` untouched.
 * Any application thread; not from a callback. */
ORQ_API OrqResult OrqShootSynchronizedAt(OrqSessionHandle* sessions, int count, int64_t atUtcUs,
                                         OrqReleaseReport* reports);
/** Subscribes to ended shots (OrqShootCompletedCallback). Returns the subscription, or null. */
ORQ_API OrqSubscription OrqShootCompletedSubscribe(OrqSessionHandle session,
                                                   OrqShootCompletedCallback callback,
                                                   void* context);
/** Sets *list to a block of *count records: the card's files as last listed by the SDK (at
 * start-up and at each shot); null when *count is 0. Pictures in host memory are not listed.
 * OrqFree the block. ORQ_OK; ORQ_ERROR for a null argument. */
ORQ_API OrqResult OrqGetFileList(OrqSessionHandle session, OrqFileInfo** list, int* count);
/** Queued: copies a card file into the system's temporary folder under its own name, replacing
 * any file of that name, and deletes it from the card if deleteAfter is
 * ORQ_DELETE_AFTER_DOWNLOAD. Its end is the download-completed callback with the path; a file
 * that cannot be written ends the session, the card's copy kept (as for OrqDownloadFileTo).
 * ORQ_OK once queued; ORQ_ERROR for an id not in OrqGetFileList (pictures in host memory
 * included: use OrqDownloadFileTo), a camera file name that is not a plain file name, or no
 * temporary folder. */
ORQ_API OrqResult OrqDownloadFile(OrqSessionHandle session, int fileId, int deleteAfter);
/** Queued: writes a file (on the card, or in host memory) to `path`, a full file name that the
 * call copies; then deletes the file if deleteAfter is ORQ_DELETE_AFTER_DOWNLOAD, which for a
 * picture in host memory frees that memory. The data goes to a file beside `path` that is
 * renamed into place when complete, so `path` never holds part of a file. Its end is the
 * download-completed callback. The id and the disk are checked only on the camera thread: an
 * unknown id, or a file that cannot be written, ends the session (camera-error callback) and
 * deletes nothing. ORQ_OK once queued. */
ORQ_API OrqResult OrqDownloadFileTo(OrqSessionHandle session, int fileId, OrqChar* path,
                                    int deleteAfter);
/** Queued: deletes a file from the card, or frees a picture held in host memory. No event; an
 * unknown id ends the session. The file stays in OrqGetFileList until the next listing.
 * ORQ_OK once queued. */
ORQ_API OrqResult OrqDeleteFile(OrqSessionHandle session, int fileId);
/** Subscribes to ended downloads (OrqDownloadCompletedCallback). Returns the subscription, or
 * null. */
ORQ_API OrqSubscription OrqDownloadCompletedSubscribe(OrqSessionHandle session,
                                                      OrqDownloadCompletedCallback callback,
                                                      void* context);
/** 1 if the camera's model records movies, else 0 (also for a null or gone session). */
ORQ_API int OrqIsVideoSupported(OrqSessionHandle session);
/** Starts recording a movie. Not queued: runs on the calling thread and returns when the camera
 * has answered, holding up every other camera call meanwhile. ORQ_OK or ORQ_ERROR; a failure
 * does not end the session. OrqShoot is refused while recording. */
ORQ_API OrqResult OrqStartVideo(OrqSessionHandle session);
/** Stops recording, lists the card and copies the new movie's record into *file (may be null).
 * Not queued, as OrqStartVideo. ORQ_OK; ORQ_ERROR if the camera refused or no new file is
 * found. */
ORQ_API OrqResult OrqStopVideo(OrqSessionHandle session, OrqFileInfo* file);

/* ---- Properties ---------------------------------------------------------------------------
 * Ids and values: orqsdk_props.h. The SDK reads the camera's settings at start-up and keeps
 * them; afterwards it watches only the mode (ORQ_PROP_SHOOTING_MODE) and the battery, every
 * 2 s. */

/** Sets *value to the property's value as the SDK holds it (no camera traffic). It is the new
 * value at once after an accepted OrqSetPropertyData, before the camera has it.
 * ORQ_OK; ORQ_UNKNOWN_PROPERTY if the model lacks it; ORQ_ERROR for a null value. */
ORQ_API OrqResult OrqGetPropertyData(OrqSessionHandle session, int propertyId, int* value);
/** Partly queued: checks the value and stores it at once, then queues its write to the camera
 * and returns. The camera has the value when the camera thread reaches the write, in order with
 * the other queued work: to wait for that, queue a request whose end is reported after it
 * (docs/guide.md, "Changing a setting"). A write the camera refuses ends the session. The
 * property set raises no property-changed callback of its own; knock-on changes of other
 * properties do (on this thread), and so does the property-list-changed callback when what is
 * on offer changed (ORQ_PROP_AV and ORQ_PROP_TV follow the shooting mode).
 * ORQ_OK; ORQ_UNKNOWN_PROPERTY if the model lacks it; ORQ_PROPERTY_CONSTRAINT for a value the
 * property does not have or that is not on offer now (OrqGetPropertyDesc); ORQ_ERROR for a
 * read-only property. Setting the shooting mode to its current value sends nothing. */
ORQ_API OrqResult OrqSetPropertyData(OrqSessionHandle session, int propertyId, int value);
/** Sets *list to an array of the *count property ids on offer now, ascending. OrqFree the
 * array (also when *count is 0). ORQ_OK; ORQ_ERROR for a null argument. */
ORQ_API OrqResult OrqGetPropertyList(OrqSessionHandle session, int** list, int* count);
/** Sets *description to what the property offers now; OrqFree it (one block).
 * ORQ_OK; ORQ_UNKNOWN_PROPERTY if the model lacks it; ORQ_ERROR for a null argument. */
ORQ_API OrqResult OrqGetPropertyDesc(OrqSessionHandle session, int propertyId,
                                     OrqPropertyDesc** description);
/** Subscribes to changes of what is on offer (OrqGetPropertyList, OrqGetPropertyDesc).
 * Camera thread, or inside OrqSetPropertyData on the caller's thread. Returns the subscription,
 * or null. */
ORQ_API OrqSubscription OrqPropertyListChangedSubscribe(OrqSessionHandle session,
                                                        OrqNotifyCallback callback, void* context);
/** Subscribes to value changes (OrqPropertyChangedCallback). Returns the subscription, or null. */
ORQ_API OrqSubscription OrqPropertyChangedSubscribe(OrqSessionHandle session,
                                                    OrqPropertyChangedCallback callback,
                                                    void* context);
/** Sets *name to the property's English name ("Shooting Mode"). Static: do not OrqFree. Needs no
 * started SDK; any thread. ORQ_OK; ORQ_ERROR for an unknown id (*name untouched) or null. */
ORQ_API OrqResult OrqGetPropertyName(int propertyId, OrqChar** name);
/** Sets *name to the value's English name ("Auto", "1/250", "+0.33"), the same on every model.
 * Static: do not OrqFree. Needs no started SDK. ORQ_OK; ORQ_ERROR for an unknown pair or null. */
ORQ_API OrqResult OrqGetPropertyValName(int propertyId, int value, OrqChar** name);

/* ---- Zoom and focus ---------------------------------------------------------------------- */

/** Sets *maximum to the model's last zoom step; steps run 0 .. *maximum. ORQ_OK; ORQ_ERROR for
 * null. */
ORQ_API OrqResult OrqGetMaximumZoom(OrqSessionHandle session, int* maximum);
/** Sets *zoom to the step as the SDK last knew it (no camera traffic). ORQ_OK; ORQ_ERROR for
 * null. */
ORQ_API OrqResult OrqGetZoom(OrqSessionHandle session, int* zoom);
/** Queued: moves the zoom to `zoom`, limited to 0 .. maximum. Requests queued back to back are
 * merged into the last. Its end is the zoom-completed callback, then zoom-changed if the step
 * changed. ORQ_OK once queued. */
ORQ_API OrqResult OrqSetZoom(OrqSessionHandle session, int zoom);
/** Subscribes to zoom-step changes, also those made at the camera (camera thread). Returns the
 * subscription, or null. */
ORQ_API OrqSubscription OrqZoomChangedSubscribe(OrqSessionHandle session,
                                                OrqNotifyCallback callback, void* context);
/** Subscribes to the ends of OrqSetZoom moves (camera thread). Returns the subscription, or
 * null. */
ORQ_API OrqSubscription OrqZoomCompletedSubscribe(OrqSessionHandle session,
                                                  OrqNotifyCallback callback, void* context);
/** Sets *focus to the manual-focus position as the SDK last knew it; ORQ_FOCUS_INFINITY is
 * infinity. ORQ_OK; ORQ_ERROR for null. */
ORQ_API OrqResult OrqGetFocus(OrqSessionHandle session, int* focus);
/** Queued: moves the manual focus to `focus` as given (see ORQ_PROP_MANUAL_FOCUS_MODE). Its end
 * is the focus-changed callback, if the position reached differs. ORQ_OK once queued. */
ORQ_API OrqResult OrqSetFocus(OrqSessionHandle session, int focus);
/** Queued: moves the manual focus `shift` stops nearer (negative) or farther (positive) along
 * the model's stops for the current zoom step. Focus-changed follows each move. ORQ_OK once
 * queued. */
ORQ_API OrqResult OrqFocusShift(OrqSessionHandle session, int shift);
/** Subscribes to focus-position changes (camera thread). Returns the subscription, or null. */
ORQ_API OrqSubscription OrqFocusChangedSubscribe(OrqSessionHandle session,
                                                 OrqNotifyCallback callback, void* context);

/* ---- Live view --------------------------------------------------------------------------- */

/** Lends the newest live-view frame: *frame points to a complete 24-bit BMP file image of *size
 * bytes, 4:3, that can be written to disk as it is. The buffer stays the SDK's and is not
 * written while lent: give it back with OrqFree before asking for the next. The same frame may
 * be fetched again until a newer one exists; the last one stays available after live view is
 * turned off or the session has ended.
 * ORQ_OK; ORQ_NOT_READY before the first frame; ORQ_ERROR while a frame is still lent or for a
 * null argument. */
ORQ_API OrqResult OrqGetPreviewFrame(OrqSessionHandle session, void** frame, int* size);
/** Turns live view on (state ORQ_PREVIEW_ON) or off (any other value). While on, the camera
 * thread makes a frame every PreviewFrameInterval ms (60 by default), except during shots, and
 * raises the new-frame callback after each. ORQ_OK. */
ORQ_API OrqResult OrqSetPreviewState(OrqSessionHandle session, int state);
/** Sets *state to ORQ_PREVIEW_ON or ORQ_PREVIEW_OFF. ORQ_OK; ORQ_ERROR for null. */
ORQ_API OrqResult OrqGetPreviewState(OrqSessionHandle session, int* state);
/** Subscribes to new live-view frames (camera thread); fetch them with OrqGetPreviewFrame, also
 * from within the callback. Returns the subscription, or null. */
ORQ_API OrqSubscription OrqNewPreviewFrameSubscribe(OrqSessionHandle session,
                                                    OrqNotifyCallback callback, void* context);

#ifdef __cplusplus
}
#endif

#endif /**< ORQSDK_H */
