// Reader-writer lock for sections that may block: a mutex held by a writer
// for its whole write and an auto-reset event that is signalled while no
// reader is inside.
#include <zendra/platform.h>

#include "platform/status.h"
#include "platform/sync_internal.h"

using namespace zendra;

extern "C" uint32_t InitializeReadWriteLock(PLT_RW_LOCK* lock) {
    if (lock == nullptr) return 0;
    ZeroMemory(lock, sizeof *lock);
    uint32_t failure = 0;
    lock->mutex = CreateMutexW(nullptr, FALSE, nullptr);
    if (lock->mutex != nullptr)
        CountCreated(Pair::Mutex);
    else
        failure = GetLastError();
    lock->noReaders = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    if (lock->noReaders != nullptr)
        CountCreated(Pair::Event);
    else
        failure = GetLastError();
    CountCreated(Pair::RwLock);
    if (failure != 0) return failure;
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(lock->noReaders));
}

extern "C" uint32_t DestroyReadWriteLock(PLT_RW_LOCK* lock) {
    if (lock == nullptr) return 0;
    CloseCounted(lock->mutex, Pair::Mutex);
    CloseCounted(lock->noReaders, Pair::Event);
    ZeroMemory(lock, sizeof *lock);
    CountDestroyed(Pair::RwLock);
    return 0;
}

extern "C" uint32_t AcquireReadLock(PLT_RW_LOCK* lock, uint32_t* ticket) {
    if (lock == nullptr || ticket == nullptr) return 0;
    if (WriterIsCaller(&lock->owner)) {
        __atomic_fetch_add(&lock->readers, 1u, __ATOMIC_ACQ_REL);
        *ticket = PLT_TICKET_READ_BY_WRITER;
        return 1;
    }
    WaitForSingleObject(lock->mutex, INFINITE);  // a wait error is ignored
    if (__atomic_add_fetch(&lock->readers, 1u, __ATOMIC_ACQ_REL) == 1) ResetEvent(lock->noReaders);
    uint32_t released = ReleaseMutex(lock->mutex) ? 1u : GetLastError();
    *ticket = PLT_TICKET_READ;
    return released;
}

extern "C" uint32_t AcquireWriteLock(PLT_RW_LOCK* lock, uint32_t* ticket) {
    if (lock == nullptr || ticket == nullptr) return 0;
    __atomic_fetch_add(&lock->writers, 1u, __ATOMIC_ACQ_REL);
    if (WriterIsCaller(&lock->owner)) {
        *ticket = PLT_TICKET_WRITE_AGAIN;
        return 0;
    }
    WaitForSingleObject(lock->mutex, INFINITE);
    // Consumes the signal. A reader's release drops the count and then sets
    // the event; a reader that got in between leaves it set while it reads, so
    // the count decides, and its own release sets the event again.
    do {
        WaitForSingleObject(lock->noReaders, INFINITE);
    } while (__atomic_load_n(&lock->readers, __ATOMIC_ACQUIRE) != 0);
    *ticket = PLT_TICKET_WRITE;
    __atomic_store_n(&lock->owner, CurrentThreadId(), __ATOMIC_RELEASE);
    return 0;
}

extern "C" uint32_t ReleaseReadWriteLock(PLT_RW_LOCK* lock, uint32_t* ticket) {
    if (lock == nullptr || ticket == nullptr) return 0;
    switch (*ticket) {
        case PLT_TICKET_READ:
        case PLT_TICKET_READ_BY_WRITER:
            if (__atomic_sub_fetch(&lock->readers, 1u, __ATOMIC_ACQ_REL) == 0)
                SetEvent(lock->noReaders);
            break;
        case PLT_TICKET_WRITE:
            __atomic_fetch_sub(&lock->writers, 1u, __ATOMIC_ACQ_REL);
            __atomic_store_n(&lock->owner, uint64_t{0}, __ATOMIC_RELEASE);
            SetEvent(lock->noReaders);
            ReleaseMutex(lock->mutex);
            break;
        case PLT_TICKET_WRITE_AGAIN:
            __atomic_fetch_sub(&lock->writers, 1u, __ATOMIC_ACQ_REL);
            break;
        default:
            return 0;
    }
    *ticket = PLT_TICKET_NONE;
    return 0;
}
