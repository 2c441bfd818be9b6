#pragma once

// Path strings: Foundation's NSString path methods as free functions on UTF-8 text. They are
// purely lexical (they never look at the file system) and treat "/" as the only separator.
// Callers that need canonical comparison (Unicode composition, letter case) use the utility
// library's PathNormalization.h on top of these. Pure functions: any thread.

#include <string>
#include <string_view>
#include <vector>

namespace qn {

/// Lexically cleaned up: repeated separators collapsed, "." components dropped, ".." removing
/// the component before it, a trailing separator dropped ("/" itself excepted).
/// An absolute path never goes above "/" ("/.." -> "/"); a relative path stays relative and keeps
/// the ".." components it cannot resolve ("a/../../b" -> "../b"), and one that reduces to nothing
/// becomes ".". "" stays "". Symbolic links are not resolved and "~" is not expanded, so the
/// result only names the same item as the input when no component before a ".." is a link.
std::string stringByStandardizingPath(std::string_view path);

/// The last component, ignoring trailing separators: "/a/b/" -> "b", "a" -> "a".
/// "/" (or "//") -> "/", "" -> "".
std::string lastPathComponent(std::string_view path);

/// The path without its last component and the separators before it, ignoring trailing
/// separators: "/a/b/" -> "/a", "/a" -> "/", "/" -> "/", "a/b" -> "a", "a" -> "", "" -> "".
/// The rest of the path is kept as written.
std::string stringByDeletingLastPathComponent(std::string_view path);

/// `path` and `component` joined by exactly one separator: separators at the end of `path` and
/// at the start of `component` collapse into one, and trailing separators of the result are
/// dropped ("/" itself excepted). "/a/" + "/b" -> "/a/b", "/" + "b" -> "/b", "/a" + "" -> "/a".
/// Appending to "" gives `component` unchanged. Other repeated separators are kept as written.
std::string stringByAppendingPathComponent(std::string_view path, std::string_view component);

/// The text after the last "." of the last component (see lastPathComponent); "" when there is
/// no dot, when the dot is the component's first character or when nothing follows it:
/// "a.tar.gz" -> "gz", ".hidden" -> "", "a." -> "", "/x.d/readme" -> "".
std::string pathExtension(std::string_view path);

/// The path without trailing separators and without "." + pathExtension() when that extension is
/// not empty: "/a/b.txt" -> "/a/b", "/a/b.txt/" -> "/a/b", "/a/" -> "/a", ".hidden" -> ".hidden".
std::string stringByDeletingPathExtension(std::string_view path);

/// The path without trailing separators, followed by "." and `extension`: "/a/b/" + "txt" ->
/// "/a/b.txt". Returns `path` unchanged when `extension` is empty or contains "/", and for "",
/// "/" and other paths made only of separators (they have no last component to extend).
std::string stringByAppendingPathExtension(std::string_view path, std::string_view extension);

/// The components, with "/" first for an absolute path: "/a/b" -> {"/", "a", "b"},
/// "a/b" -> {"a", "b"}. Repeated and trailing separators add no empty components; "" -> {}.
std::vector<std::string> pathComponents(std::string_view path);

}  // namespace qn
