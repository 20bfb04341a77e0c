// Locks and threads beside the Win32 primitives they wrap or compete with.
#include <zendra/os.h>
#include <zendra/platform.h>

#include "bench.h"

namespace {

CRITICAL_SECTION g_cs;
SRWLOCK g_srw = SRWLOCK_INIT;

void CriticalSectionPair(long n) {
    for (long i = 0; i < n; ++i) {
        EnterCriticalSection(&g_cs);
        LeaveCriticalSection(&g_cs);
    }
}

void SrwShared(long n) {
    for (long i = 0; i < n; ++i) {
        AcquireSRWLockShared(&g_srw);
        ReleaseSRWLockShared(&g_srw);
    }
}

void SrwExclusive(long n) {
    for (long i = 0; i < n; ++i) {
        AcquireSRWLockExclusive(&g_srw);
        ReleaseSRWLockExclusive(&g_srw);
    }
}

DWORD WINAPI EmptyWin32(void*) { return 0; }
uint32_t EmptyRoutine(void*) { return 0; }

}  // namespace

ZB_SUITE(locks) {
    InitializeCriticalSectionAndSpinCount(&g_cs, 1024);
    zb::Options o;
    o.iterations = zb::Count(200000, 1000000);

    PLT_FAST_LOCK fast;
    PltInitializeFastLock(&fast);
    zb::Compare(
        "fast lock acquire+release",
        [&](long n) {
            for (long i = 0; i < n; ++i) {
                PltAcquireFastLock(&fast);
                PltReleaseFastLock(&fast);
            }
        },
        "CRITICAL_SECTION enter+leave", CriticalSectionPair, o);
    PltDeleteFastLock(&fast);

    PLT_SPIN_LOCK spin;
    PltInitializeSpinLock(&spin);
    zb::Compare(
        "spin lock acquire+release",
        [&](long n) {
            for (long i = 0; i < n; ++i) {
                PltAcquireSpinLock(&spin);
                PltReleaseSpinLock(&spin);
            }
        },
        "CRITICAL_SECTION enter+leave", CriticalSectionPair, o);
    PltDeleteSpinLock(&spin);

    PLT_RW_SPIN_LOCK rws;
    InitializeReadWriteSpinLock(&rws);
    auto rwsRead = [&](long n) {
        for (long i = 0; i < n; ++i) {
            uint32_t t;
            AcquireReadSpinLock(&rws, &t);
            ReleaseReadWriteSpinLock(&rws, &t);
        }
    };
    zb::Compare("rw spin lock read", rwsRead, "SRWLOCK shared", SrwShared, o);
    zb::Compare(
        "rw spin lock write",
        [&](long n) {
            for (long i = 0; i < n; ++i) {
                uint32_t t;
                AcquireWriteSpinLock(&rws, &t);
                ReleaseReadWriteSpinLock(&rws, &t);
            }
        },
        "SRWLOCK exclusive", SrwExclusive, o);
    zb::Options two = o;
    two.threads = 2;
    two.iterations = zb::Count(60000, 300000);
    zb::Compare("rw spin lock read", rwsRead, "SRWLOCK shared", SrwShared, two);
    DestroyReadWriteSpinLock(&rws);

    // Kernel events and mutexes under Wine take tens of microseconds a round.
    zb::Options slow;
    slow.iterations = zb::Count(4000, 20000);
    PLT_RW_LOCK rw;
    InitializeReadWriteLock(&rw);
    zb::Compare(
        "rw lock read",
        [&](long n) {
            for (long i = 0; i < n; ++i) {
                uint32_t t;
                AcquireReadLock(&rw, &t);
                ReleaseReadWriteLock(&rw, &t);
            }
        },
        "SRWLOCK shared", SrwShared, slow);
    zb::Compare(
        "rw lock write",
        [&](long n) {
            for (long i = 0; i < n; ++i) {
                uint32_t t;
                AcquireWriteLock(&rw, &t);
                ReleaseReadWriteLock(&rw, &t);
            }
        },
        "SRWLOCK exclusive", SrwExclusive, slow);
    DestroyReadWriteLock(&rw);

    PLT_MUTEX m;
    PltInitializeMutex(&m, nullptr);
    HANDLE rawMutex = CreateMutexW(nullptr, FALSE, nullptr);
    zb::Compare(
        "mutex acquire+release",
        [&](long n) {
            for (long i = 0; i < n; ++i) {
                uint32_t r;
                PltAcquireMutex(&m, PLT_INFINITE, &r);
                PltReleaseMutex(&m);
            }
        },
        "WaitForSingleObject+ReleaseMutex",
        [&](long n) {
            for (long i = 0; i < n; ++i) {
                WaitForSingleObject(rawMutex, INFINITE);
                ReleaseMutex(rawMutex);
            }
        },
        slow);
    PltDeleteMutex(&m);
    CloseHandle(rawMutex);

    PLT_EVENT e;
    PltInitializeEvent(&e, 0, 0, nullptr);
    HANDLE rawEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    zb::Compare(
        "event set+acquire",
        [&](long n) {
            for (long i = 0; i < n; ++i) {
                uint32_t r;
                PltSetEvent(&e);
                PltAcquireEvent(&e, PLT_INFINITE, &r);
            }
        },
        "SetEvent+WaitForSingleObject",
        [&](long n) {
            for (long i = 0; i < n; ++i) {
                SetEvent(rawEvent);
                WaitForSingleObject(rawEvent, INFINITE);
            }
        },
        slow);
    PltDeleteEvent(&e);
    CloseHandle(rawEvent);
    DeleteCriticalSection(&g_cs);
}

ZB_SUITE(threads) {
    zb::Options o;
    o.iterations = zb::Count(50, 300);
    zb::Compare(
        "PltCreateThread+wait+close",
        [](long n) {
            for (long i = 0; i < n; ++i) {
                HANDLE h;
                PltCreateThread(&EmptyRoutine, nullptr, &h, nullptr);
                PltWaitForThread(h, PLT_INFINITE, nullptr);
                PltCloseThread(h);
            }
        },
        "CreateThread+wait+CloseHandle",
        [](long n) {
            for (long i = 0; i < n; ++i) {
                HANDLE h = CreateThread(nullptr, 0, &EmptyWin32, nullptr, 0, nullptr);
                WaitForSingleObject(h, INFINITE);
                CloseHandle(h);
            }
        },
        o);
}
