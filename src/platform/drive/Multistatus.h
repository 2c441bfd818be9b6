#pragma once

// A WebDAV server's 207 Multi-Status answer to PROPFIND (or PROPPATCH), read into the few things
// the network store needs of each resource. The body comes from the network: anything may be in
// it, and a malformed or hostile body gives an error, never a crash or a guess. Private to the
// drive; any thread.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qn::drive {

struct DavResource {
    /// The href as a path, percent-decoded: "/dav/Documents/Notes.txt". A collection's trailing
    /// "/" is dropped (`isCollection` says it).
    std::string path;
    bool isCollection = false;
    /// The HTTP status of the properties found (200 for a resource that has them), or of the
    /// response itself when it carries one.
    int status = 0;
    /// As the server sent it, quotes and any "W/" included; "" when absent.
    std::string etag;
    std::optional<std::uint64_t> contentLength;
    /// `getlastmodified` as seconds since 1970 (RFC 1123 dates); nullopt when absent or unreadable.
    std::optional<double> lastModified;
    /// Properties outside the DAV: namespace with their text, keyed "{namespace}name".
    std::map<std::string, std::string> deadProperties;
};

struct Multistatus {
    std::vector<DavResource> resources;
};

/// The resources of `body`; nullopt with the reason in `problem` when the body is not a
/// well-formed multistatus document, or is larger than the reader allows (64 MiB, 1,000,000
/// responses, 64 KiB of text in one property).
std::optional<Multistatus> parseMultistatus(std::string_view body, std::string* problem);

/// "%41b%2Fc" -> "Ab/c"; nullopt for a malformed escape or an escaped NUL.
std::optional<std::string> percentDecode(std::string_view text);
/// Each byte outside the unreserved set and "/" escaped, so that the result is a valid URL path.
std::string percentEncodePath(std::string_view path);
/// An RFC 1123 date ("Sun, 06 Nov 1994 08:49:37 GMT") as seconds since 1970.
std::optional<double> parseHttpDate(std::string_view text);

}  // namespace qn::drive
