// The WebDAV multistatus reader on arbitrary bytes from the network: an answer is read or
// refused, never a crash, a hang or a guess; and the store's path escaping reads back.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "platform/drive/Multistatus.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    std::string problem;
    if (const auto parsed = qn::drive::parseMultistatus(input, &problem)) {
        for (const auto& resource : parsed->resources) {
            QN_FUZZ_CHECK(resource.path.find('\0') == std::string::npos, input, resource.path);
        }
    } else {
        QN_FUZZ_CHECK(!problem.empty(), input, problem);
    }
    if (input.find('\0') == std::string_view::npos) {
        const std::string encoded = qn::drive::percentEncodePath(input);
        const auto decoded = qn::drive::percentDecode(encoded);
        QN_FUZZ_CHECK(decoded && *decoded == input, input, encoded);
    }
    qn::drive::parseHttpDate(input);
    return 0;
}
