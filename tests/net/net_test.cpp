// Sockets over loopback: peers in this process and a native peer on the host,
// the socket options and chunking through import hooks, and the failures.
#include <winsock2.h>
#include <stdio.h>
#include <string.h>

#include <atomic>
#include <string>
#include <vector>

#include <zendra/net.h>

#include "zt.h"

namespace {

const uint32_t kMiB = 1 << 20;

// A port nobody listens on now, from the system.
uint32_t FreePort() {
    WSADATA data;
    WSAStartup(0x0202, &data);
    SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {AF_INET};
    int length = sizeof address;
    bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address);
    getsockname(s, reinterpret_cast<sockaddr*>(&address), &length);
    closesocket(s);
    WSACleanup();
    return ntohs(address.sin_port);
}

NET_CONNECTION* Client(const wchar_t* name, uint32_t port, PLT_STATUS expected = 0) {
    NET_CONNECTION* c = nullptr;
    EXPECT_CALLS("0 0 0", NetCreate(&c), NetSetServerName(c, name), NetSetPort(c, port));
    EXPECT_EQ(NetConnect(c), expected);
    return c;
}

// Sends a length and the bytes, then reads them back until the peer closes.
bool RoundTrip(NET_CONNECTION* c, const std::vector<uint8_t>& data) {
    uint32_t length = static_cast<uint32_t>(data.size()), got = length + 1;
    std::vector<uint8_t> back(got);
    return NetSendData(c, &length, 4) == 0 && NetSendData(c, data.data(), length) == 0 &&
           NetReadData(c, back.data(), &got, 0, 0) == 0 && got == length &&
           memcmp(back.data(), data.data(), length) == 0;
}

// The handler of the accept loop: the sink-then-source peer of RoundTrip.
uint32_t Echo(NET_CONNECTION* c, void* served) {
    uint32_t length = 0, size = 4;
    NetReadData(c, &length, &size, 0, 0);
    std::vector<uint8_t> data(length);
    size = length;
    NetReadData(c, data.data(), &size, 0, 0);
    NetSendData(c, data.data(), size);
    NetDelete(&c);
    return ++*static_cast<std::atomic<int>*>(served), 0;
}

TEST(Net, InProcessAndNativePeersCarryAMebibyteBothWays) {
    std::vector<uint8_t> data(kMiB);
    for (uint32_t i = 0; i < kMiB; ++i) data[i] = static_cast<uint8_t>(i * 7 + i / 4099);
    NET_CONNECTION* listener = nullptr;
    uint32_t port = FreePort();
    std::atomic<int> served{0};
    ASSERT_EQ(NetCreate(&listener) + NetStartServer(listener, port), 0u);
    zt::TestThread loop([&] { EXPECT_EQ(NetAcceptEx(listener, &served, &Echo), 0xE001000Au); });
    NET_CONNECTION* c = Client(L"127.0.0.1", port);
    UINT_PTR s = c->socket;
    EXPECT_CALLS("10056 0 1 10056", NetSetPort(c, 1), NetConnect(c), c->socket == s,
                 NetSetServerName(c, L"x"))
        << "a second connect keeps the socket";
    EXPECT_TRUE(RoundTrip(c, data)) << "in-process peer";
    EXPECT_CALLS("0 0", NetDelete(&c), NetClose(listener)) << "closing the listener ends the loop";
    EXPECT_TRUE(loop.join(10000) && zt::WaitUntil([&] { return served == 1; }));
    EXPECT_CALLS("0 0 3758161930 1", NetClose(listener), NetDelete(&listener) * 0, 0xE001000Au,
                 listener == nullptr);
    // A peer that is not ours: the native host process the test suite starts.
    FILE* file = fopen("net_peer.txt", "r");
    ASSERT_NE(file, nullptr) << "the native peer did not start";
    ASSERT_EQ(fscanf(file, "%u", &port), 1);
    fclose(file);
    c = Client(L"localhost", port);
    EXPECT_TRUE(RoundTrip(c, data)) << "native peer";
    uint32_t length = 10;
    EXPECT_CALLS("0 0", NetReadData(c, data.data(), &length, 0, 1), length)
        << "read after the peer has gone";
    EXPECT_EQ(NetDelete(&c), 0u);
}

std::string g_options;
int WINAPI RecordOption(SOCKET, int level, int name, const char*, int length) {
    char text[32];
    snprintf(text, sizeof text, "%x/%x/%d ", level, name, length);
    return g_options += text, 0;
}
std::vector<int> g_calls;
int g_wouldBlock;
int WINAPI RecordSend(SOCKET, const char*, int length, int) {
    if (g_wouldBlock-- > 0) return WSASetLastError(WSAEWOULDBLOCK), SOCKET_ERROR;
    return g_calls.push_back(length), length;
}
int g_cleanups;
int WINAPI CountCleanup() { return ++g_cleanups, WSACleanup(); }
int64_t g_nameLength;
unsigned long WINAPI RecordName(const char* name) {
    return g_nameLength = static_cast<int64_t>(strlen(name)), INADDR_NONE;
}

TEST(Net, OptionsChunksRetriesAndWhatEachFailureGives) {
    NET_CONNECTION* listener = nullptr;
    uint32_t port = FreePort(), length = 4;
    char buffer[4];
    {
        zt::ImportHook option("setsockopt", reinterpret_cast<void*>(&RecordOption));
        ASSERT_EQ(NetCreate(&listener) + NetStartServer(listener, port), 0u);
    }
    // TCP_NODELAY and SO_REUSEADDR with one-byte lengths, the buffers, an
    // 8-byte receive time-out, linger, in that order.
    EXPECT_EQ(g_options, "6/1/1 ffff/4/1 ffff/1001/4 ffff/1002/4 ffff/1006/8 ffff/80/4 ");
    NET_CONNECTION* c = Client(L"127.0.0.1", port);
    std::vector<char> data(10000);
    g_calls.clear();
    {
        zt::ImportHook send("send", reinterpret_cast<void*>(&RecordSend));
        g_wouldBlock = 2;
        EXPECT_EQ(NetSendData(c, data.data(), 10000), 0u);
        EXPECT_EQ(g_calls, (std::vector<int>{4098, 4098, 1804}))
            << "a chunk that would block is sent again";
        g_wouldBlock = 6;
        EXPECT_EQ(NetSendData(c, data.data(), 1), 10035u) << "at most five more times";
    }
    ULONGLONG start = GetTickCount64();
    EXPECT_CALLS("0 0 1", NetReadData(c, buffer, &length, 0, 0), length,
                 GetTickCount64() - start >= 900)
        << "nothing to read: a second's wait";
    zt::ImportHook cleanup("WSACleanup", reinterpret_cast<void*>(&CountCleanup));
    g_cleanups = 0;
    EXPECT_CALLS("0 0 1", NetClose(c), NetClose(c), g_cleanups) << "a second close does nothing";
    NET_CONNECTION* accepted = reinterpret_cast<NET_CONNECTION*>(1);
    EXPECT_CALLS("0 0 3758161930 1", NetDelete(&c), NetClose(listener),
                 NetAccept(listener, &accepted), accepted == nullptr);
    c = Client(L"127.0.0.1", port, 10061);  // a closed port
    EXPECT_CALLS("0 0", NetDelete(&c), NetDelete(&listener));
    // Names that resolve to nothing; a name of 1024 bytes or more has no
    // terminator in the record, and nothing reads past it.
    c = Client(L"no-such-host.invalid", port, 0xFFFFFFFFu);
    std::wstring huge(2000, L'h');
    EXPECT_CALLS("10056 0", NetSetServerName(c, huge.c_str()), NetClose(c));
    c->socket = INVALID_SOCKET;
    {
        zt::ImportHook resolve("inet_addr", reinterpret_cast<void*>(&RecordName));
        EXPECT_CALLS("0 4294967295 1024", NetSetServerName(c, huge.c_str()), NetConnect(c),
                     g_nameLength);
    }
    NET_CONNECTION bogus = *c;
    bogus.signature = 1063;
    NET_CONNECTION* none = nullptr;
    EXPECT_CALLS("87 87 87 87 87 87 87 87 87 87 87 87 0", NetSetServerName(&bogus, L"x"),
                 NetSetServerName(c, nullptr), NetSetPort(nullptr, 1), NetConnect(&bogus),
                 NetSendData(nullptr, buffer, 1), NetReadData(c, buffer, nullptr, 0, 1),
                 NetStartServer(&bogus, 1), NetAccept(c, nullptr), NetAcceptEx(c, nullptr, nullptr),
                 NetClose(&bogus), NetDelete(&none), NetDelete(nullptr), NetDelete(&c));
}

}  // namespace
