#pragma once

// Canonical path strings for comparing and keying paths. Paths reach the library spelled in
// different ways (a trailing "/", doubled separators, decomposed accents from some file systems
// and pasteboards, another letter case), yet the container's items must be matched whatever the
// spelling. Everything here is lexical: no function looks at the file system.
//
// The rules, shared by every function below:
// - A path is normalised by standardising it lexically (qn::stringByStandardizingPath) and
//   composing it to Unicode NFC. Letter case is kept.
// - Two paths name the same location when their normalised forms are equal after full Unicode
//   lower-casing (root locale): "/Docs/Ré" and "/docs/re\u0301/" are the same location.
// - The empty string names nothing: it is neither equal to nor below any path.
//
// Text that is not valid UTF-8 is compared as the bytes it is: ill-formed sequences are left as
// they are. Pure functions: any thread.

#include <string>
#include <string_view>

namespace qn {

/// The option bit for the standard normalisation (the only one the library uses): lexical
/// standardisation plus composition to NFC.
inline constexpr unsigned QNPathNormalizationStandard = 4;

/// `path` normalised as `options` asks. With QNPathNormalizationStandard set: standardised and
/// NFC-composed, letter case kept; deterministic and idempotent, "" -> "". Without it `path` is
/// returned as given. Other bits are reserved and ignored.
/// Costs: a pure-ASCII path never reaches ICU.
std::string stringByNormalizingPath(std::string_view path,
                                    unsigned options = QNPathNormalizationStandard);

/// `text` composed to NFC and otherwise as given (not standardised), for text whose exact
/// spelling matters beyond its composition. A component without non-ASCII bytes never reaches
/// ICU; should ICU fail, `text` is returned as given.
std::string composedNFC(std::string_view text);

/// Whether composedNFC would change `text`. False for ASCII, which is always composed; lets a
/// reader of many paths keep the spelling it has instead of copying it.
bool needsComposition(std::string_view text);

/// `text` lower-cased by full Unicode case mapping in the root locale (so "İ" -> "i̇" and "Σ" at a
/// word's end -> "ς", in any process locale). Not normalised: see lowercaseNFC.
std::string lowercasePath(std::string_view text);

/// `text` composed to NFC, lower-cased, and composed again when lower-casing broke the
/// composition: the key under which a normalised path is stored when letter case must not
/// matter. lowercaseNFC(stringByNormalizingPath(a)) == lowercaseNFC(stringByNormalizingPath(b))
/// exactly when isEqualToPath(a, b).
std::string lowercaseNFC(std::string_view text);

/// True when `path` and `other` name the same location (see the rules above). Paths made of
/// ASCII without ".." components are compared in place, without allocating.
bool isEqualToPath(std::string_view path, std::string_view other);

/// True when `path` lies strictly below `base` on a component boundary, after normalisation and
/// without regard to letter case: "/" is a base of "/a", "/a/" of "/A//b", but "/a" is not a base
/// of "/ab" nor of "/a" itself. A relative base only has relative paths below it, and "." is a
/// base of nothing.
bool isBasePathOfPath(std::string_view base, std::string_view path);

/// The part of `path` below `base`, starting with "/": ("/c/Docs/a/b", "/C//docs/") -> "/a/b";
/// with base "/" the whole normalised path. Both are normalised first and compared as
/// isBasePathOfPath does; the remainder is spelled as `path` spells it (normalised).
/// "" when `path` is the same location as `base`. `path` unchanged, as given, when it is not
/// below `base` (including when either is empty).
std::string stringByDeletingBeginningOfPath(std::string_view path, std::string_view base);

/// As stringByDeletingBeginningOfPath for arguments that are already normalised (results of
/// stringByNormalizingPath): only the comparison is done. Arguments that are not normalised give
/// meaningless (but memory-safe) results.
std::string stringByDeletingBeginningOfNormalizedPath(std::string_view path, std::string_view base);

/// `path` as paths derived from the container's location spell it. A metadata query may report
/// an item under the resolved form of a root that is a symbolic link on the platform the design
/// comes from ("/var" -> "/private/var"), while paths built from the container URL use the short
/// form; without this, the two spellings of one item would never compare equal. Removes a
/// leading "/private" when the next component is "var", "tmp" or "etc" and leaves every other
/// path unchanged: "/private/var/a" -> "/var/a", "/private/tmp" -> "/tmp",
/// "/private/Users/a" -> unchanged. Lexical and exact-case, like the report it corrects.
std::string stringByDeletingPrivate(std::string_view path);

}  // namespace qn
