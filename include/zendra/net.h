/* ZendraPlatform sockets: blocking TCP over IPv4, client and server.
 * C-compatible. */
#ifndef ZENDRA_NET_H
#define ZENDRA_NET_H

#include <zendra/platform.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A connection record; callers hold a pointer from NetCreate. Every call
 * checks the signature and refuses a record without it with
 * INVALID_PARAMETER. Winsock errors come back as the thread's last error (the
 * WSA codes); ISCONN (10056) when the name or port changes, or a server
 * starts, while a socket exists. */
#define NET_SIGNATURE 1064u
#define NET_NAME_BYTES 1024u
#define NET_WSAEISCONN 10056u

typedef struct NET_CONNECTION NET_CONNECTION;

/* Runs on a thread of its own for each connection NetAcceptEx accepts; owns
 * the connection and deletes it. Its result is the thread's exit code. */
typedef uint32_t (*NET_ACCEPT_HANDLER)(NET_CONNECTION* connection, void* handlerContext);

struct NET_CONNECTION {
    uint32_t signature;                /* NET_SIGNATURE */
    UINT_PTR socket;                   /* all ones when there is none */
    char serverName[NET_NAME_BYTES];   /* ANSI; not terminated at 1024 bytes */
    uint32_t port;                     /* host byte order; 80 at creation */
    uint8_t winsockStarted;            /* this record's WSAStartup succeeded */
    uint8_t closed;
    void* handlerContext;
    NET_ACCEPT_HANDLER handler;
};

ZENDRA_LAYOUT(offsetof(NET_CONNECTION, socket) == 8);
ZENDRA_LAYOUT(offsetof(NET_CONNECTION, serverName) == 16);
ZENDRA_LAYOUT(offsetof(NET_CONNECTION, port) == 1040);
ZENDRA_LAYOUT(offsetof(NET_CONNECTION, winsockStarted) == 1044);
ZENDRA_LAYOUT(offsetof(NET_CONNECTION, closed) == 1045);
ZENDRA_LAYOUT(offsetof(NET_CONNECTION, handlerContext) == 1048);
ZENDRA_LAYOUT(offsetof(NET_CONNECTION, handler) == 1056);
ZENDRA_LAYOUT(sizeof(NET_CONNECTION) == NET_SIGNATURE);

/* *connection (if given) receives a new record (tag "QZ-N"), or null with
 * NO_MEMORY. */
ZENDRA_API PLT_STATUS NetCreate(NET_CONNECTION** connection);
/* The name or dotted address, in the ANSI code page. INVALID_PARAMETER for a
 * null name. */
ZENDRA_API PLT_STATUS NetSetServerName(NET_CONNECTION* connection, const wchar_t* name);
ZENDRA_API PLT_STATUS NetSetPort(NET_CONNECTION* connection, uint32_t port);
/* 0 at once when a socket exists; 0xFFFFFFFF when the name does not resolve
 * (the new socket stays in the record). */
ZENDRA_API PLT_STATUS NetConnect(NET_CONNECTION* connection);
/* In chunks of at most 4098 bytes, retrying a chunk that would block. */
ZENDRA_API PLT_STATUS NetSendData(NET_CONNECTION* connection, const void* data, uint32_t length);
/* *length: the buffer size in, the bytes read out. Unless noWait, waits at
 * most a second for data (then 0 with *length 0); then reads until the buffer
 * is full or the peer closes. reserved is not used. */
ZENDRA_API PLT_STATUS NetReadData(NET_CONNECTION* connection, void* buffer, uint32_t* length,
                                  uint64_t reserved, uint8_t noWait);
/* Listens on any address and the port, backlog 5. */
ZENDRA_API PLT_STATUS NetStartServer(NET_CONNECTION* connection, uint32_t port);
/* *accepted receives a new record for the connection. ACCEPT_ENDED
 * (0xE001000A) with a null *accepted once the listener is closed. */
ZENDRA_API PLT_STATUS NetAccept(NET_CONNECTION* listener, NET_CONNECTION** accepted);
/* The accept loop: hands each connection to handler on a thread of its own,
 * and returns only on an error (ACCEPT_ENDED once the listener is closed).
 * INVALID_PARAMETER for a null handler. */
ZENDRA_API PLT_STATUS NetAcceptEx(NET_CONNECTION* listener, void* handlerContext,
                                  NET_ACCEPT_HANDLER handler);
/* Closes the socket and pairs the record's own WSAStartup; 0 when already
 * closed. Closing a listener from another thread ends its accept loop. */
ZENDRA_API PLT_STATUS NetClose(NET_CONNECTION* connection);
/* Closes if need be, frees the record and clears *connection. */
ZENDRA_API PLT_STATUS NetDelete(NET_CONNECTION** connection);

#ifdef __cplusplus
}
#endif

#endif /* ZENDRA_NET_H */
