// Runs in a process in which the library has never allocated: every counter
// starts at 0, and freeing before the library heap exists is refused with 6.
#include <stdio.h>
#include <string.h>

#include <zendra/platform.h>

int main() {
    PLT_RESOURCE_STATS stats, zero;
    memset(&zero, 0, sizeof zero);
    PltGetResourceStats(&stats);
    int local = 0, failures = memcmp(&stats, &zero, sizeof stats) != 0;
    void *p = &local, *q = nullptr;
    failures += PltFree(&p, 0) != 6 || p != &local || PltFree(nullptr, 0) != 6;
    failures += PltMalloc(&q, 10, 0, 0) != 0 || PltFree(&q, 0) != 0;
    PltGetResourceStats(&stats);
    failures += stats.AllocCount != 1 || stats.LiveAllocCount != 0 || stats.UntaggedAllocCount != 1;
    printf("fresh-process checks %s\n", failures == 0 ? "passed" : "FAILED");
    return failures;
}
