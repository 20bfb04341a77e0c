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
// beyond the table a nested read takes the ordinary path.
struct ReadHolds {
    uint32_t used;
    struct {
        const PLT_RW_SPIN_LOCK* lock;
        uint32_t depth;
    } holds[16];
};
thread_local ReadHolds t_reads;

// The position of the thread's hold of `lock`, or `used` when it has none.
uint32_t FindHold(const ReadHolds& mine, const PLT_RW_SPIN_LOCK* lock) {
    uint32_t i = 0;
    while (i < mine.used && mine.holds[i].lock != lock) ++i;
    return i;
}

void DropRead(ReadHolds& mine, const PLT_RW_SPIN_LOCK* lock) {
    uint32_t i = FindHold(mine, lock);
    if (i < mine.used && --mine.holds[i].depth == 0) mine.holds[i] = mine.holds[--mine.used];
}

}  // namespace

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
    ReadHolds& mine = t_reads;
    uint32_t i = FindHold(mine, lock);
    if (i < mine.used) {
        // Already reading: a writer waiting here waits for this thread too.
        __atomic_fetch_add(&lock->readers, 1u, __ATOMIC_ACQ_REL);
        ++mine.holds[i].depth;
    } else {
        EnterCriticalSection(&lock->lock);  // waits while a writer holds it
        __atomic_fetch_add(&lock->readers, 1u, __ATOMIC_ACQ_REL);
        LeaveCriticalSection(&lock->lock);
        if (mine.used < sizeof mine.holds / sizeof mine.holds[0])
            mine.holds[mine.used++] = {lock, 1};
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
            DropRead(t_reads, lock);
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
