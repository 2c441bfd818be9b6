#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "qn/MetadataItem.h"

namespace qn {

/// Which items a metadata query keeps: those whose string attribute matches a "like" pattern
/// ("*" any run of characters, "?" one character, compared exactly). The default predicate keeps
/// every item. A value; any thread.
class MetadataPredicate {
public:
    /// Keeps every item.
    MetadataPredicate() = default;
    MetadataPredicate(std::string attribute, std::string pattern)
        : attribute_(std::move(attribute)), pattern_(std::move(pattern)) {}

    /// Parses the platform's format for this kind of predicate: `%K like "pattern"` (also
    /// `LIKE`), with `key` standing for %K. nullopt for any other format.
    static std::optional<MetadataPredicate> predicateWithFormat(std::string_view format,
                                                                std::string_view key);

    bool evaluate(const MetadataItem& item) const;

    const std::string& attribute() const { return attribute_; }
    const std::string& pattern() const { return pattern_; }

private:
    std::string attribute_;  // empty: every item
    std::string pattern_;
};

}  // namespace qn
