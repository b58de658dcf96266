// A script call decoded from bytes, as the Python front and the CLI hand calls
// to the reference host: a function of the module's (or any name), then
// arguments of every kind the host converts, images of any type and one to
// five dimensions among them.  The call must answer or raise a script error.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "host/host.hpp"
#include "host/pixels.hpp"
#include "host/signature.hpp"

namespace {

struct Bytes {
    const std::uint8_t* p;
    std::size_t n;
    std::uint8_t byte() {
        if (n == 0) return 0;
        --n;
        return *p++;
    }
    template <class T>
    T value() {
        T v{};
        const std::size_t k = std::min(sizeof v, n);
        std::memcpy(&v, p, k);
        p += k;
        n -= k;
        return v;
    }
    std::string text() {
        const std::size_t k = std::min<std::size_t>(byte(), n);
        std::string s(reinterpret_cast<const char*>(p), k);
        p += k;
        n -= k;
        return s;
    }
};

// Functions whose arguments are command lines or dialogs are left out: their
// bad input is a program to run, not data.
bool swept(const std::string& name) {
    return name != "KIXShellExec" && name != "KIXExec" && name != "KIXExecWait" && name != "KIXSelectImageFiles";
}

struct World {
    kixhost::Host host;
    std::vector<std::string> names;
    std::vector<bool> library;
    World() {
        // A host with 256 MiB for any one image: a call that asks for a larger
        // destination (a warp by a factor of a billion) gets the host's
        // allocation failure, as on a small machine, instead of filling the
        // fuzzer's memory.
        kixhost::set_pixel_block_limit(std::size_t(256) << 20);
        for (const std::string& s : host.signatures())
            if (swept(kixhost::parse_signature(s).name)) {
                names.push_back(kixhost::parse_signature(s).name);
                library.push_back(false);
            }
        for (const std::string& s : host.library_signatures())
            if (swept(kixhost::parse_signature(s).name)) {
                names.push_back(kixhost::parse_signature(s).name);
                library.push_back(true);
            }
    }
};

constexpr int kCodes[] = {1, 2, 3, 6, 7, 9, 10, 11, 12, 13, 14, 23};

kixhost::ImagePtr image(kixhost::Host& h, Bytes& in) {
    const int code = kCodes[in.byte() % std::size(kCodes)];
    std::vector<std::int64_t> dims(1 + in.byte() % 5);
    for (std::int64_t& d : dims) d = 1 + in.byte() % 9;
    kixhost::ImagePtr img = h.new_image(code, dims, "fuzz");
    const std::size_t bytes = std::size_t(img->count()) * std::size_t(kixhost::element_bytes(code));
    const std::size_t k = std::min(bytes, in.n);
    std::memcpy(img->data(), in.p, k);
    in.p += k;
    in.n -= k;
    return img;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static World world;
    Bytes in{data, size};
    const std::uint8_t pick = in.byte();
    std::string name;
    bool library = false;
    if (pick == 255) {
        name = in.text();
    } else {
        const std::size_t i = in.value<std::uint16_t>() % world.names.size();
        name = world.names[i];
        library = world.library[i];
    }
    std::vector<kixhost::Value> args;
    const int count = in.byte() % 13;
    kixhost::ObjectPtr last;
    for (int k = 0; k < count; ++k) {
        switch (in.byte() % 8) {
            case 0: args.emplace_back(kixhost::NullImage{}); break;
            case 1: args.emplace_back(std::int64_t(in.value<std::int32_t>())); break;
            case 2: args.emplace_back(in.value<double>()); break;
            case 3: args.emplace_back(in.text()); break;
            case 4: last = kixhost::ObjectPtr(image(world.host, in)); args.emplace_back(last); break;
            case 5: args.emplace_back(bool(in.byte() & 1)); break;
            case 6: args.emplace_back(std::complex<double>(in.value<double>(), in.value<double>())); break;
            default:
                if (last) args.emplace_back(last);
                else args.emplace_back(kixhost::NullImage{});
        }
    }
    try {
        if (library)
            world.host.library_call(name, args);
        else
            world.host.call(name, args);
    } catch (const std::exception&) {
        // A script error, or the host refusing arguments that fit no overload.
    }
    return 0;
}
