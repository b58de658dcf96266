// The reference host's signature parser on arbitrary text: it answers a
// signature or raises SignatureError, nothing else.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "host/signature.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        const kixhost::Signature s = kixhost::parse_signature(text);
        (void)s;
    } catch (const kixhost::SignatureError&) {
    }
    return 0;
}
