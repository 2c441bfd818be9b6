#include "qn/MetadataPredicate.h"

#include <vector>

namespace qn {
namespace {

// Glob match with "*" and "?", iterative with one backtrack point (linear in practice).
bool matches(std::string_view text, std::string_view pattern) {
    std::size_t t = 0;
    std::size_t p = 0;
    std::size_t starP = std::string_view::npos;
    std::size_t starT = 0;
    while (t < text.size()) {
        // A "*" is a wildcard even where the text holds a "*" too: taken as that character, it
        // would leave no point to come back to.
        if (p < pattern.size() && pattern[p] == '*') {
            starP = p++;
            starT = t;
        } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
            ++t;
            ++p;
        } else if (starP != std::string_view::npos) {
            p = starP + 1;
            t = ++starT;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*') {
        ++p;
    }
    return p == pattern.size();
}

}  // namespace

std::optional<MetadataPredicate> MetadataPredicate::predicateWithFormat(std::string_view format,
                                                                        std::string_view key) {
    constexpr std::string_view kPrefixes[] = {"%K like \"", "%K LIKE \""};
    for (const auto prefix : kPrefixes) {
        if (format.starts_with(prefix) && format.size() > prefix.size() && format.ends_with('"')) {
            const auto pattern = format.substr(prefix.size(), format.size() - prefix.size() - 1);
            if (pattern.find('"') == std::string_view::npos && !key.empty()) {
                return MetadataPredicate(std::string(key), std::string(pattern));
            }
        }
    }
    return std::nullopt;
}

bool MetadataPredicate::evaluate(const MetadataItem& item) const {
    if (attribute_.empty()) {
        return true;
    }
    const Value* value = item.valueForAttribute(attribute_);
    const std::string* text = value ? value->stringValue() : nullptr;
    return text && matches(*text, pattern_);
}

}  // namespace qn
