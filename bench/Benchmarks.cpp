// vandrel benchmarks: simulation throughput against a plain-array reference, discrete
// event throughput, load and save times, and memory per block.
//
// Run them with bench/run.sh, which builds in Release and prints the summary table.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <memory>
#include <new>
#include <vector>

#include "LagsReference.h"
#include "SchemeGen.h"
#include "vandrel/vandrel.h"

// ---- Heap accounting for the memory benchmark: counts bytes while enabled.
namespace {
std::atomic<bool> gCounting{false};
std::atomic<long long> gBytes{0};
std::atomic<long long> gAllocations{0};
}  // namespace

// Kept out of line so that the compiler does not pair an inlined new with free().
[[gnu::noinline]] void* countedAlloc(std::size_t n) {
    if (gCounting.load(std::memory_order_relaxed)) {
        gBytes += static_cast<long long>(n);
        ++gAllocations;
    }
    return std::malloc(n ? n : 1);
}
[[gnu::noinline]] void countedFree(void* p) noexcept { std::free(p); }

void* operator new(std::size_t n) {
    if (void* p = countedAlloc(n)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t n) {
    if (void* p = countedAlloc(n)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { countedFree(p); }
void operator delete[](void* p) noexcept { countedFree(p); }
void operator delete(void* p, std::size_t) noexcept { countedFree(p); }
void operator delete[](void* p, std::size_t) noexcept { countedFree(p); }

namespace {

std::unique_ptr<wSimulationSystemScheme> loadLags(int n) {
    const std::string file = bench::writeTemp("vandrel-bench-lags-" + std::to_string(n) + ".lua", bench::lagsScheme(n, 1e-3));
    auto scheme = std::make_unique<wSimulationSystemScheme>();
    scheme->loadForRuntime(file);
    return scheme;
}

// N lags advanced by explicit Euler, one step per simulate call.
void BM_Lags(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    auto scheme = loadLags(n);
    std::unique_ptr<wSimulationSystem> system(scheme->instantiate());
    double t = 0;
    t += system->simulate(t);
    for (auto _ : state) {
        t += system->simulate(t);
    }
    benchmark::DoNotOptimize(system->getOutput<double>("x0"));
    const double steps = static_cast<double>(state.iterations());
    // Per step: N Sum updates and N integrator derivatives.
    state.counters["ns_per_block_eval"] =
        benchmark::Counter(steps * 2 * n, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["ns_per_state_step"] =
        benchmark::Counter(steps * n, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_Lags)->Arg(10)->Arg(100)->Arg(1000)->Arg(10000)->Arg(50000);

// The same arithmetic on plain arrays: e = u - x; x += H * e.
void BM_LagsReference(benchmark::State& state) {
    const auto n = static_cast<std::size_t>(state.range(0));
    std::vector<double> x(n, 0.0), e(n, 0.0);
    const double u = 1.0, H = 1e-3;
    for (auto _ : state) {
        bench::lagsReferenceStep(x.data(), e.data(), n, u, H);
        benchmark::ClobberMemory();
    }
    benchmark::DoNotOptimize(x.data());
    const double steps = static_cast<double>(state.iterations());
    state.counters["ns_per_block_eval"] =
        benchmark::Counter(steps * 2 * static_cast<double>(n), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["ns_per_state_step"] =
        benchmark::Counter(steps * static_cast<double>(n), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_LagsReference)->Arg(10)->Arg(100)->Arg(1000)->Arg(10000)->Arg(50000);

// 1000 discrete blocks with periods of 1 to 10 ms: events through the schedule.
void BM_Events(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const std::string file = bench::writeTemp("vandrel-bench-events.lua", bench::eventsScheme(n));
    wSimulationSystemScheme scheme;
    scheme.loadForRuntime(file);
    const double span = 0.1;  // s of scheme time per iteration
    long long events = 0;
    for (auto _ : state) {
        state.PauseTiming();
        std::unique_ptr<wSimulationSystem> system(scheme.instantiate());
        state.ResumeTiming();
        system->simulate(span);
        events += bench::eventsIn(n, span);
        state.PauseTiming();
        system.reset();
        state.ResumeTiming();
    }
    state.counters["events_per_s"] = benchmark::Counter(static_cast<double>(events), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Events)->Arg(1000)->Unit(benchmark::kMillisecond);

// Load for running plus instantiate; and save, for the lags scheme of N lags (2N+1 blocks).
void BM_LoadInstantiate(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const std::string file = bench::writeTemp("vandrel-bench-load-" + std::to_string(n) + ".lua", bench::lagsScheme(n, 1e-3));
    for (auto _ : state) {
        wSimulationSystemScheme scheme;
        scheme.loadForRuntime(file);
        std::unique_ptr<wSimulationSystem> system(scheme.instantiate());
        benchmark::DoNotOptimize(system.get());
    }
    state.counters["blocks"] = 2.0 * n + 1;
}
BENCHMARK(BM_LoadInstantiate)->Arg(1000)->Arg(5000)->Unit(benchmark::kMillisecond);

void BM_Save(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const std::string file = bench::writeTemp("vandrel-bench-save-" + std::to_string(n) + ".lua", bench::lagsScheme(n, 1e-3));
    wSimulationSystemScheme scheme;
    zo::vector<int> discarded;
    scheme.loadForEdit(file, discarded);
    const std::string out = bench::writeTemp("vandrel-bench-saved.lua", "");
    for (auto _ : state) scheme.save(out);
    state.counters["blocks"] = 2.0 * n + 1;
}
BENCHMARK(BM_Save)->Arg(1000)->Arg(5000)->Unit(benchmark::kMillisecond);

// Heap bytes of an instantiated system beyond its data area, per block.
void BM_Memory(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    auto scheme = loadLags(n);
    const double blocks = scheme->getBlocksCount();
    for (auto _ : state) {
        gBytes = 0;
        gAllocations = 0;
        gCounting = true;
        std::unique_ptr<wSimulationSystem> system(scheme->instantiate());
        gCounting = false;
        benchmark::DoNotOptimize(system.get());
    }
    // The data area comes from calloc, outside operator new: heap bytes here are the rest.
    state.counters["heap_bytes_per_block"] = static_cast<double>(gBytes.load()) / blocks;
    state.counters["allocations_per_block"] = static_cast<double>(gAllocations.load()) / blocks;
    state.counters["data_area_bytes"] = scheme->getMemorySize();
    state.counters["blocks"] = blocks;
}
BENCHMARK(BM_Memory)->Arg(1000)->Iterations(1)->Unit(benchmark::kMillisecond);

// The program given "--first-load FILE": loads FILE for running, instantiates it and
// prints the milliseconds that took. BM_FirstLoad runs it as a fresh process.
int firstLoad(const char* file) {
    const auto start = std::chrono::steady_clock::now();
    auto scheme = std::make_unique<wSimulationSystemScheme>();
    scheme->loadForRuntime(file);
    std::unique_ptr<wSimulationSystem> system(scheme->instantiate());
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
    benchmark::DoNotOptimize(system.get());
    std::printf("%.3f\n", took.count());
    return 0;
}

std::string gSelf;  // this program, for BM_FirstLoad

// Load + instantiate of a lags scheme of about range(0) blocks in a fresh process (no warm
// Lua state, no allocator pools, no page cache of the library beyond the file itself).
void BM_FirstLoad(benchmark::State& state) {
    const int blocks = static_cast<int>(state.range(0));
    const int n = blocks / 2;  // 2N + 1 blocks
    const std::string file =
        bench::writeTemp("vandrel-bench-first-" + std::to_string(n) + ".lua", bench::lagsScheme(n, 1e-3));
    const std::string command = "'" + gSelf + "' --first-load '" + file + "'";
    for (auto _ : state) {
        double ms = -1;
        if (FILE* p = popen(command.c_str(), "r")) {
            if (std::fscanf(p, "%lf", &ms) != 1) ms = -1;
            pclose(p);
        }
        if (ms < 0) {
            state.SkipWithError("the first-load process failed");
            break;
        }
        state.SetIterationTime(ms / 1000.0);
    }
    state.counters["blocks"] = 2.0 * n + 1;
}
BENCHMARK(BM_FirstLoad)->Arg(1000)->Arg(10000)->Arg(100000)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--first-load") == 0) return firstLoad(argv[2]);
    std::error_code error;
    gSelf = std::filesystem::read_symlink("/proc/self/exe", error).string();
    if (error) gSelf = argv[0];
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
