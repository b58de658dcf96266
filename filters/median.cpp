// The median filter's fast forms: the instance of the processor's
// instruction-set level (median_kernels.inc).
#include "filters/median.hpp"

#include "runtime/runtime.hpp"

namespace kix::filters {

#define KIX_MEDIAN_WIDEST(call)                      \
    switch (isa_level()) {                           \
        case kIsaAVX512: return median_avx512::call; \
        case kIsaAVX2: return median_avx2::call;     \
        default: return median_sse2::call;           \
    }

template <class T>
bool median_network_row(const T* const* rows, T* out, std::int64_t n, std::int64_t r, T* scratch) {
    KIX_MEDIAN_WIDEST(median_network_row(rows, out, n, r, scratch))
}
template <class T>
std::int64_t median_network_lanes() {
    KIX_MEDIAN_WIDEST(median_network_lanes<T>())
}
template <class T>
bool median_by_ranks(const T* in, std::int64_t irs, T* out, std::int64_t ors, std::int64_t nx, std::int64_t ny,
                     std::int64_t r, bool zero_pad, bool widest) {
    if (!widest) return median_sse2::median_by_ranks(in, irs, out, ors, nx, ny, r, zero_pad);
    KIX_MEDIAN_WIDEST(median_by_ranks(in, irs, out, ors, nx, ny, r, zero_pad))
}

template bool median_network_row<float>(const float* const*, float*, std::int64_t, std::int64_t, float*);
template bool median_network_row<double>(const double* const*, double*, std::int64_t, std::int64_t, double*);
template std::int64_t median_network_lanes<float>();
template std::int64_t median_network_lanes<double>();
template bool median_by_ranks<float>(const float*, std::int64_t, float*, std::int64_t, std::int64_t, std::int64_t,
                                     std::int64_t, bool, bool);
template bool median_by_ranks<double>(const double*, std::int64_t, double*, std::int64_t, std::int64_t,
                                      std::int64_t, std::int64_t, bool, bool);

}  // namespace kix::filters
