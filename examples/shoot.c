/* Lists the cameras, takes one picture with the first and writes it to a file.
 *
 *   shoot [OUTPUT]            (default OUTPUT: shot.jpg)
 *
 * Where the model can hand pictures straight to the computer (Direct Transfer), the picture
 * never touches the card: it is held in host memory and written out from there. Otherwise it
 * goes to the card and is copied from it, and stays on the card.
 * Exit code 0 when the file on disk has the picture's size.
 */
#include <stdlib.h>

#include "example_support.h"

typedef struct Shot {
    ExampleLatch latch; /* guards the counters below */
    int shot;
    int downloaded;
    int failed;
    OrqFileInfo file;  /* the new picture, written before `shot` counts */
    OrqResult failure; /* the camera-error callback's result, before `failed` counts */
} Shot;

/* Camera thread: copy what we need, release the record, wake main. */
static void OnShootCompleted(void* context, OrqFileInfo* file) {
    Shot* shot = (Shot*)context;
    latch_lock(&shot->latch);
    shot->file = *file;
    latch_unlock(&shot->latch);
    OrqFree(file);
    latch_add(&shot->latch, &shot->shot);
}

static void OnDownloadCompleted(void* context, int fileId, OrqChar* path) {
    Shot* shot = (Shot*)context;
    char text[512];
    printf("file %d written to %s\n", fileId, example_text(path, text, sizeof text));
    OrqFree(path);
    latch_add(&shot->latch, &shot->downloaded);
}

static void OnCameraError(void* context, OrqResult result) {
    Shot* shot = (Shot*)context;
    latch_lock(&shot->latch);
    shot->failure = result;
    latch_unlock(&shot->latch);
    latch_add(&shot->latch, &shot->failed);
}

/* Waits for the event counted in *counter; 0 if the camera failed or after 30 s. */
static int WaitFor(Shot* shot, const int* counter, const char* what) {
    int outcome = latch_wait_until(&shot->latch, counter, 1, &shot->failed, 30000);
    if (outcome == -1) {
        fprintf(stderr, "camera failed while waiting for the %s: %s\n", what,
                OrqResultName(shot->failure));
    } else if (outcome == 0) {
        fprintf(stderr, "no %s after 30 s\n", what);
    }
    return outcome == 1;
}

static int OffersProperty(OrqSessionHandle session, int propertyId) {
    int* ids = NULL;
    int count = 0;
    int i;
    int found = 0;
    if (OrqGetPropertyList(session, &ids, &count) != ORQ_OK) return 0;
    for (i = 0; i < count; ++i) found |= ids[i] == propertyId;
    OrqFree(ids);
    return found;
}

static long FileSize(const char* path) {
    long size = -1;
    FILE* file = fopen(path, "rb");
    if (!file) return -1;
    if (fseek(file, 0, SEEK_END) == 0) size = ftell(file);
    fclose(file);
    return size;
}

int main(int argc, char** argv) {
    const char* output;
    OrqCameraManagerHandle manager;
    OrqSessionHandle session;
    OrqSubscription subscriptions[3];
    OrqChar path[1024];
    OrqResult result;
    Shot shot;
    int ok = 0;
    int i;

    if (!example_start(&argc, argv)) return 1;
    output = argc > 1 ? argv[1] : "shot.jpg";
    memset(&shot, 0, sizeof shot);
    latch_init(&shot.latch);

    manager = OrqGetCameraManager();
    session = example_open_first(manager);
    if (!session) {
        OrqFree(manager);
        OrqTerminateSDK();
        return 2;
    }
    subscriptions[0] = OrqShootCompletedSubscribe(session, OnShootCompleted, &shot);
    subscriptions[1] = OrqDownloadCompletedSubscribe(session, OnDownloadCompleted, &shot);
    subscriptions[2] = OrqCameraErrorSubscribe(session, OnCameraError, &shot);

    /* "On" is 0. Only the SDK holds this setting, and it applies to the shots queued after. */
    if (OffersProperty(session, ORQ_PROP_DIRECT_TRANSFER)) {
        result = OrqSetPropertyData(session, ORQ_PROP_DIRECT_TRANSFER, ORQ_SWITCH_ON);
        printf("Direct Transfer on: %s\n", OrqResultName(result));
    } else {
        printf("this model has no Direct Transfer: shooting to the card\n");
    }

    result = OrqShoot(session);
    if (result != ORQ_OK) {
        fprintf(stderr, "OrqShoot: %s\n", OrqResultName(result));
    } else if (WaitFor(&shot, &shot.shot, "shot")) {
        char name[128];
        printf("shot: id %d, %s, %u bytes, %s\n", (int)shot.file.id,
               example_text(shot.file.name, name, sizeof name), (unsigned)shot.file.size,
               shot.file.id < 0 ? "in host memory" : "on the card");
        /* A picture in host memory is freed by the delete; one on the card stays there. */
        example_wide(output, path, sizeof path / sizeof path[0]);
        result = OrqDownloadFileTo(session, shot.file.id, path,
                                   shot.file.id < 0 ? ORQ_DELETE_AFTER_DOWNLOAD : ORQ_KEEP_FILE);
        if (result != ORQ_OK) {
            fprintf(stderr, "OrqDownloadFileTo: %s\n", OrqResultName(result));
        } else if (WaitFor(&shot, &shot.downloaded, "download")) {
            long size = FileSize(output);
            ok = size == (long)shot.file.size;
            if (!ok)
                fprintf(stderr, "%s has %ld bytes, expected %u\n", output, size, shot.file.size);
        }
    }

    for (i = 0; i < 3; ++i) OrqFree(subscriptions[i]);
    OrqFree(session);
    OrqFree(manager);
    OrqTerminateSDK();
    return ok ? 0 : 1;
}
