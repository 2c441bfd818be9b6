#include "ContainerTable.h"

#include <utility>

#include "qn/util/PathNormalization.h"

namespace qn::simulated {

void ContainerTable::remember(const std::string& folder) {
    const std::string key = lowercaseNFC(folder);
    if (!containers_.contains(key)) {
        containers_.emplace(key, Container{folder, std::nullopt, {}});
    }
}

void ContainerTable::setAnswer(const std::string& folder, std::optional<URL> answer,
                               std::vector<std::string> aliases) {
    remember(folder);
    Container& container = containers_.find(lowercaseNFC(folder))->second;
    container.answer = std::move(answer);
    container.aliases = std::move(aliases);
}

const URL* ContainerTable::answerFor(std::string_view folder) const {
    const auto it = containers_.find(lowercaseNFC(folder));
    return it != containers_.end() && it->second.answer ? &*it->second.answer : nullptr;
}

ItemLocation ContainerTable::makeLocation(std::string_view folder,
                                          std::string_view relativePath) const {
    const std::string containerKey = lowercaseNFC(folder);
    const auto known = containers_.find(containerKey);
    return ItemLocation{known != containers_.end() ? known->second.folder : std::string(folder),
                        std::string(relativePath), containerKey + "/" + lowercaseNFC(relativePath)};
}

std::optional<ItemLocation> ContainerTable::locate(std::string_view path,
                                                   std::string_view drive) const {
    // The platform may hand out "/private/var/..." for "/var/...", so both forms are tried.
    std::vector<std::string> candidates{std::string(path)};
    if (std::string shortForm = stringByDeletingPrivate(path); shortForm != path) {
        candidates.push_back(std::move(shortForm));
    }
    for (const std::string& candidate : candidates) {
        for (const auto& [key, container] : containers_) {
            for (const std::string& alias : container.aliases) {
                if (isBasePathOfPath(alias, candidate)) {
                    // The remainder starts with "/".
                    const std::string rest =
                        stringByDeletingBeginningOfNormalizedPath(candidate, alias);
                    return makeLocation(container.folder, std::string_view(rest).substr(1));
                }
            }
        }
        if (isBasePathOfPath(drive, candidate)) {
            const std::string rest = stringByDeletingBeginningOfNormalizedPath(candidate, drive);
            const std::size_t slash = rest.find('/', 1);
            if (slash == std::string::npos || slash + 1 >= rest.size()) {
                return std::nullopt;  // the drive directory's own child: a container, no item
            }
            return makeLocation(std::string_view(rest).substr(1, slash - 1),
                                std::string_view(rest).substr(slash + 1));
        }
    }
    return std::nullopt;
}

}  // namespace qn::simulated
