#include "Multistatus.h"

#include <expat.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <ctime>

namespace qn::drive {
namespace {

constexpr std::size_t kMaxBody = 64u << 20;
constexpr std::size_t kMaxResponses = 1'000'000;
constexpr std::size_t kMaxText = 64u << 10;
constexpr char kSeparator = '\x01';  // between an element's namespace and its name
constexpr std::string_view kDav = "DAV:";

// What the element being read is, as far as the reader cares.
enum class Where { Outside, Response, Href, Propstat, Prop, Property, Status, ResponseStatus };

struct Reader {
    XML_Parser parser = nullptr;
    Multistatus result;
    std::string problem;
    bool sawRoot = false;
    int depth = 0;
    int propertyDepth = 0;  // the depth of the property element being read
    Where where = Where::Outside;
    DavResource resource;
    bool responseOpen = false;
    // One propstat: its properties apply only if its status says they were found.
    DavResource found;
    bool foundCollection = false;
    std::string propertyName;  // "{namespace}name"
    std::string text;

    void fail(std::string why) {
        if (problem.empty()) {
            problem = std::move(why);
        }
        XML_StopParser(parser, XML_FALSE);
    }
};

// "DAV:\x01getetag" -> ("DAV:", "getetag"); a name without namespace has none.
std::pair<std::string_view, std::string_view> split(const XML_Char* name) {
    const std::string_view whole(name);
    const std::size_t at = whole.find(kSeparator);
    if (at == std::string_view::npos) {
        return {{}, whole};
    }
    return {whole.substr(0, at), whole.substr(at + 1)};
}

// "HTTP/1.1 200 OK" -> 200.
int statusCode(std::string_view line) {
    const std::size_t space = line.find(' ');
    if (space == std::string_view::npos || space + 4 > line.size()) {
        return 0;
    }
    int code = 0;
    for (std::size_t i = space + 1; i < space + 4; ++i) {
        if (line[i] < '0' || line[i] > '9') {
            return 0;
        }
        code = code * 10 + (line[i] - '0');
    }
    return code;
}

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

void XMLCALL start(void* data, const XML_Char* name, const XML_Char**) {
    auto& reader = *static_cast<Reader*>(data);
    ++reader.depth;
    const auto [ns, local] = split(name);
    const bool dav = ns == kDav;
    if (reader.depth == 1) {
        if (!dav || local != "multistatus") {
            reader.fail(fmt::format("the answer is not a multistatus but {}", local));
        }
        reader.sawRoot = true;
        return;
    }
    switch (reader.where) {
        case Where::Outside:
            if (reader.depth == 2 && dav && local == "response") {
                if (reader.result.resources.size() >= kMaxResponses) {
                    reader.fail("the answer lists too many resources");
                    return;
                }
                reader.where = Where::Response;
                reader.resource = {};
                reader.responseOpen = true;
            }
            break;
        case Where::Response:
            if (reader.depth != 3 || !dav) {
                break;
            }
            reader.text.clear();
            if (local == "href") {
                reader.where = Where::Href;
            } else if (local == "propstat") {
                reader.where = Where::Propstat;
                reader.found = {};
                reader.foundCollection = false;
            } else if (local == "status") {
                reader.where = Where::ResponseStatus;
            }
            break;
        case Where::Propstat:
            if (reader.depth == 4 && dav && local == "prop") {
                reader.where = Where::Prop;
            } else if (reader.depth == 4 && dav && local == "status") {
                reader.where = Where::Status;
                reader.text.clear();
            }
            break;
        case Where::Prop:
            reader.where = Where::Property;
            reader.propertyDepth = reader.depth;
            reader.propertyName = fmt::format("{{{}}}{}", ns, local);
            reader.text.clear();
            break;
        case Where::Property:
            if (reader.propertyName == "{DAV:}resourcetype" && dav && local == "collection") {
                reader.foundCollection = true;
            }
            break;
        default:
            break;
    }
}

void XMLCALL end(void* data, const XML_Char*) {
    auto& reader = *static_cast<Reader*>(data);
    const int depth = reader.depth--;
    switch (reader.where) {
        case Where::Href:
            if (depth == 3) {
                std::string_view href = trimmed(reader.text);
                // Some servers send full URLs: keep the path.
                if (const auto scheme = href.find("://"); scheme != std::string_view::npos) {
                    const auto slash = href.find('/', scheme + 3);
                    href = slash == std::string_view::npos ? "/" : href.substr(slash);
                }
                auto path = percentDecode(href);
                if (!path || path->empty() || path->front() != '/') {
                    reader.fail(fmt::format("the answer names a resource badly: \"{}\"",
                                            std::string(href.substr(0, 200))));
                    return;
                }
                if (path->size() > 1 && path->back() == '/') {
                    path->pop_back();
                    reader.resource.isCollection = true;
                }
                reader.resource.path = std::move(*path);
                reader.where = Where::Response;
            }
            break;
        case Where::ResponseStatus:
            if (depth == 3) {
                reader.resource.status = statusCode(trimmed(reader.text));
                reader.where = Where::Response;
            }
            break;
        case Where::Status:
            if (depth == 4) {
                reader.found.status = statusCode(trimmed(reader.text));
                reader.where = Where::Propstat;
            }
            break;
        case Where::Property:
            if (depth == reader.propertyDepth) {
                const std::string_view value = trimmed(reader.text);
                DavResource& found = reader.found;
                if (reader.propertyName == "{DAV:}getetag") {
                    found.etag = value;
                } else if (reader.propertyName == "{DAV:}getcontentlength") {
                    std::uint64_t length = 0;
                    bool digits = !value.empty() && value.size() <= 19;
                    for (const char c : value) {
                        digits = digits && c >= '0' && c <= '9';
                        length = length * 10 + static_cast<std::uint64_t>(c - '0');
                    }
                    if (digits) {
                        found.contentLength = length;
                    }
                } else if (reader.propertyName == "{DAV:}getlastmodified") {
                    found.lastModified = parseHttpDate(value);
                } else if (!reader.propertyName.starts_with("{DAV:}")) {
                    found.deadProperties[reader.propertyName] = value;
                }
                reader.where = Where::Prop;
            }
            break;
        case Where::Prop:
            if (depth == 4) {
                reader.where = Where::Propstat;
            }
            break;
        case Where::Propstat:
            if (depth == 3) {
                // Only what the server found counts; a 404 propstat lists what it lacks.
                DavResource& found = reader.found;
                if (found.status >= 200 && found.status < 300) {
                    DavResource& resource = reader.resource;
                    resource.status = found.status;
                    resource.isCollection = resource.isCollection || reader.foundCollection;
                    if (!found.etag.empty()) {
                        resource.etag = std::move(found.etag);
                    }
                    if (found.contentLength) {
                        resource.contentLength = found.contentLength;
                    }
                    if (found.lastModified) {
                        resource.lastModified = found.lastModified;
                    }
                    resource.deadProperties.merge(found.deadProperties);
                }
                reader.where = Where::Response;
            }
            break;
        case Where::Response:
            if (depth == 2) {
                if (reader.resource.path.empty()) {
                    reader.fail("the answer has a response without href");
                    return;
                }
                reader.result.resources.push_back(std::move(reader.resource));
                reader.responseOpen = false;
                reader.where = Where::Outside;
            }
            break;
        default:
            break;
    }
}

void XMLCALL characters(void* data, const XML_Char* text, int length) {
    auto& reader = *static_cast<Reader*>(data);
    switch (reader.where) {
        case Where::Href:
        case Where::Status:
        case Where::ResponseStatus:
        case Where::Property:
            if (reader.text.size() + static_cast<std::size_t>(length) > kMaxText) {
                reader.fail("the answer holds a property too long to be one");
                return;
            }
            reader.text.append(text, static_cast<std::size_t>(length));
            break;
        default:
            break;
    }
}

// A multistatus has no document type; one would only bring entities to expand.
void XMLCALL doctype(void* data, const XML_Char*, const XML_Char*, const XML_Char*, int) {
    static_cast<Reader*>(data)->fail("the answer declares a document type");
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

}  // namespace

std::optional<Multistatus> parseMultistatus(std::string_view body, std::string* problem) {
    const auto refuse = [&](std::string why) -> std::optional<Multistatus> {
        if (problem != nullptr) {
            *problem = std::move(why);
        }
        return std::nullopt;
    };
    if (body.size() > kMaxBody) {
        return refuse("the answer is too large");
    }
    Reader reader;
    reader.parser = XML_ParserCreateNS(nullptr, kSeparator);
    if (reader.parser == nullptr) {
        return refuse("no memory to read the answer");
    }
    XML_SetUserData(reader.parser, &reader);
    XML_SetElementHandler(reader.parser, start, end);
    XML_SetCharacterDataHandler(reader.parser, characters);
    XML_SetStartDoctypeDeclHandler(reader.parser, doctype);
    const auto status =
        XML_Parse(reader.parser, body.data(), static_cast<int>(body.size()), XML_TRUE);
    std::string why = reader.problem;
    if (status != XML_STATUS_OK && why.empty()) {
        why = fmt::format("the answer is not well-formed XML: {} at line {}",
                          XML_ErrorString(XML_GetErrorCode(reader.parser)),
                          XML_GetCurrentLineNumber(reader.parser));
    }
    XML_ParserFree(reader.parser);
    if (!why.empty()) {
        return refuse(std::move(why));
    }
    if (!reader.sawRoot) {
        return refuse("the answer is empty");
    }
    return std::move(reader.result);
}

std::optional<std::string> percentDecode(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        if (i + 2 >= text.size()) {
            return std::nullopt;
        }
        const int high = hexValue(text[i + 1]);
        const int low = hexValue(text[i + 2]);
        if (high < 0 || low < 0 || (high == 0 && low == 0)) {
            return std::nullopt;
        }
        decoded += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return decoded;
}

std::string percentEncodePath(std::string_view path) {
    std::string encoded;
    encoded.reserve(path.size());
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) != 0 || c == '/' || c == '-' || c == '.' || c == '_' || c == '~') {
            encoded += c;
        } else {
            encoded += fmt::format("%{:02X}", byte);
        }
    }
    return encoded;
}

std::optional<double> parseHttpDate(std::string_view text) {
    // "Sun, 06 Nov 1994 08:49:37 GMT": read by hand, whatever the process's locale.
    static constexpr std::array<std::string_view, 12> kMonths = {
        "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    if (text.size() != 29 || text[3] != ',' || text.substr(25) != " GMT") {
        return std::nullopt;
    }
    const auto number = [&](std::size_t at, std::size_t digits) -> int {
        int value = 0;
        for (std::size_t i = at; i < at + digits; ++i) {
            if (text[i] < '0' || text[i] > '9') {
                return -1;
            }
            value = value * 10 + (text[i] - '0');
        }
        return value;
    };
    std::tm time{};
    time.tm_mday = number(5, 2);
    const auto month = std::find(kMonths.begin(), kMonths.end(), text.substr(8, 3));
    time.tm_year = number(12, 4) - 1900;
    time.tm_hour = number(17, 2);
    time.tm_min = number(20, 2);
    time.tm_sec = number(23, 2);
    if (time.tm_mday < 1 || time.tm_mday > 31 || month == kMonths.end() || time.tm_year < 0 ||
        time.tm_hour < 0 || time.tm_hour > 23 || time.tm_min < 0 || time.tm_min > 59 ||
        time.tm_sec < 0 || time.tm_sec > 60 || text[16] != ' ' || text[19] != ':' ||
        text[22] != ':') {
        return std::nullopt;
    }
    time.tm_mon = static_cast<int>(month - kMonths.begin());
    return static_cast<double>(::timegm(&time));
}

}  // namespace qn::drive
