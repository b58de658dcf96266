#include "fft/plan_cache.hpp"

#include <fftw3.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "runtime/error.hpp"
#include "runtime/pool.hpp"

namespace kix::fft {
namespace {

enum Kind : int { kC2C = 0, kR2C = 1, kC2R = 2 };

// The two precisions of FFTW under one name.
template <class T>
struct Fftw;
template <>
struct Fftw<double> {
    using Plan = fftw_plan;
    using Complex = fftw_complex;
    static Plan dft(int r, const fftw_iodim64* d, int l, const fftw_iodim64* ld, Complex* i, Complex* o, int s,
                    unsigned f) {
        return fftw_plan_guru64_dft(r, d, l, ld, i, o, s, f);
    }
    static Plan r2c(int r, const fftw_iodim64* d, int l, const fftw_iodim64* ld, double* i, Complex* o,
                    unsigned f) {
        return fftw_plan_guru64_dft_r2c(r, d, l, ld, i, o, f);
    }
    static Plan c2r(int r, const fftw_iodim64* d, int l, const fftw_iodim64* ld, Complex* i, double* o,
                    unsigned f) {
        return fftw_plan_guru64_dft_c2r(r, d, l, ld, i, o, f);
    }
    static void destroy(Plan p) { fftw_destroy_plan(p); }
    static void* malloc(std::size_t n) { return fftw_malloc(n); }
    static void free(void* p) { fftw_free(p); }
    static int alignment_of(const void* p) { return fftw_alignment_of((double*)p); }
    static void nthreads(int n) { fftw_plan_with_nthreads(n); }
    static void timelimit(double s) { fftw_set_timelimit(s); }
    static int import_wisdom(const char* f) { return fftw_import_wisdom_from_filename(f); }
    static int export_wisdom(const char* f) { return fftw_export_wisdom_to_filename(f); }
    static constexpr const char* wisdom_name = "fftw3.wisdom";
};
template <>
struct Fftw<float> {
    using Plan = fftwf_plan;
    using Complex = fftwf_complex;
    static Plan dft(int r, const fftw_iodim64* d, int l, const fftw_iodim64* ld, Complex* i, Complex* o, int s,
                    unsigned f) {
        return fftwf_plan_guru64_dft(r, d, l, ld, i, o, s, f);
    }
    static Plan r2c(int r, const fftw_iodim64* d, int l, const fftw_iodim64* ld, float* i, Complex* o,
                    unsigned f) {
        return fftwf_plan_guru64_dft_r2c(r, d, l, ld, i, o, f);
    }
    static Plan c2r(int r, const fftw_iodim64* d, int l, const fftw_iodim64* ld, Complex* i, float* o,
                    unsigned f) {
        return fftwf_plan_guru64_dft_c2r(r, d, l, ld, i, o, f);
    }
    static void destroy(Plan p) { fftwf_destroy_plan(p); }
    static void* malloc(std::size_t n) { return fftwf_malloc(n); }
    static void free(void* p) { fftwf_free(p); }
    static int alignment_of(const void* p) { return fftwf_alignment_of((float*)p); }
    static void nthreads(int n) { fftwf_plan_with_nthreads(n); }
    static void timelimit(double s) { fftwf_set_timelimit(s); }
    static int import_wisdom(const char* f) { return fftwf_import_wisdom_from_filename(f); }
    static int export_wisdom(const char* f) { return fftwf_export_wisdom_to_filename(f); }
    static constexpr const char* wisdom_name = "fftw3f.wisdom";
};

using Key = std::vector<std::int64_t>;

// A cached plan.  `plan` is swapped by the worker when the measured plan is
// ready; the estimated one it replaces is kept (retired) until the entry goes,
// because a call may be executing it at that moment.
struct Entry {
    Key key;
    Problem problem;
    Kind kind;
    bool dbl;
    int sign;
    bool in_place;
    std::atomic<void*> plan{nullptr};
    std::vector<void*> retired;
    std::atomic<bool> measured{false};
    // A threaded measured plan keeps the one-thread measured plan of the same
    // problem beside it; calls run whichever has run faster lately (moving
    // averages of their times, nanoseconds), trying the other now and then.
    std::atomic<void*> serial{nullptr};
    std::atomic<std::int64_t> ns_threaded{0}, ns_serial{0};
    std::atomic<std::uint32_t> runs{0};
    bool queued = false;
    int uses = 0;
    std::uint64_t last_use = 0;
    ~Entry();  // under the planner mutex
};

template <class T>
void destroy_plan(void* p) {
    if (p) Fftw<T>::destroy(static_cast<typename Fftw<T>::Plan>(p));
}

Entry::~Entry() {
    auto destroy = dbl ? destroy_plan<double> : destroy_plan<float>;
    destroy(plan.load());
    destroy(serial.load());
    for (void* p : retired) destroy(p);
}

// Most geometries a process sees are a handful; beyond this many the least
// recently used plan goes.
constexpr std::size_t kCapacity = 64;
// A background measurement may take at most this long (FFTW's own time
// limit): it holds the planner, so a new geometry's first call may wait for it.
constexpr double kMeasureSeconds = 10.0;

std::string cache_folder() {
    if (const char* x = std::getenv("XDG_CACHE_HOME"); x && *x == '/') return std::string(x) + "/kix";
    if (const char* h = std::getenv("HOME"); h && *h) return std::string(h) + "/.cache/kix";
    return {};
}

// KIX_FFT_MEASURE: "0" estimated plans only (no wisdom read or written);
// "sync" measured plans made at a geometry's first call, on the calling
// thread, without time limit (batch jobs, benchmarks); unset or anything else:
// estimated first, measured in the background when the geometry repeats.
enum class Policy { Estimate, Background, Sync };
Policy policy() {
    const char* e = std::getenv("KIX_FFT_MEASURE");
    if (e && e[0] == '0') return Policy::Estimate;
    if (e && std::string(e) == "sync") return Policy::Sync;
    return Policy::Background;
}

// Transforms of at most this many points run on one thread: splitting them
// gains little when the cores are idle and costs up to tenfold when they are
// shared, as the threads wait for each other at every pass.
constexpr std::int64_t kSerialPoints = std::int64_t(1) << 18;

int threads_for(const Problem& p) {
    std::int64_t points = 1;
    for (int i = 0; i < p.rank; ++i) points *= p.dims[i].n;
    for (int i = 0; i < p.loops; ++i) points *= p.loop[i].n;
    return points <= kSerialPoints ? 1 : num_threads();
}

class Cache {
public:
    ~Cache() {
        {
            std::lock_guard<std::mutex> lock(map_mutex_);
            stop_ = true;
        }
        work_.notify_all();
        if (worker_.joinable()) worker_.join();
        std::lock_guard<std::mutex> planner(planner_mutex_);
        map_.clear();
        queue_.clear();
    }

    // The plan for the problem, made on first use with these buffers.
    // `helper`: an estimated plan only, never measured (the padded copies
    // below); `measured` receives whether the plan returned is a measured one.
    template <class T>
    void* plan(Kind kind, int sign, const Problem& p, void* in, void* out, bool helper = false,
               bool* measured_out = nullptr, Entry** entry_out = nullptr) {
        const int threads = threads_for(p);
        const int ain = Fftw<T>::alignment_of(in), aout = Fftw<T>::alignment_of(out);
        Key key{kind, std::is_same_v<T, double>, sign, in == out, ain, aout, threads, p.rank, p.loops, helper};
        for (int i = 0; i < p.rank; ++i) key.insert(key.end(), {p.dims[i].n, p.dims[i].is, p.dims[i].os});
        for (int i = 0; i < p.loops; ++i) key.insert(key.end(), {p.loop[i].n, p.loop[i].is, p.loop[i].os});

        const bool upgradable = ain == 0 && aout == 0 && !helper;
        if (void* found = lookup(key, upgradable, measured_out, entry_out)) return found;

        std::shared_ptr<Entry> evicted;
        void* made = nullptr;
        {
            std::lock_guard<std::mutex> planner(planner_mutex_);
            // Another thread may have made it while this one waited.
            if (void* found = lookup(key, upgradable, measured_out, entry_out)) return found;
            static std::once_flag threads_once;
            std::call_once(threads_once, [] {
                fftw_init_threads();
                fftwf_init_threads();
                // Plans with several threads run their parts on the module's pool.
                use_pool_for_fftw();
            });
            const Policy how = policy();
            measure_ = how != Policy::Estimate;
            ensure_started<T>();
            Fftw<T>::nthreads(threads);
            // Measured wisdom from an earlier run costs nothing to use.
            made = measure_ && !helper ? make<T>(kind, sign, p, in, out, FFTW_MEASURE | FFTW_WISDOM_ONLY) : nullptr;
            // A threaded plan from wisdom is still to be weighed against the
            // one-thread plan (measure), so it does not count as measured.
            bool measured = made != nullptr && threads == 1;
            if (!made) made = make<T>(kind, sign, p, in, out, FFTW_ESTIMATE);
            if (!made) fail("The transform library cannot plan this transform.");
            auto e = std::make_shared<Entry>();
            e->key = key;
            e->problem = p;
            e->kind = kind;
            e->dbl = std::is_same_v<T, double>;
            e->sign = sign;
            e->in_place = in == out;
            e->plan.store(made);
            if (!measured && how == Policy::Sync && upgradable) {
                measure<T>(*e, 0);
                made = e->plan.load();
            }
            e->measured.store(true);
            if (how != Policy::Sync && !helper) e->measured.store(measured);
            if (measured_out) *measured_out = e->measured.load();
            if (entry_out) *entry_out = e.get();
            e->uses = 1;
            std::lock_guard<std::mutex> lock(map_mutex_);
            e->last_use = ++tick_;
            map_[key] = e;
            if (map_.size() > kCapacity) {
                auto oldest = std::min_element(map_.begin(), map_.end(), [](const auto& a, const auto& b) {
                    return a.second->last_use < b.second->last_use;
                });
                evicted = std::move(oldest->second);
                map_.erase(oldest);
            }
            evicted.reset();  // still under the planner mutex
        }
        return made;
    }

    // Runs the entry's plan, or with a one-thread plan beside it the one of
    // the two with the lower moving average of its recent times; every 32nd
    // call runs the other, so that its average follows the load.
    template <class T>
    static void run(Entry* e, void* plan, void* in, void* out, Kind kind) {
        void* serial = e ? e->serial.load(std::memory_order_acquire) : nullptr;
        if (!serial) return execute<T>(kind, plan, in, out);
        const std::uint32_t k = e->runs.fetch_add(1, std::memory_order_relaxed);
        bool one = e->ns_serial.load(std::memory_order_relaxed) < e->ns_threaded.load(std::memory_order_relaxed);
        if (k % 32 == 31) one = !one;
        using clock = std::chrono::steady_clock;
        const auto t0 = clock::now();
        execute<T>(kind, one ? serial : plan, in, out);
        const std::int64_t ns = std::chrono::duration_cast<std::chrono::nanoseconds>(clock::now() - t0).count();
        std::atomic<std::int64_t>& avg = one ? e->ns_serial : e->ns_threaded;
        const std::int64_t old = avg.load(std::memory_order_relaxed);
        avg.store(old + (ns - old) / 4, std::memory_order_relaxed);  // races only lose a sample
    }

    void wait() {
        std::unique_lock<std::mutex> lock(map_mutex_);
        idle_.wait(lock, [&] { return queue_.empty() && !busy_; });
    }

    int size() {
        std::lock_guard<std::mutex> lock(map_mutex_);
        return static_cast<int>(map_.size());
    }

private:
    void* lookup(const Key& key, bool aligned, bool* measured, Entry** entry) {
        std::lock_guard<std::mutex> lock(map_mutex_);
        auto it = map_.find(key);
        if (it == map_.end()) return nullptr;
        Entry& e = *it->second;
        if (entry) *entry = &e;
        // Read before the plan: the worker swaps the plan in, then sets the flag.
        if (measured) *measured = e.measured.load();
        e.last_use = ++tick_;
        ++e.uses;
        // The geometry repeats: worth measuring, off the calling thread.
        if (measure_ && aligned && !e.queued && !e.measured.load() && e.uses >= 2) {
            e.queued = true;
            queue_.push_back(it->second);
            if (!worker_.joinable()) worker_ = std::thread([this] { run_worker(); });
            work_.notify_one();
        }
        return e.plan.load(std::memory_order_acquire);
    }

    template <class T>
    void ensure_started() {
        static bool started = false;  // per precision, under the planner mutex
        if (started || !measure_) return;
        started = true;
        {
            const std::string folder = cache_folder();
            if (!folder.empty()) Fftw<T>::import_wisdom((folder + "/" + Fftw<T>::wisdom_name).c_str());
        }
    }

    template <class T>
    static void* make(Kind kind, int sign, const Problem& p, void* in, void* out, unsigned flags) {
        fftw_iodim64 d[3], l[3];
        for (int i = 0; i < p.rank; ++i) d[i] = {p.dims[i].n, p.dims[i].is, p.dims[i].os};
        for (int i = 0; i < p.loops; ++i) l[i] = {p.loop[i].n, p.loop[i].is, p.loop[i].os};
        using C = typename Fftw<T>::Complex;
        switch (kind) {
            case kC2C: return Fftw<T>::dft(p.rank, d, p.loops, l, (C*)in, (C*)out, sign, flags);
            case kR2C: return Fftw<T>::r2c(p.rank, d, p.loops, l, (T*)in, (C*)out, flags);
            default: return Fftw<T>::c2r(p.rank, d, p.loops, l, (C*)in, (T*)out, flags);
        }
    }

    // Elements spanned by one side of the problem (`out`: the output side).
    static std::int64_t extent(const Entry& e, bool out) {
        std::int64_t n = 1;
        const Problem& p = e.problem;
        for (int i = 0; i < p.rank; ++i) {
            std::int64_t len = p.dims[i].n;
            const bool half_side = (e.kind == kR2C && out) || (e.kind == kC2R && !out);
            if (half_side && i == p.rank - 1) len = len / 2 + 1;
            n += (len - 1) * (out ? p.dims[i].os : p.dims[i].is);
        }
        for (int i = 0; i < p.loops; ++i) n += (p.loop[i].n - 1) * (out ? p.loop[i].os : p.loop[i].is);
        return n;
    }

    // A measured plan for the entry on scratch arrays, swapped in; `seconds`
    // bounds the search (0: no bound).  Under the planner mutex.
    template <class T>
    void measure(Entry& e, double seconds) {
        const bool complex_in = e.kind != kR2C, complex_out = e.kind != kC2R;
        const std::size_t in_bytes = extent(e, false) * (complex_in ? 2 : 1) * sizeof(T);
        const std::size_t out_bytes = extent(e, true) * (complex_out ? 2 : 1) * sizeof(T);
        void* in = Fftw<T>::malloc(in_bytes);
        void* out = e.in_place ? in : Fftw<T>::malloc(out_bytes);
        if (in && out) {
            Fftw<T>::nthreads(static_cast<int>(e.key[6]));
            Fftw<T>::timelimit(seconds > 0 ? seconds : FFTW_NO_TIMELIMIT);
            void* made = make<T>(e.kind, e.sign, e.problem, in, out, FFTW_MEASURE);
            if (made && e.key[6] > 1) pair<T>(e, in, out, in_bytes, out_bytes, made);
            Fftw<T>::timelimit(FFTW_NO_TIMELIMIT);
            if (made) {
                e.retired.push_back(e.plan.load());
                e.plan.store(made, std::memory_order_release);
                const std::string folder = cache_folder();
                if (!folder.empty()) {
                    ::mkdir(folder.substr(0, folder.rfind('/')).c_str(), 0700);
                    ::mkdir(folder.c_str(), 0700);
                    Fftw<T>::export_wisdom((folder + "/" + Fftw<T>::wisdom_name).c_str());
                }
            }
        }
        e.measured.store(true);  // measured or not measurable: asked once
        if (out && out != in) Fftw<T>::free(out);
        if (in) Fftw<T>::free(in);
    }

    template <class T>
    static void execute(Kind kind, void* plan, void* in, void* out) {
        using P = typename Fftw<T>::Plan;
        using C = typename Fftw<T>::Complex;
        if constexpr (std::is_same_v<T, double>) {
            if (kind == kC2C)
                fftw_execute_dft(P(plan), (C*)in, (C*)out);
            else if (kind == kR2C)
                fftw_execute_dft_r2c(P(plan), (T*)in, (C*)out);
            else
                fftw_execute_dft_c2r(P(plan), (C*)in, (T*)out);
        } else {
            if (kind == kC2C)
                fftwf_execute_dft(P(plan), (C*)in, (C*)out);
            else if (kind == kR2C)
                fftwf_execute_dft_r2c(P(plan), (T*)in, (C*)out);
            else
                fftwf_execute_dft_c2r(P(plan), (C*)in, (T*)out);
        }
    }

    // FFTW picks a threaded plan by its best time, but on cores shared with
    // other work its threads wait for each other at every pass and the mean
    // time can be several times the one-thread plan's (a 2048 x 2048
    // transform: 60 against 42 ms on 2 busy cores), while on idle cores the
    // threaded plan is the faster by nearly two.  Which one wins changes with
    // the load, so both are kept: the one-thread measured plan is made beside
    // the threaded one, both are timed over a few interleaved runs on the
    // scratch arrays to start their averages, and each call picks (run_pair).
    // Under the planner mutex.
    template <class T>
    static void pair(Entry& e, void* in, void* out, std::size_t in_bytes, std::size_t out_bytes, void* threaded) {
        Fftw<T>::nthreads(1);
        void* serial = make<T>(e.kind, e.sign, e.problem, in, out, FFTW_MEASURE);
        if (!serial) return;
        std::memset(in, 0, in_bytes);
        if (out != in) std::memset(out, 0, out_bytes);
        using clock = std::chrono::steady_clock;
        auto time = [&](void* plan) {
            const auto t0 = clock::now();
            execute<T>(e.kind, plan, in, out);
            return std::chrono::duration<double>(clock::now() - t0).count();
        };
        double one = time(serial), many = time(threaded);
        // Rounds enough for about 0.1 s of each, between 3 and 50.
        const int rounds = static_cast<int>(std::clamp(0.1 / std::max(one, 1e-6), 3.0, 50.0));
        for (int r = 1; r < rounds; ++r) {
            one += time(serial);
            many += time(threaded);
        }
        e.ns_serial.store(static_cast<std::int64_t>(one / rounds * 1e9));
        e.ns_threaded.store(static_cast<std::int64_t>(many / rounds * 1e9));
        void* old = e.serial.exchange(serial, std::memory_order_acq_rel);
        if (old) e.retired.push_back(old);
    }

    void run_worker() {
        for (;;) {
            std::shared_ptr<Entry> e;
            {
                std::unique_lock<std::mutex> lock(map_mutex_);
                work_.wait(lock, [&] { return stop_ || !queue_.empty(); });
                if (stop_) return;
                e = std::move(queue_.front());
                queue_.pop_front();
                busy_ = true;
            }
            {
                std::lock_guard<std::mutex> planner(planner_mutex_);
                try {
                    if (e->dbl)
                        measure<double>(*e, kMeasureSeconds);
                    else
                        measure<float>(*e, kMeasureSeconds);
                } catch (...) {
                }
                e.reset();
            }
            {
                std::lock_guard<std::mutex> lock(map_mutex_);
                busy_ = false;
            }
            idle_.notify_all();
        }
    }

    std::mutex planner_mutex_;  // every FFTW planner call
    std::mutex map_mutex_;      // the map, the queue and the counters
    std::condition_variable work_, idle_;
    std::map<Key, std::shared_ptr<Entry>> map_;
    std::deque<std::shared_ptr<Entry>> queue_;
    std::thread worker_;
    std::uint64_t tick_ = 0;
    bool stop_ = false, busy_ = false;
    std::atomic<bool> measure_{true};
};

Cache& cache() {
    static Cache c;
    return c;
}

}  // namespace

namespace {

// FFTW's estimated plans go badly wrong on transforms along an axis whose
// stride is a large power of two (the columns of a 512 or 2048 wide image):
// they walk each column on its own, and every element of a column falls in
// the same few cache sets.  On this machine a 512 x 512 Complex 8 transform
// took 17 ms estimated against 1.8 ms with rows one element longer, and a
// 2048 x 2048 one 280 ms against 100 ms (a measured plan: 40 ms).  Until a
// geometry's measured plan is in, such a transform runs on a copy whose
// strides are padded by one element (two passes over the data, a fraction of
// what the estimated plan loses).
constexpr std::int64_t kPaddedPoints = std::int64_t(1) << 15;

bool worth_padding(const Problem& p) {
    std::int64_t points = 1;
    bool strided = false;
    for (int i = 0; i < p.rank; ++i) {
        points *= p.dims[i].n;
        strided = strided || (p.dims[i].n > 1 && (std::abs(p.dims[i].is) > 1 || std::abs(p.dims[i].os) > 1));
    }
    for (int i = 0; i < p.loops; ++i) points *= p.loop[i].n;
    return strided && points >= kPaddedPoints;
}

// Copies every element of the axes (outermost first) from src to dst.
template <class V>
void copy_axes(int k, const std::int64_t* n, const V* src, const std::int64_t* ss, V* dst,
               const std::int64_t* ds) {
    std::int64_t outer = 1;
    for (int i = 0; i + 1 < k; ++i) outer *= n[i];
    const std::int64_t m = n[k - 1], sm = ss[k - 1], dm = ds[k - 1];
    for (std::int64_t o = 0; o < outer; ++o) {
        std::int64_t r = o, so = 0, dof = 0;
        for (int i = k - 2; i >= 0; --i) {
            const std::int64_t j = r % n[i];
            r /= n[i];
            so += j * ss[i];
            dof += j * ds[i];
        }
        const V* a = src + so;
        V* b = dst + dof;
        for (std::int64_t x = 0; x < m; ++x) b[x * dm] = a[x * sm];
    }
}

template <class T>
void padded_c2c(const Problem& p, int sign, std::complex<T>* in, std::complex<T>* out) {
    // Every axis, transformed and batch, ordered by the output stride,
    // outermost first; the copy gets the same order with padded strides.
    Dim all[6];
    int k = 0;
    for (int i = 0; i < p.rank; ++i) all[k++] = p.dims[i];
    for (int i = 0; i < p.loops; ++i) all[k++] = p.loop[i];
    int order[6];
    for (int i = 0; i < k; ++i) order[i] = i;
    // At most six axes: an insertion sort (std::sort's small-range path
    // trips GCC's array-bounds analysis on a six-element array).
    for (int i = 1; i < k; ++i)
        for (int j = i; j > 0 && std::abs(all[order[j - 1]].os) < std::abs(all[order[j]].os); --j)
            std::swap(order[j - 1], order[j]);
    std::int64_t ps[6], step = 1;
    for (int j = k - 1; j >= 0; --j) {
        ps[order[j]] = step;
        step = step * all[order[j]].n + 1;
    }
    std::int64_t n[6], is[6], os[6], pad[6];
    for (int j = 0; j < k; ++j) {
        const Dim& d = all[order[j]];
        n[j] = d.n, is[j] = d.is, os[j] = d.os, pad[j] = ps[order[j]];
    }
    Problem q = p;
    for (int i = 0; i < p.rank; ++i) q.dims[i].is = q.dims[i].os = ps[i];
    for (int i = 0; i < p.loops; ++i) q.loop[i].is = q.loop[i].os = ps[p.rank + i];
    using C = std::complex<T>;
    C* buf = static_cast<C*>(Fftw<T>::malloc(sizeof(C) * static_cast<std::size_t>(step)));
    if (!buf) fail("Not enough memory for the transform.");
    try {
        copy_axes<C>(k, n, in, is, buf, pad);
        void* plan = cache().plan<T>(kC2C, sign, q, buf, buf, true);
        using FC = typename Fftw<T>::Complex;
        if constexpr (std::is_same_v<T, double>)
            fftw_execute_dft(static_cast<fftw_plan>(plan), reinterpret_cast<FC*>(buf), reinterpret_cast<FC*>(buf));
        else
            fftwf_execute_dft(static_cast<fftwf_plan>(plan), reinterpret_cast<FC*>(buf), reinterpret_cast<FC*>(buf));
        copy_axes<C>(k, n, buf, pad, out, os);
    } catch (...) {
        Fftw<T>::free(buf);
        throw;
    }
    Fftw<T>::free(buf);
}

}  // namespace

template <class T>
void execute_c2c(const Problem& p, int sign, std::complex<T>* in, std::complex<T>* out) {
    bool measured = true;
    Entry* e = nullptr;
    void* plan = cache().plan<T>(kC2C, sign, p, in, out, false, &measured, &e);
    if (!measured && worth_padding(p)) return padded_c2c<T>(p, sign, in, out);
    Cache::run<T>(e, plan, in, out, kC2C);
}

template <class T>
void execute_r2c(const Problem& p, T* in, std::complex<T>* out) {
    Entry* e = nullptr;
    void* plan = cache().plan<T>(kR2C, -1, p, in, out, false, nullptr, &e);
    Cache::run<T>(e, plan, in, out, kR2C);
}

template <class T>
void execute_c2r(const Problem& p, std::complex<T>* in, T* out) {
    Entry* e = nullptr;
    void* plan = cache().plan<T>(kC2R, +1, p, in, out, false, nullptr, &e);
    Cache::run<T>(e, plan, in, out, kC2R);
}

template <class T>
void prepare_c2c(const Problem& p, int sign, std::complex<T>* in, std::complex<T>* out) {
    cache().plan<T>(kC2C, sign, p, in, out);
}
template <class T>
void prepare_r2c(const Problem& p, T* in, std::complex<T>* out) {
    cache().plan<T>(kR2C, -1, p, in, out);
}
template <class T>
void prepare_c2r(const Problem& p, std::complex<T>* in, T* out) {
    cache().plan<T>(kC2R, +1, p, in, out);
}

template void prepare_c2c<float>(const Problem&, int, std::complex<float>*, std::complex<float>*);
template void prepare_c2c<double>(const Problem&, int, std::complex<double>*, std::complex<double>*);
template void prepare_r2c<float>(const Problem&, float*, std::complex<float>*);
template void prepare_r2c<double>(const Problem&, double*, std::complex<double>*);
template void prepare_c2r<float>(const Problem&, std::complex<float>*, float*);
template void prepare_c2r<double>(const Problem&, std::complex<double>*, double*);
template void execute_c2c<float>(const Problem&, int, std::complex<float>*, std::complex<float>*);
template void execute_c2c<double>(const Problem&, int, std::complex<double>*, std::complex<double>*);
template void execute_r2c<float>(const Problem&, float*, std::complex<float>*);
template void execute_r2c<double>(const Problem&, double*, std::complex<double>*);
template void execute_c2r<float>(const Problem&, std::complex<float>*, float*);
template void execute_c2r<double>(const Problem&, std::complex<double>*, double*);

void wait_for_upgrades() { cache().wait(); }
int cached_plans() { return cache().size(); }

}  // namespace kix::fft
