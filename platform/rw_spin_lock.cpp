// Reader-writer spin lock: one critical section and two counters. Readers
// hold only their count; a writer holds the critical section for its whole
// write and spins until the readers inside have left, so readers arriving
// after a waiting writer queue behind it on the critical section. A thread
// that already reads does not queue: the writer waits for it, so queueing
// would deadlock both (a bus callback unsubscribing from its own slot).
#include <zendra/platform.h>

#include "platform/status.h"
#include "platform/sync_internal.h"

using namespace zendra;

namespace {

// The read holds of the calling thread, by lock: usually none or one, so the
// table is scanned only as far as it is used. Nesting depth is bounded by the
// locks a thread reads at once (bus deliveries nested through callbacks);
// beyond the table, or for a thread that could not get one, a nested read
// takes the ordinary path.
struct ReadHolds {
    uint32_t used;
    struct {
        const PLT_RW_SPIN_LOCK* lock;
        uint32_t depth;
    } holds[16];
};

// Each reading thread's table sits on the process heap behind a fiber-local
// slot, whose callback frees it when the thread ends (the library takes no
// thread notifications). The compiler's thread_local goes through emulated
// TLS here, which cost more than the rest of a bus send.
DWORD g_holdsSlot = FLS_OUT_OF_INDEXES;

void WINAPI FreeHolds(void* table) {
    if (table != nullptr) HeapFree(GetProcessHeap(), 0, table);
}

DWORD HoldsSlot() {
    DWORD slot = __atomic_load_n(&g_holdsSlot, __ATOMIC_ACQUIRE);
    if (slot != FLS_OUT_OF_INDEXES) return slot;
    DWORD mine = FlsAlloc(&FreeHolds);
    if (mine == FLS_OUT_OF_INDEXES) return mine;
    if (!__atomic_compare_exchange_n(&g_holdsSlot, &slot, mine, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_ACQUIRE)) {
        FlsFree(mine);  // another thread's slot won
        return slot;
    }
    return mine;
}

// The calling thread's table; created on its first read when `create`.
ReadHolds* Holds(bool create) {
    DWORD slot = HoldsSlot();
    if (slot == FLS_OUT_OF_INDEXES) return nullptr;
    auto* mine = static_cast<ReadHolds*>(FlsGetValue(slot));
    if (mine != nullptr || !create) return mine;
    mine = static_cast<ReadHolds*>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof *mine));
    if (mine != nullptr && !FlsSetValue(slot, mine)) {
        FreeHolds(mine);
        mine = nullptr;
    }
    return mine;
}

// The position of the thread's hold of `lock`, or `used` when it has none.
uint32_t FindHold(const ReadHolds& mine, const PLT_RW_SPIN_LOCK* lock) {
    uint32_t i = 0;
    while (i < mine.used && mine.holds[i].lock != lock) ++i;
    return i;
}

void DropRead(ReadHolds* mine, const PLT_RW_SPIN_LOCK* lock) {
    if (mine == nullptr) return;
    uint32_t i = FindHold(*mine, lock);
    if (i < mine->used && --mine->holds[i].depth == 0) mine->holds[i] = mine->holds[--mine->used];
}

}  // namespace

namespace zendra {

void ReleaseReadHoldTables() {
    DWORD slot = __atomic_exchange_n(&g_holdsSlot, FLS_OUT_OF_INDEXES, __ATOMIC_ACQ_REL);
    if (slot != FLS_OUT_OF_INDEXES) FlsFree(slot);  // frees every thread's table
}

}  // namespace zendra

extern "C" uint32_t InitializeReadWriteSpinLock(PLT_RW_SPIN_LOCK* lock) {
    if (lock == nullptr) return 0;
    ZeroMemory(lock, sizeof *lock);
    BOOL ok = InitCountedCriticalSection(&lock->lock);
    CountCreated(Pair::RwSpinLock);
    return static_cast<uint32_t>(ok);
}

extern "C" uint32_t DestroyReadWriteSpinLock(PLT_RW_SPIN_LOCK* lock) {
    if (lock == nullptr) return 0;
    DeleteCountedCriticalSection(&lock->lock);
    ZeroMemory(lock, sizeof *lock);
    CountDestroyed(Pair::RwSpinLock);
    return 0;
}

extern "C" void AcquireReadSpinLock(PLT_RW_SPIN_LOCK* lock, uint32_t* ticket) {
    if (lock == nullptr || ticket == nullptr) return;
    if (WriterIsCaller(&lock->owner)) {
        // The writer reads under its own write hold.
        __atomic_fetch_add(&lock->readers, 1u, __ATOMIC_ACQ_REL);
        *ticket = PLT_TICKET_READ_BY_WRITER;
        return;
    }
    ReadHolds* mine = Holds(true);
    uint32_t i = mine != nullptr ? FindHold(*mine, lock) : 0;
    if (mine != nullptr && i < mine->used) {
        // Already reading: a writer waiting here waits for this thread too.
        __atomic_fetch_add(&lock->readers, 1u, __ATOMIC_ACQ_REL);
        ++mine->holds[i].depth;
    } else {
        EnterCriticalSection(&lock->lock);  // waits while a writer holds it
        __atomic_fetch_add(&lock->readers, 1u, __ATOMIC_ACQ_REL);
        LeaveCriticalSection(&lock->lock);
        if (mine != nullptr && mine->used < sizeof mine->holds / sizeof mine->holds[0])
            mine->holds[mine->used++] = {lock, 1};
    }
    *ticket = PLT_TICKET_READ;
}

extern "C" uint32_t AcquireWriteSpinLock(PLT_RW_SPIN_LOCK* lock, uint32_t* ticket) {
    if (lock == nullptr || ticket == nullptr) return 0;
    uint32_t writers = __atomic_add_fetch(&lock->writers, 1u, __ATOMIC_ACQ_REL);
    if (writers != 1 && WriterIsCaller(&lock->owner)) {
        *ticket = PLT_TICKET_WRITE_AGAIN;
        return 0;
    }
    EnterCriticalSection(&lock->lock);
    // Readers already inside finish first: a short busy delay between looks,
    // no yield and no sleep.
    while (__atomic_load_n(&lock->readers, __ATOMIC_ACQUIRE) != 0) {
        for (volatile int delay = 0; delay < 25; delay = delay + 1) {
        }
    }
    *ticket = PLT_TICKET_WRITE;
    __atomic_store_n(&lock->owner, CurrentThreadId(), __ATOMIC_RELEASE);
    return 0;
}

extern "C" void ReleaseReadWriteSpinLock(PLT_RW_SPIN_LOCK* lock, uint32_t* ticket) {
    if (lock == nullptr || ticket == nullptr) return;
    switch (*ticket) {
        case PLT_TICKET_READ:
            DropRead(Holds(false), lock);
            __atomic_fetch_sub(&lock->readers, 1u, __ATOMIC_ACQ_REL);
            break;
        case PLT_TICKET_READ_BY_WRITER:
            __atomic_fetch_sub(&lock->readers, 1u, __ATOMIC_ACQ_REL);
            break;
        case PLT_TICKET_WRITE:
            __atomic_fetch_sub(&lock->writers, 1u, __ATOMIC_ACQ_REL);
            __atomic_store_n(&lock->owner, uint64_t{0}, __ATOMIC_RELEASE);
            LeaveCriticalSection(&lock->lock);
            break;
        case PLT_TICKET_WRITE_AGAIN:
            __atomic_fetch_sub(&lock->writers, 1u, __ATOMIC_ACQ_REL);
            break;
        default:
            return;  // unknown tickets are left as they are
    }
    *ticket = PLT_TICKET_NONE;
}
