// Transform-plan tokens as scripts hand them back: a few plans are made, then
// the fuzzer's text (or a live token with the fuzzer's bytes spliced in) goes
// to the functions that read tokens, in either family, interleaved with
// releases.  A token that names no live plan must be a script error, never a
// use of a released plan or a crash.
#include <complex>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "host/host.hpp"

namespace {

using namespace kixhost;

struct World {
    Host host;
    ImagePtr c = host.new_image(kComplex64, {8, 4}, "c");
    ImagePtr c2 = host.new_image(kComplex64, {8, 4}, "c2");
    ImagePtr r = host.new_image(kFloat32, {8, 4}, "r");
    ImagePtr h = host.new_image(kComplex64, {5, 4}, "h");
};

std::string plan(World& w, bool real) {
    std::vector<Value> args = {ObjectPtr(real ? w.r : w.c), 1.0, 1.0, ObjectPtr(real ? w.h : w.c2)};
    const CallResult out = w.host.call(real ? "KIXPreprocessRealFFTDLL" : "KIXPreprocessFFTDLL", args);
    return std::get<std::string>(out.result);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static World w;
    if (size == 0) return 0;
    const std::uint8_t how = data[0];
    std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    const bool real = how & 1;
    try {
        const std::string live = plan(w, real);
        if (how & 2) text = live + text;                    // a live token with a tail
        if (how & 4) text = live.substr(0, (how >> 4) % (live.size() + 1)) + text;
        if (how & 8) {                                      // a released token
            std::vector<Value> release = {live};
            w.host.call(real ? "KIXPostprocessRealFFTDLL" : "KIXPostprocessFFTDLL", release);
        }
        std::vector<Value> run = {ObjectPtr(real ? w.r : w.c), text, ObjectPtr(real ? w.h : w.c2)};
        try {
            w.host.call(real ? "KIXProcessRealFFTDLL" : "KIXProcessFFTDLL", run);
        } catch (const ScriptError&) {
        }
        std::vector<Value> release = {text};
        try {
            w.host.call(real ? "KIXPostprocessRealFFTDLL" : "KIXPostprocessFFTDLL", release);
        } catch (const ScriptError&) {
        }
        if (!(how & 8)) {
            std::vector<Value> mine = {live};
            try {
                w.host.call(real ? "KIXPostprocessRealFFTDLL" : "KIXPostprocessFFTDLL", mine);
            } catch (const ScriptError&) {  // the fuzzer's text already released it
            }
        }
    } catch (const ScriptError&) {
    }
    return 0;
}
