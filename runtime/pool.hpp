// Parallel loops on the module's own threads.
//
// parallel_for(n, grain, body) cuts [0, n) into chunks of `grain` indices and
// calls body(begin, end) once per chunk; the calling thread and the pool's
// workers claim chunks from one counter, so a thread that the system slows
// down (another process on its core) simply takes fewer of them.  Workers that
// run out of work spin for a few microseconds and then sleep in the kernel:
// they never hold a core that another program wants.  A chunk always starts at
// a multiple of grain and holds at most grain indices; with n <= grain the
// whole range is one chunk on the calling thread.  A loop started inside a
// chunk (on any thread) runs its chunks in order on that thread.  The first
// exception a body throws is rethrown to the caller once every chunk in
// flight has ended (chunks not yet claimed are skipped); the pool stays
// usable.  Workers start at the first loop that needs them, never at load,
// and stop when the module is unloaded or the thread count drops.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <vector>

namespace kix {

// Threads a loop uses, the calling thread included: the count set_num_threads
// set last, or until then the count the OpenMP run-time starts with (the
// processors this process may use).
int num_threads() noexcept;

// True while the current thread runs a chunk of a parallel loop.
bool in_parallel() noexcept;

// Which of a loop's threads runs the current chunk, in 0 .. num_threads() - 1
// (the calling thread is 0): an index into per-thread scratch allocated
// before the loop.  Two chunks with one slot never run at the same time.
int thread_slot() noexcept;

namespace pool_detail {
using Body = void (*)(void* body, std::int64_t begin, std::int64_t end);
void run(std::int64_t n, std::int64_t grain, Body body, void* context);
// The thread count behind num_threads(); workers above it are stopped.
void set_threads(int n);
}  // namespace pool_detail

template <class F>
void parallel_for(std::int64_t n, std::int64_t grain, F&& body) {
    if (n <= 0) return;
    if (grain < 1) grain = 1;
    if (n <= grain) {
        body(std::int64_t(0), n);
        return;
    }
    using Fn = std::remove_reference_t<F>;
    pool_detail::run(
        n, grain, [](void* f, std::int64_t b, std::int64_t e) { (*static_cast<Fn*>(f))(b, e); },
        const_cast<void*>(static_cast<const void*>(std::addressof(body))));
}

// The chunks' results combined in chunk order: combine(...combine(combine(
// identity, r0), r1)..., rk) with r_c = body(begin_c, end_c).  The chunks do
// not depend on the thread count, so neither does a floating-point sum.
template <class T, class F, class C>
T parallel_reduce(std::int64_t n, std::int64_t grain, T identity, F&& body, C&& combine) {
    if (n <= 0) return identity;
    if (grain < 1) grain = 1;
    std::vector<T> part(static_cast<std::size_t>((n + grain - 1) / grain), identity);
    parallel_for(n, grain, [&](std::int64_t b, std::int64_t e) { part[std::size_t(b / grain)] = body(b, e); });
    T r = identity;
    for (const T& p : part) r = combine(r, p);
    return r;
}

// Indices per chunk for loops over rows (or other units) of `unit` values
// each: about 32 Ki values per chunk, enough work to be worth handing to
// another thread and small enough to share out evenly.
inline std::int64_t grain_for(std::int64_t unit) {
    constexpr std::int64_t kValues = std::int64_t(1) << 15;
    return unit >= kValues ? 1 : kValues / (unit < 1 ? 1 : unit);
}

// FFTW's parallel-loop hook (fftw_threads_set_callback): runs work(jobdata +
// i * elsize) for i < njobs as chunks of a parallel loop.
void fftw_parallel_loop(void* (*work)(char*), char* jobdata, std::size_t elsize, int njobs, void* data);
// Hands FFTW's threaded plans (both precisions) to fftw_parallel_loop, after
// fftw_init_threads, until the module is unloaded: FFTW outlives the module,
// so then its own threads take over again rather than a hook into unloaded code.
void use_pool_for_fftw();

}  // namespace kix
