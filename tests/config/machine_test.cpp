// Machine and OS information: the record on the live machine, and the reads
// Wine answers its own way fed exact values through import hooks.
#include <string.h>

#include <string>

#include <zendra/storage.h>

#include "zt.h"

namespace {

SYSTEM_POWER_STATUS g_power;
BOOL WINAPI FakePower(LPSYSTEM_POWER_STATUS status) { return *status = g_power, TRUE; }
WORD g_architecture;
void WINAPI FakeSystem(LPSYSTEM_INFO info) {
    GetNativeSystemInfo(info), info->wProcessorArchitecture = g_architecture;
}
int g_acquireFailures;
BOOL WINAPI FakeAcquire(HCRYPTPROV* provider, LPCWSTR container, LPCWSTR name, DWORD type,
                        DWORD flags) {
    if (g_acquireFailures-- > 0) return SetLastError(NTE_BAD_KEYSET), FALSE;
    return CryptAcquireContextW(provider, container, name, type, flags);
}

TEST(Machine, TheRecordStepByStep) {
    PLT_MACHINE_INFO info;
    memset(&info, 0xEE, sizeof info);
    wchar_t name[64];
    DWORD size = 64;
    MEMORYSTATUSEX memory = {sizeof memory};
    GetComputerNameW(name, &size);
    GlobalMemoryStatusEx(&memory);
    ASSERT_EQ(PltGetMachineInfo(&info), 0u);
    EXPECT_CALLS("1 1 1 1 1", wcscmp(info.ComputerName, name) == 0,
                 info.TotalPhysicalMemory == memory.ullTotalPhys,
                 wcscmp(info.Architecture, L"x64") == 0, info.NumberOfProcessors >= 1,
                 info.MajorVersion >= 5);
    EXPECT_GT(wcslen(info.OsName) * wcslen(info.Processor), 0u) << "from the registry";
    g_architecture = 12;
    {
        zt::ImportHook hook("GetNativeSystemInfo", reinterpret_cast<void*>(&FakeSystem));
        EXPECT_CALLS("0 1", PltGetMachineInfo(&info), wcscmp(info.Architecture, L"Unknown") == 0);
    }
    // The first failure stops the fill: what came before it stays.
    memset(&info, 0xEE, sizeof info);
    ZT_FAIL_IMPORT(GetComputerNameW, ERROR_BUFFER_OVERFLOW);
    EXPECT_CALLS("111 1 61166", PltGetMachineInfo(&info),
                 info.TotalPhysicalMemory == memory.ullTotalPhys, info.ComputerName[0]);
    EXPECT_EQ(PltGetMachineInfo(nullptr) + PltGetGlobalMemoryStatus(nullptr), 2 * 87u);
}

TEST(Machine, BatteryFlagsFromThePowerStatus) {
    // {AC line, battery flag, life percent} -> "flags percentValid percent"
    const struct {
        BYTE ac, battery, life;
        const char* expected;
    } cases[] = {{0, 128, 255, "2 0 14"},    // no system battery: the preset 14 stays
                 {1, 128, 100, "3 0 100"},   // mains, no battery: the reported percent, not valid
                 {1, 2 | 8, 40, "41 1 40"},  // low and charging on mains
                 {0, 1, 90, "4 1 90"},      {0, 4, 3, "16 1 3"},
                 {255, 255, 255, "3 0 14"}};  // all unknown
    zt::ImportHook hook("GetSystemPowerStatus", reinterpret_cast<void*>(&FakePower));
    for (const auto& c : cases) {
        g_power = {c.ac, c.battery, c.life};
        uint32_t flags = 99, percent = 99;
        uint8_t valid = 99;
        EXPECT_EQ(PltGetBatteryPowerStatus(&flags, &valid, &percent), 0u);
        EXPECT_CALLS(c.expected, flags, valid, percent) << int(c.ac) << " " << int(c.battery);
    }
    uint32_t flags;
    uint8_t valid;
    EXPECT_EQ(PltGetBatteryPowerStatus(&flags, &valid, nullptr), 87u);
}

TEST(Machine, LdapPathOfTheMachinesContainer) {
    wchar_t name[] = L"host.corp.example.com";
    uint32_t bytes = 0;
    EXPECT_CALLS("0 182", PltFQDNtoLDAPQuery(name, nullptr, &bytes), bytes)
        << "140 + 2 per character";
    zt::GuardedBuffer out(182);
    bytes = 181;
    EXPECT_EQ(PltFQDNtoLDAPQuery(name, out.as<wchar_t>(), &bytes), 8u);
    bytes = 182;
    EXPECT_EQ(PltFQDNtoLDAPQuery(name, out.as<wchar_t>(), &bytes), 0u);
    EXPECT_STREQ(out.as<wchar_t>(), L"LDAP://CN=computers,DC=corp,DC=example,DC=com");
    EXPECT_EQ(memcmp(name, L"host.corp\0example\0com", sizeof name), 0)
        << "the caller's name is cut";
    wchar_t single[] = L"host", dots[] = L"a.................................";
    bytes = 182;
    EXPECT_CALLS("0 1", PltFQDNtoLDAPQuery(single, out.as<wchar_t>(), &bytes),
                 wcscmp(out.as<wchar_t>(), L"LDAP://CN=computers") == 0)
        << "no dot: the prefix alone";
    bytes = 2 * 34 + 140;  // what it asks for, too little for 33 labels
    zt::GuardedBuffer small(bytes);
    EXPECT_CALLS("8 87", PltFQDNtoLDAPQuery(dots, small.as<wchar_t>(), &bytes),
                 PltFQDNtoLDAPQuery(nullptr, nullptr, &bytes));
}

TEST(Machine, NamesMemoryRandomBytesAndExpansion) {
    wchar_t name[64], expanded[64];
    uint32_t chars = 64;
    PLT_MEMORY_STATUS memory;
    uint8_t a[32] = {}, b[32] = {};
    SetEnvironmentVariableW(L"ZT_MACHINE", L"box");
    EXPECT_CALLS("0 0 1 0 0 1", PltGetComputerName(name, 64), PltGetMachineFQDN(name, &chars),
                 chars == wcslen(name), PltGetGlobalMemoryStatus(&memory),
                 PltExpandEnvironmentStrings(L"a%ZT_MACHINE%b", expanded, 64),
                 wcscmp(expanded, L"aboxb") == 0);
    EXPECT_CALLS("0 1 0 0 87", PltExpandEnvironmentStrings(L"%ZT_MACHINE%", expanded, 2),
                 memory.TotalPhysical > 0, PltGetRandom(a, 32), PltGetRandom(b, 32),
                 PltGetMachineFQDN(name, nullptr))
        << "too small an output is no failure";
    EXPECT_NE(memcmp(a, b, 32), 0);
    zt::ImportHook acquire("CryptAcquireContextW", reinterpret_cast<void*>(&FakeAcquire));
    g_acquireFailures = 1;
    EXPECT_EQ(PltGetRandom(a, 32), 0u) << "the second attempt makes a key set";
    g_acquireFailures = 2;
    EXPECT_EQ(PltGetRandom(a, 32), static_cast<uint32_t>(NTE_BAD_KEYSET));
}

}  // namespace
