// kixhost: the reference host on the command line.
//
//   kixhost [--verbose] [--host-version HEX] [--module PATH] COMMAND
//     list                 every registered signature, in registration order
//     library              the library-only signatures
//     version              the module's version text and its math libraries' text
//     call NAME [ARG...]   call a script function; ARG is an integer, a real
//                          number, true/false, null (no image), (re,im) for a
//                          complex number, img:TYPE:WxH[xD...] for a new image
//                          (pixel value = its index), s:TEXT or any other text
//                          for a string
//     open FILE            open an image file (DM3/DM4, TIFF, MRC, .npy): its
//                          shape, type, calibration and top-level tags
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>

#include "host/detail.hpp"
#include "host/files/files.hpp"
#include "host/host.hpp"

namespace {

using namespace kixhost;

int usage(const char* msg = nullptr) {
    if (msg) std::fprintf(stderr, "kixhost: %s\n", msg);
    std::fprintf(stderr,
                 "usage: kixhost [--verbose] [--host-version HEX] [--module PATH] COMMAND\n"
                 "  list                 every registered signature, in registration order\n"
                 "  library              the library-only signatures\n"
                 "  version              the module's version texts\n"
                 "  call NAME [ARG...]   call a script function (ARG: 12, 1.5, true, null, (1,2),\n"
                 "                       img:TYPE:WxH for a new image, s:TEXT or TEXT for a string)\n"
                 "  open FILE            open an image file: shape, type, calibration, top-level tags\n");
    return 2;
}

bool parse_int(const std::string& s, std::int64_t& v) {
    if (s.empty()) return false;
    char* end = nullptr;
    errno = 0;
    v = std::strtoll(s.c_str(), &end, 0);
    return errno == 0 && *end == '\0';
}
bool parse_real(const std::string& s, double& v) {
    if (s.empty()) return false;
    char* end = nullptr;
    v = std::strtod(s.c_str(), &end);
    return *end == '\0';
}

// "img:TYPE:WxH..." -> an image whose pixels count up from 0.
ImagePtr parse_image(Host& h, const std::string& s) {
    const std::size_t colon = s.find(':', 4);
    if (colon == std::string::npos) throw std::invalid_argument("an image is img:TYPE:WxH, not " + s);
    std::int64_t type = 0;
    if (!parse_int(s.substr(4, colon - 4), type)) throw std::invalid_argument("bad image type in " + s);
    std::vector<std::int64_t> dims;
    std::stringstream in(s.substr(colon + 1));
    std::string part;
    while (std::getline(in, part, 'x')) {
        std::int64_t d = 0;
        if (!parse_int(part, d)) throw std::invalid_argument("bad image size in " + s);
        dims.push_back(d);
    }
    ImagePtr img = h.new_image(int(type), dims, "img");
    ImagePtr ramp = h.new_image(kFloat64, {img->count()}, "ramp");
    auto* r = reinterpret_cast<double*>(ramp->data());
    for (std::int64_t i = 0; i < ramp->count(); ++i) r[i] = double(i);
    if (type != kRGB) detail::convert_pixels(*ramp, *img);
    return img;
}

Value parse_value(Host& h, const std::string& s) {
    std::int64_t i = 0;
    double d = 0;
    if (s == "null") return NullImage{};
    if (s == "true") return true;
    if (s == "false") return false;
    if (parse_int(s, i)) return i;
    if (parse_real(s, d)) return d;
    if (s.size() > 2 && s.front() == '(' && s.back() == ')') {
        const std::size_t comma = s.find(',');
        double re = 0, im = 0;
        if (comma != std::string::npos && parse_real(s.substr(1, comma - 1), re) &&
            parse_real(s.substr(comma + 1, s.size() - comma - 2), im))
            return std::complex<double>(re, im);
    }
    if (s.rfind("img:", 0) == 0) return ObjectPtr(parse_image(h, s));
    if (s.rfind("s:", 0) == 0) return s.substr(2);
    return s;
}

void print_tags(const TagGroup& g, int indent) {
    for (std::size_t k = 0; k < g.tags.size(); ++k) {
        const TagGroup::Tag& t = g.tags[k];
        std::cout << std::string(std::size_t(indent), ' ');
        if (g.is_list)
            std::cout << '[' << k << ']';
        else
            std::cout << t.label;
        std::visit(
            [&](const auto& x) {
                using X = std::decay_t<decltype(x)>;
                if constexpr (std::is_same_v<X, std::monostate>) {
                    std::cout << "\n";
                } else if constexpr (std::is_same_v<X, TagGroupPtr>) {
                    std::cout << ":\n";
                    if (x) print_tags(*x, indent + 2);
                } else if constexpr (std::is_same_v<X, std::string>) {
                    std::cout << " = \"" << x << "\"\n";
                } else if constexpr (std::is_same_v<X, std::int16_t>) {
                    std::cout << " = " << int(x) << "\n";
                } else {
                    std::cout << " = " << x << "\n";
                }
            },
            t.value);
    }
}

void print_image(const Image& img) {
    std::cout << "image \"" << img.name << "\", " << detail::type_name(img.data_type) << ", ";
    for (std::size_t i = 0; i < img.dims.size(); ++i) std::cout << (i ? "x" : "") << img.dims[i];
    if (img.data_type == kRGB) {
        std::cout << "\n";
        return;
    }
    // The first pixels, as numbers.
    const std::int64_t n = std::min<std::int64_t>(img.count(), 8);
    ImagePtr head = detail::make_image(kComplex128, std::vector<std::int64_t>{img.count()}, "", false);
    detail::convert_pixels(img, *head);
    const auto* z = reinterpret_cast<const std::complex<double>*>(head->data());
    std::cout << ": ";
    for (std::int64_t i = 0; i < n; ++i) {
        if (detail::is_complex_type(img.data_type))
            std::cout << (i ? " " : "") << "(" << z[i].real() << "," << z[i].imag() << ")";
        else
            std::cout << (i ? " " : "") << z[i].real();
    }
    std::cout << (img.count() > n ? " ...\n" : "\n");
}

// What `open` shows: the image, each dimension's calibration, the intensity
// calibration and the first level of the tag group.
void print_opened(const Image& img) {
    print_image(img);
    static const char* axis[] = {"x", "y", "z", "4", "5"};
    for (std::size_t d = 0; d < img.dims.size(); ++d) {
        const Calibration& c = d < img.calibrations.size() ? img.calibrations[d] : Calibration{};
        std::cout << "  " << axis[d] << ": " << img.dims[d] << " pixels, origin " << c.origin << ", scale "
                  << c.scale << ", units \"" << c.units << "\"\n";
    }
    std::cout << "  intensity: origin " << img.intensity.origin << ", scale " << img.intensity.scale
              << ", units \"" << img.intensity.units << "\"\n";
    if (!img.tags || img.tags->tags.empty()) {
        std::cout << "  no tags\n";
        return;
    }
    std::cout << "  tags:\n";
    TagGroup top(img.tags->is_list);
    for (const TagGroup::Tag& t : img.tags->tags)
        if (!std::holds_alternative<TagGroupPtr>(t.value)) top.tags.push_back(t);
    print_tags(top, 4);
    // Groups by name and size only.
    for (std::size_t k = 0; k < img.tags->tags.size(); ++k) {
        const TagGroup::Tag& t = img.tags->tags[k];
        if (const auto* g = std::get_if<TagGroupPtr>(&t.value); g && *g) {
            std::cout << "    ";
            if (img.tags->is_list)
                std::cout << '[' << k << ']';
            else
                std::cout << t.label;
            std::cout << ": group of " << (*g)->tags.size() << " tags\n";
        }
    }
}

void print_value(const Value& v) {
    std::visit(
        [](const auto& x) {
            using X = std::decay_t<decltype(x)>;
            if constexpr (std::is_same_v<X, std::monostate>) {
                std::cout << "(void)\n";
            } else if constexpr (std::is_same_v<X, NullImage>) {
                std::cout << "null\n";
            } else if constexpr (std::is_same_v<X, bool>) {
                std::cout << (x ? "true" : "false") << "\n";
            } else if constexpr (std::is_same_v<X, std::string>) {
                std::cout << "\"" << x << "\"\n";
            } else if constexpr (std::is_same_v<X, std::complex<double>>) {
                std::cout << "(" << x.real() << "," << x.imag() << ")\n";
            } else if constexpr (std::is_same_v<X, ObjectPtr>) {
                if (!x) {
                    std::cout << "null\n";
                } else if (x->kind() == Object::Kind::Image) {
                    print_image(static_cast<const Image&>(*x));
                } else if (x->kind() == Object::Kind::TagGroup) {
                    const auto& g = static_cast<const TagGroup&>(*x);
                    std::cout << (g.is_list ? "tag list" : "tag group") << " of " << g.tags.size() << " tags\n";
                    print_tags(g, 2);
                } else if (x->kind() == Object::Kind::String) {
                    std::cout << "\"" << static_cast<const String&>(*x).text << "\"\n";
                } else {
                    std::cout << "script object\n";
                }
            } else {
                std::cout << std::setprecision(17) << x << "\n";
            }
        },
        v);
}

}  // namespace

int main(int argc, char** argv) {
    HostOptions options;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        const std::string a = argv[i];
        if (a == "--verbose") {
            options.verbose = true;
        } else if (a == "--host-version" && i + 1 < argc) {
            char* end = nullptr;
            const unsigned long v = std::strtoul(argv[++i], &end, 16);
            if (*end != '\0' || v > 0xFFFFFFFFul) return usage("--host-version takes a hexadecimal number");
            options.host_version = static_cast<std::uint32_t>(v);
        } else if (a == "--module" && i + 1 < argc) {
            options.module_path = argv[++i];
        } else if (a == "--help" || a == "-h") {
            return usage();
        } else {
            return usage(("unknown option " + a).c_str());
        }
    }
    if (i >= argc) return usage("no command");
    const std::string command = argv[i++];
    if (command == "open") {
        // Reading a file needs no module.
        if (i + 1 != argc) return usage("open takes one file name");
        try {
            const ImagePtr img = files::open_image(argv[i]);
            print_opened(*img);
            std::cout.flush();
            return 0;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "kixhost: %s\n", e.what());
            return 1;
        }
    }
    if (command != "list" && command != "library" && command != "version" && command != "call")
        return usage(("unknown command " + command).c_str());
    try {
        Host host(options);
        if (options.verbose) std::fprintf(stderr, "kixhost: module %s\n", host.module_path().c_str());
        if (!options.verbose)
            for (const ReportedError& e : host.errors())
                std::fprintf(stderr, "kixhost: module error %d: %s\n", e.code, e.message.c_str());
        // A module that refused to start (the version gate) leaves nothing to run.
        if (host.signatures().empty() && !host.errors().empty()) {
            std::fprintf(stderr, "kixhost: the module did not start: %s\n", host.errors().front().message.c_str());
            return 1;
        }
        if (command == "list") {
            for (const std::string& s : host.signatures()) std::cout << s << "\n";
        } else if (command == "library") {
            for (const std::string& s : host.library_signatures()) std::cout << s << "\n";
        } else if (command == "version") {
            std::vector<Value> none;
            for (const char* f : {"KIXGetVersionString", "KIXGetMKLVersionString"}) {
                const CallResult r = host.call(f, none);
                std::cout << std::get<std::string>(r.result) << "\n";
            }
            std::cout << "instruction set: " << host.instruction_set() << "\n";
        } else {
            if (i >= argc) return usage("call needs a function name");
            const std::string name = argv[i++];
            std::vector<Value> args;
            for (; i < argc; ++i) args.push_back(parse_value(host, argv[i]));
            // A name the host does not hold is looked for among the library functions.
            bool library = true;
            for (const std::string& sig : host.signatures())
                if (parse_signature(sig).name == name) library = false;
            const CallResult r = library ? host.library_call(name, args) : host.call(name, args);
            std::cout << r.signature << "\n  result: ";
            print_value(r.result);
            for (std::size_t k : r.by_ref) {
                std::cout << "  argument " << (k + 1) << ": ";
                print_value(args[k]);
            }
        }
        std::cout.flush();
    } catch (const ScriptError& e) {
        std::fprintf(stderr, "kixhost: script error%s%s: %s\n", e.context().empty() ? "" : " in ",
                     e.context().c_str(), e.what());
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kixhost: %s\n", e.what());
        return 1;
    }
    return 0;
}
