/* ZendraPlatform message bus: an in-process publish/subscribe switch with a
 * fixed grid of (message type, action) slots. C-compatible. */
#ifndef ZENDRA_MSGBUS_H
#define ZENDRA_MSGBUS_H

#include <zendra/platform.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Accepted by MBSubscribe and MBUnsubscribe only: every action of the type. */
#define MB_ALL_ACTIONS 0xFFFFFFFFu

/* 0 means handled; anything else is OR-ed into the delivery's result. */
typedef uint32_t (*MB_SUBSCRIBER_CALLBACK)(uint32_t type, uint32_t action, void* data,
                                           uint32_t length, void* context);
/* status: the OR of the subscribers' results (NOT_FOUND when an asynchronous
 * send found no live subscriber). The result is ignored. */
typedef uint32_t (*MB_COMPLETION_CALLBACK)(uint32_t type, uint32_t action, void* data,
                                           uint32_t length, void* completionContext,
                                           uint32_t status);

/* A subscriber is the pair (callback, context); refs counts its
 * subscriptions in the slot. Live while refs >= 1. */
typedef struct MB_SUBSCRIBER {
    MB_SUBSCRIBER_CALLBACK callback;
    void* context;
    int32_t refs;
} MB_SUBSCRIBER;

typedef struct MB_SLOT {
    PLT_RW_SPIN_LOCK lock;
    uint32_t count;             /* entries in use, live and dead */
    MB_SUBSCRIBER* subscribers; /* room for maxSubscribers + 3 */
} MB_SLOT;

typedef struct MB_TYPE_ENTRY {
    uint64_t reserved; /* slots of this type that were set up */
    MB_SLOT* slots;    /* actionCount slots */
} MB_TYPE_ENTRY;

typedef struct MB_MSG_BUS {
    PLT_WORK_ITEM_POOL* pool;
    PLT_LOOKASIDE_LIST messages; /* 64-byte MB_MESSAGE records */
    uint32_t typeCount;
    uint32_t actionCount;
    uint32_t maxSubscribers;
    MB_TYPE_ENTRY types[1]; /* typeCount entries */
} MB_MSG_BUS;

/* One delivery in flight; an entry of the bus's message list. */
typedef struct MB_MESSAGE {
    MB_MSG_BUS* bus;
    uint32_t type;
    uint32_t action;
    void* data; /* the sender's, never copied */
    uint32_t length;
    uint32_t pending;        /* broadcast: deliveries still to start */
    PLT_WORK_ITEM* workItem; /* asynchronous send only */
    void* completionContext;
    MB_COMPLETION_CALLBACK completion;
    uint32_t status; /* broadcast: OR of the results so far */
    uint32_t holds;  /* private: broadcast runs still using the record */
} MB_MESSAGE;

ZENDRA_LAYOUT(sizeof(MB_SUBSCRIBER) == 24);
ZENDRA_LAYOUT(offsetof(MB_SUBSCRIBER, refs) == 16);
ZENDRA_LAYOUT(offsetof(MB_SLOT, count) == 56);
ZENDRA_LAYOUT(offsetof(MB_SLOT, subscribers) == 64);
ZENDRA_LAYOUT(sizeof(MB_SLOT) == 72);
ZENDRA_LAYOUT(sizeof(MB_TYPE_ENTRY) == 16);
ZENDRA_LAYOUT(offsetof(MB_MSG_BUS, messages) == 8);
ZENDRA_LAYOUT(offsetof(MB_MSG_BUS, typeCount) == 120);
ZENDRA_LAYOUT(offsetof(MB_MSG_BUS, types) == 136);
ZENDRA_LAYOUT(sizeof(MB_MESSAGE) == 64);
ZENDRA_LAYOUT(offsetof(MB_MESSAGE, data) == 16);
ZENDRA_LAYOUT(offsetof(MB_MESSAGE, workItem) == 32);
ZENDRA_LAYOUT(offsetof(MB_MESSAGE, completion) == 48);
ZENDRA_LAYOUT(offsetof(MB_MESSAGE, status) == 56);

/* Message types count from 0 (valid 0 to typeCount - 1), and so do actions
 * (0 to actionCount - 1); MB_ALL_ACTIONS is the only other action value.
 *
 * Every bus starts its own work-item pool of 2 to 8 worker threads at normal
 * priority for the asynchronous and broadcast deliveries.
 *
 * INVALID_PARAMETER for a null bus pointer; NO_MEMORY when the bus record
 * cannot be allocated (*bus null) or its message list cannot (*bus set);
 * otherwise the status of PltInitWorkItemPool (INVALID_PARAMETER with *bus
 * set and no pool). Creation does not clean up after a partial failure. A bus
 * whose message list could not be made refuses every call with
 * INDEX_OUT_OF_RANGE; a bus without a pool refuses the asynchronous calls with
 * INVALID_PARAMETER. */
ZENDRA_API PLT_STATUS MBCreateMsgBus(MB_MSG_BUS** bus, uint32_t typeCount, uint32_t actionCount,
                                     uint32_t maxSubscribers);
/* Delivers what is still queued (for up to 10000 ms), then frees the bus.
 * The caller's handle variable is left as it is. INVALID_PARAMETER for a null
 * bus; otherwise the status of freeing the bus record (0). */
ZENDRA_API PLT_STATUS MBDeleteMsgBus(MB_MSG_BUS* bus);
/* Subscribing: INVALID_PARAMETER for a null bus or callback;
 * INDEX_OUT_OF_RANGE for a type or action out of range, or a full slot (with
 * MB_ALL_ACTIONS the slots before the full one keep the subscription).
 * Unsubscribing: the same, and NOT_FOUND when no live entry of the pair is in
 * the slot (in any slot of the type, with MB_ALL_ACTIONS). */
ZENDRA_API PLT_STATUS MBSubscribe(MB_MSG_BUS* bus, MB_SUBSCRIBER_CALLBACK callback, uint32_t type,
                                  uint32_t action, void* context);
ZENDRA_API PLT_STATUS MBUnsubscribe(MB_MSG_BUS* bus, MB_SUBSCRIBER_CALLBACK callback, uint32_t type,
                                    uint32_t action, void* context);

/* The sends check first: INVALID_HANDLE for a null bus (unlike the calls
 * above), INDEX_OUT_OF_RANGE for a type or action out of range. */

/* Calls the slot's live subscribers on this thread and returns the OR of
 * their results; NOT_FOUND when none is live. */
ZENDRA_API PLT_STATUS MBSendMsg(MB_MSG_BUS* bus, uint32_t type, uint32_t action, void* data,
                                uint32_t length);
/* As MBSendMsg on a pool thread, then the completion with its status.
 * NO_MEMORY when no message record or work item can be had; INVALID_PARAMETER
 * for a bus without a pool; POOL_STOPPING while the bus is being deleted. */
ZENDRA_API PLT_STATUS MBSendMsgAsync(MB_MSG_BUS* bus, uint32_t type, uint32_t action, void* data,
                                     uint32_t length, MB_COMPLETION_CALLBACK completion,
                                     void* completionContext);
/* One work item per live subscriber; the completion fires when the entry at
 * index 0 has returned, and never when the slot held a dead entry or none.
 * Fails as MBSendMsgAsync; items queued before a failure still run. */
ZENDRA_API PLT_STATUS MBBroadcastMsg(MB_MSG_BUS* bus, uint32_t type, uint32_t action, void* data,
                                     uint32_t length, MB_COMPLETION_CALLBACK completion,
                                     void* completionContext);

#ifdef __cplusplus
}
#endif

#endif /* ZENDRA_MSGBUS_H */
