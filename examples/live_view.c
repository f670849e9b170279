/* Writes N live-view frames of the first camera as BMP files.
 *
 *   live_view [N [PREFIX]]    (default: 5 frames, frame_000.bmp, frame_001.bmp, ...)
 *
 * The SDK's frames are complete BMP file images, so each is written as it is. The callback only
 * counts; the main thread fetches, writes and gives each frame back.
 * Exit code 0 when all N files were written.
 */
#include <stdlib.h>

#include "example_support.h"

typedef struct View {
    ExampleLatch latch;
    int frames; /* new frames announced */
    int failed;
} View;

/* Camera thread. Fetching here would be allowed too, but writing files would hold up the
 * camera; waking main is enough. */
static void OnNewFrame(void* context) {
    View* view = (View*)context;
    latch_add(&view->latch, &view->frames);
}

static void OnCameraError(void* context, OrqResult result) {
    View* view = (View*)context;
    fprintf(stderr, "camera failed: %s\n", OrqResultName(result));
    latch_add(&view->latch, &view->failed);
}

int main(int argc, char** argv) {
    int wanted, written = 0, waitedFor = 0;
    const char* prefix;
    OrqCameraManagerHandle manager;
    OrqSessionHandle session;
    OrqSubscription onFrame, onError;
    View view;

    if (!example_start(&argc, argv)) return 1;
    wanted = argc > 1 ? atoi(argv[1]) : 5;
    prefix = argc > 2 ? argv[2] : "frame";
    memset(&view, 0, sizeof view);
    latch_init(&view.latch);

    manager = OrqGetCameraManager();
    session = example_open_first(manager);
    if (!session) {
        OrqFree(manager);
        OrqTerminateSDK();
        return 2;
    }
    onFrame = OrqNewPreviewFrameSubscribe(session, OnNewFrame, &view);
    onError = OrqCameraErrorSubscribe(session, OnCameraError, &view);
    OrqSetPreviewState(session, ORQ_PREVIEW_ON);

    while (written < wanted) {
        void* frame = NULL;
        int size = 0;
        OrqResult result;
        /* Frames come every 60 ms or so; one that arrives while we write is not lost, as the
         * next fetch gets the newest. */
        int outcome =
            latch_wait_until(&view.latch, &view.frames, waitedFor + 1, &view.failed, 10000);
        if (outcome != 1) {
            if (outcome == 0) fprintf(stderr, "no live-view frame for 10 s\n");
            break;
        }
        waitedFor = latch_read(&view.latch, &view.frames);
        result = OrqGetPreviewFrame(session, &frame, &size);
        if (result != ORQ_OK) {
            fprintf(stderr, "OrqGetPreviewFrame: %s\n", OrqResultName(result));
            break;
        }
        {
            char name[512];
            FILE* file;
            const unsigned char* bmp = (const unsigned char*)frame;
            long width = (long)bmp[18] | (long)bmp[19] << 8 | (long)bmp[20] << 16;
            long height = (long)bmp[22] | (long)bmp[23] << 8 | (long)bmp[24] << 16;
            snprintf(name, sizeof name, "%s_%03d.bmp", prefix, written);
            file = fopen(name, "wb");
            if (file && fwrite(frame, 1, (size_t)size, file) == (size_t)size) {
                printf("%s: %ld x %ld, %d bytes\n", name, width, height, size);
                ++written;
            } else {
                fprintf(stderr, "cannot write %s\n", name);
                wanted = -1;
            }
            if (file) fclose(file);
        }
        OrqFree(frame); /* the buffer goes back to the SDK; fetch no frame while holding one */
    }

    OrqSetPreviewState(session, ORQ_PREVIEW_OFF);
    OrqFree(onFrame);
    OrqFree(onError);
    OrqFree(session);
    OrqFree(manager);
    OrqTerminateSDK();
    return written == wanted ? 0 : 1;
}
