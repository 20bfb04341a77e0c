// Blocking TCP over IPv4: connection records, client connects, a listener
// with a manual accept and an accept loop that hands each connection to a
// thread of its own, and bounded sends and full-buffer reads.
#include <winsock2.h>
#include <string.h>

#include <zendra/net.h>
#include <zendra/os.h>

#include "platform/status.h"

using namespace zendra;

namespace {

constexpr uint32_t kConnectionTag = PLT_TAG('Q', 'Z', '-', 'N');
constexpr PLT_STATUS kUnresolved = 0xFFFFFFFFu;
constexpr PLT_STATUS kAcceptEnded = 0xE001000Au;
constexpr uint32_t kChunk = 4098;  // the odd size is deliberate
constexpr int kWouldBlockRetries = 5;

bool Valid(const NET_CONNECTION* c) { return c != nullptr && c->signature == NET_SIGNATURE; }
bool HasSocket(const NET_CONNECTION* c) { return c->socket != INVALID_SOCKET; }

PLT_STATUS StartWinsock(NET_CONNECTION* c) {
    if (c->winsockStarted) return kOk;
    WSADATA data;
    int status = WSAStartup(0x0101, &data);
    if (status != 0) return status;
    c->winsockStarted = 1;
    return kOk;
}

// The fixed options of every connected, accepted or listening socket, in
// order; the first failure ends them and is not reported. The one-byte
// lengths and the 8-byte time-out are deliberate.
void ApplyOptions(SOCKET s) {
    const int one = 1, buffer = 0x80000;
    const uint64_t timeout = 360000;
    const linger lingering = {1, 10};
    const struct {
        int level, name;
        const void* value;
        int length;
    } options[] = {{IPPROTO_TCP, TCP_NODELAY, &one, 1},
                   {SOL_SOCKET, SO_REUSEADDR, &one, 1},
                   {SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer},
                   {SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer},
                   {SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout},
                   {SOL_SOCKET, SO_LINGER, &lingering, sizeof lingering}};
    for (const auto& o : options)
        if (setsockopt(s, o.level, o.name, static_cast<const char*>(o.value), o.length) != 0)
            return;
}

// The server name with a terminator: a name of 1024 bytes or more is stored
// without one, and nothing may read past the record's 1024 bytes.
void ServerName(const NET_CONNECTION* c, char (&name)[NET_NAME_BYTES + 1]) {
    memcpy(name, c->serverName, NET_NAME_BYTES);
    name[NET_NAME_BYTES] = '\0';
}

// The accept loop's thread: runs the handler on its own record.
uint32_t RunHandler(void* record) {
    auto* c = static_cast<NET_CONNECTION*>(record);
    return c->handler != nullptr ? c->handler(c, c->handlerContext) : 0;
}

}  // namespace

extern "C" PLT_STATUS NetCreate(NET_CONNECTION** connection) {
    void* block = nullptr;
    PLT_STATUS status = PltMalloc(&block, sizeof(NET_CONNECTION), PLT_ALLOC_ZERO, kConnectionTag);
    if (connection != nullptr) *connection = nullptr;
    if (status != kOk) return status;
    auto* c = static_cast<NET_CONNECTION*>(block);
    c->signature = NET_SIGNATURE;
    c->socket = INVALID_SOCKET;
    c->port = 80;
    if (connection != nullptr)
        *connection = c;
    else
        PltFree(&block, kConnectionTag);  // nobody could ever delete it
    return kOk;
}

extern "C" PLT_STATUS NetSetServerName(NET_CONNECTION* connection, const wchar_t* name) {
    if (!Valid(connection) || name == nullptr) return kInvalidParameter;
    // A socket value of 0 does not count here, unlike for the port: kept.
    if (connection->socket != 0 && HasSocket(connection)) return NET_WSAEISCONN;
    size_t characters = wcslen(name) + 1;
    if (characters > 0xFFFFFFFFu / 3) return kInvalidParameter;
    void* ansi = nullptr;
    PLT_STATUS status = PltMalloc(&ansi, static_cast<uint32_t>(3 * characters), PLT_ALLOC_ZERO, 0);
    if (status != kOk) return status;
    WideCharToMultiByte(CP_ACP, 0, name, static_cast<int>(characters), static_cast<char*>(ansi),
                        static_cast<int>(3 * characters), nullptr, nullptr);
    size_t bytes = strlen(static_cast<char*>(ansi)) + 1;
    memcpy(connection->serverName, ansi, bytes < NET_NAME_BYTES ? bytes : NET_NAME_BYTES);
    PltFree(&ansi, 0);
    return kOk;
}

extern "C" PLT_STATUS NetSetPort(NET_CONNECTION* connection, uint32_t port) {
    if (!Valid(connection)) return kInvalidParameter;
    if (HasSocket(connection)) return NET_WSAEISCONN;
    connection->port = port;
    return kOk;
}

extern "C" PLT_STATUS NetConnect(NET_CONNECTION* connection) {
    if (!Valid(connection)) return kInvalidParameter;
    PLT_STATUS status = StartWinsock(connection);
    if (status != kOk) return status;
    if (connection->socket != 0 && HasSocket(connection)) return kOk;
    SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
    if (s == INVALID_SOCKET) return GetLastError();
    connection->socket = s;
    char name[NET_NAME_BYTES + 1];
    ServerName(connection, name);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<u_short>(connection->port));
    address.sin_addr.s_addr = inet_addr(name);
    if (address.sin_addr.s_addr == INADDR_NONE) {
        hostent* host = gethostbyname(name);
        address.sin_addr.s_addr = 0;
        if (host != nullptr && host->h_addr_list[0] != nullptr)
            memcpy(&address.sin_addr, host->h_addr_list[0], sizeof address.sin_addr);
        if (address.sin_addr.s_addr == INADDR_NONE) address.sin_addr.s_addr = 0;
    }
    if (address.sin_addr.s_addr == 0) return kUnresolved;
    if (connect(s, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return GetLastError();
    ApplyOptions(s);
    return kOk;
}

extern "C" PLT_STATUS NetSendData(NET_CONNECTION* connection, const void* data, uint32_t length) {
    if (!Valid(connection)) return kInvalidParameter;
    auto* bytes = static_cast<const char*>(data);
    uint32_t offset = 0;
    do {
        int chunk = static_cast<int>(length - offset < kChunk ? length - offset : kChunk);
        int sent = send(connection->socket, bytes + offset, chunk, 0);
        for (int retry = 0; sent == SOCKET_ERROR && WSAGetLastError() == WSAEWOULDBLOCK &&
                            retry < kWouldBlockRetries;
             ++retry) {
            Sleep(20);
            sent = send(connection->socket, bytes + offset, chunk, 0);
        }
        // A short send without an error is not continued: its status is 0.
        if (sent != chunk) return GetLastError();
        offset += static_cast<uint32_t>(chunk);
    } while (offset < length);
    return kOk;
}

extern "C" PLT_STATUS NetReadData(NET_CONNECTION* connection, void* buffer, uint32_t* length,
                                  uint64_t, uint8_t noWait) {
    if (!Valid(connection) || length == nullptr) return kInvalidParameter;
    if (!noWait) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(connection->socket, &readable);
        timeval second = {1, 0};
        if (select(0, &readable, nullptr, nullptr, &second) == 0) {
            *length = 0;
            return kOk;  // nothing arrived; a select error lets the read go ahead
        }
    }
    uint32_t size = *length, total = 0;
    while (total < size) {
        int received = recv(connection->socket, static_cast<char*>(buffer) + total,
                            static_cast<int>(size - total), 0);
        if (received == SOCKET_ERROR) {
            *length = total;
            return GetLastError();
        }
        if (received == 0) break;  // the peer closed
        total += static_cast<uint32_t>(received);
    }
    *length = total;
    return kOk;
}

extern "C" PLT_STATUS NetStartServer(NET_CONNECTION* connection, uint32_t port) {
    if (!Valid(connection)) return kInvalidParameter;
    if (HasSocket(connection)) return NET_WSAEISCONN;
    PLT_STATUS status = StartWinsock(connection);
    if (status != kOk) return status;
    connection->port = port;
    SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
    if (s == INVALID_SOCKET) return GetLastError();
    connection->socket = s;
    ApplyOptions(s);  // before binding, so that SO_REUSEADDR takes effect
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<u_short>(port));
    address.sin_addr.s_addr = INADDR_ANY;
    if (bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return GetLastError();
    if (listen(s, 5) != 0) return GetLastError();
    return kOk;
}

extern "C" PLT_STATUS NetAccept(NET_CONNECTION* listener, NET_CONNECTION** accepted) {
    if (!Valid(listener) || accepted == nullptr) return kInvalidParameter;
    *accepted = nullptr;
    if (listener->closed) return kAcceptEnded;
    NET_CONNECTION* c = nullptr;
    PLT_STATUS status = NetCreate(&c);
    if (status != kOk) return status;
    c->socket = accept(listener->socket, nullptr, nullptr);
    DWORD error = c->socket == INVALID_SOCKET ? GetLastError() : 0;
    if (__atomic_load_n(&listener->closed, __ATOMIC_ACQUIRE) || (error != 0)) {
        NetDelete(&c);  // the record is released by its address, as for the caller
        return listener->closed ? kAcceptEnded : error;
    }
    if (c->socket != INVALID_SOCKET) ApplyOptions(c->socket);
    *accepted = c;  // a failed accept without an error code still hands it out
    return kOk;
}

extern "C" PLT_STATUS NetAcceptEx(NET_CONNECTION* listener, void* handlerContext,
                                  NET_ACCEPT_HANDLER handler) {
    if (!Valid(listener) || handler == nullptr) return kInvalidParameter;
    for (;;) {
        NET_CONNECTION* c = nullptr;
        PLT_STATUS status = NetAccept(listener, &c);
        if (status != kOk) return status;
        c->handler = handler;
        c->handlerContext = handlerContext;
        HANDLE thread = nullptr;
        status = PltCreateThread(&RunHandler, c, &thread, nullptr);
        if (status != kOk) return status;  // the accepted record is not released
        PltCloseThread(thread);
    }
}

extern "C" PLT_STATUS NetClose(NET_CONNECTION* connection) {
    if (!Valid(connection)) return kInvalidParameter;
    if (connection->closed) return kOk;
    // Closed first, then the socket: an accept blocked on it fails and finds
    // the record closed.
    __atomic_store_n(&connection->closed, uint8_t{1}, __ATOMIC_RELEASE);
    if (HasSocket(connection)) closesocket(connection->socket);
    if (connection->winsockStarted) WSACleanup();
    connection->winsockStarted = 0;
    connection->socket = INVALID_SOCKET;
    return kOk;
}

extern "C" PLT_STATUS NetDelete(NET_CONNECTION** connection) {
    if (connection == nullptr || !Valid(*connection)) return kInvalidParameter;
    NetClose(*connection);
    return PltFree(reinterpret_cast<void**>(connection), kConnectionTag);
}
