/* Lists every setting of the first camera with the names of its values, then changes one and
 * waits until the camera has it.
 *
 *   settings [PROPERTY VALUE]   e.g. settings "ISO Speed" "ISO 400"
 *
 * Without arguments it moves the first writable setting that offers a choice (other than the
 * shooting mode and Direct Transfer) to its next value.
 * Exit code 0 when the change reached the camera and reads back.
 */
#include <stdlib.h>

#include "example_support.h"

typedef struct Watch {
    ExampleLatch latch;
    int zoomDone;
    int failed;
} Watch;

/* Callbacks: camera thread (property callbacks also inside OrqSetPropertyData). */
static void OnPropertyChanged(void* context, int propertyId) {
    OrqChar* name = NULL;
    char text[64];
    (void)context;
    OrqGetPropertyName(propertyId, &name); /* static text: not freed */
    printf("  property changed: %s\n", example_text(name, text, sizeof text));
}

static void OnPropertyListChanged(void* context) {
    (void)context;
    printf("  the settings on offer changed\n");
}

static void OnZoomCompleted(void* context) {
    Watch* watch = (Watch*)context;
    latch_add(&watch->latch, &watch->zoomDone);
}

static void OnCameraError(void* context, OrqResult result) {
    Watch* watch = (Watch*)context;
    fprintf(stderr, "camera failed: %s\n", OrqResultName(result));
    latch_add(&watch->latch, &watch->failed);
}

static const char* PropertyName(int propertyId, char* out, size_t size) {
    OrqChar* name = NULL;
    if (OrqGetPropertyName(propertyId, &name) != ORQ_OK) return "?";
    return example_text(name, out, size);
}

static const char* ValueName(int propertyId, int value, char* out, size_t size) {
    OrqChar* name = NULL;
    if (OrqGetPropertyValName(propertyId, value, &name) != ORQ_OK) return "?";
    return example_text(name, out, size);
}

/* Prints one property; picks it as the one to change when it matches the request, or, without
 * one, when it is the first that qualifies. */
static void ListProperty(OrqSessionHandle session, int id, const char* wantedProperty,
                         const char* wantedValue, int* chosenId, int* chosenValue) {
    OrqPropertyDesc* desc = NULL;
    int current = 0;
    int i;
    char name[64], text[64];
    OrqResult result = OrqGetPropertyData(session, id, &current);
    if (result != ORQ_OK || OrqGetPropertyDesc(session, id, &desc) != ORQ_OK) {
        printf("%s: %s\n", PropertyName(id, name, sizeof name), OrqResultName(result));
        return;
    }
    printf("%s%s = %s\n   ", PropertyName(id, name, sizeof name),
           desc->readOnly ? " (read-only)" : "", ValueName(id, current, text, sizeof text));
    for (i = 0; i < desc->count; ++i) {
        printf(" [%s]", ValueName(id, desc->values[i], text, sizeof text));
    }
    printf("\n");

    if (*chosenId < 0 && !desc->readOnly && desc->count > 1) {
        if (wantedProperty) {
            if (strcmp(wantedProperty, name) == 0) {
                for (i = 0; i < desc->count; ++i) {
                    if (strcmp(ValueName(id, desc->values[i], text, sizeof text), wantedValue) ==
                        0) {
                        *chosenId = id;
                        *chosenValue = desc->values[i];
                    }
                }
            }
        } else if (id != ORQ_PROP_SHOOTING_MODE && id != ORQ_PROP_DIRECT_TRANSFER) {
            /* the value after the current one, in the camera's order */
            for (i = 0; i < desc->count && desc->values[i] != current; ++i) {
            }
            *chosenId = id;
            *chosenValue = desc->values[(i + 1) % desc->count];
        }
    }
    OrqFree(desc); /* one block with its arrays */
}

int main(int argc, char** argv) {
    const char* wantedProperty = NULL;
    const char* wantedValue = NULL;
    int* ids = NULL;
    int count = 0, i, chosenId = -1, chosenValue = 0, zoom = 0, readBack = -1, ok = 0;
    char name[64], text[64];
    OrqCameraManagerHandle manager;
    OrqSessionHandle session;
    OrqSubscription subscriptions[4];
    OrqResult result;
    Watch watch;

    if (!example_start(&argc, argv)) return 1;
    if (argc > 2) {
        wantedProperty = argv[1];
        wantedValue = argv[2];
    }
    memset(&watch, 0, sizeof watch);
    latch_init(&watch.latch);

    manager = OrqGetCameraManager();
    session = example_open_first(manager);
    if (!session) {
        OrqFree(manager);
        OrqTerminateSDK();
        return 2;
    }
    subscriptions[0] = OrqPropertyChangedSubscribe(session, OnPropertyChanged, NULL);
    subscriptions[1] = OrqPropertyListChangedSubscribe(session, OnPropertyListChanged, NULL);
    subscriptions[2] = OrqZoomCompletedSubscribe(session, OnZoomCompleted, &watch);
    subscriptions[3] = OrqCameraErrorSubscribe(session, OnCameraError, &watch);

    if (OrqGetPropertyList(session, &ids, &count) == ORQ_OK) {
        for (i = 0; i < count; ++i) {
            ListProperty(session, ids[i], wantedProperty, wantedValue, &chosenId, &chosenValue);
        }
        OrqFree(ids);
    }

    if (chosenId < 0) {
        fprintf(stderr,
                wantedProperty ? "no such setting and value on offer\n" : "nothing to change\n");
    } else {
        printf("setting %s to %s\n", PropertyName(chosenId, name, sizeof name),
               ValueName(chosenId, chosenValue, text, sizeof text));
        result = OrqSetPropertyData(session, chosenId, chosenValue);
        if (result != ORQ_OK) {
            fprintf(stderr, "OrqSetPropertyData: %s\n", OrqResultName(result));
        } else {
            /* The set only queued the write. Queued work runs in order, so once a zoom to the
             * current step has completed, the write before it has reached the camera. */
            OrqGetZoom(session, &zoom);
            result = OrqSetZoom(session, zoom);
            if (result != ORQ_OK) {
                fprintf(stderr, "OrqSetZoom: %s\n", OrqResultName(result));
            } else if (latch_wait_until(&watch.latch, &watch.zoomDone, 1, &watch.failed, 30000) !=
                       1) {
                fprintf(stderr, "the change did not reach the camera\n");
            } else {
                OrqGetPropertyData(session, chosenId, &readBack);
                ok = readBack == chosenValue;
                printf("the camera has it: %s = %s\n", name,
                       ValueName(chosenId, readBack, text, sizeof text));
            }
        }
    }

    for (i = 0; i < 4; ++i) OrqFree(subscriptions[i]);
    OrqFree(session);
    OrqFree(manager);
    OrqTerminateSDK();
    return ok ? 0 : 1;
}
