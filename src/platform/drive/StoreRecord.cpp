#include "StoreRecord.h"

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <vector>

namespace qn::drive {
namespace {

// FNV-1a: enough to tell a torn or overwritten line from a whole one.
std::uint32_t checksum(std::string_view bytes) {
    std::uint32_t hash = 2166136261u;
    for (const unsigned char byte : bytes) {
        hash = (hash ^ byte) * 16777619u;
    }
    return hash;
}

template <class Number>
std::optional<Number> number(std::string_view text, int base = 10) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc() || end != text.data() + text.size() || text.empty()) {
        return std::nullopt;
    }
    return value;
}

std::optional<Date> parseDate(std::string_view text) {
    // Written in hexadecimal (without "0x"), so that the double reads back bit for bit.
    double seconds = 0;
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), seconds, std::chars_format::hex);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(seconds)) {
        return std::nullopt;
    }
    return Date(seconds);
}

std::vector<std::string_view> split(std::string_view line) {
    std::vector<std::string_view> fields;
    for (;;) {
        const std::size_t tab = line.find('\t');
        fields.push_back(line.substr(0, tab));
        if (tab == std::string_view::npos) {
            return fields;
        }
        line.remove_prefix(tab + 1);
    }
}

}  // namespace

std::string percentEscaped(std::string_view text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte == '%' || byte < 0x20 || byte == 0x7f) {
            escaped += fmt::format("%{:02X}", byte);
        } else {
            escaped += c;
        }
    }
    return escaped;
}

std::optional<std::string> percentUnescaped(std::string_view text) {
    std::string plain;
    plain.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            plain += text[i];
            continue;
        }
        const auto byte =
            i + 2 < text.size() ? number<unsigned>(text.substr(i + 1, 2), 16) : std::nullopt;
        if (!byte) {
            return std::nullopt;
        }
        plain += static_cast<char>(*byte);
        i += 2;
    }
    return plain;
}

std::string StoreRecord::encode() const {
    std::string line =
        fmt::format("{}\t{}\t{}", seq, static_cast<char>(kind), percentEscaped(path));
    const auto text = [](double seconds) {
        std::string hex = fmt::format("{:a}", seconds);
        if (const std::size_t prefix = hex.find("0x"); prefix != std::string::npos) {
            hex.erase(prefix, 2);
        }
        return hex;
    };
    switch (kind) {
        case Kind::Item:
            line +=
                fmt::format("\t{}\t{}\t{}\t{}\t{}\t{}", flag ? 1 : 0, size,
                            percentEscaped(revision), percentEscaped(blob),
                            text(date.timeIntervalSinceReferenceDate()), percentEscaped(device));
            break;
        case Kind::Remove:
            break;
        case Kind::Move:
            line += fmt::format("\t{}", percentEscaped(target));
            break;
        case Kind::Version:
            line += fmt::format("\t{}\t{}\t{}\t{}\t{}", percentEscaped(identifier), size,
                                text(date.timeIntervalSinceReferenceDate()), percentEscaped(device),
                                percentEscaped(blob));
            break;
        case Kind::Resolve:
            line += fmt::format("\t{}\t{}", percentEscaped(identifier), flag ? 1 : 0);
            break;
        case Kind::RemoveVersion:
            line += fmt::format("\t{}", percentEscaped(identifier));
            break;
    }
    line += fmt::format("\t{:08x}\n", checksum(line));
    return line;
}

std::optional<StoreRecord> StoreRecord::decode(std::string_view line) {
    const std::size_t lastTab = line.rfind('\t');
    if (lastTab == std::string_view::npos ||
        number<std::uint32_t>(line.substr(lastTab + 1), 16) != checksum(line.substr(0, lastTab))) {
        return std::nullopt;
    }
    const auto fields = split(line.substr(0, lastTab));
    if (fields.size() < 3 || fields[1].size() != 1) {
        return std::nullopt;
    }
    StoreRecord record;
    const auto seq = number<std::uint64_t>(fields[0]);
    auto path = percentUnescaped(fields[2]);
    if (!seq || !path) {
        return std::nullopt;
    }
    record.seq = *seq;
    record.path = std::move(*path);
    const auto text = [&](std::size_t i, std::string& into) {
        auto value = percentUnescaped(fields[i]);
        if (value) {
            into = std::move(*value);
        }
        return value.has_value();
    };
    const auto flag = [&](std::size_t i) {
        if (fields[i] != "0" && fields[i] != "1") {
            return false;
        }
        record.flag = fields[i] == "1";
        return true;
    };
    const auto when = [&](std::size_t i) {
        const auto value = parseDate(fields[i]);
        record.date = value.value_or(Date());
        return value.has_value();
    };
    const auto size = [&](std::size_t i) {
        const auto value = number<std::uint64_t>(fields[i]);
        record.size = value.value_or(0);
        return value.has_value();
    };
    record.kind = static_cast<Kind>(fields[1][0]);
    bool valid = false;
    switch (record.kind) {
        case Kind::Item:
            valid = fields.size() == 9 && flag(3) && size(4) && text(5, record.revision) &&
                    text(6, record.blob) && when(7) && text(8, record.device);
            break;
        case Kind::Remove:
            valid = fields.size() == 3;
            break;
        case Kind::Move:
            valid = fields.size() == 4 && text(3, record.target);
            break;
        case Kind::Version:
            valid = fields.size() == 8 && text(3, record.identifier) && size(4) && when(5) &&
                    text(6, record.device) && text(7, record.blob);
            break;
        case Kind::Resolve:
            valid = fields.size() == 5 && text(3, record.identifier) && flag(4);
            break;
        case Kind::RemoveVersion:
            valid = fields.size() == 4 && text(3, record.identifier);
            break;
    }
    return valid ? std::optional(std::move(record)) : std::nullopt;
}

}  // namespace qn::drive
