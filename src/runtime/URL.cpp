#include "qn/URL.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>

#include "qn/PathString.h"

namespace qn {
namespace {

bool isAbsolute(std::string_view path) {
    return !path.empty() && path.front() == '/';
}

std::string resolve(std::string_view path) {
    std::string result(path);
    if (!isAbsolute(path)) {
        std::error_code error;
        const std::filesystem::path directory = std::filesystem::current_path(error);
        if (!error) {
            result = stringByStandardizingPath(directory.string() + "/" + result);
        }
    }
    return result;
}

bool isUnencoded(unsigned char c) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) {
        return true;
    }
    return std::string_view("-._~!$&'()*+,;=:@/").find(static_cast<char>(c)) !=
           std::string_view::npos;
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

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
    if (text.size() < prefix.size()) {
        return false;
    }
    for (std::size_t i = 0; i < prefix.size(); ++i) {
        char c = text[i];
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
        if (c != prefix[i]) {
            return false;
        }
    }
    return true;
}

}  // namespace

URL::URL(std::string path, bool isDirectory) : path_(std::move(path)), isDirectory_(isDirectory) {
    while (path_.size() > 1 && path_.back() == '/') {
        path_.pop_back();
    }
    if (path_ == "/") {
        isDirectory_ = true;
    }
}

URL URL::fileURLWithPath(std::string_view path, bool isDirectory) {
    if (path.empty()) {
        return URL();
    }
    return URL(resolve(path), isDirectory);
}

URL URL::fileURLWithPath(std::string_view path) {
    if (path.empty()) {
        return URL();
    }
    std::string resolved = resolve(path);
    bool isDirectory = path.back() == '/';
    if (!isDirectory) {
        struct stat info {};
        isDirectory = ::stat(resolved.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
    }
    return URL(std::move(resolved), isDirectory);
}

std::optional<URL> URL::fromString(std::string_view string) {
    if (!startsWithIgnoringCase(string, "file://")) {
        return std::nullopt;
    }
    std::string_view rest = string.substr(7);
    if (startsWithIgnoringCase(rest, "localhost")) {
        rest.remove_prefix(9);
    }
    // A NUL names no file, whether it comes encoded or raw.
    if (!isAbsolute(rest) ||
        rest.find_first_of(std::string_view("?#\0", 3)) != std::string_view::npos) {
        return std::nullopt;
    }
    std::string path;
    path.reserve(rest.size());
    for (std::size_t i = 0; i < rest.size(); ++i) {
        if (rest[i] != '%') {
            path += rest[i];
            continue;
        }
        const int high = i + 2 < rest.size() ? hexValue(rest[i + 1]) : -1;
        const int low = i + 2 < rest.size() ? hexValue(rest[i + 2]) : -1;
        if (high < 0 || low < 0 || (high == 0 && low == 0)) {
            return std::nullopt;
        }
        path += static_cast<char>(high * 16 + low);
        i += 2;
    }
    // The raw string decides: an encoded "%2F" at the end does not make a directory.
    return URL(std::move(path), rest.back() == '/');
}

std::string URL::absoluteString() const {
    if (isEmpty()) {
        return {};
    }
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string result = "file://";
    result.reserve(result.size() + path_.size() + 1);
    for (const char c : path_) {
        const auto byte = static_cast<unsigned char>(c);
        if (isUnencoded(byte)) {
            result += c;
        } else {
            result += '%';
            result += kHex[byte >> 4];
            result += kHex[byte & 0xF];
        }
    }
    if (isDirectory_ && path_ != "/") {
        result += '/';
    }
    return result;
}

std::string URL::lastPathComponent() const {
    return qn::lastPathComponent(path_);
}

std::string URL::pathExtension() const {
    return qn::pathExtension(path_);
}

std::vector<std::string> URL::pathComponents() const {
    return qn::pathComponents(path_);
}

URL URL::URLByAppendingPathComponent(std::string_view component) const {
    const bool isDirectory = !component.empty() && component.back() == '/';
    if (component.find_first_not_of('/') == std::string_view::npos) {
        return *this;
    }
    return URLByAppendingPathComponent(component, isDirectory);
}

URL URL::URLByAppendingPathComponent(std::string_view component, bool isDirectory) const {
    if (isEmpty()) {
        return URL();
    }
    if (component.find_first_not_of('/') == std::string_view::npos) {
        return URL(path_, isDirectory);
    }
    return URL(stringByAppendingPathComponent(path_, component), isDirectory);
}

URL URL::URLByDeletingLastPathComponent() const {
    if (path_ == "/") {
        return *this;
    }
    // A relative path of one component has no parent to name.
    if (path_.find('/') == std::string::npos) {
        return URL();
    }
    return URL(stringByDeletingLastPathComponent(path_), true);
}

URL URL::URLByAppendingPathExtension(std::string_view extension) const {
    if (extension.empty() || extension.find('/') != std::string_view::npos || isEmpty() ||
        path_ == "/") {
        return *this;
    }
    return URL(stringByAppendingPathExtension(path_, extension), isDirectory_);
}

URL URL::URLByDeletingPathExtension() const {
    if (qn::pathExtension(path_).empty()) {
        return *this;
    }
    return URL(stringByDeletingPathExtension(path_), isDirectory_);
}

URL URL::URLByStandardizingPath() const {
    if (isEmpty()) {
        return URL();
    }
    return URL(stringByStandardizingPath(path_), isDirectory_);
}

URL URL::URLByResolvingSymlinksInPath() const {
    if (isEmpty()) {
        return URL();
    }
    const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path_.c_str(), nullptr),
                                                               &std::free);
    if (!resolved) {
        return *this;
    }
    return URL(resolved.get(), isDirectory_);
}

}  // namespace qn
