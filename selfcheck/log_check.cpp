// TestSystemLog: the logging exports, which this build does not implement,
// so the routine reports each of them and returns 1.
#include "selfcheck/report.h"

namespace {

using Logger = PLT_STATUS (*)(const wchar_t*, ...);

}  // namespace

using namespace zendra::selfcheck;

extern "C" uint32_t TestSystemLog(PLT_REPORT_BUFFER* report) {
    // The logging exports share one body, reached through the export list.
    const char* loggers[] = {"PltLogDbg", "PltLogInfo", "PltLogWarning", "PltLogError",
                             "PltLogFatal"};
    uint32_t result = 0;
    for (const char* name : loggers) {
        PltInitEventLog();  // log level 2
        auto log = OwnExportAs<Logger>(name);
        PLT_STATUS s = log != nullptr ? log(L"Zendra self-check log line %d", 1)
                                      : static_cast<PLT_STATUS>(ERROR_PROC_NOT_FOUND);
        if (s != 0) result |= FailWithStatus(report, s);
    }
    // The log level cannot be set in this build.
    PltInitEventLog();
    result |= FailWithStatus(report, PLT_STATUS_NOT_IMPLEMENTED);
    PltInitEventLog();
    auto crashMe = OwnExportAs<PLT_STATUS (*)()>("PltCrashMe");
    if (crashMe == nullptr || crashMe() == 0)
        result |= Fail(report, L"The logging level should be greater than 0.");
    return result;
}
