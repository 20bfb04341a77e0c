// Escaped hexadecimal text ("\xDE\xAD") to and from bytes.
#include <string.h>
#include <windows.h>

#include <gtest/gtest.h>
#include <zendra/text.h>

#include "guarded_buffer.h"

namespace {

TEST(StrHexToString, WritesBackslashXAndUpperCaseDigits) {
    const uint8_t bytes[] = {0xDE, 0xAD, 0xBE, 0xEF};
    wchar_t text[32];
    ASSERT_EQ(StrHexToString(bytes, 4, text, 32), 0u);
    EXPECT_STREQ(text, L"\\xDE\\xAD\\xBE\\xEF");

    const uint8_t edges[] = {0x00, 0x0F, 0xF0, 0x9A};
    ASSERT_EQ(StrHexToString(edges, 4, text, 32), 0u);
    EXPECT_STREQ(text, L"\\x00\\x0F\\xF0\\x9A");
}

TEST(StrHexToString, AsksForEightCharactersPerByte) {
    const uint8_t bytes[] = {0xDE, 0xAD, 0xBE, 0xEF};
    wchar_t text[32];
    wmemset(text, L'#', 32);
    EXPECT_EQ(StrHexToString(bytes, 4, text, 31), 87u);
    EXPECT_EQ(text[0], L'#') << "nothing written on refusal";
    // 17 characters are used of the 32 asked for; the guard shows nothing
    // more is written.
    zt::GuardedBuffer guarded(17 * sizeof(wchar_t));
    EXPECT_EQ(StrHexToString(bytes, 4, guarded.as<wchar_t>(), 32), 0u);
    EXPECT_STREQ(guarded.as<wchar_t>(), L"\\xDE\\xAD\\xBE\\xEF");
}

TEST(StrHexToString, ZeroBytesGiveAnEmptyText) {
    const uint8_t byte = 0x12;
    wchar_t text[4] = {L'#', L'#', L'#', L'#'};
    EXPECT_EQ(StrHexToString(&byte, 0, text, 4), 0u);
    EXPECT_STREQ(text, L"");
    // A buffer of no characters cannot take even the terminator.
    zt::GuardedBuffer none(0);
    EXPECT_EQ(StrHexToString(&byte, 0, none.as<wchar_t>(), 0), 87u);
}

TEST(StrHexToString, NullArgumentsAndHugeCounts) {
    const uint8_t byte = 0x12;
    wchar_t text[16];
    EXPECT_EQ(StrHexToString(nullptr, 1, text, 16), 87u);
    EXPECT_EQ(StrHexToString(&byte, 1, nullptr, 16), 87u);
    // 0x20000000 x 8 wraps to 0 in 32 bits; the check must not.
    EXPECT_EQ(StrHexToString(&byte, 0x20000000u, text, 16), 87u);
}

TEST(StrStringToHex, ParsesUpperAndLowerCaseDigits) {
    uint8_t bytes[4] = {};
    ASSERT_EQ(StrStringToHex(L"\\xFE\\xED\\xbe\\xef", 16, bytes, 4), 0u);
    const uint8_t expected[] = {0xFE, 0xED, 0xBE, 0xEF};
    EXPECT_EQ(memcmp(bytes, expected, 4), 0);
}

TEST(StrStringToHex, RoundTripsTheSelfCheckValues) {
    const wchar_t* values[] = {L"\\xFE\\xED\\xf0\\x0d", L"\\xFE\\xED\\xbe\\xef",
                               L"\\xB1\\x00\\x0d\\xed", L"\\xDE\\xAD\\xbe\\xef",
                               L"\\xC0\\xFF\\xee\\xee", L"\\xDE\\xEE\\xec\\xaf",
                               L"\\xC0\\xD1\\xf1\\xed"};
    for (const wchar_t* value : values) {
        uint8_t bytes[4];
        ASSERT_EQ(StrStringToHex(value, 16, bytes, 4), 0u);
        wchar_t back[32];
        ASSERT_EQ(StrHexToString(bytes, 4, back, 32), 0u);
        EXPECT_EQ(_wcsicmp(back, value), 0) << std::wstring(back);
    }
}

TEST(StrStringToHex, BadDigitGives13AndKeepsEarlierBytes) {
    uint8_t bytes[2] = {0x55, 0x55};
    EXPECT_EQ(StrStringToHex(L"\\xZZ", 4, bytes, 2), 13u);
    EXPECT_EQ(bytes[0], 0x55);
    EXPECT_EQ(StrStringToHex(L"\\x12\\x1G", 8, bytes, 2), 13u);
    EXPECT_EQ(bytes[0], 0x12);
    EXPECT_EQ(bytes[1], 0x55);
    // Below '0' wraps as an unsigned 16-bit value and fails too.
    EXPECT_EQ(StrStringToHex(L"\\x/0", 4, bytes, 2), 13u);
    EXPECT_EQ(StrStringToHex(L"\\x@0", 4, bytes, 2), 13u);
}

TEST(StrStringToHex, FirstTwoCharactersOfAGroupAreNotChecked) {
    uint8_t bytes[2] = {};
    ASSERT_EQ(StrStringToHex(L"ab12..3c", 8, bytes, 2), 0u);
    EXPECT_EQ(bytes[0], 0x12);
    EXPECT_EQ(bytes[1], 0x3C);
    // Everything below 'A' counts from '0': ':' to '?' read as 10 to 15.
    ASSERT_EQ(StrStringToHex(L"\\x:?", 4, bytes, 1), 0u);
    EXPECT_EQ(bytes[0], 0xAF);
}

TEST(StrStringToHex, ZeroLengthWritesNothing) {
    uint8_t byte = 0x77;
    EXPECT_EQ(StrStringToHex(L"\\xAB", 0, &byte, 1), 0u);
    EXPECT_EQ(byte, 0x77);
    EXPECT_EQ(StrStringToHex(L"", 0, &byte, 0), 0u);
}

TEST(StrStringToHex, SizeChecks) {
    uint8_t bytes[8];
    EXPECT_EQ(StrStringToHex(nullptr, 4, bytes, 8), 87u);
    EXPECT_EQ(StrStringToHex(L"\\xAB", 4, nullptr, 8), 87u);
    // length / 8 above the out size.
    EXPECT_EQ(StrStringToHex(L"\\xAB\\xCD\\xEF\\x01", 16, bytes, 1), 87u);
}

TEST(StrStringToHex, RefusesInputThatWouldWritePastTheOutput) {
    // 16 characters are 4 bytes: a guarded buffer of 4 takes them, of 3
    // (which length / 8 allows) it refuses before writing.
    zt::GuardedBuffer four(4);
    ASSERT_EQ(StrStringToHex(L"\\x01\\x02\\x03\\x04", 16, four.as<uint8_t>(), 4), 0u);
    EXPECT_EQ(four.as<uint8_t>()[3], 0x04);
    zt::GuardedBuffer three(3);
    memset(three.data(), 0xEE, 3);
    EXPECT_EQ(StrStringToHex(L"\\x01\\x02\\x03\\x04", 16, three.as<uint8_t>(), 3), 87u);
    EXPECT_EQ(three.as<uint8_t>()[0], 0xEE);
    // A partial trailing group needs its own byte too.
    EXPECT_EQ(StrStringToHex(L"\\x01\\x02\\x03\\x04\\x", 17, four.as<uint8_t>(), 4), 87u);
}

TEST(StrStringToHex, TrailingPartialGroupIsReadAsWhole) {
    uint8_t bytes[2] = {};
    // Length 6 ends inside the second group; its digits are read all the
    // same from the text that follows.
    ASSERT_EQ(StrStringToHex(L"\\xAB\\xCD", 6, bytes, 2), 0u);
    EXPECT_EQ(bytes[0], 0xAB);
    EXPECT_EQ(bytes[1], 0xCD);
    // Where the text ends inside the group, its terminator is no digit.
    EXPECT_EQ(StrStringToHex(L"\\xAB\\xC", 7, bytes, 2), 13u);
}

TEST(StrStringToHex, PartialGroupNeverReadsPastTheTerminator) {
    // "\xAB\" and its terminator end at a no-access page: the partial group
    // at 4 would read characters 6 and 7, past the terminator at 5.
    const wchar_t text[] = L"\\xAB\\";
    zt::GuardedBuffer guarded(sizeof text);
    memcpy(guarded.data(), text, sizeof text);
    uint8_t bytes[2] = {0, 0x55};
    EXPECT_EQ(StrStringToHex(guarded.as<wchar_t>(), 5, bytes, 2), 13u);
    EXPECT_EQ(bytes[0], 0xAB);
    EXPECT_EQ(bytes[1], 0x55);
}

}  // namespace
