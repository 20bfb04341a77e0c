// The export table: every listed name is exported, and names that share a
// body share one address.
#include <windows.h>

#include <map>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "import_hook.h"

namespace {

struct ExportEntry {
    const char* name;
    const char* target;  // empty: exported under its own name
};
const ExportEntry kExportList[] = {
#include "export_list.inc"
};

std::set<std::string> ExportedNames(HMODULE module) {
    std::set<std::string> names;
    auto* base = reinterpret_cast<const BYTE*>(module);
    auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(
        base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
    const auto& dir = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    auto* exp = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(base + dir.VirtualAddress);
    auto* rvas = reinterpret_cast<const DWORD*>(base + exp->AddressOfNames);
    for (DWORD i = 0; i < exp->NumberOfNames; ++i)
        names.insert(reinterpret_cast<const char*>(base + rvas[i]));
    return names;
}

TEST(Exports, ExactlyTheListedNamesAreExported) {
    HMODULE dll = zt::LibraryModule();
    ASSERT_NE(dll, nullptr);
    std::set<std::string> listed;
    for (const ExportEntry& e : kExportList) {
        listed.insert(e.name);
        EXPECT_NE(GetProcAddress(dll, e.name), nullptr) << e.name;
    }
    EXPECT_EQ(ExportedNames(dll), listed);
}

TEST(Exports, NamesOfOneBodyShareOneAddress) {
    HMODULE dll = zt::LibraryModule();
    std::map<std::string, FARPROC> byTarget;
    for (const ExportEntry& e : kExportList) {
        std::string body = *e.target ? e.target : e.name;
        FARPROC address = GetProcAddress(dll, e.name);
        auto [it, inserted] = byTarget.emplace(body, address);
        if (!inserted) {
            EXPECT_EQ(it->second, address) << e.name << " and its body " << body;
        }
    }
    // Distinct bodies have distinct addresses.
    std::set<FARPROC> addresses;
    for (auto& [body, address] : byTarget) addresses.insert(address);
    EXPECT_EQ(addresses.size(), byTarget.size());
}

TEST(Exports, OnlySystemDllsAreImported) {
    HMODULE dll = zt::LibraryModule();
    auto* base = reinterpret_cast<const BYTE*>(dll);
    auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(
        base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
    const auto& dir = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    const std::set<std::string> allowed = {"kernel32.dll", "advapi32.dll", "ws2_32.dll",
                                           "msvcrt.dll",   "user32.dll",   "shell32.dll",
                                           "ole32.dll"};
    for (auto* d = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + dir.VirtualAddress);
         d->Name != 0; ++d) {
        std::string name = reinterpret_cast<const char*>(base + d->Name);
        for (char& c : name) c = static_cast<char>(tolower(c));
        EXPECT_TRUE(allowed.count(name)) << "unexpected import of " << name;
    }
}

}  // namespace
