// The configuration store, sockets and random bytes beside the Win32 calls
// they wrap.
#include <winsock2.h>
#include <bcrypt.h>

#include <vector>

#include <zendra/config.h>
#include <zendra/net.h>
#include <zendra/storage.h>

#include "bench.h"

ZB_SUITE(config) {
    HKEY key = nullptr;
    PltCreateOpenConfigKey(&key, L"SOFTWARE", L"ZendraBench", 0);
    zb::Options o;
    o.iterations = zb::Count(2000, 20000);
    zb::Compare(
        "config 32-bit set+get",
        [&](long n) {
            for (long i = 0; i < n; ++i) {
                uint32_t value = 0;
                PltSetConfigKeyUINT(key, nullptr, L"v", static_cast<uint32_t>(i));
                PltGetConfigKeyUINT(key, nullptr, L"v", &value, 0);
            }
        },
        "RegSetKeyValueW+RegGetValueW",
        [&](long n) {
            for (long i = 0; i < n; ++i) {
                DWORD value = static_cast<DWORD>(i), size = sizeof value;
                RegSetKeyValueW(key, nullptr, L"w", REG_DWORD, &value, sizeof value);
                RegGetValueW(key, nullptr, L"w", RRF_RT_DWORD, nullptr, &value, &size);
            }
        },
        o);
    PltDeleteConfigKey(key, nullptr);
    PltCloseConfig(&key);
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\ZendraBench");
    o.iterations = zb::Count(200, 2000);  // a provider per call: slow under Wine
    zb::Compare(
        "PltGetRandom 32 B",
        [](long n) {
            uint8_t bytes[32];
            for (long i = 0; i < n; ++i) PltGetRandom(bytes, sizeof bytes);
        },
        "BCryptGenRandom",
        [](long n) {
            uint8_t bytes[32];
            for (long i = 0; i < n; ++i)
                BCryptGenRandom(nullptr, bytes, sizeof bytes, BCRYPT_USE_SYSTEM_PREFERRED_RNG);
        },
        o);
}

namespace {

// A loopback pair: a listener accepts one connection that sends back what it
// read, so that one round trip moves the bytes both ways.
struct Pair {
    NET_CONNECTION *listener = nullptr, *server = nullptr, *client = nullptr;
    HANDLE echo = nullptr;
    Pair() {
        NetCreate(&listener);
        for (uint32_t port = 41000; NetStartServer(listener, port) != 0; ++port) {
            NetDelete(&listener);
            NetCreate(&listener);
        }
        NetCreate(&client);
        NetSetServerName(client, L"127.0.0.1");
        NetSetPort(client, listener->port);
        NetConnect(client);
        NetAccept(listener, &server);
        echo = CreateThread(nullptr, 0, &Echo, server, 0, nullptr);
    }
    ~Pair() {
        NetDelete(&client);
        WaitForSingleObject(echo, INFINITE);
        CloseHandle(echo);
        NetDelete(&server);
        NetDelete(&listener);
    }
    // Reads a whole mebibyte, then sends it back: the sender never waits for
    // a reader that waits for it.
    static DWORD WINAPI Echo(void* record) {
        auto* c = static_cast<NET_CONNECTION*>(record);
        std::vector<char> buffer(1 << 20);
        for (;;) {
            for (uint32_t got = 0; got < buffer.size();) {
                int n =
                    recv(c->socket, buffer.data() + got, static_cast<int>(buffer.size() - got), 0);
                if (n <= 0) return 0;
                got += static_cast<uint32_t>(n);
            }
            if (send(c->socket, buffer.data(), static_cast<int>(buffer.size()), 0) <= 0) return 0;
        }
    }
};

}  // namespace

ZB_SUITE(net) {
    const uint32_t size = 1 << 20;
    std::vector<char> out(size, 'z'), in(size);
    Pair p;
    zb::Options o;
    o.iterations = zb::Count(4, 20);
    zb::Compare(
        "NetSendData+NetReadData 1 MiB",
        [&](long n) {
            for (long i = 0; i < n; ++i) {
                uint32_t length = size;
                NetSendData(p.client, out.data(), size);
                NetReadData(p.client, in.data(), &length, 0, 1);
            }
        },
        "send+recv",
        [&](long n) {
            SOCKET s = p.client->socket;
            for (long i = 0; i < n; ++i) {
                send(s, out.data(), size, 0);
                for (uint32_t got = 0; got < size;) {
                    int r = recv(s, in.data() + got, static_cast<int>(size - got), 0);
                    if (r <= 0) break;
                    got += static_cast<uint32_t>(r);
                }
            }
        },
        o);
}
