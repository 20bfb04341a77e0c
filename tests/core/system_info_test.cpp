// Page size, system error texts, the event-log word and the fixed-result
// exports.
#include <string.h>
#include <windows.h>

#include <string>

#include <gtest/gtest.h>
#include <zendra/platform.h>

#include "import_failure.h"

namespace {

TEST(PltGetMemoryPageSize, ReportsTheSystemPageSize) {
    uint32_t size = 0;
    ASSERT_EQ(PltGetMemoryPageSize(&size), 0u);
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    EXPECT_EQ(size, info.dwPageSize);
    EXPECT_EQ(PltGetMemoryPageSize(nullptr), 87u);
}

TEST(PltGetMemoryPageSize, Wow64QueryFailureLeaves4096) {
    ZT_FAIL_IMPORT(IsWow64Process, ERROR_ACCESS_DENIED);
    uint32_t size = 12345;
    EXPECT_EQ(PltGetMemoryPageSize(&size), static_cast<uint32_t>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(size, 4096u);
}

BOOL WINAPI ClaimWow64(HANDLE, PBOOL wow64) {
    *wow64 = TRUE;
    return TRUE;
}
void WINAPI NativeInfoWith64K(LPSYSTEM_INFO info) {
    memset(info, 0, sizeof *info);
    info->dwPageSize = 65536;
}

TEST(PltGetMemoryPageSize, UnderWow64AsksForTheNativeSystemInfo) {
    zt::ImportHook wow("IsWow64Process", reinterpret_cast<void*>(&ClaimWow64));
    zt::ImportHook native("GetNativeSystemInfo", reinterpret_cast<void*>(&NativeInfoWith64K));
    uint32_t size = 0;
    EXPECT_EQ(PltGetMemoryPageSize(&size), 0u);
    EXPECT_EQ(size, 65536u);
}

std::wstring SystemText(DWORD code) {
    wchar_t* text = nullptr;
    DWORD n = FormatMessageW(
        FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_ALLOCATE_BUFFER,
        nullptr, code, 1024, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    std::wstring s = n ? std::wstring(text, n) : std::wstring();
    LocalFree(text);
    return s;
}

TEST(PltGetSystemErrorMsg, LengthQueryThenTextInABufferOfLengthPlusOne) {
    for (uint32_t code : {2u, 5u, 87u, 120u, 1168u}) {
        uint32_t len = 0xDEAD;
        ASSERT_EQ(PltGetSystemErrorMsg(code, nullptr, &len), 0u) << code;
        std::wstring expected = SystemText(code);
        EXPECT_EQ(len, expected.size()) << code;
        ASSERT_GT(len, 0u);

        std::wstring buffer(len + 1, L'#');
        uint32_t capacity = len + 1;
        ASSERT_EQ(PltGetSystemErrorMsg(code, &buffer[0], &capacity), 0u) << code;
        EXPECT_EQ(std::wstring(buffer.c_str()), expected);
        EXPECT_EQ(capacity, len + 1) << "the buffer path does not update the length";
    }
}

TEST(PltGetSystemErrorMsg, LengthQueryWithoutLengthPointerSucceeds) {
    EXPECT_EQ(PltGetSystemErrorMsg(5, nullptr, nullptr), 0u);
}

TEST(PltGetSystemErrorMsg, UnknownCodeFailsWithTheSystemError) {
    const uint32_t unknown = 0x2000BEEF;
    uint32_t len = 77;
    EXPECT_EQ(PltGetSystemErrorMsg(unknown, nullptr, &len),
              static_cast<uint32_t>(ERROR_MR_MID_NOT_FOUND));
    EXPECT_EQ(len, 0u) << "the length is cleared before the lookup";
    wchar_t buffer[64];
    uint32_t capacity = 64;
    EXPECT_EQ(PltGetSystemErrorMsg(unknown, buffer, &capacity),
              static_cast<uint32_t>(ERROR_MR_MID_NOT_FOUND));
}

TEST(PltGetSystemErrorMsg, BufferWithoutLengthHasNoCapacity) {
    wchar_t buffer[256] = L"";
    EXPECT_NE(PltGetSystemErrorMsg(5, buffer, nullptr), 0u);
}

TEST(PltGetSystemErrorMsg, TooSmallBufferFails) {
    wchar_t buffer[4];
    uint32_t capacity = 4;
    EXPECT_EQ(PltGetSystemErrorMsg(5, buffer, &capacity),
              static_cast<uint32_t>(ERROR_INSUFFICIENT_BUFFER));
}

TEST(PltInitEventLog, ReturnsZero) {
    EXPECT_EQ(PltInitEventLog(), 0u);
    EXPECT_EQ(PltInitEventLog(), 0u);
}

TEST(FixedResults, DummyMultipliesByOneHundredIn32Bits) {
    EXPECT_EQ(Dummy(0), 0u);
    EXPECT_EQ(Dummy(3), 300u);
    EXPECT_EQ(Dummy(50000000u), 705032704u);  // 5000000000 mod 2^32
    EXPECT_EQ(Dummy(0xFFFFFFFFu), 0xFFFFFF9Cu);
}

TEST(FixedResults, SmartWriteCountersAreNotSupported) {
    EXPECT_EQ(PltGetSMARTAttribsWrites(), 50u);
}

TEST(FixedResults, NoOpsReturnZeroAndDoNotStopTheProcess) {
    EXPECT_EQ(PltBugCheck(), 0u);
    EXPECT_EQ(PltCrashMe(), 0u);
    EXPECT_EQ(GetPagePriority(), 0u);
    EXPECT_EQ(PltRaiseToSpinLockLevel(), 0u);
    EXPECT_EQ(PltLowerFromSpinLockLevel(), 0u);
    EXPECT_EQ(PltInitConfig(), 0u);
    EXPECT_EQ(PltCleanupConfig(), 0u);
    EXPECT_EQ(PltInitMemory(), 0u);
    EXPECT_EQ(PltGetLogLevel(), 0u);
}

TEST(FixedResults, LoggingAndAtaCommandsAreNotImplemented) {
    EXPECT_EQ(PltLogDbg(L"%d", 1), 120u);
    EXPECT_EQ(PltLogInfo(L"x"), 120u);
    EXPECT_EQ(PltLogWarning(L"x"), 120u);
    EXPECT_EQ(PltLogError(L"x"), 120u);
    EXPECT_EQ(PltLogFatal(L"x"), 120u);
    EXPECT_EQ(PltSetLogLevel(3), 120u);
    EXPECT_EQ(PltIssueATAIdentifyCmdEx(), 120u);
    EXPECT_EQ(PltIssueATAWriteUncorrectableExtCmd(), 120u);
}

}  // namespace
