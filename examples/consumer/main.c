/* Allocates and frees one tagged block and prints the counters. */
#include <stdio.h>

#include <zendra/platform.h>

#define DEMO_TAG PLT_TAG('D', 'E', 'M', 'O')

int main(void) {
    void* block = NULL;
    PLT_RESOURCE_STATS stats;
    if (PltMalloc(&block, 64, PLT_ALLOC_ZERO, DEMO_TAG) != PLT_STATUS_SUCCESS) return 1;
    if (PltFree(&block, DEMO_TAG) != PLT_STATUS_SUCCESS) return 1;
    PltGetResourceStats(&stats);
    printf("allocations %u, live %u\n", stats.AllocCount, stats.LiveAllocCount);
    return stats.LiveAllocCount == 0 ? 0 : 1;
}
