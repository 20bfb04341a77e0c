// Runs in a process in which the library has never allocated: freeing before
// the library heap exists is refused with 6, and every counter starts at 0.
#include <stdio.h>
#include <string.h>

#include <zendra/platform.h>

static int failures;

static void Check(bool ok, const char* what) {
    if (!ok) {
        printf("FAILED: %s\n", what);
        ++failures;
    }
}

int main() {
    PLT_RESOURCE_STATS stats;
    PltGetResourceStats(&stats);
    PLT_RESOURCE_STATS zero;
    memset(&zero, 0, sizeof zero);
    Check(memcmp(&stats, &zero, sizeof stats) == 0, "all counters are 0 in a fresh process");

    int local = 0;
    void* p = &local;
    Check(PltFree(&p, 0) == 6, "PltFree before any allocation returns 6");
    Check(p == &local, "the refused free leaves the pointer alone");
    Check(PltFree(nullptr, 0) == 6, "the heap check comes before the null check");

    void* q = nullptr;
    Check(PltMalloc(&q, 10, 0, 0) == 0, "first allocation succeeds");
    Check(PltFree(&q, 0) == 0, "then PltFree works");
    PltGetResourceStats(&stats);
    Check(stats.AllocCount == 1 && stats.LiveAllocCount == 0 && stats.UntaggedAllocCount == 1,
          "one allocation counted");

    printf("%s\n", failures == 0 ? "fresh-process checks passed" : "fresh-process checks FAILED");
    return failures == 0 ? 0 : 1;
}
