// Child process for the process tests. Its command line holds words such as
// "sleep 8000" and "exit 7", in any order; it sleeps, then exits with the code.
#include <stdlib.h>
#include <wchar.h>
#include <windows.h>

static DWORD NumberAfter(const wchar_t* line, const wchar_t* word, DWORD fallback) {
    const wchar_t* at = wcsstr(line, word);
    return at != nullptr ? wcstoul(at + wcslen(word), nullptr, 10) : fallback;
}

int main() {
    const wchar_t* line = GetCommandLineW();
    Sleep(NumberAfter(line, L"sleep ", 0));
    return static_cast<int>(NumberAfter(line, L"exit ", 0));
}
