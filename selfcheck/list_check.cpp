// TestList: the circular doubly linked lists the library uses inline
// (lookaside chunks, work-item queues), built, walked and taken apart in
// both directions, and filled by two threads under a critical section.
#include "platform/list.h"
#include "selfcheck/report.h"

namespace zendra::selfcheck {
namespace {

constexpr uint32_t kEntries = 50;
constexpr uint32_t kThreadEntries = 1000;

struct Node {
    ListLink link;  // first, so that a link is its node
    uint32_t value;
};

Node* NodeOf(ListLink* link) { return reinterpret_cast<Node*>(link); }

// The values met walking forward (or backward) equal `expected`, and the
// walk comes back to the head after exactly `count` entries.
bool WalkIs(ListLink* head, const uint32_t* expected, uint32_t count, bool forward) {
    uint32_t i = 0;
    for (ListLink* at = forward ? head->next : head->prev; at != head;
         at = forward ? at->next : at->prev, ++i) {
        if (i == count || NodeOf(at)->value != expected[forward ? i : count - 1 - i]) return false;
        if (at->next->prev != at || at->prev->next != at) return false;
    }
    return i == count;
}

bool IsEmpty(ListLink* head) { return ListEmpty(head) && head->prev == head; }

// Tail inserts keep the order; head inserts reverse it. Taking the list
// apart from the far end must give the values back in insertion order.
uint32_t BuildAndTakeApart(bool atTail) {
    Node nodes[kEntries];
    uint32_t order[kEntries];
    ListLink head;
    ListInit(&head);
    if (!IsEmpty(&head)) return 1;
    for (uint32_t i = 0; i < kEntries; ++i) {
        nodes[i].value = i;
        atTail ? ListPushBack(&head, &nodes[i].link) : ListPushFront(&head, &nodes[i].link);
        order[i] = atTail ? i : kEntries - 1 - i;
    }
    if (!WalkIs(&head, order, kEntries, true) || !WalkIs(&head, order, kEntries, false)) return 1;
    for (uint32_t i = 0; i < kEntries; ++i) {
        ListLink* taken = atTail ? head.next : ListPopBack(&head);
        if (atTail) ListUnlink(taken);
        if (taken == nullptr || NodeOf(taken)->value != i) return 1;
    }
    return IsEmpty(&head) && ListPopBack(&head) == nullptr ? 0 : 1;
}

// Two entries taken out of the middle and put back after their neighbour,
// then the first and last ones: the order must survive each pass.
uint32_t UnlinkAndReinsert() {
    Node nodes[kEntries];
    uint32_t order[kEntries];
    ListLink head;
    ListInit(&head);
    for (uint32_t i = 0; i < kEntries; ++i) {
        nodes[i].value = order[i] = i;
        ListPushBack(&head, &nodes[i].link);
    }
    const uint32_t pairs[2][2] = {{20, 21}, {0, kEntries - 1}};
    for (const auto& pair : pairs) {
        ListUnlink(&nodes[pair[0]].link);
        ListUnlink(&nodes[pair[1]].link);
        uint32_t rest[kEntries], n = 0;
        for (uint32_t i = 0; i < kEntries; ++i)
            if (i != pair[0] && i != pair[1]) rest[n++] = i;
        if (!WalkIs(&head, rest, n, true) || !WalkIs(&head, rest, n, false)) return 1;
        if (pair[0] == 0) {
            ListPushFront(&head, &nodes[0].link);
            ListPushBack(&head, &nodes[kEntries - 1].link);
        } else {
            ListInsertAfter(&nodes[pair[0] - 1].link, &nodes[pair[0]].link);
            ListInsertAfter(&nodes[pair[0]].link, &nodes[pair[1]].link);
        }
        if (!WalkIs(&head, order, kEntries, true) || !WalkIs(&head, order, kEntries, false))
            return 1;
    }
    return 0;
}

struct SharedList {
    ListLink head;
    PLT_SPIN_LOCK lock;
};

struct Filler {
    SharedList* list;
    Node* nodes;  // kThreadEntries, values ascending
};

uint32_t FillUnderLock(void* context) {
    auto* filler = static_cast<Filler*>(context);
    for (uint32_t i = 0; i < kThreadEntries; ++i) {
        AcquireSpinLock(&filler->list->lock);
        ListPushBack(&filler->list->head, &filler->nodes[i].link);
        ReleaseSpinLock(&filler->list->lock);
        if (i % 100 == 0) Sleep(0);  // let the other thread in between
    }
    return 0;
}

// Both threads' entries must all be in, each thread's in its own order,
// with every link pair consistent.
bool SharedListIsWhole(ListLink* head) {
    uint32_t next[2] = {0, 0}, count = 0;
    for (ListLink* at = head->next; at != head; at = at->next, ++count) {
        uint32_t value = NodeOf(at)->value, owner = value / kThreadEntries;
        if (count > 2 * kThreadEntries || at->next->prev != at || owner > 1 ||
            value % kThreadEntries != next[owner]++)
            return false;
    }
    return count == 2 * kThreadEntries;
}

uint32_t TwoThreads(PLT_REPORT_BUFFER* report) {
    void* block = nullptr;
    if (PltMalloc(&block, 2 * kThreadEntries * sizeof(Node), 0, 0) != 0) return Fail(report);
    auto* nodes = static_cast<Node*>(block);
    SharedList list;
    ListInit(&list.head);
    PltInitializeSpinLock(&list.lock);
    Filler fillers[2] = {{&list, nodes}, {&list, nodes + kThreadEntries}};
    for (uint32_t i = 0; i < 2 * kThreadEntries; ++i) nodes[i].value = i;
    CheckThread threads[2];
    uint32_t result = 0;
    if (!StartThread(&threads[0], FillUnderLock, &fillers[0]))
        result = Fail(report, L"Successfully Created Thread1");
    else if (!StartThread(&threads[1], FillUnderLock, &fillers[1]))
        result = Fail(report, L"Successfully Created Thread2");
    if (threads[0].handle != nullptr && !JoinThread(&threads[0], 30000))
        result = Fail(report, L"Successfully acquired valid thread1 handle");
    if (threads[1].handle != nullptr && !JoinThread(&threads[1], 30000)) result = Fail(report);
    if (result == 0 && !SharedListIsWhole(&list.head)) result = Fail(report);
    PltDeleteSpinLock(&list.lock);
    PltFree(&block, 0);
    return result;
}

}  // namespace
}  // namespace zendra::selfcheck

using namespace zendra::selfcheck;

extern "C" uint32_t TestList(PLT_REPORT_BUFFER* report) {
    uint32_t result = Reported(report, BuildAndTakeApart(true));
    result |= Reported(report, BuildAndTakeApart(false));
    result |= Reported(report, UnlinkAndReinsert());
    result |= TwoThreads(report);
    return result;
}
