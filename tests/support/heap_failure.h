// Allocation-failure injection: the library's Nth HeapAlloc call fails.
#pragma once

#include <functional>

#include "import_hook.h"

namespace zt {

class HeapFailure {
public:
    // nth = 1 fails the first call from now on; nth = 0 fails every call.
    explicit HeapFailure(int nth);
    ~HeapFailure();
    int calls() const;    // HeapAlloc calls seen while installed
    bool failed() const;  // whether the chosen call was reached

private:
    ImportHook hook_;
};

// Runs `attempt` with the Nth library allocation failing, for N = 1, 2, ...
// until an attempt returns true (the operation succeeded without reaching the
// failing call) or `limit` attempts were made. Returns the number of
// failing runs.
int SweepAllocationFailures(const std::function<bool(int nth)>& attempt, int limit = 64);

}  // namespace zt
