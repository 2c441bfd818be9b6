// The metadata predicate's parser and its "like" matching on arbitrary text. The input is a
// format and an item's path separated by the first NUL byte; whatever parses must match exactly
// as a plain dynamic-programming glob matcher says.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzCheck.h"
#include "qn/MetadataAttributes.h"
#include "qn/MetadataPredicate.h"

namespace {

// "*" any run, "?" one byte, anything else itself: the table of which prefixes match.
bool globMatches(std::string_view text, std::string_view pattern) {
    std::vector<char> row(text.size() + 1, 0);
    row[0] = 1;
    for (const char p : pattern) {
        std::vector<char> next(text.size() + 1, 0);
        next[0] = p == '*' && row[0];
        for (std::size_t t = 1; t <= text.size(); ++t) {
            if (p == '*') {
                next[t] = row[t] || next[t - 1];
            } else {
                next[t] = row[t - 1] && (p == '?' || p == text[t - 1]);
            }
        }
        row = std::move(next);
    }
    return row[text.size()] != 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 4096) {
        return 0;  // the reference matcher is quadratic
    }
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::size_t split = input.find('\0');
    const std::string_view format = input.substr(0, split);
    const std::string_view text =
        split == std::string_view::npos ? std::string_view() : input.substr(split + 1);

    const auto parsed =
        qn::MetadataPredicate::predicateWithFormat(format, qn::NSMetadataItemPathKey);
    if (parsed) {
        QN_FUZZ_CHECK(format.starts_with("%K like \"") || format.starts_with("%K LIKE \""), format,
                      parsed->pattern());
        QN_FUZZ_CHECK("%K like \"" + parsed->pattern() + "\"" == format ||
                          "%K LIKE \"" + parsed->pattern() + "\"" == format,
                      format, parsed->pattern());
    }
    // Any pattern, as a parsed predicate would hold it, matches as the reference says.
    const qn::MetadataPredicate predicate(qn::NSMetadataItemPathKey, std::string(format));
    const qn::MetadataItem item(qn::Dictionary{{qn::NSMetadataItemPathKey, std::string(text)}});
    QN_FUZZ_CHECK(predicate.evaluate(item) == globMatches(text, format), text, format);
    return 0;
}
