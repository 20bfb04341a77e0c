// TestLocks: both reader-writer locks with two reading threads and a
// waiting writer, the fast and spin locks held by another thread, and a
// remove lock released from a pool's work item.
#include "selfcheck/report.h"

namespace zendra::selfcheck {
namespace {

constexpr uint32_t kHoldMs = 200;
constexpr uint32_t kWaitMs = 10000;
constexpr uint32_t kData = 0x5A17C0DE;

// Records the first failed check of a sub-check; the cleanup steps after it
// still run.
struct Outcome {
    bool failed = false;
    const wchar_t* description = nullptr;
    void Check(bool ok, const wchar_t* what = nullptr) {
        if (!ok && !failed) failed = true, description = what;
    }
    uint32_t Report(PLT_REPORT_BUFFER* report) const {
        return failed ? Fail(report, description) : 0;
    }
};

bool Signalled(PLT_EVENT* event, uint32_t timeoutMs) {
    uint32_t result = 0;
    return AcquireEvent(event, timeoutMs, &result) == 0 && result == PLT_WAIT_SIGNALED;
}

// ---- reader-writer locks ----

struct RwCheck {
    bool spin;
    PLT_RW_LOCK rw;
    PLT_RW_SPIN_LOCK spinLock;
    PLT_EVENT inside[2], go;
    volatile uint32_t data, released;
    uint64_t releaseTick[2];
    bool readOk[2];
};

struct Reader {
    RwCheck* check;
    uint32_t index;
};

void AcquireRead(RwCheck* c, uint32_t* ticket) {
    c->spin ? AcquireReadSpinLock(&c->spinLock, ticket) : (void)AcquireReadLock(&c->rw, ticket);
}
void AcquireWrite(RwCheck* c, uint32_t* ticket) {
    c->spin ? (void)AcquireWriteSpinLock(&c->spinLock, ticket)
            : (void)AcquireWriteLock(&c->rw, ticket);
}
void Release(RwCheck* c, uint32_t* ticket) {
    c->spin ? ReleaseReadWriteSpinLock(&c->spinLock, ticket)
            : (void)ReleaseReadWriteLock(&c->rw, ticket);
}
uint32_t Readers(RwCheck* c) { return Load(c->spin ? &c->spinLock.readers : &c->rw.readers); }
uint32_t Writers(RwCheck* c) { return Load(c->spin ? &c->spinLock.writers : &c->rw.writers); }

// Holds the lock for reading until told to go, then a little longer, and
// notes when it let go.
uint32_t ReadAndHold(void* context) {
    auto* reader = static_cast<Reader*>(context);
    RwCheck* c = reader->check;
    uint32_t ticket = 0;
    AcquireRead(c, &ticket);
    c->readOk[reader->index] = ticket == PLT_TICKET_READ && Load(&c->data) == kData;
    PltSetEvent(&c->inside[reader->index]);
    Signalled(&c->go, kWaitMs);
    Sleep(kHoldMs);
    c->releaseTick[reader->index] = GetTickCount64();
    AddOne(&c->released);
    Release(c, &ticket);
    return 0;
}

uint32_t ReaderWriter(PLT_REPORT_BUFFER* report, bool spin, const wchar_t* timeCheck) {
    RwCheck c{};
    c.spin = spin;
    Outcome out;
    if (spin) {
        InitializeReadWriteSpinLock(&c.spinLock);
    } else {
        InitializeReadWriteLock(&c.rw);
        if (c.rw.mutex == nullptr || c.rw.noReaders == nullptr) {
            DestroyReadWriteLock(&c.rw);
            return Fail(report);
        }
    }
    PltInitializeEvent(&c.go, PLT_EVENT_MANUAL_RESET, 0, nullptr);
    for (PLT_EVENT& e : c.inside) PltInitializeEvent(&e, PLT_EVENT_MANUAL_RESET, 0, nullptr);
    out.Check(c.go.handle != nullptr && c.inside[0].handle != nullptr &&
              c.inside[1].handle != nullptr);
    uint32_t ticket = 0;
    AcquireWrite(&c, &ticket);
    out.Check(ticket == PLT_TICKET_WRITE && Writers(&c) == 1, L"Write lock count validated");
    c.data = kData;
    Release(&c, &ticket);

    Reader readers[2] = {{&c, 0}, {&c, 1}};
    CheckThread threads[2];
    const wchar_t* created[2] = {L"Successfully Created Thread1", L"Successfully Created Thread2"};
    const wchar_t* counted[2] = {L"Read lock count validated", L"Read lock count validated(1)"};
    for (uint32_t i = 0; i < 2 && !out.failed; ++i) {
        out.Check(StartThread(&threads[i], ReadAndHold, &readers[i]), created[i]);
        out.Check(out.failed || (Signalled(&c.inside[i], kWaitMs) && Readers(&c) == i + 1),
                  counted[i]);
    }
    bool bothInside = !out.failed;
    PltSetEvent(&c.go);
    if (bothInside) {
        // The writer must wait until both readers have let go.
        AcquireWrite(&c, &ticket);
        uint64_t entered = GetTickCount64();
        out.Check(
            Load(&c.released) == 2 && entered >= c.releaseTick[0] && entered >= c.releaseTick[1],
            timeCheck);
        out.Check(Readers(&c) == 0, L"Read lock count validated(2)");
        out.Check(ticket == PLT_TICKET_WRITE && Writers(&c) == 1, L"Write lock count validated");
        Release(&c, &ticket);
    }
    if (threads[0].handle != nullptr)
        out.Check(JoinThread(&threads[0], kWaitMs), L"Successfully acquired valid thread1 handle");
    if (threads[1].handle != nullptr) out.Check(JoinThread(&threads[1], kWaitMs), L"Thread 2");
    out.Check(!bothInside || (c.readOk[0] && c.readOk[1]), L"Data validated");
    uint32_t destroyed = spin ? DestroyReadWriteSpinLock(&c.spinLock) : DestroyReadWriteLock(&c.rw);
    out.Check(destroyed == 0 && (spin ? c.spinLock.owner == 0 : c.rw.mutex == nullptr),
              L"Successfully Destroyed Read WriteLock");
    PltDeleteEvent(&c.go);
    for (PLT_EVENT& e : c.inside) PltDeleteEvent(&e);
    return out.Report(report);
}

// ---- fast and spin locks ----

struct HoldCheck {
    PLT_FAST_LOCK lock;
    bool spin;
    PLT_EVENT inside;
    uint64_t releaseTick;
    volatile uint32_t released;
};

uint32_t HoldForAWhile(void* context) {
    auto* c = static_cast<HoldCheck*>(context);
    c->spin ? AcquireSpinLock(&c->lock) : PltAcquireFastLock(&c->lock);
    PltSetEvent(&c->inside);
    Sleep(kHoldMs);
    c->releaseTick = GetTickCount64();
    Store(&c->released, 1);
    c->spin ? ReleaseSpinLock(&c->lock) : PltReleaseFastLock(&c->lock);
    return 0;
}

// Another thread holds the lock; taking it here must wait for its release.
uint32_t HeldElsewhere(PLT_REPORT_BUFFER* report, bool spin, const wchar_t* timeCheck) {
    HoldCheck c{};
    c.spin = spin;
    spin ? PltInitializeSpinLock(&c.lock) : PltInitializeFastLock(&c.lock);
    PltInitializeEvent(&c.inside, PLT_EVENT_MANUAL_RESET, 0, nullptr);
    Outcome out;
    CheckThread holder;
    out.Check(c.inside.handle != nullptr && StartThread(&holder, HoldForAWhile, &c));
    if (!out.failed && Signalled(&c.inside, kWaitMs)) {
        spin ? AcquireSpinLock(&c.lock) : PltAcquireFastLock(&c.lock);
        uint64_t entered = GetTickCount64();
        out.Check(Load(&c.released) == 1 && entered >= c.releaseTick, timeCheck);
        spin ? ReleaseSpinLock(&c.lock) : PltReleaseFastLock(&c.lock);
    } else {
        out.Check(false);
    }
    if (holder.handle != nullptr) out.Check(JoinThread(&holder, kWaitMs));
    spin ? PltDeleteSpinLock(&c.lock) : PltDeleteFastLock(&c.lock);
    PltDeleteEvent(&c.inside);
    return out.Report(report);
}

// ---- remove locks ----

struct Removal {
    PLT_REMOVE_LOCK lock;
    volatile uint32_t userReleased;
};

uint32_t ReleaseLater(uint64_t context, uint64_t) {
    auto* r = reinterpret_cast<Removal*>(context);
    Sleep(kHoldMs);
    Store(&r->userReleased, 1);
    PltReleaseRemoveLock(&r->lock);
    return 0;
}

uint32_t RemoveLock(PLT_REPORT_BUFFER* report) {
    Removal r{};
    PltInitRemoveLock(&r.lock);
    if (r.lock.event == nullptr) return Fail(report);
    Outcome out;
    out.Check(PltAcquireRemoveLock(&r.lock) == 0 && r.lock.count == 1, L"IOCount == 1");
    out.Check(PltReleaseRemoveLock(&r.lock) == 0 && r.lock.count == 0, L"IOCount == 0");
    PLT_WORK_ITEM_POOL* pool = nullptr;
    if (!out.failed) {
        // The owner's acquisition and a user's, which a work item gives back
        // while the owner waits.
        out.Check(PltAcquireRemoveLock(&r.lock) == 0 && PltAcquireRemoveLock(&r.lock) == 0 &&
                  r.lock.count == 2);
        out.Check(PltInitWorkItemPool(&pool, 1, 2, PRIO_NORMAL) == 0 && pool != nullptr);
        bool queued = !out.failed && PltAddWorkItem(pool, nullptr, ReleaseLater,
                                                    reinterpret_cast<uint64_t>(&r), 0, 0) == 0;
        out.Check(queued);
        if (!queued && r.lock.count == 2) PltReleaseRemoveLock(&r.lock);
        out.Check(PltReleaseRemoveLockAndWait(&r.lock, kWaitMs) == 0 &&
                      Load(&r.userReleased) == 1 && r.lock.count == 0,
                  L"Device Removed");
        out.Check(PltAcquireRemoveLock(&r.lock) == PLT_STATUS_DEVICE_REMOVED && r.lock.count == 0,
                  L"Acquire remove lock failed as expected");
    }
    if (pool != nullptr) PltDeleteWorkItemPool(pool, 1, kWaitMs);
    // The remove lock leaves its event to the owner; closing it as the
    // library's event keeps the event counters whole.
    PLT_EVENT event{r.lock.event};
    PltDeleteEvent(&event);
    return out.Report(report);
}

}  // namespace
}  // namespace zendra::selfcheck

using namespace zendra::selfcheck;

extern "C" uint32_t TestLocks(PLT_REPORT_BUFFER* report) {
    uint32_t result = ReaderWriter(report, false, L"Validated Time check for write lock");
    result |= ReaderWriter(report, true, L"Validated time check for write lock");
    result |= HeldElsewhere(report, false, L"Fast Lock time check validated");
    result |= HeldElsewhere(report, true, L"Spin Lock time check validated");
    result |= RemoveLock(report);
    return result;
}
