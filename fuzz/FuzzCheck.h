#pragma once

// What a fuzz target does when a property fails: say which, with the input's parts, and abort,
// so that libFuzzer keeps the input as a finding.

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace qn::fuzz {

[[noreturn]] inline void failed(const char* property, std::string_view a, std::string_view b) {
    std::fprintf(stderr, "property failed: %s\n  a: \"%.*s\"\n  b: \"%.*s\"\n", property,
                 static_cast<int>(a.size()), a.data(), static_cast<int>(b.size()), b.data());
    std::abort();
}

#define QN_FUZZ_CHECK(condition, a, b)            \
    do {                                          \
        if (!(condition)) {                       \
            ::qn::fuzz::failed(#condition, a, b); \
        }                                         \
    } while (false)

}  // namespace qn::fuzz
