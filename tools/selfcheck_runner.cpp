// Self-check runner: loads ZendraPlatform.dll, runs its exported self-check
// routines (every export whose name starts with "Test") and reports.
//
//   zendra_selfcheck [--all | --only NAME] [path\to\ZendraPlatform.dll]
//   zendra_selfcheck --inventory [--json] [path\to\ZendraPlatform.dll]
//
// --inventory runs no routine: it prints what the library sees of the
// machine (its record, fixed volumes, disks and partitions).
//
// The default run leaves out the routines that take minutes (kRoutines marks
// them); --all runs every routine, --only one. Each report is printed under
// its routine's name, then a summary table and the resource counters before
// and after. Exit status 0 only when every routine gave its expected result.
//
// Under Wine, failures that come from what Wine lacks (disks, volumes) are
// listed as known deviations of this machine, sub-check by sub-check, the
// way Wine's own tests mark todo_wine: they are neither passes nor failures
// of the run. Anything else that fails still fails the run.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>
#include <windows.h>

#include <algorithm>
#include <string>
#include <vector>

#include <zendra/platform.h>

#include "inventory.h"

namespace {

// What each routine is expected to return, and whether the default run
// includes it.
struct Routine {
    const char* name;
    uint32_t expected;
    bool slow;         // minutes: only with --all or --only
    const char* note;  // why the expected result is not 0
};
const Routine kRoutines[] = {
    {"TestList", 0, false, nullptr},
    {"TestLocks", 0, false, nullptr},
    {"TestLookAsideList", 0, false, nullptr},
    {"TestLookAsideListEx", 0, false, nullptr},
    {"TestMemory", 0, false, nullptr},
    {"TestWorkItems", 0, false, nullptr},
    {"TestWorkItemsEx", 0, false, nullptr},  // a pool of 1000 threads: seconds
    {"TestMessageBus", 0, true, nullptr},    // 100 threads x 10000 rounds, twice
    {"TestMessageBusEx", 0, false, nullptr},
    {"TestProcess", 0, true, nullptr},  // fixed waits of 5, 10 and 6 seconds
    {"TestConfig", 0, false, nullptr},
    {"TestFileIO", 0, false, nullptr},
    {"TestStrings", 0, false, nullptr},
    {"TestSHA1", 0, false, nullptr},
    {"TestSystemLog", 1, false, "logging is not implemented in this build"},
    {"TestSystem", 0, false, nullptr},
    {"TestVolume", 0, false, nullptr},
};

// A failure that Wine gives because it lacks something a real machine has:
// the routine, the sub-check, and the report text between which its failure
// line lies.
struct WineDeviation {
    const char* routine;
    const char* subcheck;
    const wchar_t* from;
    const wchar_t* to;
};
const WineDeviation kWineDeviations[] = {
    {"TestSystem", "physical disks: Wine lists no disk, so the listing fails as 87",
     L"\nList of physical storage devices\n", L"\nList of volume storage devices\n"},
};

constexpr uint32_t kReportCapacity = 1u << 20;  // characters

using SelfCheck = uint32_t (*)(void* report);
using GetStats = PLT_STATUS (*)(PLT_RESOURCE_STATS*);

const Routine* Find(const std::string& name) {
    for (const Routine& r : kRoutines)
        if (name == r.name) return &r;
    return nullptr;
}

std::vector<std::string> ExportNames(HMODULE module) {
    std::vector<std::string> names;
    auto* base = reinterpret_cast<const BYTE*>(module);
    auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& dir =
        nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    if (dir.VirtualAddress == 0) return names;
    auto* exports = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(base + dir.VirtualAddress);
    auto* nameRvas = reinterpret_cast<const DWORD*>(base + exports->AddressOfNames);
    for (DWORD i = 0; i < exports->NumberOfNames; ++i)
        names.emplace_back(reinterpret_cast<const char*>(base + nameRvas[i]));
    return names;
}

const char* WineVersion() {
    HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    auto version = reinterpret_cast<const char* (*)()>(
        reinterpret_cast<void*>(GetProcAddress(ntdll, "wine_get_version")));
    return version != nullptr ? version() : nullptr;
}

std::wstring FileVersion(const wchar_t* path) {
    DWORD ignored = 0;
    DWORD size = GetFileVersionInfoSizeW(path, &ignored);
    if (size == 0) return L"unknown";
    std::vector<BYTE> data(size);
    if (!GetFileVersionInfoW(path, 0, size, data.data())) return L"unknown";
    VS_FIXEDFILEINFO* info = nullptr;
    UINT len = 0;
    if (!VerQueryValueW(data.data(), L"\\", reinterpret_cast<void**>(&info), &len) || !info)
        return L"unknown";
    wchar_t text[64];
    swprintf(text, 64, L"%u.%u.%u.%u", HIWORD(info->dwFileVersionMS), LOWORD(info->dwFileVersionMS),
             HIWORD(info->dwFileVersionLS), LOWORD(info->dwFileVersionLS));
    return text;
}

void PrintStats(const char* title, const PLT_RESOURCE_STATS& s) {
    printf("Resource counters %s (created / live):\n", title);
    printf("  allocations      %10u / %u (%llu / %llu bytes), untagged %u, tag mismatches %u\n",
           s.AllocCount, s.LiveAllocCount, (unsigned long long)s.AllocBytes,
           (unsigned long long)s.LiveAllocBytes, s.UntaggedAllocCount, s.TagMismatchCount);
    printf("  lookaside lists  %10u / %u\n", s.LookasideListCount, s.LiveLookasideListCount);
    printf("  rw spin locks    %10u / %u\n", s.RwSpinLockCount, s.LiveRwSpinLockCount);
    printf("  rw locks         %10u / %u\n", s.RwLockCount, s.LiveRwLockCount);
    printf("  fast locks       %10u / %u\n", s.FastLockCount, s.LiveFastLockCount);
    printf("  events           %10u / %u\n", s.EventCount, s.LiveEventCount);
    printf("  mutexes          %10u / %u\n", s.MutexCount, s.LiveMutexCount);
    printf("  critical sections%10u / %u\n", s.CriticalSectionCount, s.LiveCriticalSectionCount);
    printf("  files            %10u / %u\n", s.FileCount, s.LiveFileCount);
    printf("  threads          %10u / %u\n", s.ThreadCount, s.LiveThreadCount);
    printf("  processes        %10u / %u\n", s.ProcessCount, s.LiveProcessCount);
}

// The report's text in the console's narrow encoding, line by line, so that
// a long report is not cut by one huge write.
void PrintReport(const wchar_t* text) {
    const wchar_t* line = text;
    while (*line != L'\0') {
        const wchar_t* end = wcschr(line, L'\n');
        size_t length = end != nullptr ? size_t(end - line) + 1 : wcslen(line);
        printf("%.*ls", static_cast<int>(length), line);
        line += length;
    }
    if (line != text && line[-1] != L'\n') printf("\n");
}

enum class Verdict { Ok, Unexpected, KnownDeviation };

struct Outcome {
    std::string name;
    uint32_t result = 0, expected = 0;
    DWORD ms = 0;
    Verdict verdict = Verdict::Ok;
};

// Under Wine, a routine that failed only in sub-checks Wine cannot pass is a
// known deviation: every failure line of its report must lie in one of them.
bool OnlyKnownDeviations(const std::string& name, const wchar_t* text,
                         std::vector<const WineDeviation*>* seen) {
    size_t failures = 0, known = 0;
    for (const wchar_t* at = text; (at = wcsstr(at, L" : Failed - ")) != nullptr; ++at) {
        ++failures;
        for (const WineDeviation& d : kWineDeviations) {
            const wchar_t* from = name == d.routine ? wcsstr(text, d.from) : nullptr;
            const wchar_t* to = from != nullptr ? wcsstr(from, d.to) : nullptr;
            if (from == nullptr || at < from || (to != nullptr && at > to)) continue;
            ++known;
            if (std::find(seen->begin(), seen->end(), &d) == seen->end()) seen->push_back(&d);
            break;
        }
    }
    return failures > 0 && known == failures;
}

void Usage() {
    fprintf(stderr,
            "usage: zendra_selfcheck [--all | --only NAME] [ZendraPlatform.dll]\n"
            "       zendra_selfcheck --inventory [--json] [ZendraPlatform.dll]\n");
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    const wchar_t* path = L"ZendraPlatform.dll";
    bool all = false, inventory = false, json = false;
    std::string only;
    for (int i = 1; i < argc; ++i) {
        if (wcscmp(argv[i], L"--all") == 0) {
            all = true;
        } else if (wcscmp(argv[i], L"--inventory") == 0) {
            inventory = true;
        } else if (wcscmp(argv[i], L"--json") == 0) {
            json = true;
        } else if (wcscmp(argv[i], L"--only") == 0 && i + 1 < argc) {
            char name[128];
            snprintf(name, sizeof name, "%ls", argv[++i]);
            only = name;
        } else if (argv[i][0] == L'-') {
            Usage();
            return 2;
        } else {
            path = argv[i];
        }
    }

    HMODULE dll = LoadLibraryW(path);
    if (dll == nullptr) {
        fprintf(stderr, "cannot load %ls: error %lu\n", path, GetLastError());
        return 2;
    }
    if (json && !inventory) {
        Usage();
        return 2;
    }
    if (inventory) {
        zendra::inventory::Api api{};
        if (!zendra::inventory::Resolve(dll, &api)) {
            fprintf(stderr, "%ls lacks the storage exports\n", path);
            return 2;
        }
        std::string text = zendra::inventory::Describe(api, json);
        fwrite(text.data(), 1, text.size(), stdout);
        return 0;
    }
    wchar_t fullPath[MAX_PATH];
    GetModuleFileNameW(dll, fullPath, MAX_PATH);
    std::vector<std::string> names = ExportNames(dll);
    const char* wine = WineVersion();
    printf("ZendraPlatform %ls (%ls), %zu exports%s%s\n", FileVersion(fullPath).c_str(), fullPath,
           names.size(), wine != nullptr ? ", under Wine " : "", wine != nullptr ? wine : "");

    // Every listed routine the DLL should export, then any other Test export.
    std::vector<std::string> order;
    for (const Routine& r : kRoutines) order.push_back(r.name);
    for (const std::string& n : names)
        if (n.compare(0, 4, "Test") == 0 && Find(n) == nullptr) order.push_back(n);
    if (!only.empty() && std::find(order.begin(), order.end(), only) == order.end()) {
        fprintf(stderr, "no self-check routine named %s\n", only.c_str());
        return 2;
    }

    auto getStats = reinterpret_cast<GetStats>(
        reinterpret_cast<void*>(GetProcAddress(dll, "PltGetResourceStats")));
    PLT_RESOURCE_STATS before{}, after{};
    if (getStats != nullptr) getStats(&before);

    std::vector<wchar_t> storage(kReportCapacity + 2);
    std::vector<Outcome> outcomes;
    std::vector<const WineDeviation*> deviations;
    std::vector<std::string> skipped;
    for (const std::string& name : order) {
        const Routine* known = Find(name);
        if (!only.empty() ? name != only : !all && known != nullptr && known->slow) {
            if (only.empty()) skipped.push_back(name);
            continue;
        }
        Outcome o;
        o.name = name;
        o.expected = known != nullptr ? known->expected : 0;
        auto routine =
            reinterpret_cast<SelfCheck>(reinterpret_cast<void*>(GetProcAddress(dll, name.c_str())));
        printf("== %s\n", name.c_str());
        if (routine == nullptr) {
            printf("-- %s is not exported by this DLL: UNEXPECTED\n", name.c_str());
            o.verdict = Verdict::Unexpected;
            o.result = 0xFFFFFFFF;
            outcomes.push_back(o);
            continue;
        }
        fflush(stdout);
        // Report buffer: u32 capacity in characters, then the text.
        auto* capacity = reinterpret_cast<uint32_t*>(storage.data());
        *capacity = kReportCapacity;
        wchar_t* text = storage.data() + 2;
        text[0] = L'\0';
        // Children the routines start (TestProcess runs a directory listing)
        // write to the standard handles; their output is not the report.
        HANDLE out = GetStdHandle(STD_OUTPUT_HANDLE), err = GetStdHandle(STD_ERROR_HANDLE);
        HANDLE nul = CreateFileW(L"NUL", GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                 OPEN_EXISTING, 0, nullptr);
        if (nul != INVALID_HANDLE_VALUE) {
            SetStdHandle(STD_OUTPUT_HANDLE, nul);
            SetStdHandle(STD_ERROR_HANDLE, nul);
        }
        DWORD start = GetTickCount();
        o.result = routine(capacity);
        o.ms = GetTickCount() - start;
        if (nul != INVALID_HANDLE_VALUE) {
            SetStdHandle(STD_OUTPUT_HANDLE, out);
            SetStdHandle(STD_ERROR_HANDLE, err);
            CloseHandle(nul);
        }
        PrintReport(text);
        if (o.result != o.expected) {
            o.verdict = wine != nullptr && OnlyKnownDeviations(name, text, &deviations)
                            ? Verdict::KnownDeviation
                            : Verdict::Unexpected;
        }
        printf("-- %s returned %u (expected %u%s%s) in %lu ms: %s\n", name.c_str(), o.result,
               o.expected, known != nullptr && known->note != nullptr ? ": " : "",
               known != nullptr && known->note != nullptr ? known->note : "", o.ms,
               o.verdict == Verdict::Ok               ? "OK"
               : o.verdict == Verdict::KnownDeviation ? "known Wine deviation"
                                                      : "UNEXPECTED");
        fflush(stdout);
        outcomes.push_back(o);
    }
    if (getStats != nullptr) getStats(&after);

    printf("\n%-22s %10s %10s %10s  %s\n", "routine", "result", "expected", "time (ms)", "verdict");
    unsigned ok = 0, unexpected = 0, deviating = 0;
    for (const Outcome& o : outcomes) {
        const char* verdict = o.verdict == Verdict::Ok               ? "ok"
                              : o.verdict == Verdict::KnownDeviation ? "todo_wine"
                                                                     : "UNEXPECTED";
        printf("%-22s %10u %10u %10lu  %s\n", o.name.c_str(), o.result, o.expected, o.ms, verdict);
        o.verdict == Verdict::Ok           ? ++ok
        : o.verdict == Verdict::Unexpected ? ++unexpected
                                           : ++deviating;
    }
    for (const WineDeviation* d : deviations)
        printf("known Wine deviation (todo_wine): %s: %s\n", d->routine, d->subcheck);
    if (!skipped.empty()) {
        printf("not run without --all:");
        for (const std::string& s : skipped) printf(" %s", s.c_str());
        printf("\n");
    }
    if (getStats != nullptr) {
        PrintStats("before", before);
        PrintStats("after", after);
    }
    printf(
        "Summary: %zu self-check routine(s) run, %u as expected, %u known Wine deviation(s), "
        "%u unexpected\n",
        outcomes.size(), ok, deviating, unexpected);
    return unexpected == 0 ? 0 : 1;
}
