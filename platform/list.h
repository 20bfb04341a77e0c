// Circular doubly linked lists with a head node whose two links point at
// itself when the list is empty. Used inline wherever the library queues or
// chains records (lookaside chunks, work items).
#pragma once

namespace zendra {

struct ListLink {
    ListLink* next;
    ListLink* prev;
};

inline void ListInit(ListLink* head) { head->next = head->prev = head; }

inline bool ListEmpty(const ListLink* head) { return head->next == head; }

inline void ListInsertAfter(ListLink* at, ListLink* entry) {
    entry->next = at->next;
    entry->prev = at;
    at->next->prev = entry;
    at->next = entry;
}

inline void ListPushFront(ListLink* head, ListLink* entry) { ListInsertAfter(head, entry); }

inline void ListPushBack(ListLink* head, ListLink* entry) { ListInsertAfter(head->prev, entry); }

inline void ListUnlink(ListLink* entry) {
    entry->prev->next = entry->next;
    entry->next->prev = entry->prev;
}

// Unlinks and returns the last entry, or null when the list is empty.
inline ListLink* ListPopBack(ListLink* head) {
    if (ListEmpty(head)) return nullptr;
    ListLink* entry = head->prev;
    ListUnlink(entry);
    return entry;
}

}  // namespace zendra
