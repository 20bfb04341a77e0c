/* Allocates and frees one tagged block and prints the counters. */
#include <stdio.h>

#include <zendra/platform.h>

int main(void) {
    void* block = NULL;
    PLT_RESOURCE_STATS stats;
    if (PltMalloc(&block, 64, PLT_ALLOC_ZERO, PLT_TAG('D', 'E', 'M', 'O')) != 0) return 1;
    if (PltFree(&block, PLT_TAG('D', 'E', 'M', 'O')) != 0) return 1;
    PltGetResourceStats(&stats);
    printf("allocations %u, live %u\n", stats.AllocCount, stats.LiveAllocCount);
    return stats.LiveAllocCount == 0 ? 0 : 1;
}
