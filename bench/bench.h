// A small side-by-side benchmark harness. Each row times an operation of the
// library and its Win32 counterpart in alternating repetitions of one run, so
// that machine noise hits both alike, and prints the medians and the ratio.
#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

namespace zb {

using Op = std::function<void(long iterations)>;

// Every suite runs a quick pass by default, about a minute in all; --full
// runs the full counts, whose figures are steadier.
bool Full();
// `quick` in a default run, `full` with --full.
long Count(long quick, long full);

struct Options {
    long iterations = 100000;  // per repetition and thread
    int repetitions = static_cast<int>(Count(5, 11));
    int threads = 1;  // each thread runs the whole op concurrently
};

// Median nanoseconds per iteration of `op`, alternated with `baseline`.
void Compare(const std::string& name, const Op& op, const std::string& baselineName,
             const Op& baseline, const Options& options = Options());

// A row without a counterpart (throughput, latency and the like).
void Report(const std::string& name, double value, const std::string& unit);

// Median nanoseconds per iteration of a single op.
double MedianNs(const Op& op, const Options& options = Options());

double NowNs();

struct Suite {
    const char* name;
    void (*run)();
};
std::vector<Suite>& Suites();
struct Register {
    Register(const char* name, void (*run)()) { Suites().push_back({name, run}); }
};

}  // namespace zb

#define ZB_SUITE(name)                                         \
    static void name##_run();                                  \
    static ::zb::Register name##_register(#name, &name##_run); \
    static void name##_run()
