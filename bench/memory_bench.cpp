// PltMalloc+PltFree against HeapAlloc+HeapFree on the process heap.
#include <zendra/platform.h>

#include "bench.h"

ZB_SUITE(memory) {
    const uint32_t tag = PLT_TAG('B', 'N', 'C', 'H');
    for (int threads : {1, 2}) {
        for (uint32_t size : {16u, 256u, 4096u}) {
            zb::Options o;
            o.threads = threads;
            o.iterations = zb::Count(50000, 200000);
            zb::Compare(
                "PltMalloc+PltFree " + std::to_string(size) + " B",
                [=](long n) {
                    for (long i = 0; i < n; ++i) {
                        void* p;
                        PltMalloc(&p, size, 0, tag);
                        PltFree(&p, tag);
                    }
                },
                "HeapAlloc+HeapFree",
                [=](long n) {
                    HANDLE heap = GetProcessHeap();
                    for (long i = 0; i < n; ++i) {
                        void* p = HeapAlloc(heap, 0, size);
                        HeapFree(heap, 0, p);
                    }
                },
                o);
        }
    }
}
