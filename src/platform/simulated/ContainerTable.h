#pragma once

// The containers the simulated cloud knows, and how an item's URL, in whatever spelling, is
// matched to one of them. Private to the simulated cloud; guarded by its lock.

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qn/URL.h"

namespace qn::simulated {

/// Where an item lies.
struct ItemLocation {
    /// The container's folder name, spelled as the cloud first met it.
    std::string folder;
    /// The path inside the container ("Documents/a.txt"), normalised, spelled as the URL did.
    std::string relativePath;
    /// Equal for every spelling of the same item.
    std::string itemKey;
};

class ContainerTable {
public:
    /// Keeps `folder` as the spelling of its container unless one is known already.
    void remember(const std::string& folder);

    /// Makes `answer` the container URL of `folder` (nullopt: the generated one). `aliases` are
    /// normalised paths by which item URLs may also reach the container.
    void setAnswer(const std::string& folder, std::optional<URL> answer,
                   std::vector<std::string> aliases);
    /// The answer set for `folder`, or null.
    const URL* answerFor(std::string_view folder) const;

    /// The location of `path` below the drive directory `drive` or below a container's alias;
    /// both normalised. Nullopt outside the containers and for a container itself.
    std::optional<ItemLocation> locate(std::string_view path, std::string_view drive) const;

private:
    struct Container {
        std::string folder;
        std::optional<URL> answer;
        std::vector<std::string> aliases;
    };

    ItemLocation makeLocation(std::string_view folder, std::string_view relativePath) const;

    std::map<std::string, Container, std::less<>> containers_;  // by lowercaseNFC(folder)
};

}  // namespace qn::simulated
