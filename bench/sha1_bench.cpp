// ShaGetHash throughput. The block function is chosen once per process, so
// the portable one is measured in a second run of this program with
// ZENDRA_SHA1_IMPL=portable, whose rows are copied into this table.
#include <cpuid.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include <zendra/text.h>

#include "bench.h"

namespace {

const char kImplVariable[] = "ZENDRA_SHA1_IMPL";

bool PortableForced() {
    char value[16];
    DWORD n = GetEnvironmentVariableA(kImplVariable, value, sizeof value);
    return n > 0 && n < sizeof value && _stricmp(value, "portable") == 0;
}

bool CpuHasSha() {
    unsigned eax, ebx, ecx, edx;
    return __get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) && (ebx & bit_SHA);
}

void MeasureActive() {
    const char* impl = PortableForced() || !CpuHasSha() ? "portable" : "SHA-NI";
    std::vector<uint8_t> data(1 << 20);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 131);
    for (uint32_t size : {64u, 1024u, 16384u, 1u << 20}) {
        zb::Options o;
        // 16 MiB (quick) or 64 MiB (--full) per repetition.
        o.iterations = std::max(1L, zb::Count(16L << 20, 64L << 20) / static_cast<long>(size));
        double ns = zb::MedianNs(
            [&](long n) {
                uint8_t digest[20];
                for (long i = 0; i < n; ++i) ShaGetHash(data.data(), size, digest);
            },
            o);
        std::string label =
            size >= 1024 ? std::to_string(size / 1024) + " KiB" : std::to_string(size) + " B";
        if (size == 1u << 20) label = "1 MiB";
        zb::Report("ShaGetHash " + label + " [" + impl + "]", size / ns * 1000.0, "MB/s");
    }
}

// Runs this program again on the sha1 suite with the portable block
// function forced, and passes its result rows through.
void MeasurePortableInChild() {
    wchar_t self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring commandLine =
        L"\"" + std::wstring(self) + L"\" sha1" + (zb::Full() ? L" --full" : L"");

    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    HANDLE readEnd, writeEnd;
    if (!CreatePipe(&readEnd, &writeEnd, &inherit, 0)) return;
    SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = writeEnd;
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION child;
    SetEnvironmentVariableA(kImplVariable, "portable");
    BOOL started = CreateProcessW(self, &commandLine[0], nullptr, nullptr, TRUE, 0, nullptr,
                                  nullptr, &startup, &child);
    SetEnvironmentVariableA(kImplVariable, nullptr);
    CloseHandle(writeEnd);
    if (!started) {
        CloseHandle(readEnd);
        printf("could not start the portable run (error %lu)\n", GetLastError());
        return;
    }
    std::string output;
    char chunk[4096];
    DWORD got;
    while (ReadFile(readEnd, chunk, sizeof chunk, &got, nullptr) && got > 0)
        output.append(chunk, got);
    WaitForSingleObject(child.hProcess, INFINITE);
    CloseHandle(child.hProcess);
    CloseHandle(child.hThread);
    CloseHandle(readEnd);
    size_t at = 0;
    while ((at = output.find("ShaGetHash", at)) != std::string::npos) {
        size_t end = output.find('\n', at);
        printf("%s\n", output.substr(at, end - at).c_str());
        at = end;
    }
    fflush(stdout);
}

}  // namespace

ZB_SUITE(sha1) {
    MeasureActive();
    if (!PortableForced()) MeasurePortableInChild();
}
