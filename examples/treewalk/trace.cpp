// The component tables, their registration, and what became of it.
#include "trace.h"

#include <climits>
#include <cstdio>

// Each category: index, name, default level, minimum level. The minimum is what is recorded without further ado.
constinit component_t<WALK_NUM_CATEGORIES> walk_trace = {
    .pId = "WALK",
    .categories = {{WALK_CAT_RUN, "run", 1, 1}, {WALK_CAT_DIR, "dir", 2, 1}, {WALK_CAT_FILE, "file", 2, 1}},
    .levels = {},
    .pTokens = nullptr,
};

constinit component_t<HASH_NUM_CATEGORIES> hash_trace = {
    .pId = "HASH",
    .categories = {{HASH_CAT_OPEN, "open", 1, 1}, {HASH_CAT_READ, "read", 2, 0}, {HASH_CAT_DONE, "done", 1, 1}},
    .levels = {},
    .pTokens = nullptr,
};

template <size_t NUM> static bool enroll(component_t<NUM> *pComponent) {
    const int32_t rc = pComponent->enroll();
    if (rc != 0)
        (void)fprintf(stderr, "treewalk: registration of %s gave %d, so its trace may be missing\n", pComponent->pId,
                      rc);
    return rc == 0;
}

void begin_trace() {
    const bool bWalk = enroll(&walk_trace);
    const bool bHash = enroll(&hash_trace);
    char fileName[PATH_MAX] = "";
    if (tr_get_filename_1(fileName) != 0 || fileName[0] == '\0')
        (void)fprintf(stderr, "treewalk: no default trace file; KZ_TR_FILENAME names one\n");
    else if (bWalk && bHash)
        (void)fprintf(stderr, "treewalk: to see the trace: kztrace dump %s\n", fileName);
}

void print_trace_status() {
    int32_t count = 0;
    tr_mini_spooling_anchor_t *pFiles = nullptr;
    if (tr_get_current_spooling_status_1(&count, &pFiles) != 0)
        return;
    for (int32_t i = 0; i < count; i++) {
        if (pFiles[i].fileName[0] != '\0') // no default trace file
            printf("%s: %s\n", pFiles[i].fileName, pFiles[i].dest);
    }
    tr_release_spool_info_1(count, pFiles);
}
