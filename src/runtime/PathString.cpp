#include "qn/PathString.h"

namespace qn {
namespace {

// `path` without trailing separators; a path made only of separators keeps one ("/").
std::string_view trimTrailingSeparators(std::string_view path) {
    const std::size_t last = path.find_last_not_of('/');
    if (last == std::string_view::npos) {
        return path.substr(0, path.empty() ? 0 : 1);
    }
    return path.substr(0, last + 1);
}

// The last component of a path without trailing separators ("/" for the root).
std::string_view lastComponentOfTrimmed(std::string_view trimmed) {
    if (trimmed == "/") {
        return trimmed;
    }
    const std::size_t slash = trimmed.rfind('/');
    return slash == std::string_view::npos ? trimmed : trimmed.substr(slash + 1);
}

std::string_view extensionOfComponent(std::string_view component) {
    const std::size_t dot = component.rfind('.');
    if (dot == std::string_view::npos || dot == 0 || component == "/") {
        return {};
    }
    return component.substr(dot + 1);
}

}  // namespace

std::string stringByStandardizingPath(std::string_view path) {
    if (path.empty()) {
        return {};
    }
    const bool absolute = path.front() == '/';
    // Everything is written straight into the result, which never grows beyond the input; ".."
    // truncates it back to the separator before the last kept component.
    const std::size_t root = absolute ? 1 : 0;
    std::string result;
    result.reserve(path.size());
    if (absolute) {
        result += '/';
    }
    std::size_t start = 0;
    while (start < path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string_view::npos) {
            end = path.size();
        }
        const std::string_view component = path.substr(start, end - start);
        start = end + 1;
        if (component.empty() || component == ".") {
            continue;
        }
        if (component == "..") {
            const std::size_t slash = result.rfind('/');
            const std::size_t lastStart = slash == std::string::npos ? 0 : slash + 1;
            const bool nothingToRemove = result.size() == root;
            if (nothingToRemove && absolute) {
                continue;  // Never above the root.
            }
            if (!nothingToRemove && std::string_view(result).substr(lastStart) != "..") {
                result.resize(slash == std::string::npos || slash < root ? root : slash);
                continue;
            }
            // A relative path climbing above its start keeps the "..".
        }
        if (result.size() > root) {
            result += '/';
        }
        result += component;
    }
    if (result.empty()) {
        result.push_back('.');
    }
    return result;
}

std::string lastPathComponent(std::string_view path) {
    return std::string(lastComponentOfTrimmed(trimTrailingSeparators(path)));
}

std::string stringByDeletingLastPathComponent(std::string_view path) {
    const std::string_view trimmed = trimTrailingSeparators(path);
    if (trimmed == "/") {
        return std::string(trimmed);
    }
    const std::size_t slash = trimmed.rfind('/');
    if (slash == std::string_view::npos) {
        return {};
    }
    return std::string(trimTrailingSeparators(trimmed.substr(0, slash + 1)));
}

std::string stringByAppendingPathComponent(std::string_view path, std::string_view component) {
    if (path.empty()) {
        return std::string(component);
    }
    const std::string_view head = trimTrailingSeparators(path);
    const std::size_t first = component.find_first_not_of('/');
    const std::string_view tail =
        first == std::string_view::npos ? std::string_view() : component.substr(first);
    std::string result;
    result.reserve(head.size() + 1 + tail.size());
    result += head;
    if (!tail.empty()) {
        if (result.back() != '/') {
            result += '/';
        }
        result += trimTrailingSeparators(tail);
    }
    return result;
}

std::string pathExtension(std::string_view path) {
    return std::string(extensionOfComponent(lastComponentOfTrimmed(trimTrailingSeparators(path))));
}

std::string stringByDeletingPathExtension(std::string_view path) {
    const std::string_view trimmed = trimTrailingSeparators(path);
    const std::string_view extension = extensionOfComponent(lastComponentOfTrimmed(trimmed));
    if (extension.empty()) {
        return std::string(trimmed);
    }
    return std::string(trimmed.substr(0, trimmed.size() - extension.size() - 1));
}

std::string stringByAppendingPathExtension(std::string_view path, std::string_view extension) {
    const std::string_view trimmed = trimTrailingSeparators(path);
    if (extension.empty() || extension.find('/') != std::string_view::npos || trimmed.empty() ||
        trimmed == "/") {
        return std::string(path);
    }
    std::string result;
    result.reserve(trimmed.size() + 1 + extension.size());
    result += trimmed;
    result += '.';
    result += extension;
    return result;
}

std::vector<std::string> pathComponents(std::string_view path) {
    std::vector<std::string> components;
    if (!path.empty() && path.front() == '/') {
        components.emplace_back("/");
    }
    std::size_t start = 0;
    while (start < path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string_view::npos) {
            end = path.size();
        }
        if (end > start) {
            components.emplace_back(path.substr(start, end - start));
        }
        start = end + 1;
    }
    return components;
}

}  // namespace qn
