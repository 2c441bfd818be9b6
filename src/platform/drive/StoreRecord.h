#pragma once

// One line of a directory store's change log: a change to an account's items, as it is written
// to and read back from the log. Private to the directory store; any thread.
//
// A line is tab-separated fields ending in a checksum of everything before it, then "\n":
//   <seq> I <path> <isDirectory 0|1> <size> <revision> <blob> <date> <device>   item written
//   <seq> D <path>                                                            item removed
//   <seq> M <from> <to>                                                       item moved
//   <seq> V <path> <identifier> <size> <date> <device> <blob>                 version added
//   <seq> R <path> <identifier> <resolved 0|1>                                version (un)resolved
//   <seq> X <path> <identifier>                                               version removed
// Texts are percent-escaped ('%', tab, line breaks and other control characters), dates are
// seconds since the reference date written so that they read back exactly.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "qn/Date.h"

namespace qn::drive {

struct StoreRecord {
    enum class Kind : char {
        Item = 'I',
        Remove = 'D',
        Move = 'M',
        Version = 'V',
        Resolve = 'R',
        RemoveVersion = 'X',
    };

    std::uint64_t seq = 0;
    Kind kind = Kind::Item;
    std::string path;
    std::string target;      // Move: the new path
    std::string identifier;  // Version, Resolve, RemoveVersion
    bool flag = false;       // Item: a folder; Resolve: resolved
    std::uint64_t size = 0;
    std::string revision;  // Item
    std::string blob;      // Item, Version: the name of the contents' file
    Date date;
    std::string device;

    /// The line, with its checksum and the final "\n".
    std::string encode() const;
    /// The record a complete line (without its "\n") holds; nullopt when it is damaged.
    static std::optional<StoreRecord> decode(std::string_view line);
};

/// `text` with '%', control characters and DEL written as %XX.
std::string percentEscaped(std::string_view text);
/// The reverse of `percentEscaped`; nullopt for a malformed escape.
std::optional<std::string> percentUnescaped(std::string_view text);

}  // namespace qn::drive
