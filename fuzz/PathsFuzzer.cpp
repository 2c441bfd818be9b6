// Path normalisation and the path predicates on arbitrary text: nothing crashes, and the
// properties the cache relies on hold. The input is two paths separated by the first NUL byte
// (a base and a path); without one, the path is checked alone and against its own parent.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "qn/PathString.h"
#include "qn/util/PathNormalization.h"

namespace {

// Checks what holds of any path alone, and gives its normalised form.
std::string checkOne(std::string_view path) {
    std::string normalised = qn::stringByNormalizingPath(path);
    QN_FUZZ_CHECK(qn::stringByNormalizingPath(normalised) == normalised, path, normalised);
    QN_FUZZ_CHECK(!qn::isBasePathOfPath(path, path), path, path);
    QN_FUZZ_CHECK(path.empty() || qn::isEqualToPath(path, normalised), path, normalised);
    return normalised;
}

// Each path comes with its normalised form, worked out once: normalising is most of the cost,
// and executions per second are what finds faults.
void checkPair(std::string_view base, const std::string& normalisedBase, std::string_view path,
               const std::string& normalisedPath) {
    const bool sameKey = qn::lowercaseNFC(normalisedBase) == qn::lowercaseNFC(normalisedPath);
    QN_FUZZ_CHECK(qn::isEqualToPath(base, path) == (!base.empty() && !path.empty() && sameKey),
                  base, path);
    if (!qn::isBasePathOfPath(base, path)) {
        return;
    }
    QN_FUZZ_CHECK(!qn::isBasePathOfPath(path, base), base, path);
    // What lies below the base, put back on the base, is the path again.
    const std::string rest = qn::stringByDeletingBeginningOfPath(path, base);
    QN_FUZZ_CHECK(rest.starts_with('/') && rest.size() > 1, base, rest);
    const std::string rebuilt = normalisedBase == "/" ? rest : normalisedBase + rest;
    QN_FUZZ_CHECK(qn::isEqualToPath(rebuilt, path), rebuilt, path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::size_t split = input.find('\0');
    if (split == std::string_view::npos) {
        const std::string normalised = checkOne(input);
        const std::string parent = qn::stringByDeletingLastPathComponent(std::string(input));
        checkPair(parent, qn::stringByNormalizingPath(parent), input, normalised);
        return 0;
    }
    const std::string_view base = input.substr(0, split);
    const std::string_view path = input.substr(split + 1);
    checkPair(base, checkOne(base), path, checkOne(path));
    return 0;
}
