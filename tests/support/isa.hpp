// Runs a test body once per instruction-set level the processor has, so that
// the narrower vector instances are exercised on a processor with wider ones.
#pragma once

#include <gtest/gtest.h>

#include "runtime/runtime.hpp"

namespace kixtest {

template <class F>
void for_each_isa(F f) {
    kix::cap_isa_level(0);
    const int widest = kix::isa_level();
    for (int level = kix::kIsaSSE2; level <= widest; ++level) {
        kix::cap_isa_level(level);
        SCOPED_TRACE(kix::isa_name(level));
        f();
    }
    kix::cap_isa_level(0);
}

}  // namespace kixtest
