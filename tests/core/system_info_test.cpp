// Page size, system error texts and the fixed-result exports.
#include <string.h>

#include <string>

#include "zt.h"

namespace {

BOOL WINAPI ClaimWow64(HANDLE, PBOOL wow64) { return *wow64 = TRUE; }
void WINAPI NativeInfoWith64K(LPSYSTEM_INFO info) { info->dwPageSize = 65536; }

TEST(PltGetMemoryPageSize, SystemPageSizeNativeUnderWow64And4096OnFailure) {
    uint32_t size = 0;
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    ASSERT_EQ(PltGetMemoryPageSize(&size), 0u);
    EXPECT_EQ(size, info.dwPageSize);
    EXPECT_EQ(PltGetMemoryPageSize(nullptr), 87u);
    {
        zt::ImportHook wow("IsWow64Process", reinterpret_cast<void*>(&ClaimWow64));
        zt::ImportHook native("GetNativeSystemInfo", reinterpret_cast<void*>(&NativeInfoWith64K));
        EXPECT_EQ(PltGetMemoryPageSize(&size), 0u);
        EXPECT_EQ(size, 65536u);
    }
    ZT_FAIL_IMPORT(IsWow64Process, ERROR_ACCESS_DENIED);
    EXPECT_EQ(PltGetMemoryPageSize(&size), static_cast<uint32_t>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(size, 4096u);
}

TEST(PltGetSystemErrorMsg, LengthQueryThenTextAndTheSystemsErrors) {
    for (uint32_t code : {2u, 87u, 1168u}) {
        wchar_t* text = nullptr;
        DWORD n = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS |
                                     FORMAT_MESSAGE_ALLOCATE_BUFFER,
                                 nullptr, code, 1024, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
        std::wstring expected(text, n);
        LocalFree(text);
        uint32_t len = 0xDEAD;
        ASSERT_EQ(PltGetSystemErrorMsg(code, nullptr, &len), 0u) << code;
        ASSERT_EQ(len, expected.size()) << code;
        std::wstring buffer(len + 1, L'#');
        uint32_t capacity = len + 1;
        ASSERT_EQ(PltGetSystemErrorMsg(code, &buffer[0], &capacity), 0u) << code;
        EXPECT_EQ(std::wstring(buffer.c_str()), expected);
        EXPECT_EQ(capacity, len + 1) << "the buffer path leaves the length alone";
    }
    EXPECT_EQ(PltGetSystemErrorMsg(5, nullptr, nullptr), 0u);
    const uint32_t unknown = 0x2000BEEF;
    uint32_t len = 77, capacity = 4;
    wchar_t buffer[64];
    EXPECT_EQ(PltGetSystemErrorMsg(unknown, nullptr, &len), (uint32_t)ERROR_MR_MID_NOT_FOUND);
    EXPECT_EQ(len, 0u) << "cleared before the lookup";
    EXPECT_EQ(PltGetSystemErrorMsg(unknown, buffer, &capacity), (uint32_t)ERROR_MR_MID_NOT_FOUND);
    EXPECT_EQ(PltGetSystemErrorMsg(5, buffer, &capacity), (uint32_t)ERROR_INSUFFICIENT_BUFFER);
    EXPECT_NE(PltGetSystemErrorMsg(5, buffer, nullptr), 0u) << "no length: no capacity";
}

TEST(FixedResults, NoOpsNotImplementedAndDummy) {
    uint32_t (*const zero[])() = {PltBugCheck,     PltCrashMe,    GetPagePriority,
                                  PltRaiseToSpinLockLevel,        PltLowerFromSpinLockLevel,
                                  PltInitConfig,   PltCleanupConfig, PltInitMemory,
                                  PltGetLogLevel,  PltInitEventLog};
    for (auto fn : zero) EXPECT_EQ(fn(), 0u);
    for (auto fn : {PltLogDbg, PltLogInfo, PltLogWarning, PltLogError, PltLogFatal})
        EXPECT_EQ(fn(L"%d", 1), 120u);
    EXPECT_EQ(PltSetLogLevel(3) + PltIssueATAIdentifyCmdEx() + PltIssueATAWriteUncorrectableExtCmd(),
              3 * 120u);
    EXPECT_EQ(PltGetSMARTAttribsWrites(), 50u);
    EXPECT_EQ(Dummy(3), 300u);
    EXPECT_EQ(Dummy(50000000u), 705032704u) << "5000000000 mod 2^32";
}

}  // namespace
