/* The project's own LV2 test plug-ins; their descriptions are in tonavi-test.lv2/plugins.ttl. */
#include <lv2/core/lv2.h>
#include <lv2/state/state.h>
#include <lv2/urid/urid.h>
#include <lv2/atom/atom.h>

#include <math.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define TEST_URI "http://tonavi.test/plugins/"
#define TRIM_URI TEST_URI "gain#trim"
#define MAX_DELAY 4096

enum Kind { GAIN, DELAY, POISON, CRASH, HANG, SURROUND, STUCK };

typedef struct {
    enum Kind kind;
    float* ports[6];
    float trim; /* gain: the state beyond the port */
    LV2_URID trimURID, floatURID;
    float line[2][MAX_DELAY];
    uint32_t at;
} Test;

static LV2_Handle instantiate(const LV2_Descriptor* d, double rate, const char* bundle,
                              const LV2_Feature* const* features) {
    (void)rate;
    (void)bundle;
    Test* t = calloc(1, sizeof(Test));
    if (!t)
        return NULL;
    t->kind = (enum Kind)(uintptr_t)d->extension_data(NULL); /* see descriptors below */
    while (t->kind == STUCK)
        pause();
    t->trim = 1.0f;
    for (int i = 0; features && features[i]; ++i) {
        if (!strcmp(features[i]->URI, LV2_URID__map)) {
            LV2_URID_Map* map = features[i]->data;
            t->trimURID = map->map(map->handle, TRIM_URI);
            t->floatURID = map->map(map->handle, LV2_ATOM__Float);
        }
    }
    return t;
}

static void connect(LV2_Handle h, uint32_t port, void* data) {
    if (port < 6)
        ((Test*)h)->ports[port] = data;
}

static void run(LV2_Handle h, uint32_t n) {
    Test* t = h;
    switch (t->kind) {
    case GAIN: {
        const float g = *t->ports[0] * t->trim;
        for (uint32_t i = 0; i < n; ++i)
            t->ports[2][i] = t->ports[1][i] * g;
        break;
    }
    case DELAY: {
        uint32_t frames = (uint32_t)*t->ports[0];
        if (frames > MAX_DELAY - 1)
            frames = MAX_DELAY - 1;
        *t->ports[1] = (float)frames;
        for (uint32_t i = 0; i < n; ++i) {
            for (int c = 0; c < 2; ++c) {
                t->line[c][t->at] = t->ports[2 + c][i];
                t->ports[4 + c][i] = t->line[c][(t->at + MAX_DELAY - frames) % MAX_DELAY];
            }
            t->at = (t->at + 1) % MAX_DELAY;
        }
        break;
    }
    case POISON:
    case CRASH:
    case HANG: {
        const int on = *t->ports[0] >= 0.5f;
        if (on && t->kind == CRASH)
            raise(SIGSEGV);
        while (on && t->kind == HANG)
            pause();
        for (uint32_t i = 0; i < n; ++i)
            t->ports[2][i] = on ? NAN : t->ports[1][i];
        break;
    }
    case STUCK:
        break;
    case SURROUND:
        for (int c = 0; c < 3; ++c)
            memcpy(t->ports[3 + c], t->ports[c], n * sizeof(float));
        break;
    }
}

static void cleanup(LV2_Handle h) { free(h); }

static LV2_State_Status save(LV2_Handle h, LV2_State_Store_Function store, LV2_State_Handle sh, uint32_t flags,
                             const LV2_Feature* const* features) {
    (void)flags;
    (void)features;
    Test* t = h;
    return store(sh, t->trimURID, &t->trim, sizeof t->trim, t->floatURID, LV2_STATE_IS_POD | LV2_STATE_IS_PORTABLE);
}

static LV2_State_Status restore(LV2_Handle h, LV2_State_Retrieve_Function retrieve, LV2_State_Handle sh,
                                uint32_t flags, const LV2_Feature* const* features) {
    (void)flags;
    (void)features;
    Test* t = h;
    size_t size = 0;
    uint32_t type = 0, vflags = 0;
    const void* value = retrieve(sh, t->trimURID, &size, &type, &vflags);
    if (value && size == sizeof(float) && type == t->floatURID)
        t->trim = *(const float*)value;
    return LV2_STATE_SUCCESS;
}

static const LV2_State_Interface stateInterface = {save, restore};

/* Called with NULL by instantiate to learn the kind; with a URI by the host. */
#define KIND_DATA(K)                                                                                             \
    static const void* data_##K(const char* uri) {                                                               \
        if (!uri)                                                                                                \
            return (const void*)(uintptr_t)K;                                                                    \
        return (K == GAIN && !strcmp(uri, LV2_STATE__interface)) ? &stateInterface : NULL;                       \
    }
KIND_DATA(GAIN)
KIND_DATA(DELAY)
KIND_DATA(POISON)
KIND_DATA(CRASH)
KIND_DATA(HANG)
KIND_DATA(SURROUND)
KIND_DATA(STUCK)

static const LV2_Descriptor descriptors[] = {
    {TEST_URI "gain", instantiate, connect, NULL, run, NULL, cleanup, data_GAIN},
    {TEST_URI "delay", instantiate, connect, NULL, run, NULL, cleanup, data_DELAY},
    {TEST_URI "poison", instantiate, connect, NULL, run, NULL, cleanup, data_POISON},
    {TEST_URI "crash", instantiate, connect, NULL, run, NULL, cleanup, data_CRASH},
    {TEST_URI "hang", instantiate, connect, NULL, run, NULL, cleanup, data_HANG},
    {TEST_URI "surround", instantiate, connect, NULL, run, NULL, cleanup, data_SURROUND},
    {TEST_URI "stuck", instantiate, connect, NULL, run, NULL, cleanup, data_STUCK},
};

LV2_SYMBOL_EXPORT const LV2_Descriptor* lv2_descriptor(uint32_t index) {
    return index < sizeof descriptors / sizeof descriptors[0] ? &descriptors[index] : NULL;
}
