// The library's own status codes. Everything else it returns is a
// GetLastError() value passed through unchanged.
#pragma once

#include <stdint.h>

namespace zendra {

constexpr uint32_t kOk = 0;
constexpr uint32_t kInvalidFunction = 1;  // a positioned transfer whose seek failed
constexpr uint32_t kInvalidHandle = 6;    // also: free before any allocation
constexpr uint32_t kNoMemory = 8;         // heap exhausted, or caller's space too small
constexpr uint32_t kInvalidData = 13;     // bad hexadecimal digit
constexpr uint32_t kNoMoreFiles = 18;     // an enumeration found nothing
constexpr uint32_t kBadLength = 24;       // a module name does not fit
constexpr uint32_t kNotSupported = 50;
constexpr uint32_t kInvalidParameter = 87;
constexpr uint32_t kBufferOverflow = 111;
constexpr uint32_t kNotImplemented = 120;
constexpr uint32_t kInvalidCharacters = 9;  // text the C runtime cannot convert
constexpr uint32_t kAlreadyExists = 183;
constexpr uint32_t kMoreData = 234;
constexpr uint32_t kIoPending = 997;
constexpr uint32_t kNotFound = 1168;
constexpr uint32_t kIndexOutOfRange = 1295;
constexpr uint32_t kDeviceRemoved = 1617;
constexpr uint32_t kPoolStopping = 0xFFFFFFFFu;
constexpr uint32_t kNoDirectory = 0x8004016Bu;  // a directory path without a separator

}  // namespace zendra
