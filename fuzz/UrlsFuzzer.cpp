// File URLs parsed from arbitrary text and made from arbitrary paths: nothing crashes, and a
// URL's text parses back to the same URL.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "qn/URL.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    if (const auto parsed = qn::URL::fromString(input)) {
        const std::string text = parsed->absoluteString();
        const auto again = qn::URL::fromString(text);
        QN_FUZZ_CHECK(again && *again == *parsed, input, text);
        QN_FUZZ_CHECK(parsed->URLByStandardizingPath().URLByStandardizingPath() ==
                          parsed->URLByStandardizingPath(),
                      input, text);
        parsed->pathComponents();
        parsed->URLByDeletingLastPathComponent();
        parsed->URLByDeletingPathExtension();
    }
    if (input.starts_with('/') && input.find('\0') == std::string_view::npos) {
        for (const bool directory : {false, true}) {
            const auto url = qn::URL::fileURLWithPath(input, directory);
            const auto back = qn::URL::fromString(url.absoluteString());
            QN_FUZZ_CHECK(back && *back == url, input, url.absoluteString());
        }
    }
    return 0;
}
