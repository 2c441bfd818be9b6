#pragma once

// A file URL: an absolute path plus a flag saying whether it names a directory, the way the
// library addresses documents, containers and their items. Only the file scheme exists here.
// Any thread; a value is not shared mutable state.

#include <fmt/format.h>

#include <compare>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qn {

class URL {
public:
    /// The empty URL: path "", not a directory. Operations on it give empty results.
    URL() = default;

    /// A file URL for `path`. A relative path is resolved against the current working directory
    /// and standardised (see URLByStandardizingPath), as Foundation's resolution against a base
    /// URL removes "." and ".."; if that directory cannot be determined, the path stays
    /// relative. An absolute path is kept as given apart from trailing separators, which are
    /// dropped. The root is always a directory. An empty `path` gives the empty URL.
    static URL fileURLWithPath(std::string_view path, bool isDirectory);
    /// As above, but a directory URL when `path` ends in "/" or names a directory on disk
    /// (following symbolic links). Touches the file system only when there is no trailing "/".
    static URL fileURLWithPath(std::string_view path);
    /// Parses "file:///absolute/path" or "file://localhost/absolute/path", percent-decoding
    /// the path; a trailing "/" makes it a directory URL. Returns nullopt for any other scheme
    /// or host, a missing path, a query or fragment, a bad percent escape or a NUL (encoded or
    /// not).
    static std::optional<URL> fromString(std::string_view string);

    bool isEmpty() const noexcept { return path_.empty(); }
    /// The file-system path. A directory URL's path has no trailing separator ("/" itself
    /// excepted): fileURLWithPath("/a/b/").path() == "/a/b".
    const std::string& path() const noexcept { return path_; }
    bool hasDirectoryPath() const noexcept { return isDirectory_; }

    /// "file://" followed by the percent-encoded path and, for a directory, a trailing "/":
    /// "file:///Users/a/My%20Docs/". Everything except unreserved characters, sub-delimiters,
    /// ":", "@" and "/" is encoded byte by byte (so UTF-8 text is encoded). "" when empty.
    std::string absoluteString() const;

    /// The last component: "/" for the root, "" for the empty URL.
    std::string lastPathComponent() const;
    /// The text after the last "." of the last component; "" when there is no dot or that dot is
    /// the component's first character: "a.tar.gz" -> "gz", ".hidden" -> "", "a." -> "".
    std::string pathExtension() const;
    /// "/" followed by the components of an absolute path: "/a/b" -> {"/", "a", "b"}.
    /// Repeated separators add no empty components; the empty URL gives {}.
    std::vector<std::string> pathComponents() const;

    /// Appends `component`, which may itself contain separators. The result is a directory URL
    /// when `component` ends in "/". Separators where the two meet collapse into one. An empty
    /// component (or one made only of separators) returns this URL unchanged, and appending to
    /// the empty URL gives the empty URL.
    URL URLByAppendingPathComponent(std::string_view component) const;
    /// As above with the directory flag given explicitly; for an empty component only the flag
    /// changes.
    URL URLByAppendingPathComponent(std::string_view component, bool isDirectory) const;
    /// The parent directory, always a directory URL: "/a/b" -> "/a", "/a" -> "/", and the root
    /// stays the root. The empty URL (and a relative path of one component) gives the empty URL.
    URL URLByDeletingLastPathComponent() const;
    /// Appends "." + `extension` to the last component, keeping the directory flag. Returns this
    /// URL unchanged for an empty extension, one containing "/", the root and the empty URL.
    URL URLByAppendingPathExtension(std::string_view extension) const;
    /// Removes "." + pathExtension() when pathExtension() is not empty; otherwise unchanged.
    URL URLByDeletingPathExtension() const;
    /// Lexically cleaned up: repeated separators collapsed, "." removed, ".." removing the
    /// component before it (never going above "/"). Keeps the directory flag. Does not look at
    /// the file system, so symbolic links are not resolved.
    URL URLByStandardizingPath() const;
    /// The path with symbolic links resolved (realpath) when the item exists; otherwise this URL
    /// unchanged. Keeps the directory flag.
    URL URLByResolvingSymlinksInPath() const;

    /// Equal when path and directory flag are equal, as Foundation compares absolute strings:
    /// "/a" and "/a/" differ, and so do "/a//b" and "/a/b". The ordering (by path, then flag)
    /// exists for ordered containers.
    friend bool operator==(const URL&, const URL&) = default;
    friend std::strong_ordering operator<=>(const URL&, const URL&) = default;

private:
    // Drops trailing separators and makes the root a directory.
    URL(std::string path, bool isDirectory);

    std::string path_;
    bool isDirectory_ = false;
};

}  // namespace qn

template <>
struct std::hash<qn::URL> {
    std::size_t operator()(const qn::URL& url) const noexcept {
        const std::size_t pathHash = std::hash<std::string>{}(url.path());
        return url.hasDirectoryPath() ? ~pathHash : pathHash;
    }
};

template <>
struct fmt::formatter<qn::URL> : fmt::formatter<std::string_view> {
    template <class FormatContext>
    auto format(const qn::URL& url, FormatContext& ctx) const -> decltype(ctx.out()) {
        return fmt::formatter<std::string_view>::format(url.absoluteString(), ctx);
    }
};
