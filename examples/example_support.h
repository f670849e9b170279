/* What the three examples share: starting the SDK (with a virtual camera in the *_virtual
 * builds), a latch through which callbacks wake the main thread, and text conversion.
 *
 * Built with ORQ_EXAMPLE_VIRTUAL and linked to orqsdk_sim, a program plugs in a virtual camera
 * before it starts the SDK: of the model given as "--virtual MODEL" in front of its own
 * arguments, SX160 when none is given. Otherwise it uses the cameras on USB.
 */
#ifndef EXAMPLE_SUPPORT_H
#define EXAMPLE_SUPPORT_H

#include <stdio.h>
#include <string.h>

#include "orqsdk.h"
#ifdef ORQ_EXAMPLE_VIRTUAL
#include "orqsdk_sim.h"
#endif

#ifdef _WIN32
#include <windows.h>
#else
#include <errno.h>
#include <pthread.h>
#include <time.h>
#endif

/* ---- A latch: callbacks count, the main thread waits with a time limit ------------------ */

/* Guards counters that callbacks raise on SDK threads and the main thread waits for. */
typedef struct ExampleLatch {
#ifdef _WIN32
    CRITICAL_SECTION lock;
    CONDITION_VARIABLE changed;
#else
    pthread_mutex_t lock;
    pthread_cond_t changed;
#endif
} ExampleLatch;

static inline void latch_init(ExampleLatch* latch) {
#ifdef _WIN32
    InitializeCriticalSection(&latch->lock);
    InitializeConditionVariable(&latch->changed);
#else
    pthread_mutex_init(&latch->lock, NULL);
    pthread_cond_init(&latch->changed, NULL);
#endif
}

static inline void latch_lock(ExampleLatch* latch) {
#ifdef _WIN32
    EnterCriticalSection(&latch->lock);
#else
    pthread_mutex_lock(&latch->lock);
#endif
}

static inline void latch_unlock(ExampleLatch* latch) {
#ifdef _WIN32
    LeaveCriticalSection(&latch->lock);
#else
    pthread_mutex_unlock(&latch->lock);
#endif
}

/* From a callback: adds one to *counter and wakes the waiter. Never blocks for long. */
static inline void latch_add(ExampleLatch* latch, int* counter) {
    latch_lock(latch);
    ++*counter;
#ifdef _WIN32
    WakeAllConditionVariable(&latch->changed);
#else
    pthread_cond_broadcast(&latch->changed);
#endif
    latch_unlock(latch);
}

static inline int latch_read(ExampleLatch* latch, const int* counter) {
    int value;
    latch_lock(latch);
    value = *counter;
    latch_unlock(latch);
    return value;
}

/* Waits until *counter reaches `target` (1) or *failed is non-zero (-1), at most `timeoutMs`
 * (0). */
static inline int latch_wait_until(ExampleLatch* latch, const int* counter, int target,
                                   const int* failed, int timeoutMs) {
    int outcome = 0;
    int late = 0;
#ifdef _WIN32
    ULONGLONG end = GetTickCount64() + (ULONGLONG)timeoutMs;
#else
    struct timespec end;
    clock_gettime(CLOCK_REALTIME, &end);
    end.tv_sec += timeoutMs / 1000;
    end.tv_nsec += (long)(timeoutMs % 1000) * 1000000L;
    if (end.tv_nsec >= 1000000000L) {
        end.tv_sec += 1;
        end.tv_nsec -= 1000000000L;
    }
#endif
    latch_lock(latch);
    for (;;) {
        if (*counter >= target) {
            outcome = 1;
            break;
        }
        if (*failed) {
            outcome = -1;
            break;
        }
        if (late) break;
#ifdef _WIN32
        {
            ULONGLONG now = GetTickCount64();
            late = now >= end ||
                   !SleepConditionVariableCS(&latch->changed, &latch->lock, (DWORD)(end - now));
        }
#else
        late = pthread_cond_timedwait(&latch->changed, &latch->lock, &end) == ETIMEDOUT;
#endif
    }
    latch_unlock(latch);
    return outcome;
}

/* ---- Text ------------------------------------------------------------------------------- */

/* SDK text to printable bytes: ASCII as it is, anything else as '?'. The names of properties
 * and values are ASCII. */
static inline const char* example_text(const OrqChar* text, char* out, size_t size) {
    size_t i = 0;
    for (; text && text[i] && i + 1 < size; ++i) {
        out[i] = (text[i] >= 0x20 && text[i] < 0x7f) ? (char)text[i] : '?';
    }
    out[i] = 0;
    return out;
}

/* A byte string to SDK text (for file names: ASCII or, on Linux, any UTF-8 that is ASCII). */
static inline void example_wide(const char* text, OrqChar* out, size_t size) {
    size_t i = 0;
    for (; text[i] && i + 1 < size; ++i) out[i] = (OrqChar)(unsigned char)text[i];
    out[i] = 0;
}

/* ---- Start ------------------------------------------------------------------------------ */

/* Starts the SDK; in a virtual build first plugs in the virtual camera, taking "--virtual MODEL"
 * off the front of the arguments. Prints the reason and returns 0 on failure. */
static inline int example_start(int* argc, char** argv) {
    OrqResult result;
#ifdef ORQ_EXAMPLE_VIRTUAL
    const char* model = "SX160";
    if (*argc >= 3 && strcmp(argv[1], "--virtual") == 0) {
        int i;
        model = argv[2];
        for (i = 3; i <= *argc; ++i) argv[i - 2] = argv[i];
        *argc -= 2;
    }
    if (OrqSimAttachCamera(model) == 0) {
        fprintf(stderr, "cannot attach a virtual %s\n", model);
        return 0;
    }
    printf("virtual camera: %s\n", model);
#else
    (void)argc;
    (void)argv;
#endif
    result = OrqInitializeSDK();
    if (result != ORQ_OK) {
        fprintf(stderr, "OrqInitializeSDK: %s\n", OrqResultName(result));
        return 0;
    }
    return 1;
}

/* Opens a session on the first listed camera; prints the list on the way. Null if none. */
static inline OrqSessionHandle example_open_first(OrqCameraManagerHandle manager) {
    OrqCameraInfo* cameras = NULL;
    OrqSessionHandle session = NULL;
    int count = 0;
    int i;
    char name[128], serial[64], version[64];
    OrqResult result = OrqGetCameraList(manager, &cameras, &count);
    if (result != ORQ_OK) {
        fprintf(stderr, "OrqGetCameraList: %s\n", OrqResultName(result));
        return NULL;
    }
    for (i = 0; i < count; ++i) {
        printf("camera %d: %s, serial %s, module %s\n", i,
               example_text(cameras[i].name, name, sizeof name),
               example_text(cameras[i].serial, serial, sizeof serial),
               example_text(cameras[i].version, version, sizeof version));
    }
    if (count == 0) {
        fprintf(stderr, "no camera found: plug one in, switched on and in shooting mode\n");
    } else {
        result = OrqOpenSession(manager, (int)cameras[0].id, &session);
        if (result != ORQ_OK) {
            fprintf(stderr, "OrqOpenSession: %s\n", OrqResultName(result));
            session = NULL;
        }
    }
    OrqFree(cameras); /* null when count is 0: ignored */
    return session;
}

#endif /* EXAMPLE_SUPPORT_H */
