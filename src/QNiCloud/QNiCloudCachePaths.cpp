#include "QNiCloudCachePaths.h"

#include <array>
#include <bit>
#include <cstring>
#include <string>

#include "qn/util/PathNormalization.h"

namespace qn::cache {
namespace {

constexpr std::uint64_t kOnes = 0x0101010101010101ULL;
constexpr std::uint64_t kHighs = 0x8080808080808080ULL;

// Lower-cases the ASCII capitals of eight ASCII bytes at once (no byte has bit 7 set, so no sum
// carries into the next byte).
std::uint64_t asciiLowerWord(std::uint64_t word) {
    const std::uint64_t atLeastA = word + kOnes * (0x80 - 'A');
    const std::uint64_t aboveZ = word + kOnes * (0x80 - 'Z' - 1);
    return word | (((atLeastA ^ aboveZ) & kHighs) >> 2);
}

unsigned char asciiLower(unsigned char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<unsigned char>(c | 0x20) : c;
}

std::uint32_t step(std::uint32_t h, unsigned char byte) {
    return (h * kFnvPrime) ^ byte;
}

constexpr char32_t kLatinFirst = 0x80;
constexpr char32_t kLatinEnd = 0x180;

std::string utf8(char32_t cp) {
    std::string s;
    s += static_cast<char>(0xC0 | (cp >> 6));
    s += static_cast<char>(0x80 | (cp & 0x3F));
    return s;
}

// For U+0080..U+017F: the lower-case character when the character is NFC on its own and
// lowercaseNFC maps it to one character of the same range that is NFC too; 0 otherwise. Built
// from the utility layer's own functions, so the fast path cannot disagree with them. None of
// these characters is a combining mark, so a string of them is NFC exactly when each one is.
const std::array<std::uint16_t, kLatinEnd - kLatinFirst>& latinLowerTable() {
    static const std::array<std::uint16_t, kLatinEnd - kLatinFirst> table = [] {
        std::array<std::uint16_t, kLatinEnd - kLatinFirst> result{};
        for (char32_t cp = kLatinFirst; cp < kLatinEnd; ++cp) {
            const std::string text = utf8(cp);
            if (qn::stringByNormalizingPath(text) != text) {
                continue;
            }
            const std::string lower = qn::lowercaseNFC(text);
            if (lower.size() != 2) {
                continue;
            }
            const auto lead = static_cast<unsigned char>(lower[0]);
            const auto trail = static_cast<unsigned char>(lower[1]);
            if (lead < 0xC2 || lead > 0xC5 || (trail & 0xC0) != 0x80) {
                continue;
            }
            const char32_t lowerCp = ((lead & 0x1F) << 6) | (trail & 0x3F);
            if (qn::stringByNormalizingPath(lower) == lower) {
                result[cp - kLatinFirst] = static_cast<std::uint16_t>(lowerCp);
            }
        }
        return result;
    }();
    return table;
}

// The table's lower case of the two-byte sequence at `p` (with `available` bytes left), or 0.
char32_t latinLowerAt(const unsigned char* p, std::size_t available) {
    if (available < 2 || p[0] < 0xC2 || p[0] > 0xC5 || (p[1] & 0xC0) != 0x80) {
        return 0;
    }
    const char32_t cp = ((p[0] & 0x1F) << 6) | (p[1] & 0x3F);
    return latinLowerTable()[cp - kLatinFirst];
}

// Hashes from `start` (the beginning of a component) on, with `h` the state there, handling
// every kind of text: a component with a character the table does not cover is hashed from its
// lowercaseNFC form.
std::uint32_t hashMixed(std::uint32_t h, std::string_view text, std::size_t start) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const std::size_t n = text.size();
    std::size_t componentStart = start;
    std::uint32_t componentState = h;
    std::size_t i = start;
    while (i < n) {
        const unsigned char c = p[i];
        if (c < 0x80) {
            h = step(h, asciiLower(c));
            ++i;
            if (c == '/') {
                componentStart = i;
                componentState = h;
            }
            continue;
        }
        if (const char32_t lower = latinLowerAt(p + i, n - i); lower != 0) {
            h = step(step(h, static_cast<unsigned char>(0xC0 | (lower >> 6))),
                     static_cast<unsigned char>(0x80 | (lower & 0x3F)));
            i += 2;
            continue;
        }
        std::size_t end = text.find('/', i);
        if (end == std::string_view::npos) {
            end = n;
        }
        const std::string lowered =
            qn::lowercaseNFC(text.substr(componentStart, end - componentStart));
        h = componentState;
        for (const char byte : lowered) {
            h = step(h, static_cast<unsigned char>(byte));
        }
        i = end;
    }
    return h;
}

}  // namespace

std::uint32_t fnvLowercaseNFC(std::uint32_t state, std::string_view text) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const std::size_t n = text.size();
    std::uint32_t h = state;
    std::size_t i = 0;
    if constexpr (std::endian::native == std::endian::little) {
        for (; i + 8 <= n; i += 8) {
            std::uint64_t word;
            std::memcpy(&word, p + i, sizeof word);
            if ((word & kHighs) != 0) {
                break;
            }
            word = asciiLowerWord(word);
            for (int k = 0; k < 8; ++k) {
                h = step(h, static_cast<unsigned char>(word >> (8 * k)));
            }
        }
    }
    for (; i < n; ++i) {
        if (p[i] & 0x80) {
            break;
        }
        h = step(h, asciiLower(p[i]));
    }
    if (i == n) {
        return h;
    }
    // Not ASCII: start again at the beginning of the component, as composition may change the
    // bytes before the first non-ASCII one ("e" + U+0301 is "é").
    const std::size_t slash = text.rfind('/', i);
    const std::size_t start = slash == std::string_view::npos ? 0 : slash + 1;
    h = state;
    for (std::size_t k = 0; k < start; ++k) {
        h = step(h, asciiLower(p[k]));
    }
    return hashMixed(h, text, start);
}

bool isFastComposed(std::string_view text) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const std::size_t n = text.size();
    std::size_t i = 0;
    while (i < n) {
        if (i + 8 <= n) {
            std::uint64_t word;
            std::memcpy(&word, p + i, sizeof word);
            if ((word & kHighs) == 0) {
                i += 8;
                continue;
            }
        }
        if (p[i] < 0x80) {
            ++i;
        } else if (latinLowerAt(p + i, n - i) != 0) {
            i += 2;
        } else {
            return false;
        }
    }
    return true;
}

std::string composedNFC(std::string_view text) {
    return isFastComposed(text) ? std::string(text) : qn::composedNFC(text);
}

bool isPlainComponent(std::string_view name) {
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string_view::npos) {
        return false;
    }
    return isFastComposed(name) || qn::stringByNormalizingPath(name) == name;
}

bool hashStandardFastRemainder(std::string_view rest, std::uint32_t& hash, std::size_t* lastSlash,
                               std::uint32_t* stateAtLastSlash) {
    const auto* p = reinterpret_cast<const unsigned char*>(rest.data());
    const std::size_t n = rest.size();
    if (n < 2 || p[0] != '/') {
        return false;
    }
    // One pass: the checks run beside the hash's multiply chain, which sets the pace.
    std::uint32_t h = kFnvOffsetBasis;
    for (std::size_t i = 0; i < n;) {
        const unsigned char c = p[i];
        if (c == '/') {
            if (lastSlash != nullptr) {
                *lastSlash = i;
                *stateAtLastSlash = h;
            }
            const std::size_t start = i + 1;
            if (start == n || p[start] == '/') {
                return false;
            }
            if (p[start] == '.') {
                const std::size_t after =
                    start + 1 < n && p[start + 1] == '.' ? start + 2 : start + 1;
                if (after == n || p[after] == '/') {
                    return false;
                }
            }
        } else if (c >= 0x80) {
            const char32_t lower = latinLowerAt(p + i, n - i);
            if (lower == 0) {
                return false;
            }
            h = step(step(h, static_cast<unsigned char>(0xC0 | (lower >> 6))),
                     static_cast<unsigned char>(0x80 | (lower & 0x3F)));
            i += 2;
            continue;
        }
        h = step(h, asciiLower(c));
        ++i;
    }
    hash = h;
    return true;
}

bool isStandardFastRemainder(std::string_view rest) {
    std::uint32_t ignored;
    return hashStandardFastRemainder(rest, ignored);
}

namespace {

std::string_view trimTrailingSeparators(std::string_view path) {
    const std::size_t last = path.find_last_not_of('/');
    if (last == std::string_view::npos) {
        return path.substr(0, path.empty() ? 0 : 1);
    }
    return path.substr(0, last + 1);
}

}  // namespace

std::string_view lastComponent(std::string_view path) {
    const std::string_view trimmed = trimTrailingSeparators(path);
    if (trimmed == "/") {
        return trimmed;
    }
    const std::size_t slash = trimmed.rfind('/');
    return slash == std::string_view::npos ? trimmed : trimmed.substr(slash + 1);
}

std::string_view deletingLastComponent(std::string_view path) {
    const std::string_view trimmed = trimTrailingSeparators(path);
    if (trimmed == "/") {
        return trimmed;
    }
    const std::size_t slash = trimmed.rfind('/');
    if (slash == std::string_view::npos) {
        return {};
    }
    return trimTrailingSeparators(trimmed.substr(0, slash + 1));
}

}  // namespace qn::cache
