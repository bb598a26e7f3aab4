// What the library adds to a call: each exported call is timed beside the
// raw hidapi exchange it makes (the same feature-report sends and reads, on
// the same virtual focuser), and heap allocations are counted per call.
//
// The move command pauses 200 ms after its report is sent. That pause is the
// focuser's, not the library's cost, so this program answers 200 ms sleeps
// at once (see nanosleep below); every other sleep is kept.
#include "ZOR_focuser.h"
#include "alloc_counter.h"
#include "sim/sim_control.h"

#include <benchmark/benchmark.h>
#include <hidapi.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

extern "C" __attribute__((visibility("default"))) int nanosleep(const struct timespec *request,
                                                          struct timespec *remaining)
{
    if (request && request->tv_sec == 0 && request->tv_nsec == 200000000L)
        return 0;
    return static_cast<int>(syscall(SYS_nanosleep, request, remaining));
}

namespace {

constexpr int kReportBytes = 64;
constexpr int kReplyBytes = 17;

struct Bench {
    int id = -1;
    int device = -1;
    hid_device *raw = nullptr; // a second handle on the same virtual focuser
};

Bench &bench()
{
    static Bench b = [] {
        Bench s;
        char home[] = "/tmp/zor-bench-home-XXXXXX";
        if (!mkdtemp(home) || setenv("HOME", home, 1) != 0)
            std::abort();
        zorsim::reset();
        zorsim::useManualClock(); // moves never end by themselves while timed
        s.device = zorsim::addDevices("pro@382");
        if (ZORGetNum() != 1 || ZORGetID(0, &s.id) != ZOR_SUCCESS || ZOROpen(s.id) != ZOR_SUCCESS)
            std::abort();
        s.raw = hid_open_path(zorsim::devicePath(s.device).c_str());
        if (!s.raw)
            std::abort();
        return s;
    }();
    return b;
}

// Allocations made by untimed work inside a measured loop.
uint64_t g_untimedAllocations = 0;

// Runs `call` once per iteration and reports allocations per call.
template <typename Call>
void measure(benchmark::State &state, Call &&call)
{
    bench();
    g_untimedAllocations = 0;
    const uint64_t before = zor_bench::allocationCount();
    for (auto _ : state)
        call(state);
    const double allocations =
        static_cast<double>(zor_bench::allocationCount() - before - g_untimedAllocations);
    state.counters["allocs_per_call"] = allocations / static_cast<double>(state.iterations());
}

void expectSuccess(benchmark::State &state, int result)
{
    if (result != ZOR_SUCCESS)
        state.SkipWithError(("call failed with " + std::to_string(result)).c_str());
}

void rawStatusExchange(benchmark::State &state)
{
    unsigned char out[kReportBytes] = {0x03, 0x7E, 0x5A, 0x02, 0x03};
    unsigned char in[kReplyBytes] = {0x01};
    if (hid_send_feature_report(bench().raw, out, sizeof out) < 0 ||
        hid_get_feature_report(bench().raw, in, sizeof in) < 0)
        state.SkipWithError("raw exchange failed");
}

void BM_RawStatusExchange(benchmark::State &state) { measure(state, rawStatusExchange); }

void BM_ZORGetPosition(benchmark::State &state)
{
    int step = 0;
    measure(state, [&](benchmark::State &s) { expectSuccess(s, ZORGetPosition(bench().id, &step)); });
}

void BM_ZORIsMoving(benchmark::State &state)
{
    bool moving = false, byDevice = false;
    measure(state, [&](benchmark::State &s) { expectSuccess(s, ZORIsMoving(bench().id, &moving, &byDevice)); });
}

void BM_ZORGetTemp(benchmark::State &state)
{
    float temp = 0;
    measure(state, [&](benchmark::State &s) { expectSuccess(s, ZORGetTemp(bench().id, &temp)); });
}

void BM_RawControlReport(benchmark::State &state)
{
    unsigned char out[kReportBytes] = {0x03, 0x7E, 0x5A, 0x03, 0x00, 0x00, 0x09, 0x00, 0x75, 0x30};
    measure(state, [&](benchmark::State &s) {
        if (hid_send_feature_report(bench().raw, out, sizeof out) < 0)
            s.SkipWithError("raw send failed");
    });
}

// Each move is followed, untimed, by a stop, so that the next move is not
// refused as a move in progress.
void BM_ZORMove(benchmark::State &state)
{
    int target = 20000;
    measure(state, [&](benchmark::State &s) {
        expectSuccess(s, ZORMove(bench().id, target));
        s.PauseTiming();
        const uint64_t before = zor_bench::allocationCount();
        ZORStop(bench().id);
        g_untimedAllocations += zor_bench::allocationCount() - before;
        target = target == 20000 ? 20100 : 20000;
        s.ResumeTiming();
    });
}

void BM_RawUpdateDataReport(benchmark::State &state)
{
    unsigned char out[kReportBytes] = {0x03, 0x7E, 0x5A, 0x10, 55};
    measure(state, [&](benchmark::State &s) {
        if (hid_send_feature_report(bench().raw, out, sizeof out) < 0)
            s.SkipWithError("raw send failed");
    });
}

void BM_ZORHidWriteUpdateFile(benchmark::State &state)
{
    ZOR_HID_FILE_BUF chunk{};
    chunk.Length = 55;
    std::memset(chunk.Data, 0xA5, 55);
    measure(state, [&](benchmark::State &s) { expectSuccess(s, ZORHidWriteUpdateFile(bench().id, chunk)); });
}

BENCHMARK(BM_RawStatusExchange);
BENCHMARK(BM_ZORGetPosition);
BENCHMARK(BM_ZORIsMoving);
BENCHMARK(BM_ZORGetTemp);
BENCHMARK(BM_RawControlReport);
BENCHMARK(BM_ZORMove);
BENCHMARK(BM_RawUpdateDataReport);
BENCHMARK(BM_ZORHidWriteUpdateFile);

struct Result {
    double nanoseconds;
    double allocations;
};

// Prints the usual console lines and keeps each result for the summary.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    SummaryReporter() : ConsoleReporter(OO_Tabular) {}

    void ReportRuns(const std::vector<Run> &runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            if (run.error_occurred || run.iterations == 0)
                continue;
            const auto allocs = run.counters.find("allocs_per_call");
            results[run.benchmark_name()] = {
                run.GetAdjustedRealTime() * 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit),
                allocs == run.counters.end() ? 0.0 : static_cast<double>(allocs->second)};
        }
    }

    void printSummary() const
    {
        static const std::pair<const char *, const char *> pairs[] = {
            {"BM_ZORGetPosition", "BM_RawStatusExchange"}, {"BM_ZORIsMoving", "BM_RawStatusExchange"},
            {"BM_ZORGetTemp", "BM_RawStatusExchange"},     {"BM_ZORMove", "BM_RawControlReport"},
            {"BM_ZORHidWriteUpdateFile", "BM_RawUpdateDataReport"},
        };
        std::printf("\n%-22s %12s %12s %7s %14s %16s\n", "call", "library ns", "raw ns", "ratio", "overhead ns",
                    "extra allocs/call");
        for (const auto &[library, raw] : pairs) {
            const auto l = results.find(library), r = results.find(raw);
            if (l == results.end() || r == results.end())
                continue;
            std::printf("%-22s %12.0f %12.0f %7.2f %14.0f %16.2f\n", library + 3, l->second.nanoseconds,
                        r->second.nanoseconds, l->second.nanoseconds / r->second.nanoseconds,
                        l->second.nanoseconds - r->second.nanoseconds,
                        l->second.allocations - r->second.allocations);
        }
    }

private:
    std::map<std::string, Result> results;
};

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    ZORHidStartUpdate(bench().id); // data reports are taken in update mode
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printSummary();
    benchmark::Shutdown();
    return 0;
}
