#include "Format.h"

#include <fmt/format.h>

#include <ctime>
#include <vector>

namespace qnicloud {

std::string bytes(std::uint64_t size) {
    if (size < 1024) {
        return fmt::format("{} B", size);
    }
    constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
    double value = static_cast<double>(size) / 1024;
    std::size_t unit = 0;
    while (value >= 1024 && unit + 1 < std::size(kUnits)) {
        value /= 1024;
        ++unit;
    }
    return fmt::format("{:.1f} {}", value, kUnits[unit]);
}

std::string localTime(const qn::Date& date) {
    const std::time_t seconds = static_cast<std::time_t>(date.timeIntervalSince1970());
    std::tm local{};
    if (localtime_r(&seconds, &local) == nullptr) {
        return date.description();
    }
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local);
    return text;
}

std::string json(std::string_view text) {
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            quoted += fmt::format("\\u{:04x}", static_cast<unsigned>(c));
        } else {
            quoted += c;
        }
    }
    return quoted + "\"";
}

std::string fit(std::string_view text, std::size_t width) {
    if (width == 0) {
        return {};
    }
    std::size_t columns = 0;
    std::size_t cut = 0;  // the byte where the first `width - 1` characters end
    for (std::size_t i = 0; i < text.size(); ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) == 0x80) {
            continue;  // a continuation byte belongs to the character before
        }
        if (columns == width - 1) {
            cut = i;
        }
        ++columns;
    }
    if (columns <= width) {
        return std::string(text) + std::string(width - columns, ' ');
    }
    return std::string(text.substr(0, cut)) + "…";
}

namespace {

// Where each UTF-8 character of `text` begins.
std::vector<std::size_t> characterStarts(std::string_view text) {
    std::vector<std::size_t> starts;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
            starts.push_back(i);
        }
    }
    return starts;
}

}  // namespace

std::size_t columns(std::string_view text) {
    return characterStarts(text).size();
}

std::string fitEnd(std::string_view text, std::size_t width) {
    const auto starts = characterStarts(text);
    if (starts.size() <= width || width == 0) {
        return fit(text, width);
    }
    return "…" + std::string(text.substr(starts[starts.size() - (width - 1)]));
}

std::string fitMiddle(std::string_view text, std::size_t width) {
    const auto starts = characterStarts(text);
    if (starts.size() <= width || width < 3) {
        return fit(text, width);
    }
    const std::size_t tail = (width - 1) / 2;
    const std::size_t head = width - 1 - tail;
    return std::string(text.substr(0, starts[head])) + "…" +
           std::string(text.substr(starts[starts.size() - tail]));
}

}  // namespace qnicloud
