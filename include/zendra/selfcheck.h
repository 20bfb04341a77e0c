/* ZendraPlatform self-checks: routines that exercise the library's services
 * inside the caller's process and write what failed into the caller's report
 * buffer. C-compatible. */
#ifndef ZENDRA_SELFCHECK_H
#define ZENDRA_SELFCHECK_H

#include <zendra/platform.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The report buffer, in caller storage: the capacity of Text in UTF-16
 * characters, then zero-terminated text, empty or holding earlier reports.
 * The routines only append. Each piece is cut to Capacity - length - 4
 * characters, so the text stays inside the buffer; a Capacity below the
 * current length + 4 receives nothing at all. A failed check appends
 * " : Failed - ", its description (if any) and "\r\n". A null report runs
 * the checks and reports nothing. */
typedef struct PLT_REPORT_BUFFER {
    uint32_t Capacity;
    wchar_t Text[1]; /* Capacity characters */
} PLT_REPORT_BUFFER;

ZENDRA_LAYOUT(offsetof(PLT_REPORT_BUFFER, Text) == 4);

/* Locks, lists, memory and work items. Each returns 0 when every check
 * passed, else the OR of its failed sub-checks (1 each). TestWorkItemsEx
 * runs a pool of 1000 threads. */
ZENDRA_API uint32_t TestList(PLT_REPORT_BUFFER* report);
ZENDRA_API uint32_t TestLocks(PLT_REPORT_BUFFER* report);
ZENDRA_API uint32_t TestLookAsideList(PLT_REPORT_BUFFER* report);
ZENDRA_API uint32_t TestLookAsideListEx(PLT_REPORT_BUFFER* report);
ZENDRA_API uint32_t TestMemory(PLT_REPORT_BUFFER* report);
ZENDRA_API uint32_t TestWorkItems(PLT_REPORT_BUFFER* report);
ZENDRA_API uint32_t TestWorkItemsEx(PLT_REPORT_BUFFER* report);

/* The message bus and processes: 0 when every check passed, else
 * 0xFFFFFFFF. TestMessageBus runs 100 threads of 10000 rounds twice (minutes
 * under load); TestProcess takes over 20 seconds (fixed waits) and runs
 * "C:\Windows\System32\cmd.exe /c dir /s C:\Windows\System32", whose output
 * goes wherever the caller's console goes. Calls of one bus routine from
 * several threads run one after another. */
ZENDRA_API uint32_t TestMessageBus(PLT_REPORT_BUFFER* report);
ZENDRA_API uint32_t TestMessageBusEx(PLT_REPORT_BUFFER* report);
ZENDRA_API uint32_t TestProcess(PLT_REPORT_BUFFER* report);

/* Configuration, files, strings and SHA-1: as the first group. TestConfig
 * writes below HKEY_LOCAL_MACHINE\SOFTWARE\Velmora and deletes that whole
 * key afterwards; TestFileIO works in the current directory. */
ZENDRA_API uint32_t TestConfig(PLT_REPORT_BUFFER* report);
ZENDRA_API uint32_t TestFileIO(PLT_REPORT_BUFFER* report);
ZENDRA_API uint32_t TestStrings(PLT_REPORT_BUFFER* report);
ZENDRA_API uint32_t TestSHA1(PLT_REPORT_BUFFER* report);

/* Logging: returns 1 in this build, whose logging exports are not
 * implemented. */
ZENDRA_API uint32_t TestSystemLog(PLT_REPORT_BUFFER* report);
/* The machine: clocks, disks with their partitions, volumes, machine
 * information and identity, listed into the report as an inventory. 0 when
 * every check passed, else 1. A machine without fixed disks fails the disk
 * listing with the text of status 87. */
ZENDRA_API uint32_t TestSystem(PLT_REPORT_BUFFER* report);
/* Each fixed volume's partition length, allocation unit and physical disk.
 * 0 when every check passed, else 1. */
ZENDRA_API uint32_t TestVolume(PLT_REPORT_BUFFER* report);

#ifdef __cplusplus
}
#endif

#endif /* ZENDRA_SELFCHECK_H */
