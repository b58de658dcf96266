// Registration: a script function is its return-type text, its prototype text
// (spacing kept exactly) and the C entry point of its handler; the host
// receives return text + prefix + prototype.
//
// Each family contributes its rows from its own register.cpp with a static
// `Rows` object naming the list they belong to.  This file's .cpp holds the
// one order of every list, so a list that several families share (the
// filter-and-survey registrar, the master's own table, the library lists)
// comes out in its fixed order whichever family's object was linked first.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <string>
#include <vector>

#include "sdk/script_glue.hpp"

namespace kix {

struct ScriptFunction {
    const char* result;     // with its trailing blank: "void ", "ImageRef "
    const char* prototype;  // "SetNumThreads(long n)"
    void* entry;
};

template <auto Handler>
void* entry() {
    return Gatan::PlugIn::ScriptEntry<Handler>();
}

// The registrars in the order start-up runs them, then the two lists that
// start-up never runs (their functions stay library functions).
enum class List {
    FilterSurvey,
    SIMD,
    Version,
    Fourier,
    LinearAlgebra,
    Elementwise,
    Warp,
    SpikeNoise,
    Master,
    Library,     // the larger unused list
    LibraryOne,  // the one-entry unused list
};
inline constexpr List kStartupLists[] = {List::FilterSurvey, List::SIMD,    List::Version,
                                         List::Fourier,      List::LinearAlgebra, List::Elementwise,
                                         List::Warp,         List::SpikeNoise, List::Master};

// A family's rows for one list, collected when the module loads.  Overloads of
// one name keep the order in which they are written.
struct Rows {
    Rows(List list, std::initializer_list<ScriptFunction> rows);
};

// The rows of a list in its fixed order.
std::vector<ScriptFunction> rows_of(List list);
// Hands each row of the list to the host's add-function operation, in order.
void add_functions(const std::string& prefix, List list);
// The functions of an unused list (0: the larger, 1: the one-entry list) with
// their full signature texts.
const std::vector<KixFunctionEntry>& library_functions(int list);

}  // namespace kix
