// The report buffer: bounded appends, failure lines and system messages.
#include "selfcheck/report.h"

#include <stdio.h>
#include <wchar.h>

namespace zendra::selfcheck {

void Append(PLT_REPORT_BUFFER* report, const wchar_t* text) {
    if (report == nullptr || text == nullptr) return;
    // Never look past the capacity for the terminator: a text that fills it
    // leaves no room and gets nothing.
    uint32_t length = static_cast<uint32_t>(wcsnlen(report->Text, report->Capacity));
    if (report->Capacity < length + 4u) return;  // the limit would wrap
    uint32_t room = report->Capacity - length - 4u;
    wchar_t* out = report->Text + length;
    uint32_t n = 0;
    while (n < room && text[n] != L'\0') {
        out[n] = text[n];
        ++n;
    }
    out[n] = L'\0';
}

void AppendFormatV(PLT_REPORT_BUFFER* report, size_t limit, const wchar_t* format, va_list args) {
    if (report == nullptr) return;
    wchar_t piece[kListingLimit + 1];
    if (limit > kListingLimit) limit = kListingLimit;
    // The runtime's formatting leaves a cut text unterminated.
    _vsnwprintf(piece, limit, format, args);
    piece[limit] = L'\0';
    Append(report, piece);
}

void AppendFormat(PLT_REPORT_BUFFER* report, size_t limit, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    AppendFormatV(report, limit, format, args);
    va_end(args);
}

void AppendLineFormat(PLT_REPORT_BUFFER* report, size_t limit, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    AppendFormatV(report, limit, format, args);
    va_end(args);
    Append(report, L"\r\n");
}

void AppendLine(PLT_REPORT_BUFFER* report, const wchar_t* text) {
    Append(report, text);
    Append(report, L"\r\n");
}

uint32_t Fail(PLT_REPORT_BUFFER* report, const wchar_t* description) {
    Append(report, L" : Failed - ");
    if (description != nullptr) Append(report, description);
    Append(report, L"\r\n");
    return 1;
}

void AppendSystemMessage(PLT_REPORT_BUFFER* report, uint32_t status) {
    if (report == nullptr) return;
    wchar_t text[kListingLimit + 1];
    DWORD n = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                             status, 1024, text, kListingLimit, nullptr);
    text[n < kListingLimit ? n : kListingLimit] = L'\0';
    Append(report, text);
    Append(report, L"\r\n");
}

uint32_t FailWithStatus(PLT_REPORT_BUFFER* report, uint32_t status, const wchar_t* description) {
    AppendSystemMessage(report, status);
    return Fail(report, description);
}

bool StartThread(CheckThread* thread, PLT_THREAD_ROUTINE routine, void* context) {
    thread->handle = nullptr;
    thread->id = 0;
    return PltCreateThread(routine, context, &thread->handle, &thread->id) == 0 &&
           thread->handle != nullptr;
}

bool JoinThread(CheckThread* thread, uint32_t timeoutMs) {
    if (thread->handle == nullptr) return false;
    uint32_t result = 0;
    bool ended =
        PltWaitForThread(thread->handle, timeoutMs, &result) == 0 && result == PLT_WAIT_SIGNALED;
    if (!ended) PltTerminateThread(thread->handle);
    PltCloseThread(thread->handle);
    thread->handle = nullptr;
    return ended;
}

void* OwnExport(const char* name) {
    HMODULE self = nullptr;
    if (!GetModuleHandleExW(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            reinterpret_cast<LPCWSTR>(&OwnExport), &self))
        return nullptr;
    return reinterpret_cast<void*>(GetProcAddress(self, name));
}

bool WaitForCount(const volatile uint32_t* value, uint32_t target, uint32_t timeoutMs) {
    ULONGLONG start = GetTickCount64();
    while (Load(value) < target) {
        if (GetTickCount64() - start > timeoutMs) return false;
        Sleep(1);
    }
    return true;
}

}  // namespace zendra::selfcheck
