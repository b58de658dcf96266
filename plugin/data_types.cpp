// The data-type helpers offered to scripts through the larger library list.
#include <cstdint>

#include "plugin/handler.hpp"
#include "plugin/registry.hpp"

namespace kix {
namespace {

std::int32_t PadSizeDM(std::int32_t n) {
    Call call("PadSizeDM");
    KIX_CHECK(n >= 0, "Invalid image size.");
    // The padding works in unsigned 32 bits; a padded size that wrapped or does
    // not fit the script's long is no size at all.
    const std::uint32_t padded = vorn::dm::PadSize(static_cast<std::uint32_t>(n));
    KIX_CHECK(padded >= static_cast<std::uint32_t>(n) && padded <= static_cast<std::uint32_t>(INT32_MAX),
              "Invalid image size.");
    return static_cast<std::int32_t>(padded);
}

std::int32_t ToDMDataTypeDM(std::int32_t eType) {
    Call call("ToDMDataTypeDM");
    const unsigned long index = static_cast<unsigned long>(static_cast<long>(eType) + 1);
    KIX_CHECK(index < 11, "Unknown data type.");
    return vorn::dm::ToDMDataType(eType);
}

const Rows kLibrary(List::Library, {
    {"long ", "PadSize(long n)", entry<PadSizeDM>()},
    {"long ", "ToDMDataType(long eType)", entry<ToDMDataTypeDM>()},
});

}  // namespace
}  // namespace kix
