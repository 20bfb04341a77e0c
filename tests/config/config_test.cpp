// The configuration store against the real registry, below a scratch key
// that each test removes again.
#include <string.h>

#include <string>

#include <zendra/config.h>

#include "zt.h"

namespace {

const wchar_t kScratch[] = L"SOFTWARE\\ZendraTest";

struct Scratch {
    HKEY key = nullptr;
    Scratch() { EXPECT_EQ(PltCreateOpenConfigKey(&key, L"SOFTWARE", L"ZendraTest\\a", 0), 0u); }
    ~Scratch() {
        EXPECT_EQ(PltCloseConfig(&key), 0u);
        HKEY root = nullptr;
        EXPECT_CALLS("0 0", PltOpenConfig(0, nullptr, 0, &root),
                     PltDeleteConfigKey(root, kScratch));
    }
};

TEST(Config, RootsAccessModesAndClosing) {
    HKEY h = reinterpret_cast<HKEY>(1), root = nullptr;
    EXPECT_CALLS("6 1", PltOpenConfig(2, nullptr, 0, &h), h == nullptr) << "unknown root";
    EXPECT_CALLS("0 1 0 1", PltOpenConfig(0, nullptr, 0, &root), root == HKEY_LOCAL_MACHINE,
                 PltCloseConfig(&root), root == HKEY_LOCAL_MACHINE)
        << "a root is never closed";
    Scratch s;
    EXPECT_CALLS("0 5 0 1 0 0 0 6", PltOpenConfig(0, kScratch, 1, &h),
                 PltSetConfigKeyUINT(h, nullptr, L"v", 1), PltCloseConfig(&h), h == nullptr,
                 PltOpenConfig(0, kScratch, 2, &h), PltSetConfigKeyUINT(h, nullptr, L"v", 1),
                 PltCloseConfig(&h), PltCloseConfig(&h))
        << "read only refuses writes, read and write takes them; a closed handle is zeroed";
    EXPECT_CALLS("2 1", PltOpenConfig(0, L"SOFTWARE\\ZendraTest\\missing", 0, &h), h == nullptr);
}

TEST(Config, TypedValuesTheirRestrictionsAndDefaults) {
    Scratch s;
    const wchar_t text[] = L"Velmora", multi[] = L"one\0two\0";
    const uint8_t four[4] = {1, 2, 3, 4}, eight[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_CALLS("0 0 0 0 0 0 0", PltSetConfigKeyStr(s.key, nullptr, L"s", sizeof text, text),
                 PltSetConfigKeyMultiStr(s.key, nullptr, L"m", sizeof multi, multi),
                 PltSetConfigKeyBin(s.key, L"b\\c", L"four", 4, four),
                 PltSetConfigKeyBin(s.key, L"b\\c", L"eight", 8, eight),
                 PltSetConfigKeyUINT(s.key, nullptr, L"u", 0xDEADBEEF),
                 PltSetConfigKeyUINT64(s.key, nullptr, L"q", 0x123456789ABCDEF0ull),
                 PltSetConfigKeyStr(s.key, nullptr, L"short", 4, text));
    wchar_t buffer[16] = {};
    uint8_t bytes[16] = {};
    uint32_t u = 0;
    uint64_t q = 0;
    EXPECT_CALLS("0 1 0 1 0 1", PltGetConfigKeyStr(s.key, nullptr, L"s", sizeof buffer, buffer),
                 wcscmp(buffer, text) == 0,
                 PltGetConfigKeyMultiStr(s.key, nullptr, L"m", sizeof buffer, buffer),
                 memcmp(buffer, multi, sizeof multi) == 0,
                 PltGetConfigKeyBin(s.key, L"b\\c", L"eight", 16, bytes),
                 memcmp(bytes, eight, 8) == 0);
    EXPECT_CALLS("0 3735928559 0 1 0 67305985 0 7 0 1",
                 PltGetConfigKeyUINT(s.key, nullptr, L"u", &u, 7), u,
                 PltGetConfigKeyUINT64(s.key, nullptr, L"q", &q), q == 0x123456789ABCDEF0ull,
                 PltGetConfigKeyUINT(s.key, L"b\\c", L"four", &u, 7), u,
                 PltGetConfigKeyUINT(s.key, nullptr, L"s", &u, 7), u,
                 PltGetConfigKeyUINT64(s.key, L"b\\c", L"eight", &q), q == 0x0807060504030201ull)
        << "4- and 8-byte binary values pass as numbers; a mistyped value gives the default";
    EXPECT_CALLS("234 1630 2 2 0", PltGetConfigKeyStr(s.key, nullptr, L"s", 8, buffer),
                 PltGetConfigKeyStr(s.key, nullptr, L"u", sizeof buffer, buffer),
                 PltGetConfigKeyUINT64(s.key, nullptr, L"none", &q),
                 PltGetConfigKeyBin(s.key, L"x", L"y", 4, bytes),
                 PltGetConfigKeyUINT(s.key, nullptr, L"none", &u, 9) + u - 9);
    EXPECT_CALLS("6 0 2 0 0 2", PltDeleteConfigVariable(s.key, nullptr, L"s"),
                 PltDeleteConfigVariable(s.key, L"b\\c", L"four"),
                 PltGetConfigKeyBin(s.key, L"b\\c", L"four", 4, bytes),
                 PltCreateConfigKey(s.key, L"b\\c\\d\\e"), PltDeleteConfigKey(s.key, nullptr),
                 PltGetConfigKeyUINT64(s.key, nullptr, L"q", &q))
        << "a null subkey is refused for a value and empties the handle's own key";
}

TEST(Config, ArgumentCodesAndTheJoinedPath) {
    HKEY h = nullptr;
    wchar_t buffer[4];
    EXPECT_CALLS("6 6 6 6 6 6 6 6 6 6 6 6 6 6 6", PltOpenConfig(0, nullptr, 0, nullptr),
                 PltCreateConfigKey(nullptr, L"x"), PltCreateConfigKey(HKEY_CURRENT_USER, nullptr),
                 PltGetConfigKeyStr(nullptr, nullptr, L"v", 4, buffer),
                 PltGetConfigKeyStr(HKEY_CURRENT_USER, nullptr, nullptr, 4, buffer),
                 PltGetConfigKeyMultiStr(HKEY_CURRENT_USER, nullptr, L"v", 4, nullptr),
                 PltSetConfigKeyBin(HKEY_CURRENT_USER, nullptr, L"v", 4, nullptr),
                 PltGetConfigKeyUINT(HKEY_CURRENT_USER, nullptr, L"v", nullptr, 0),
                 PltSetConfigKeyUINT(nullptr, nullptr, L"v", 0),
                 PltGetConfigKeyUINT64(HKEY_CURRENT_USER, nullptr, L"v", nullptr),
                 PltSetConfigKeyUINT64(HKEY_CURRENT_USER, nullptr, nullptr, 0),
                 PltDeleteConfigVariable(HKEY_CURRENT_USER, L"x", nullptr),
                 PltDeleteConfigKey(nullptr, nullptr), PltCloseConfig(nullptr),
                 PltCreateOpenConfigKey(nullptr, L"SOFTWARE", L"x", 0));
    std::wstring deep(260 - 10, L'k');  // "SOFTWARE" + "\" + subkey + terminator
    EXPECT_CALLS("87 87 87 0 1", PltCreateOpenConfigKey(&h, nullptr, L"x", 0),
                 PltCreateOpenConfigKey(&h, L"SOFTWARE", nullptr, 0),
                 PltCreateOpenConfigKey(&h, L"SOFTWARE", (deep + L"x").c_str(), 0),
                 PltCreateOpenConfigKey(&h, L"SOFTWARE", L"ZendraTest\\b\\c", 1), h != nullptr)
        << "a joined path beyond 259 characters is refused; missing keys on the path are made";
    EXPECT_CALLS("0 0 0", PltCloseConfig(&h),
                 PltOpenConfig(0, L"SOFTWARE\\ZendraTest\\b\\c", 1, &h), PltCloseConfig(&h));
    EXPECT_EQ(PltDeleteConfigKey(HKEY_LOCAL_MACHINE, kScratch), 0u);
}

}  // namespace
