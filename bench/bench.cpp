#include "bench.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <thread>

namespace zb {

namespace {
bool g_full;
}  // namespace

bool Full() { return g_full; }

long Count(long quick, long full) { return g_full ? full : quick; }

std::vector<Suite>& Suites() {
    static std::vector<Suite> suites;
    return suites;
}

double NowNs() {
    static LARGE_INTEGER frequency = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return f;
    }();
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    return static_cast<double>(now.QuadPart) * 1e9 / static_cast<double>(frequency.QuadPart);
}

namespace {

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// Nanoseconds per iteration of one repetition; with several threads, the
// wall time of all of them over each thread's iteration count.
double TimeOnce(const Op& op, const Options& o) {
    if (o.threads <= 1) {
        double start = NowNs();
        op(o.iterations);
        return (NowNs() - start) / static_cast<double>(o.iterations);
    }
    std::vector<std::thread> threads;
    volatile LONG ready = 0;
    volatile LONG go = 0;
    for (int t = 0; t < o.threads; ++t) {
        threads.emplace_back([&] {
            InterlockedIncrement(&ready);
            while (!go) YieldProcessor();
            op(o.iterations);
        });
    }
    while (ready != o.threads) Sleep(0);
    double start = NowNs();
    go = 1;
    for (auto& t : threads) t.join();
    return (NowNs() - start) / static_cast<double>(o.iterations);
}

}  // namespace

double MedianNs(const Op& op, const Options& o) {
    std::vector<double> samples;
    op(std::max(1L, o.iterations / 10));  // warm-up
    for (int r = 0; r < o.repetitions; ++r) samples.push_back(TimeOnce(op, o));
    return Median(samples);
}

void Compare(const std::string& name, const Op& op, const std::string& baselineName,
             const Op& baseline, const Options& o) {
    std::vector<double> a, b;
    op(std::max(1L, o.iterations / 10));
    baseline(std::max(1L, o.iterations / 10));
    for (int r = 0; r < o.repetitions; ++r) {
        a.push_back(TimeOnce(op, o));
        b.push_back(TimeOnce(baseline, o));
    }
    double ma = Median(a), mb = Median(b);
    std::string label = name + (o.threads > 1 ? " [" + std::to_string(o.threads) + " thr]" : "");
    printf("%-52s %10.1f ns   %-34s %10.1f ns   %6.2fx\n", label.c_str(), ma, baselineName.c_str(),
           mb, mb > 0 ? ma / mb : 0.0);
    fflush(stdout);
}

void Report(const std::string& name, double value, const std::string& unit) {
    printf("%-52s %14.1f %s\n", name.c_str(), value, unit.c_str());
    fflush(stdout);
}

}  // namespace zb

// zendra_bench [--full] [suite...]: every suite when none is named.
int main(int argc, char** argv) {
    std::vector<const char*> names;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--full") == 0)
            zb::g_full = true;
        else
            names.push_back(argv[i]);
    }
    printf("%-52s %13s   %-34s %13s   %7s\n", "operation", "median", "Win32 counterpart", "median",
           "ratio");
    for (const zb::Suite& s : zb::Suites()) {
        bool selected = names.empty();
        for (const char* name : names) selected |= strcmp(name, s.name) == 0;
        if (!selected) continue;
        printf("-- %s\n", s.name);
        s.run();
    }
    return 0;
}
