// Kernels on shared cores: float32 Add and Exp over 16 Mi values, on 1 and 2
// threads, with the machine as it is ("quiet") and with one core taken by a
// spinning child process ("loaded").  Two drivers run the same vector bodies:
//   omp    64 Ki chunks handed out by an OpenMP dynamic loop (libgomp's
//          default waiting: its threads spin between and at the end of loops);
//   kernel the element-wise kernel itself (the module's own thread pool).
// The figure of merit is loaded-2-thread / quiet-1-thread.  Besides the mean
// time, each run reports the best and the median single call (counters
// best_ms, median_ms): other programs share the machine, and the best call is
// the least disturbed one.  With --benchmark_repetitions=N the _min rows give
// the best over the runs.
#include <benchmark/benchmark.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <random>
#include <thread>
#include <vector>

#include "runtime/runtime.hpp"
#include "vml/kernels.hpp"
#include "vml/simd.hpp"

extern char** environ;

namespace {

namespace simd = kix::vml::simd;
namespace k = kix::vml::kernels;

constexpr std::int64_t kN = std::int64_t(16) << 20;
constexpr std::int64_t kChunk = std::int64_t(1) << 16;

struct Data {
    std::vector<float> a, b, y;
    Data() : a(std::size_t(kN)), b(std::size_t(kN)), y(std::size_t(kN)) {
        std::mt19937 gen(42);
        std::uniform_real_distribution<float> u(-10.0f, 10.0f);
        for (float& v : a) v = u(gen);
        for (float& v : b) v = u(gen);
    }
};
Data& data() {
    static Data d;
    return d;
}

const simd::Table<float>& table() {
    switch (kix::isa_level()) {
        case kix::kIsaAVX512: return simd::kAvx512.f;
        case kix::kIsaAVX2: return simd::kAvx2.f;
        default: return simd::kSse2.f;
    }
}

// Another process that keeps one core busy for as long as it lives: a shell
// loop, started with posix_spawn so that the benchmark's pages are not shared
// copy-on-write with a forked child (which would make the first stores after
// the fork page faults).
class Spinner {
public:
    explicit Spinner(bool on) {
        if (!on) return;
        char sh[] = "sh", c[] = "-c", loop[] = "while :; do :; done";
        char* argv[] = {sh, c, loop, nullptr};
        // A session of its own, as a program started elsewhere would have (the
        // scheduler shares the processors fairly between sessions first).
        posix_spawnattr_t attr;
        posix_spawnattr_init(&attr);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSID);
        if (posix_spawnp(&pid_, "sh", nullptr, &attr, argv, environ) != 0) pid_ = -1;
        posix_spawnattr_destroy(&attr);
        // Let the scheduler see it before the clock starts.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ~Spinner() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    Spinner(const Spinner&) = delete;
    Spinner& operator=(const Spinner&) = delete;

private:
    pid_t pid_ = -1;
};

enum Op { kAddOp, kExpOp };
enum Driver { kOmp, kKernel };

void run_omp(Op op, Data& d) {
    const auto& t = table();
    const std::int64_t chunks = kN / kChunk;
    if (op == kAddOp) {
        const bool nt = k::memory_bound(simd::kAdd) && kN * 4 >= (std::int64_t(16) << 20);
#pragma omp parallel for schedule(dynamic)
        for (std::int64_t c = 0; c < chunks; ++c)
            t.binary[simd::kAdd](d.a.data() + c * kChunk, d.b.data() + c * kChunk, d.y.data() + c * kChunk,
                                 kChunk, nt);
    } else {
        const bool nt = k::memory_bound(simd::kExp) && kN * 4 >= (std::int64_t(16) << 20);
#pragma omp parallel for schedule(dynamic)
        for (std::int64_t c = 0; c < chunks; ++c)
            t.unary[simd::kExp](d.a.data() + c * kChunk, d.y.data() + c * kChunk, kChunk, nt);
    }
}

void run_kernel(Op op, Data& d) {
    if (op == kAddOp)
        k::Add(d.a.data(), d.b.data(), d.y.data(), kN);
    else
        k::Exp(d.a.data(), d.y.data(), kN);
}

// range(0): Op, range(1): Driver, range(2): threads, range(3): 1 = one core busy.
void BM_Shared(benchmark::State& state) {
    const Op op = Op(state.range(0));
    const Driver driver = Driver(state.range(1));
    kix::set_num_threads(int(state.range(2)));
    Data& d = data();
    // One call before the clock: threads started, pages touched.
    driver == kOmp ? run_omp(op, d) : run_kernel(op, d);
    Spinner load(state.range(3) != 0);
    std::vector<double> ms;
    for (auto _ : state) {
        const auto t0 = std::chrono::steady_clock::now();
        driver == kOmp ? run_omp(op, d) : run_kernel(op, d);
        benchmark::DoNotOptimize(d.y.data());
        ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
    }
    // Per call: the best (least disturbed by the machine's other work) and the median.
    std::sort(ms.begin(), ms.end());
    state.counters["best_ms"] = ms.front();
    state.counters["median_ms"] = ms[ms.size() / 2];
    state.SetLabel(std::string(op == kAddOp ? "Add" : "Exp") + (driver == kOmp ? " omp" : " kernel") +
                   (state.range(3) ? " loaded" : " quiet") + " " + kix::isa_name(kix::isa_level()));
}

void args(benchmark::internal::Benchmark* b) {
    for (int op : {kAddOp, kExpOp})
        for (int driver : {kOmp, kKernel}) {
            b->Args({op, driver, 1, 0});
            b->Args({op, driver, 2, 0});
            b->Args({op, driver, 2, 1});
        }
}

double min_of(const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); }

BENCHMARK(BM_Shared)
    ->Apply(args)
    ->ArgNames({"op", "driver", "threads", "loaded"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->ComputeStatistics("min", min_of);

}  // namespace

// Calls too short to hide a wake-up: Add over range(2) values, called back to
// back (range(0): Driver, range(1): threads).  The pool's workers sleep after
// a few microseconds without work, so each call wakes them again; OpenMP's
// keep spinning between calls.
void BM_Short(benchmark::State& state) {
    const Driver driver = Driver(state.range(0));
    kix::set_num_threads(int(state.range(1)));
    const std::int64_t n = state.range(2);
    Data& d = data();
    const auto& t = table();
    const std::int64_t chunks = n / kChunk;
    auto call = [&] {
        if (driver == kKernel) {
            k::Add(d.a.data(), d.b.data(), d.y.data(), n);
            return;
        }
#pragma omp parallel for schedule(dynamic)
        for (std::int64_t c = 0; c < chunks; ++c)
            t.binary[simd::kAdd](d.a.data() + c * kChunk, d.b.data() + c * kChunk, d.y.data() + c * kChunk,
                                 kChunk, false);
    };
    call();
    for (auto _ : state) {
        call();
        benchmark::DoNotOptimize(d.y.data());
    }
    state.SetLabel(std::string("Add ") + std::to_string(n >> 10) + " Ki" + (driver == kOmp ? " omp" : " kernel"));
}
BENCHMARK(BM_Short)
    ->ArgNames({"driver", "threads", "n"})
    ->ArgsProduct({{kOmp, kKernel}, {1, 2}, {std::int64_t(256) << 10, std::int64_t(1) << 20}})
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

// ------------------------------------------------------------------ table
// pool_bench --table[=ROUNDS]: the side-by-side table.  The machine's other
// work comes and goes, so the cases are measured interleaved: every round
// runs each quiet case, then starts the spinning process and runs each loaded
// case, a few calls each; a case's figure is the median (and the best) of its
// calls over all rounds.  OpenMP's threads spin for a while after each of its
// loops, so the kernel cases run first in a phase and each phase waits for
// that spinning to end before it starts.
namespace {

struct Case {
    Op op;
    Driver driver;
    int threads;
    bool loaded;
    std::vector<double> ms;
};

double load_average() {
    double l = -1;
    if (FILE* f = std::fopen("/proc/loadavg", "r")) {
        if (std::fscanf(f, "%lf", &l) != 1) l = -1;
        std::fclose(f);
    }
    return l;
}

std::string processor() {
    std::string name = "unknown processor";
    if (FILE* f = std::fopen("/proc/cpuinfo", "r")) {
        char line[512];
        while (std::fgets(line, sizeof line, f))
            if (std::strncmp(line, "model name", 10) == 0) {
                const char* v = std::strchr(line, ':');
                if (v) name = std::string(v + 2, std::strcspn(v + 2, "\n"));
                break;
            }
        std::fclose(f);
    }
    return name;
}

double quantile(std::vector<double> v, double q) {
    std::sort(v.begin(), v.end());
    return v[std::size_t(q * double(v.size() - 1) + 0.5)];
}

int table(int rounds) {
    constexpr int kCalls = 5;
    std::vector<Case> cases;
    for (bool loaded : {false, true})
        for (Driver driver : {kKernel, kOmp})
            for (Op op : {kAddOp, kExpOp})
                for (int threads : {1, 2})
                    if (!loaded || threads == 2) cases.push_back({op, driver, threads, loaded, {}});
    Data& d = data();
    const double load_before = load_average();
    for (int r = 0; r < rounds; ++r)
        for (bool loaded : {false, true}) {
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            Spinner spin(loaded);
            Driver last = kKernel;
            for (Case& c : cases) {
                if (c.loaded != loaded) continue;
                if (c.driver != last) std::this_thread::sleep_for(std::chrono::milliseconds(300));
                last = c.driver;
                kix::set_num_threads(c.threads);
                c.driver == kOmp ? run_omp(c.op, d) : run_kernel(c.op, d);
                for (int k = 0; k < kCalls; ++k) {
                    const auto t0 = std::chrono::steady_clock::now();
                    c.driver == kOmp ? run_omp(c.op, d) : run_kernel(c.op, d);
                    benchmark::DoNotOptimize(d.y.data());
                    c.ms.push_back(
                        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
                }
            }
        }
    const double load_after = load_average();
    std::printf("%s, %s bodies; %d rounds of %d calls per case; load average %.2f before, %.2f after\n\n",
                processor().c_str(), kix::isa_name(kix::isa_level()), rounds, kCalls, load_before, load_after);
    std::printf("| float32, 16 Mi | driver | quiet 1 thread | quiet 2 threads | loaded 2 threads | loaded 2 / quiet 1 |\n");
    std::printf("|---|---|---|---|---|---|\n");
    for (Op op : {kAddOp, kExpOp})
        for (Driver driver : {kOmp, kKernel}) {
            const std::vector<double>* m[3] = {};
            for (const Case& c : cases)
                if (c.op == op && c.driver == driver) m[c.loaded ? 2 : c.threads - 1] = &c.ms;
            auto cell = [](const std::vector<double>& v) {
                char s[64];
                std::snprintf(s, sizeof s, "%.1f ms (best %.1f)", quantile(v, 0.5), quantile(v, 0.0));
                return std::string(s);
            };
            std::printf("| %s | %s | %s | %s | %s | %.2f |\n", op == kAddOp ? "Add" : "Exp",
                        driver == kOmp ? "OpenMP, dynamic" : "module pool", cell(*m[0]).c_str(),
                        cell(*m[1]).c_str(), cell(*m[2]).c_str(), quantile(*m[2], 0.5) / quantile(*m[0], 0.5));
        }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        if (std::strncmp(argv[i], "--table", 7) == 0)
            return table(argv[i][7] == '=' ? std::max(1, std::atoi(argv[i] + 8)) : 10);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
