#pragma once

// How `qnicloud` writes sizes, dates and JSON strings for people and scripts.

#include <cstdint>
#include <string>
#include <string_view>

#include "qn/Date.h"

namespace qnicloud {

/// "812 B", "4.0 KiB", "23.8 MiB", "1.2 GiB".
std::string bytes(std::uint64_t size);
/// Local time to the minute: "2026-11-24 09:15".
std::string localTime(const qn::Date& date);
/// `text` as a JSON string, quotes included.
std::string json(std::string_view text);
/// The columns `text` takes: its UTF-8 characters.
std::size_t columns(std::string_view text);
/// `text` padded or cut to `width` columns (counting UTF-8 characters); a cut end shows "…".
std::string fit(std::string_view text, std::size_t width);
/// The same, cutting the start instead: for paths, whose end names the file.
std::string fitEnd(std::string_view text, std::size_t width);
/// The same, cutting the middle: for a file's name, whose start and extension both tell.
std::string fitMiddle(std::string_view text, std::size_t width);

}  // namespace qnicloud
