// fftw_peer: raw FFTW as a benchmark peer for bench/compare.py.
//
// compare.py keeps one peer running for the whole run and talks to it over
// stdin/stdout, one command a line, so that FFTW is timed in the same run,
// interleaved with kix and the Python peers, on the very same data: input and
// output live in files (in /dev/shm) that both sides map.
//
//   version                          -> fftw-3.3.10
//   plan ID KIND PREC THREADS IN OUT NDIM SHAPE... NAXES AXES...
//                                    -> ok | error TEXT
//       KIND: c2c_forward, c2c_backward, r2c, c2r;  PREC: f or d
//       SHAPE: the real-space shape in numpy order (for c2r: the output's);
//       AXES: the transformed axes; the last one is halved for r2c and c2r.
//       Planned with FFTW_MEASURE on scratch arrays, so IN is left intact.
//   run ID N                         -> seconds per transform, mean of N runs
//   free ID
//   quit
//
// Only the execution is timed: c2r, which FFTW allows to overwrite its input,
// gets its input restored from a saved copy between runs, outside the clock.
#include <fcntl.h>
#include <fftw3.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <complex>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// A file mapped read-write; both processes see the same bytes.
class Mapping {
public:
    Mapping(const std::string& path, std::size_t bytes) : bytes_(bytes) {
        const int fd = ::open(path.c_str(), O_RDWR);
        if (fd < 0) throw std::runtime_error("cannot open " + path);
        struct stat st {};
        ::fstat(fd, &st);
        if (static_cast<std::size_t>(st.st_size) < bytes) {
            ::close(fd);
            throw std::runtime_error(path + " is smaller than the array");
        }
        data_ = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        ::close(fd);
        if (data_ == MAP_FAILED) throw std::runtime_error("cannot map " + path);
    }
    ~Mapping() { ::munmap(data_, bytes_); }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    void* data() const { return data_; }

private:
    void* data_;
    std::size_t bytes_;
};

// The two precisions of FFTW under one name.
template <class R>
struct Fftw;
template <>
struct Fftw<double> {
    using Plan = fftw_plan;
    using Complex = fftw_complex;
    static constexpr auto dft = fftw_plan_guru64_dft;
    static constexpr auto r2c = fftw_plan_guru64_dft_r2c;
    static constexpr auto c2r = fftw_plan_guru64_dft_c2r;
    static constexpr auto exec_dft = fftw_execute_dft;
    static constexpr auto exec_r2c = fftw_execute_dft_r2c;
    static constexpr auto exec_c2r = fftw_execute_dft_c2r;
    static constexpr auto destroy = fftw_destroy_plan;
    static constexpr auto malloc = fftw_malloc;
    static constexpr auto free = fftw_free;
    static constexpr auto threads = fftw_plan_with_nthreads;
};
template <>
struct Fftw<float> {
    using Plan = fftwf_plan;
    using Complex = fftwf_complex;
    static constexpr auto dft = fftwf_plan_guru64_dft;
    static constexpr auto r2c = fftwf_plan_guru64_dft_r2c;
    static constexpr auto c2r = fftwf_plan_guru64_dft_c2r;
    static constexpr auto exec_dft = fftwf_execute_dft;
    static constexpr auto exec_r2c = fftwf_execute_dft_r2c;
    static constexpr auto exec_c2r = fftwf_execute_dft_c2r;
    static constexpr auto destroy = fftwf_destroy_plan;
    static constexpr auto malloc = fftwf_malloc;
    static constexpr auto free = fftwf_free;
    static constexpr auto threads = fftwf_plan_with_nthreads;
};

struct Transform {
    virtual ~Transform() = default;
    virtual double run(long n) = 0;  // seconds per execution
};

std::vector<std::int64_t> c_strides(const std::vector<std::int64_t>& shape) {
    std::vector<std::int64_t> s(shape.size(), 1);
    for (std::size_t i = shape.size(); i-- > 1;) s[i - 1] = s[i] * shape[i];
    return s;
}

std::int64_t count(const std::vector<std::int64_t>& shape) {
    std::int64_t n = 1;
    for (auto d : shape) n *= d;
    return n;
}

template <class R>
class Guru final : public Transform {
    using F = Fftw<R>;

public:
    Guru(const std::string& kind, int threads, const std::string& in_path, const std::string& out_path,
         const std::vector<std::int64_t>& shape, const std::vector<int>& axes)
        : kind_(kind) {
        // Complex side: the halved axis of r2c and c2r.
        std::vector<std::int64_t> in_shape = shape, out_shape = shape;
        const bool real_in = kind == "r2c", real_out = kind == "c2r";
        if (real_in) out_shape[axes.back()] = shape[axes.back()] / 2 + 1;
        if (real_out) in_shape[axes.back()] = shape[axes.back()] / 2 + 1;
        const std::size_t in_elem = real_in ? sizeof(R) : sizeof(typename F::Complex);
        const std::size_t out_elem = real_out ? sizeof(R) : sizeof(typename F::Complex);
        in_bytes_ = static_cast<std::size_t>(count(in_shape)) * in_elem;
        const std::size_t out_bytes = static_cast<std::size_t>(count(out_shape)) * out_elem;
        in_ = std::make_unique<Mapping>(in_path, in_bytes_);
        out_ = std::make_unique<Mapping>(out_path, out_bytes);

        // Transformed axes go to dims, the others to the batch (howmany) loop.
        const auto is = c_strides(in_shape), os = c_strides(out_shape);
        std::vector<fftw_iodim64> dims, loops;
        std::vector<bool> transformed(shape.size(), false);
        for (int a : axes) {
            dims.push_back({shape[a], is[a], os[a]});
            transformed[a] = true;
        }
        for (std::size_t a = 0; a < shape.size(); ++a)
            if (!transformed[a]) loops.push_back({shape[a], is[a], os[a]});

        // Plan on scratch arrays: FFTW_MEASURE scribbles over what it plans on.
        void* scratch_in = F::malloc(in_bytes_);
        void* scratch_out = F::malloc(out_bytes);
        F::threads(threads);
        const unsigned flags = FFTW_MEASURE | (real_out ? FFTW_DESTROY_INPUT : 0u);
        const int rank = static_cast<int>(dims.size()), loop_rank = static_cast<int>(loops.size());
        if (kind == "c2c_forward" || kind == "c2c_backward") {
            plan_ = F::dft(rank, dims.data(), loop_rank, loops.data(), static_cast<typename F::Complex*>(scratch_in),
                           static_cast<typename F::Complex*>(scratch_out),
                           kind == "c2c_forward" ? FFTW_FORWARD : FFTW_BACKWARD, flags);
        } else if (real_in) {
            plan_ = F::r2c(rank, dims.data(), loop_rank, loops.data(), static_cast<R*>(scratch_in),
                           static_cast<typename F::Complex*>(scratch_out), flags);
        } else if (real_out) {
            plan_ = F::c2r(rank, dims.data(), loop_rank, loops.data(), static_cast<typename F::Complex*>(scratch_in),
                           static_cast<R*>(scratch_out), flags);
        }
        F::free(scratch_in);
        F::free(scratch_out);
        if (!plan_) throw std::runtime_error("FFTW cannot plan this transform");
        if (real_out) {
            saved_.resize(in_bytes_);
            std::memcpy(saved_.data(), in_->data(), in_bytes_);
        }
    }
    ~Guru() override { F::destroy(plan_); }

    double run(long n) override {
        using clock = std::chrono::steady_clock;
        clock::duration total{};
        for (long i = 0; i < n; ++i) {
            if (!saved_.empty()) std::memcpy(in_->data(), saved_.data(), in_bytes_);
            const auto t0 = clock::now();
            execute();
            total += clock::now() - t0;
        }
        return std::chrono::duration<double>(total).count() / static_cast<double>(n);
    }

private:
    void execute() {
        void* in = in_->data();
        void* out = out_->data();
        if (kind_ == "r2c")
            F::exec_r2c(plan_, static_cast<R*>(in), static_cast<typename F::Complex*>(out));
        else if (kind_ == "c2r")
            F::exec_c2r(plan_, static_cast<typename F::Complex*>(in), static_cast<R*>(out));
        else
            F::exec_dft(plan_, static_cast<typename F::Complex*>(in), static_cast<typename F::Complex*>(out));
    }

    std::string kind_;
    std::unique_ptr<Mapping> in_, out_;
    std::size_t in_bytes_ = 0;
    std::vector<unsigned char> saved_;
    typename F::Plan plan_ = nullptr;
};

std::unique_ptr<Transform> make_plan(std::istringstream& in) {
    std::string kind, prec, in_path, out_path;
    int threads = 1, ndim = 0, naxes = 0;
    in >> kind >> prec >> threads >> in_path >> out_path >> ndim;
    if (!in || ndim < 1) throw std::runtime_error("bad plan command");
    std::vector<std::int64_t> shape(static_cast<std::size_t>(ndim));
    for (auto& d : shape) in >> d;
    in >> naxes;
    if (!in || naxes < 1 || naxes > ndim) throw std::runtime_error("bad axes");
    std::vector<int> axes(static_cast<std::size_t>(naxes));
    for (auto& a : axes) {
        in >> a;
        if (a < 0) a += ndim;
        if (a < 0 || a >= ndim) throw std::runtime_error("axis out of range");
    }
    if (!in) throw std::runtime_error("bad axes");
    if (kind != "c2c_forward" && kind != "c2c_backward" && kind != "r2c" && kind != "c2r")
        throw std::runtime_error("unknown kind " + kind);
    if (prec == "d") return std::make_unique<Guru<double>>(kind, threads, in_path, out_path, shape, axes);
    if (prec == "f") return std::make_unique<Guru<float>>(kind, threads, in_path, out_path, shape, axes);
    throw std::runtime_error("precision is f or d");
}

}  // namespace

int main() {
    fftw_init_threads();
    fftwf_init_threads();
    std::map<std::string, std::unique_ptr<Transform>> plans;
    std::string line;
    std::cout.precision(9);
    while (std::getline(std::cin, line)) {
        std::istringstream in(line);
        std::string command, id;
        in >> command;
        try {
            if (command == "version") {
                std::cout << fftw_version << std::endl;
            } else if (command == "plan") {
                in >> id;
                plans[id] = make_plan(in);
                std::cout << "ok" << std::endl;
            } else if (command == "run") {
                long n = 1;
                in >> id >> n;
                auto it = plans.find(id);
                if (it == plans.end()) throw std::runtime_error("no plan " + id);
                std::cout << it->second->run(n < 1 ? 1 : n) << std::endl;
            } else if (command == "free") {
                in >> id;
                plans.erase(id);
                std::cout << "ok" << std::endl;
            } else if (command == "quit") {
                break;
            } else {
                throw std::runtime_error("unknown command " + command);
            }
        } catch (const std::exception& e) {
            std::cout << "error " << e.what() << std::endl;
        }
    }
    plans.clear();
    fftw_cleanup_threads();
    fftwf_cleanup_threads();
    return 0;
}
