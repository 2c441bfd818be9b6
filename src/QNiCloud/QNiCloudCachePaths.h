#pragma once

// Path helpers private to the metadata cache: the path hash and the checks that let the cache
// take a path apart by slicing instead of normalising it. Every fast answer here equals what the
// utility layer's general functions would give; anything the fast checks do not recognise goes
// through those functions.

#include <cstdint>
#include <string>
#include <string_view>

namespace qn::cache {

inline constexpr std::uint32_t kFnvOffsetBasis = 2166136261u;
inline constexpr std::uint32_t kFnvPrime = 16777619u;

/// Continues an FNV-1 hash over the UTF-8 bytes of qn::lowercaseNFC(text). Case mapping and
/// composition never look across a "/", so hashing a path in pieces that end at separators gives
/// the hash of the whole path. ASCII is lower-cased inline and precomposed Latin (up to U+017F)
/// through a table; only other components reach ICU.
std::uint32_t fnvLowercaseNFC(std::uint32_t state, std::string_view text);

/// True when every character of `text` is ASCII or precomposed Latin up to U+017F whose
/// lower-case form is one such character: the text is then in NFC, and lower-casing it character
/// by character gives lowercaseNFC. (U+0130, whose lower case is two characters, is not one.)
bool isFastComposed(std::string_view text);

/// `text` in NFC and nothing more (no standardisation). Text ICU cannot take is kept as it is.
std::string composedNFC(std::string_view text);

/// A name that stays itself as a path component: not empty, no "/", neither "." nor "..", NFC.
bool isPlainComponent(std::string_view name);

/// True when `rest` (the part of a path after a base) is "/" followed by standard components:
/// no empty, "." or ".." component, no trailing separator, and isFastComposed. Such a rest is
/// what deleting the base from the path (and composing) gives, byte for byte.
bool isStandardFastRemainder(std::string_view rest);
/// isStandardFastRemainder, giving the FNV state of fnvLowercaseNFC over `rest` when true, and
/// optionally the position of the last separator with the state over the text before it (the
/// hash of the parent's path).
bool hashStandardFastRemainder(std::string_view rest, std::uint32_t& hash,
                               std::size_t* lastSlash = nullptr,
                               std::uint32_t* stateAtLastSlash = nullptr);

/// qn::lastPathComponent as a view into `path`.
std::string_view lastComponent(std::string_view path);
/// qn::stringByDeletingLastPathComponent as a view into `path` (always a prefix of it).
std::string_view deletingLastComponent(std::string_view path);

}  // namespace qn::cache
