// Registration tables: a script function is its return-type text, its
// prototype text (spacing kept exactly) and the C entry point of its handler.
// The host receives return text + prefix + prototype.
#pragma once

#include <cstddef>
#include <span>
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

// Hands each entry to the host's add-function operation, in order.
void add_functions(const std::string& prefix, std::span<const ScriptFunction> table);

// The functions of the two registrar lists that start-up never runs, with
// their full signature texts; list 0 is the larger list, list 1 the one-entry list.
const std::vector<KixFunctionEntry>& library_functions(int list);

}  // namespace kix
