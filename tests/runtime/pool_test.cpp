// The module's parallel loops: every index exactly once in chunks of the
// promised shape, loops inside loops, errors carried to the caller, the
// thread count, concurrent callers, FFTW's hook and a fork.
#include <gtest/gtest.h>

#include <fftw3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <complex>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "runtime/error.hpp"
#include "runtime/pool.hpp"
#include "runtime/runtime.hpp"

namespace {

// Restores the thread count a test changed.
struct Threads {
    explicit Threads(int n) : before(kix::num_threads()) { kix::set_num_threads(n); }
    ~Threads() { kix::set_num_threads(before); }
    int before;
};

using Clock = std::chrono::steady_clock;

// Waits (bounded, so that a fault shows as a failed check rather than a hang)
// until pred() holds; answers pred().
template <class P>
bool eventually(P pred, Clock::time_point end = Clock::now() + std::chrono::seconds(20)) {
    while (!pred() && std::chrono::steady_clock::now() < end) std::this_thread::yield();
    return pred();
}

// Runs a loop and checks it against the definition: chunk c is
// [c * grain, min((c + 1) * grain, n)), called once, and nothing else.
void check_cover(std::int64_t n, std::int64_t grain) {
    std::vector<std::atomic<int>> hits(static_cast<std::size_t>(std::max<std::int64_t>(n, 0)));
    std::atomic<int> bad{0};
    kix::parallel_for(n, grain, [&](std::int64_t b, std::int64_t e) {
        const std::int64_t g = std::max<std::int64_t>(grain, 1);
        if (b < 0 || e > n || b >= e || b % g != 0 || e != std::min(b + g, n)) ++bad;
        for (std::int64_t i = b; i < e && i < n && i >= 0; ++i) ++hits[std::size_t(i)];
    });
    EXPECT_EQ(bad.load(), 0) << "n " << n << " grain " << grain;
    std::int64_t wrong = 0;
    for (auto& h : hits) wrong += h.load() != 1;
    EXPECT_EQ(wrong, 0) << "n " << n << " grain " << grain;
}

TEST(Pool, EveryIndexOnceInWholeChunks) {
    for (int threads : {1, 2, 3, 4, 8}) {
        Threads t(threads);
        EXPECT_EQ(kix::num_threads(), threads);
        for (std::int64_t n : {0, 1, 2, 7, 63, 64, 65, 1000, 100003})
            for (std::int64_t grain : {std::int64_t(-1), std::int64_t(0), std::int64_t(1), std::int64_t(3),
                                       std::int64_t(64), std::int64_t(1000), n, n + 1})
                check_cover(n, grain);
    }
}

TEST(Pool, ReductionFollowsChunkOrderWhateverTheThreads) {
    // Terms of very different sizes: any other order of adding gives another sum.
    std::vector<double> x(200001);
    for (std::size_t i = 0; i < x.size(); ++i) x[i] = (i % 7 == 0 ? 1e16 : 1.0) * (i % 2 ? -1.0 : 1.0) + 0.1 * i;
    const std::int64_t n = std::int64_t(x.size()), grain = 1000;
    double expect = 0;
    for (std::int64_t b = 0; b < n; b += grain) {
        double part = 0;
        for (std::int64_t i = b; i < std::min(b + grain, n); ++i) part += x[std::size_t(i)];
        expect += part;
    }
    for (int threads : {1, 2, 4, 7}) {
        Threads t(threads);
        const double sum = kix::parallel_reduce(
            n, grain, 0.0,
            [&](std::int64_t b, std::int64_t e) {
                double part = 0;
                for (std::int64_t i = b; i < e; ++i) part += x[std::size_t(i)];
                return part;
            },
            [](double a, double b) { return a + b; });
        EXPECT_EQ(sum, expect) << threads << " threads";
    }
    EXPECT_EQ(kix::parallel_reduce(0, 5, 42, [](std::int64_t, std::int64_t) { return 1; }, std::plus<int>()), 42);
}

TEST(Pool, LoopsInsideLoopsRunOnTheirOwnThread) {
    Threads t(4);
    EXPECT_FALSE(kix::in_parallel());
    const std::int64_t rows = 64, cols = 3000;
    std::vector<std::atomic<int>> hits(std::size_t(rows * cols));
    std::atomic<int> strays{0}, outside{0};
    kix::parallel_for(rows, 1, [&](std::int64_t r0, std::int64_t r1) {
        if (!kix::in_parallel()) ++outside;
        const auto me = std::this_thread::get_id();
        for (std::int64_t r = r0; r < r1; ++r)
            kix::parallel_for(cols, 100, [&](std::int64_t c0, std::int64_t c1) {
                if (std::this_thread::get_id() != me) ++strays;
                for (std::int64_t c = c0; c < c1; ++c) ++hits[std::size_t(r * cols + c)];
            });
    });
    EXPECT_EQ(outside.load(), 0);
    EXPECT_EQ(strays.load(), 0);
    int wrong = 0;
    for (auto& h : hits) wrong += h.load() != 1;
    EXPECT_EQ(wrong, 0);
    EXPECT_FALSE(kix::in_parallel());
}

TEST(Pool, AnErrorReachesTheCallerAndThePoolGoesOn) {
    Threads t(2);
    // Thrown on the calling thread.
    const auto caller = std::this_thread::get_id();
    EXPECT_THROW(kix::parallel_for(1000, 1,
                                   [&](std::int64_t b, std::int64_t) {
                                       if (b == 0) kix::fail("Chunk zero failed.");
                                   }),
                 kix::Error);
    // Thrown on a worker: the caller's first chunk holds on until a worker
    // has thrown, so the error must come from there.
    std::atomic<bool> thrown{false};
    try {
        kix::parallel_for(1000, 1, [&](std::int64_t, std::int64_t) {
            if (std::this_thread::get_id() == caller) {
                eventually([&] { return thrown.load(); });
                return;
            }
            if (thrown.exchange(true)) return;
            throw kix::Error("Worker chunk failed.", "test");
        });
        ADD_FAILURE() << "no exception";
    } catch (const kix::Error& e) {
        EXPECT_STREQ(e.what(), "Worker chunk failed.");
    }
    EXPECT_TRUE(thrown.load());
    // Any exception, not only the module's own, and the pool still runs loops.
    EXPECT_THROW(kix::parallel_for(50, 1, [](std::int64_t, std::int64_t) { throw std::bad_alloc(); }),
                 std::bad_alloc);
    for (int threads : {2, 3}) {
        Threads u(threads);
        check_cover(54321, 17);
    }
}

// Distinct threads that run chunks of one loop whose chunks each wait until
// `want` threads have joined in or `seconds` have passed since the start.
std::size_t threads_seen(int want, int seconds = 20) {
    std::mutex m;
    std::set<std::thread::id> ids;
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    kix::parallel_for(64, 1, [&](std::int64_t, std::int64_t) {
        {
            std::lock_guard<std::mutex> lock(m);
            ids.insert(std::this_thread::get_id());
        }
        eventually([&] {
            std::lock_guard<std::mutex> lock(m);
            return ids.size() >= std::size_t(want);
        }, end);
    });
    return ids.size();
}

TEST(Pool, TheThreadCountTakesEffect) {
    {
        Threads t(3);
        EXPECT_EQ(threads_seen(3), 3u);
        kix::set_num_threads(1);
        EXPECT_EQ(kix::num_threads(), 1);
        EXPECT_EQ(threads_seen(2, 1), 1u);
        kix::set_num_threads(4);
        EXPECT_EQ(threads_seen(4), 4u);
        kix::set_num_threads(2);
        EXPECT_EQ(threads_seen(3, 1), 2u);
    }
    // The most a script can ask for (KIXSetNumThreads holds larger counts to
    // it): far more threads than cores still cover every index once.
    Threads t(kix::kMaxThreads);
    EXPECT_EQ(kix::num_threads(), kix::kMaxThreads);
    check_cover(1000003, 97);
}

TEST(Pool, ConcurrentCallersEachGetTheirWholeLoop) {
    Threads t(3);
    std::vector<std::thread> callers;
    std::atomic<int> failures{0};
    for (int k = 0; k < 4; ++k)
        callers.emplace_back([&, k] {
            for (int rep = 0; rep < 50; ++rep) {
                const std::int64_t n = 10007 + 13 * k + rep;
                std::vector<std::atomic<int>> hits(static_cast<std::size_t>(n));
                kix::parallel_for(n, 97, [&](std::int64_t b, std::int64_t e) {
                    for (std::int64_t i = b; i < e; ++i) ++hits[std::size_t(i)];
                });
                for (auto& h : hits) failures += h.load() != 1;
            }
        });
    for (auto& c : callers) c.join();
    EXPECT_EQ(failures.load(), 0);
}

TEST(Pool, FftwJobsEachRunOnce) {
    Threads t(3);
    struct Job {
        int index;
        int runs;
        double pad[3];  // elsize is the record's size, not a word
    };
    for (int njobs : {0, 1, 2, 5, 97}) {
        std::vector<Job> jobs(static_cast<std::size_t>(njobs));
        for (int i = 0; i < njobs; ++i) jobs[std::size_t(i)] = Job{i, 0, {}};
        kix::fftw_parallel_loop(
            [](char* p) -> void* {
                ++reinterpret_cast<Job*>(p)->runs;
                return nullptr;
            },
            reinterpret_cast<char*>(jobs.data()), sizeof(Job), njobs, nullptr);
        for (int i = 0; i < njobs; ++i) {
            EXPECT_EQ(jobs[std::size_t(i)].runs, 1) << i << " of " << njobs;
            EXPECT_EQ(jobs[std::size_t(i)].index, i);
        }
    }
}

// FFTW's threaded plans, given the pool as their parallel loop, compute what a
// one-thread plan computes, and the loop is really used.
std::atomic<int> gFftwLoops{0};
void counting_loop(void* (*work)(char*), char* jobdata, std::size_t elsize, int njobs, void* data) {
    ++gFftwLoops;
    kix::fftw_parallel_loop(work, jobdata, elsize, njobs, data);
}

TEST(Pool, FftwPlansOnThePoolAgreeWithOneThread) {
    Threads t(2);
    ASSERT_NE(fftw_init_threads(), 0);
    fftw_threads_set_callback(counting_loop, nullptr);
    const int n = 512;
    std::vector<std::complex<double>> in(std::size_t(n * n)), one(in.size()), two(in.size());
    for (std::size_t i = 0; i < in.size(); ++i)
        in[i] = {std::sin(0.37 * double(i)), std::cos(0.11 * double(i * i % 977))};
    auto run = [&](int threads, std::vector<std::complex<double>>& out) {
        fftw_plan_with_nthreads(threads);
        std::vector<std::complex<double>> x = in;
        fftw_plan p = fftw_plan_dft_2d(n, n, reinterpret_cast<fftw_complex*>(x.data()),
                                       reinterpret_cast<fftw_complex*>(out.data()), FFTW_FORWARD, FFTW_ESTIMATE);
        ASSERT_NE(p, nullptr);
        fftw_execute(p);
        fftw_destroy_plan(p);
    };
    run(1, one);
    const int before = gFftwLoops.load();
    run(2, two);
    EXPECT_GT(gFftwLoops.load(), before);
    double worst = 0, scale = 0;
    for (std::size_t i = 0; i < one.size(); ++i) {
        worst = std::max(worst, std::abs(one[i] - two[i]));
        scale = std::max(scale, std::abs(one[i]));
    }
    EXPECT_LE(worst, 1e-12 * scale);
    fftw_plan_with_nthreads(1);
}

TEST(Pool, AForkedChildRunsLoopsOnItsOwn) {
    Threads t(2);
    check_cover(100000, 100);  // the parent's workers exist
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        std::vector<int> hits(100000, 0);
        std::mutex m;
        kix::parallel_for(100000, 100, [&](std::int64_t b, std::int64_t e) {
            std::lock_guard<std::mutex> lock(m);
            for (std::int64_t i = b; i < e; ++i) ++hits[std::size_t(i)];
        });
        int wrong = 0;
        for (int h : hits) wrong += h != 1;
        _exit(wrong == 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    check_cover(100000, 100);  // and the parent's pool still works
}

}  // namespace
