#include "runtime/pool.hpp"

#include <fftw3.h>
#include <immintrin.h>
#include <omp.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <mutex>
#include <new>
#include <thread>

#include "runtime/runtime.hpp"

// Waiting.  A worker that finds no work spins for kSpin (long enough to catch
// the next loop of a script that calls kernels back to back, far shorter than
// a scheduler time slice) and then sleeps on a futex until the next loop is
// posted.  The caller, once every chunk is claimed, waits the same way for the
// chunks still running on workers.  Nothing spins for long: when another
// process needs a core, the module's threads give it up within microseconds,
// and a worker whose core is taken claims fewer chunks instead of holding the
// others up at a barrier.  (OpenMP's run-time spins for a few hundred thousand
// iterations after every loop by default and only reads its spin count from
// the environment when it loads, which a module cannot set for its host.)

namespace kix {
namespace pool_detail {
namespace {

constexpr auto kSpin = std::chrono::microseconds(10);

thread_local bool t_inside = false;
// 0 on every thread but the workers, which hold their index + 1.
thread_local int t_slot = 0;

// Spins up to kSpin while `a` holds `old`, then sleeps until it changes.
template <class V>
void wait_while(const std::atomic<V>& a, V old) {
    const auto start = std::chrono::steady_clock::now();
    for (unsigned i = 1;; ++i) {
        if (a.load(std::memory_order_acquire) != old) return;
        _mm_pause();
        if (i % 64 == 0 && std::chrono::steady_clock::now() - start > kSpin) break;
    }
    while (a.load(std::memory_order_acquire) == old) a.wait(old, std::memory_order_acquire);
}

struct Job {
    Body body;
    void* context;
    std::int64_t n, grain, chunks;
    int helpers;  // workers 0 .. helpers - 1 take part
    std::atomic<std::int64_t> next{0};
    std::atomic<bool> failed{false};
    std::exception_ptr error;  // written once, by the thread that set `failed`
};

// Claims and runs chunks until none is left; the first exception stops the
// claiming and is kept for the caller.
void work(Job& job) noexcept {
    const bool was_inside = t_inside;
    t_inside = true;
    for (;;) {
        const std::int64_t c = job.next.fetch_add(1, std::memory_order_relaxed);
        if (c >= job.chunks) break;
        const std::int64_t begin = c * job.grain;
        try {
            job.body(job.context, begin, std::min(begin + job.grain, job.n));
        } catch (...) {
            if (!job.failed.exchange(true, std::memory_order_acq_rel)) job.error = std::current_exception();
            job.next.store(job.chunks, std::memory_order_relaxed);
            break;
        }
    }
    t_inside = was_inside;
}

// Every chunk in order on the calling thread.
void serial(std::int64_t n, std::int64_t grain, Body body, void* context) {
    const bool was_inside = t_inside;
    t_inside = true;
    struct Restore {
        bool v;
        ~Restore() { t_inside = v; }
    } restore{was_inside};
    for (std::int64_t b = 0; b < n; b += grain) body(context, b, std::min(b + grain, n));
}

std::atomic<int> gThreads{0};  // 0: not set yet
std::atomic<bool> gGone{false};  // the pool is destroyed: loops run serially

int default_threads() noexcept {
    static const int n = std::clamp(omp_get_max_threads(), 1, kMaxThreads);
    return n;
}

class Pool {
public:
    Pool() { pthread_atfork(&Pool::before_fork, &Pool::after_fork_parent, &Pool::after_fork_child); }
    // At unload (or exit): the workers' code is about to go away with the module.
    ~Pool() {
        gGone.store(true);
        std::lock_guard<std::mutex> lock(lock_);
        stop_workers();
    }

    void run(std::int64_t n, std::int64_t grain, Body body, void* context) {
        const std::int64_t chunks = (n + grain - 1) / grain;
        const int threads = num_threads();
        // A loop inside a chunk, a loop while another thread's loop holds the
        // pool, and a one-thread setting all run on the calling thread.
        std::unique_lock<std::mutex> lock(lock_, std::defer_lock);
        if (t_inside || threads <= 1 || chunks <= 1 || !lock.try_lock()) {
            if (lock.owns_lock()) lock.unlock();
            serial(n, grain, body, context);
            return;
        }
        const int helpers = static_cast<int>(std::min<std::int64_t>(threads - 1, chunks - 1));
        start_workers(helpers);

        Job job;
        job.body = body;
        job.context = context;
        job.n = n;
        job.grain = grain;
        job.chunks = chunks;
        job.helpers = std::min<int>(helpers, int(workers_.size()));
        job_.store(&job, std::memory_order_seq_cst);
        epoch_.fetch_add(1, std::memory_order_release);
        epoch_.notify_all();
        work(job);
        // Workers that look for the job from now on find none; the ones that
        // found it leave `inside_` when their last chunk is done.
        job_.store(nullptr, std::memory_order_seq_cst);
        for (int k; (k = inside_.load(std::memory_order_seq_cst)) != 0;) wait_while(inside_, k);
        lock.unlock();
        if (job.failed.load(std::memory_order_acquire)) std::rethrow_exception(job.error);
    }

    void resize(int threads) {
        std::lock_guard<std::mutex> lock(lock_);
        if (int(workers_.size()) > threads - 1) stop_workers();
    }

    static Pool& instance() {
        static Pool pool;
        return pool;
    }

private:
    void worker(int index, std::uint32_t seen) {
        t_inside = true;
        t_slot = index + 1;
        for (;;) {
            wait_while(epoch_, seen);
            seen = epoch_.load(std::memory_order_acquire);
            if (stop_.load(std::memory_order_acquire)) return;
            // Entering before looking: a caller that has withdrawn its job
            // either sees this worker inside and waits for it, or this worker
            // sees no job.
            inside_.fetch_add(1, std::memory_order_seq_cst);
            if (Job* job = job_.load(std::memory_order_seq_cst); job && index < job->helpers) work(*job);
            if (inside_.fetch_sub(1, std::memory_order_seq_cst) == 1) inside_.notify_all();
        }
    }

    // Under lock_.  Threads the system refuses are done without: the loop
    // then runs on fewer threads.
    void start_workers(int count) {
        while (int(workers_.size()) < count) {
            try {
                const int index = int(workers_.size());
                workers_.emplace_back([this, index, seen = epoch_.load()] { worker(index, seen); });
            } catch (...) {
                break;
            }
        }
    }

    // Under lock_ and with no loop running.
    void stop_workers() noexcept {
        if (workers_.empty()) return;
        stop_.store(true, std::memory_order_release);
        epoch_.fetch_add(1, std::memory_order_release);
        epoch_.notify_all();
        for (std::thread& t : workers_) {
            try {
                // A worker cannot join itself (exit called from a kernel body).
                if (t.get_id() == std::this_thread::get_id())
                    t.detach();
                else
                    t.join();
            } catch (...) {
                t.detach();
            }
        }
        workers_.clear();
        stop_.store(false, std::memory_order_release);
    }

    // A fork while no loop runs leaves the child a consistent pool with no
    // workers (the parent's threads do not exist there): their handles are
    // dropped unjoined and new workers start at the child's first loop.
    static void before_fork() {
        if (!t_inside && !gGone.load()) instance().lock_.lock();
    }
    static void after_fork_parent() {
        if (!t_inside && !gGone.load()) instance().lock_.unlock();
    }
    static void after_fork_child() {
        if (gGone.load()) return;
        Pool& p = instance();
        for (std::thread& t : p.workers_) new (&t) std::thread();  // forget, never join
        p.workers_.clear();
        p.inside_.store(0);
        p.job_.store(nullptr);
        p.stop_.store(false);
        if (!t_inside) p.lock_.unlock();
    }

    std::mutex lock_;  // one loop at a time; guards workers_
    std::vector<std::thread> workers_;
    std::atomic<std::uint32_t> epoch_{0};  // advanced for every posted loop
    std::atomic<Job*> job_{nullptr};
    std::atomic<int> inside_{0};  // workers between finding a job and leaving it
    std::atomic<bool> stop_{false};
};

}  // namespace

void run(std::int64_t n, std::int64_t grain, Body body, void* context) {
    if (gGone.load())
        serial(n, grain, body, context);
    else
        Pool::instance().run(n, grain, body, context);
}

void set_threads(int n) {
    n = std::clamp(n, 1, kMaxThreads);
    gThreads.store(n, std::memory_order_relaxed);
    // From inside a chunk the pool is busy with this very loop; surplus
    // workers are then stopped at the next change.
    if (!t_inside && !gGone.load()) Pool::instance().resize(n);
}

}  // namespace pool_detail

int num_threads() noexcept {
    const int n = pool_detail::gThreads.load(std::memory_order_relaxed);
    return n > 0 ? n : pool_detail::default_threads();
}

bool in_parallel() noexcept { return pool_detail::t_inside; }

int thread_slot() noexcept { return pool_detail::t_slot; }

void fftw_parallel_loop(void* (*work)(char*), char* jobdata, std::size_t elsize, int njobs, void*) {
    parallel_for(njobs, 1, [&](std::int64_t b, std::int64_t e) {
        for (std::int64_t i = b; i < e; ++i) work(jobdata + std::size_t(i) * elsize);
    });
}

void use_pool_for_fftw() {
    struct Route {
        Route() {
            fftw_threads_set_callback(fftw_parallel_loop, nullptr);
            fftwf_threads_set_callback(fftw_parallel_loop, nullptr);
        }
        ~Route() {
            fftw_threads_set_callback(nullptr, nullptr);
            fftwf_threads_set_callback(nullptr, nullptr);
        }
    };
    static Route route;
}

}  // namespace kix
