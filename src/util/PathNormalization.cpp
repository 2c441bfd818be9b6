#include "qn/util/PathNormalization.h"

#include <unicode/bytestream.h>
#include <unicode/casemap.h>
#include <unicode/normalizer2.h>
#include <unicode/stringpiece.h>
#include <unicode/utypes.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <limits>

#include "qn/PathString.h"

namespace qn {
namespace {

// The index of the first byte that is not ASCII, or npos. Eight bytes at a time: the paths the
// library handles are almost always ASCII.
std::size_t firstNonAscii(std::string_view text) {
    constexpr std::uint64_t kHighBits = 0x8080808080808080ULL;
    std::size_t i = 0;
    for (; i + 8 <= text.size(); i += 8) {
        std::uint64_t word;
        std::memcpy(&word, text.data() + i, 8);
        if (word & kHighBits) {
            break;
        }
    }
    for (; i < text.size(); ++i) {
        if (static_cast<unsigned char>(text[i]) & 0x80) {
            return i;
        }
    }
    return std::string_view::npos;
}

bool isAscii(std::string_view text) {
    return firstNonAscii(text) == std::string_view::npos;
}

char asciiLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Lower-cases the ASCII letters of eight ASCII bytes at once. With the high bits clear no
// addition carries into the next byte, so bit 7 of each sum tells whether that byte is >= 'A'
// (first sum) and whether it is > 'Z' (second); their difference marks the capitals.
std::uint64_t asciiLowerWord(std::uint64_t word) {
    constexpr std::uint64_t kOnes = 0x0101010101010101ULL;
    const std::uint64_t atLeastA = word + kOnes * (0x80 - 'A');
    const std::uint64_t aboveZ = word + kOnes * (0x80 - 'Z' - 1);
    const std::uint64_t capitals = (atLeastA ^ aboveZ) & (kOnes * 0x80);
    return word | (capitals >> 2);
}

// For ASCII text only.
bool equalIgnoringAsciiCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    std::size_t i = 0;
    for (; i + 8 <= a.size(); i += 8) {
        std::uint64_t x;
        std::uint64_t y;
        std::memcpy(&x, a.data() + i, 8);
        std::memcpy(&y, b.data() + i, 8);
        if (x != y && asciiLowerWord(x) != asciiLowerWord(y)) {
            return false;
        }
    }
    for (; i < a.size(); ++i) {
        if (asciiLower(a[i]) != asciiLower(b[i])) {
            return false;
        }
    }
    return true;
}

void appendAsciiLowercase(std::string& out, std::string_view text) {
    const std::size_t start = out.size();
    out += text;
    for (std::size_t i = start; i < out.size(); ++i) {
        out[i] = asciiLower(out[i]);
    }
}

std::string asciiLowercase(std::string_view text) {
    std::string result;
    appendAsciiLowercase(result, text);
    return result;
}

// Whether the component starting at `i` is "." or "..".
bool isDotComponentAt(std::string_view path, std::size_t i) {
    if (i >= path.size() || path[i] != '.') {
        return false;
    }
    const std::size_t end = i + 1 < path.size() && path[i + 1] == '.' ? i + 2 : i + 1;
    return end == path.size() || path[end] == '/';
}

// Whether what follows the separator at `slash` makes the path non-standard: another
// separator, a "." or ".." component, or nothing (a trailing separator after other text).
bool irregularAfterSeparator(std::string_view path, std::size_t slash) {
    if (slash + 1 == path.size()) {
        return slash > 0;
    }
    return path[slash + 1] == '/' || isDotComponentAt(path, slash + 1);
}

// True when `path` is ASCII and already standardised (no repeated separators, no "." or ".."
// components, no trailing separator), which is how the library's own paths usually arrive.
// Looks at eight bytes at a time, and closer only at the bytes after each separator.
bool isStandardAscii(std::string_view path) {
    if (path.empty() || isDotComponentAt(path, 0)) {
        return false;
    }
    constexpr std::uint64_t kOnes = 0x0101010101010101ULL;
    constexpr std::uint64_t kLow7 = kOnes * 0x7F;
    std::size_t i = 0;
    for (; i + 8 <= path.size(); i += 8) {
        std::uint64_t word;
        std::memcpy(&word, path.data() + i, 8);
        if (word & (kOnes * 0x80)) {
            return false;
        }
        // Bit 7 set exactly in the bytes that are "/" (no false positives for ASCII input).
        const std::uint64_t x = word ^ (kOnes * '/');
        std::uint64_t slashes = ~(((x & kLow7) + kLow7) | x | kLow7);
        while (slashes != 0) {
            const int bit = std::endian::native == std::endian::little ? std::countr_zero(slashes)
                                                                       : std::countl_zero(slashes);
            const std::size_t at = i + static_cast<std::size_t>(bit) / 8;
            if (irregularAfterSeparator(path, at)) {
                return false;
            }
            slashes &= slashes - 1;
        }
    }
    for (; i < path.size(); ++i) {
        if (static_cast<unsigned char>(path[i]) & 0x80) {
            return false;
        }
        if (path[i] == '/' && irregularAfterSeparator(path, i)) {
            return false;
        }
    }
    return true;
}

// Where the part of `text` that needs ICU starts: after the last separator before the first
// non-ASCII byte (npos for ASCII text). Neither composition nor case mapping looks across a "/"
// ("/" is a starter that composes with nothing, and it is neither cased nor case-ignorable, so
// it ends the context of a final sigma), and the ASCII text before it is already composed and
// lower-cases byte for byte, so only the tail goes through ICU.
std::size_t icuTailStart(std::string_view text) {
    const std::size_t first = firstNonAscii(text);
    if (first == std::string_view::npos) {
        return first;
    }
    const std::size_t slash = text.rfind('/', first);
    return slash == std::string_view::npos ? 0 : slash + 1;
}

// ICU takes 32-bit lengths; longer text is left alone rather than truncated.
bool fitsIcu(std::string_view text) {
    return text.size() <= static_cast<std::size_t>(std::numeric_limits<int32_t>::max());
}

icu::StringPiece piece(std::string_view text) {
    return icu::StringPiece(text.data(), static_cast<int32_t>(text.size()));
}

const icu::Normalizer2* nfc() {
    // ICU caches the instance; looking it up once keeps the error path out of the hot path.
    static const icu::Normalizer2* const instance = [] {
        UErrorCode status = U_ZERO_ERROR;
        const icu::Normalizer2* n = icu::Normalizer2::getNFCInstance(status);
        return U_SUCCESS(status) ? n : nullptr;
    }();
    return instance;
}

// `text` composed to NFC straight from UTF-8. On an ICU failure (data missing, out of memory)
// the text is kept as it is: comparisons then degrade to exact spelling instead of failing.
std::string composed(std::string_view text) {
    const std::size_t tail = icuTailStart(text);
    const icu::Normalizer2* normalizer = nfc();
    if (tail == std::string_view::npos || normalizer == nullptr || !fitsIcu(text)) {
        return std::string(text);
    }
    // Normalising text that is already composed costs no more than checking it first would.
    std::string result(text.substr(0, tail));
    icu::StringByteSink<std::string> sink(&result, static_cast<int32_t>(text.size() - tail));
    UErrorCode status = U_ZERO_ERROR;
    normalizer->normalizeUTF8(0, piece(text.substr(tail)), sink, nullptr, status);
    return U_SUCCESS(status) ? result : std::string(text);
}

// `text` lower-cased by full case mapping (not normalised).
std::string lowercased(std::string_view text) {
    const std::size_t tail = icuTailStart(text);
    if (tail == std::string_view::npos || !fitsIcu(text)) {
        // ASCII text, or text too long for ICU, of which only the ASCII letters are lowered.
        return asciiLowercase(text);
    }
    std::string result;
    result.reserve(text.size() + 8);
    appendAsciiLowercase(result, text.substr(0, tail));
    icu::StringByteSink<std::string> sink(&result);
    UErrorCode status = U_ZERO_ERROR;
    // The root locale, not the process locale: keys must not change with the user's language.
    icu::CaseMap::utf8ToLower("", 0, piece(text.substr(tail)), sink, nullptr, status);
    return U_SUCCESS(status) ? result : asciiLowercase(text);
}

// Lower-case key of text that is already NFC. Lower-casing can produce a sequence that composes
// further ("J" + caron has no composed form, "j" + caron has), hence the second composition.
std::string lowercaseComposed(std::string_view nfcText) {
    if (isAscii(nfcText)) {
        return asciiLowercase(nfcText);
    }
    return composed(lowercased(nfcText));
}

// Whether two components name the same entry: equal after composition and lower-casing. As
// neither looks across a "/" (see icuTailStart), comparing component by component agrees with
// comparing the lowercaseNFC forms of whole paths.
bool componentsMatch(std::string_view a, std::string_view b) {
    const bool asciiA = isAscii(a);
    const bool asciiB = isAscii(b);
    if (asciiA && asciiB) {
        return equalIgnoringAsciiCase(a, b);
    }
    if (a == b) {
        return true;
    }
    // The keys are composed(lowercased(composed(x))); each step is a function, so equal
    // intermediate results settle the question without the remaining ICU passes.
    const std::string composedA = composed(a);
    const std::string composedB = composed(b);
    if (composedA == composedB) {
        return true;
    }
    const std::string lowerA = lowercased(composedA);
    const std::string lowerB = lowercased(composedB);
    if (lowerA == lowerB) {
        return true;
    }
    return composed(lowerA) == composed(lowerB);
}

// Walks the components a path keeps after standardisation without building the standardised
// string: empty and "." components are skipped. A ".." (whose effect depends on what precedes
// it) stops the walk so that the caller can normalise first, unless the path is already
// normalised, where ".." only remains at the start of a relative path and is an ordinary name.
class ComponentWalker {
public:
    ComponentWalker(std::string_view path, bool parentIsName)
        : path_(path), parentIsName_(parentIsName) {}

    bool absolute() const { return !path_.empty() && path_.front() == '/'; }
    // Where the last component returned by next() ends.
    std::size_t end() const { return end_; }

    // The next component, or false at the end (or at a ".." that is not a name).
    bool next(std::string_view& component) {
        while (position_ < path_.size() && !stoppedAtParent_) {
            std::size_t end = path_.find('/', position_);
            if (end == std::string_view::npos) {
                end = path_.size();
            }
            const std::string_view candidate = path_.substr(position_, end - position_);
            position_ = end + 1;
            if (candidate.empty() || candidate == ".") {
                continue;
            }
            if (candidate == ".." && !parentIsName_) {
                stoppedAtParent_ = true;
                return false;
            }
            component = candidate;
            end_ = end;
            return true;
        }
        return false;
    }

    // Walks to the end; false when a ".." stopped it.
    bool finish() {
        std::string_view ignored;
        while (next(ignored)) {
        }
        return !stoppedAtParent_;
    }

private:
    std::string_view path_;
    std::size_t position_ = 0;
    std::size_t end_ = 0;
    bool parentIsName_;
    bool stoppedAtParent_ = false;
};

enum class Relation { Unrelated, Equal, Below, Unknown };

struct Comparison {
    Relation relation = Relation::Unrelated;
    // For Below: where, in `path`, what lies below `base` starts (at a separator).
    std::size_t remainder = 0;
};

// How `path` relates to `base`, component by component. Unknown when a ".." needs resolving
// first (only when `normalized` is false).
Comparison compare(std::string_view base, std::string_view path, bool normalized) {
    ComponentWalker baseWalker(base, normalized);
    ComponentWalker pathWalker(path, normalized);
    bool related = baseWalker.absolute() == pathWalker.absolute();
    bool baseIsDot = !baseWalker.absolute();
    std::string_view baseComponent;
    std::string_view pathComponent;
    while (related && baseWalker.next(baseComponent)) {
        baseIsDot = false;
        related = pathWalker.next(pathComponent) && componentsMatch(baseComponent, pathComponent);
    }
    const std::size_t remainder = pathWalker.end();
    const bool pathHasMore = related && pathWalker.next(pathComponent);
    // A ".." anywhere could change the answer, matched or not.
    if (!baseWalker.finish() || !pathWalker.finish()) {
        return {Relation::Unknown};
    }
    if (!related) {
        return {Relation::Unrelated};
    }
    if (!pathHasMore) {
        return {Relation::Equal};
    }
    // "." (a relative base without components) has nothing below it.
    return baseIsDot ? Comparison{Relation::Unrelated} : Comparison{Relation::Below, remainder};
}

Relation relate(std::string_view base, std::string_view path) {
    if (base.empty() || path.empty()) {
        return Relation::Unrelated;
    }
    if (base == path) {
        return Relation::Equal;  // The same spelling normalises the same way.
    }
    if (isStandardAscii(base) && isStandardAscii(path)) {
        if (path.size() == base.size()) {
            return equalIgnoringAsciiCase(base, path) ? Relation::Equal : Relation::Unrelated;
        }
        const bool below = base == "/"
                               ? path.front() == '/'
                               : path.size() > base.size() && path[base.size()] == '/' &&
                                     equalIgnoringAsciiCase(base, path.substr(0, base.size()));
        return below ? Relation::Below : Relation::Unrelated;
    }
    const Comparison quick = compare(base, path, false);
    if (quick.relation != Relation::Unknown) {
        return quick.relation;
    }
    return compare(stringByNormalizingPath(base), stringByNormalizingPath(path), true).relation;
}

}  // namespace

std::string stringByNormalizingPath(std::string_view path, unsigned options) {
    if ((options & QNPathNormalizationStandard) == 0) {
        return std::string(path);
    }
    if (isStandardAscii(path)) {
        return std::string(path);
    }
    if (isAscii(path)) {
        return stringByStandardizingPath(path);
    }
    // Composition first, so that standardisation sees the final separators and dots; it keeps
    // the text composed because it only removes whole components.
    return stringByStandardizingPath(composed(path));
}

std::string composedNFC(std::string_view text) {
    return composed(text);
}

bool needsComposition(std::string_view text) {
    const std::size_t tail = icuTailStart(text);
    const icu::Normalizer2* normalizer = nfc();
    if (tail == std::string_view::npos || normalizer == nullptr || !fitsIcu(text)) {
        return false;  // what composed() leaves as it is
    }
    UErrorCode status = U_ZERO_ERROR;
    const bool normalized = normalizer->isNormalizedUTF8(piece(text.substr(tail)), status);
    return U_FAILURE(status) || !normalized;
}

std::string lowercasePath(std::string_view text) {
    return lowercased(text);
}

std::string lowercaseNFC(std::string_view text) {
    if (isAscii(text)) {
        return asciiLowercase(text);
    }
    return lowercaseComposed(composed(text));
}

bool isEqualToPath(std::string_view path, std::string_view other) {
    return relate(path, other) == Relation::Equal;
}

bool isBasePathOfPath(std::string_view base, std::string_view path) {
    return relate(base, path) == Relation::Below;
}

std::string stringByDeletingBeginningOfPath(std::string_view path, std::string_view base) {
    if (path.empty() || base.empty()) {
        return std::string(path);
    }
    const std::string normalizedPath = stringByNormalizingPath(path);
    const Comparison comparison = compare(stringByNormalizingPath(base), normalizedPath, true);
    switch (comparison.relation) {
        case Relation::Equal:
            return {};
        case Relation::Below:
            return normalizedPath.substr(comparison.remainder);
        default:
            return std::string(path);
    }
}

std::string stringByDeletingBeginningOfNormalizedPath(std::string_view path,
                                                      std::string_view base) {
    if (path.empty() || base.empty()) {
        return std::string(path);
    }
    const Comparison comparison = compare(base, path, true);
    switch (comparison.relation) {
        case Relation::Equal:
            return {};
        case Relation::Below:
            return std::string(path.substr(comparison.remainder));
        default:
            return std::string(path);
    }
}

std::string stringByDeletingPrivate(std::string_view path) {
    constexpr std::string_view kPrivate = "/private";
    if (!path.starts_with(kPrivate)) {
        return std::string(path);
    }
    const std::string_view rest = path.substr(kPrivate.size());
    for (const std::string_view root : {"/var", "/tmp", "/etc"}) {
        if (rest.starts_with(root) && (rest.size() == root.size() || rest[root.size()] == '/')) {
            return std::string(rest);
        }
    }
    return std::string(path);
}

}  // namespace qn
