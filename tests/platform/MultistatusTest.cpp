// Reading WebDAV multistatus answers as the two servers the drive is tested against write them,
// and refusing what no server should send.

#include <gtest/gtest.h>

#include "platform/drive/Multistatus.h"

namespace qn::drive {
namespace {

// Apache's mod_dav: one element per line, generated prefixes, lower-case escapes, a propstat of
// what it lacks.
constexpr std::string_view kApache = R"(<?xml version="1.0" encoding="utf-8"?>
<D:multistatus xmlns:D="DAV:" xmlns:ns1="urn:qnicloud" xmlns:ns0="DAV:">
<D:response xmlns:lp1="DAV:" xmlns:lp2="http://apache.org/dav/props/">
<D:href>/dav/n/</D:href>
<D:propstat>
<D:prop>
<lp1:resourcetype><D:collection/></lp1:resourcetype>
<lp1:getlastmodified>Tue, 24 Nov 2026 04:23:25 GMT</lp1:getlastmodified>
<lp1:getetag>"1000-660fe1251a630"</lp1:getetag>
</D:prop>
<D:status>HTTP/1.1 200 OK</D:status>
</D:propstat>
</D:response>
<D:response xmlns:lp1="DAV:">
<D:href>/dav/n/%c3%bc-nfc%20x.txt</D:href>
<D:propstat>
<D:prop>
<lp1:resourcetype/>
<lp1:getcontentlength>12</lp1:getcontentlength>
<lp1:getetag>W/"c-660fe0d0c96d3"</lp1:getetag>
<ns1:device>laptop</ns1:device>
</D:prop>
<D:status>HTTP/1.1 200 OK</D:status>
</D:propstat>
<D:propstat>
<D:prop><ns1:resolved/></D:prop>
<D:status>HTTP/1.1 404 Not Found</D:status>
</D:propstat>
</D:response>
</D:multistatus>
)";

// rclone: one line, DAV: as a prefix and other namespaces as defaults, upper-case escapes.
constexpr std::string_view kRclone =
    R"(<?xml version="1.0" encoding="UTF-8"?><D:multistatus xmlns:D="DAV:"><D:response>)"
    R"(<D:href>/n/%C3%BC-nfc%20x.txt</D:href><D:propstat><D:prop><D:resourcetype></D:resourcetype>)"
    R"(<D:getcontentlength>12</D:getcontentlength><D:getetag>"18eae062ff3567c1c"</D:getetag>)"
    R"(<D:getlastmodified>Sun, 06 Nov 1994 08:49:37 GMT</D:getlastmodified>)"
    R"(<device xmlns="urn:qnicloud">desktop</device></D:prop><D:status>HTTP/1.1 200 OK</D:status>)"
    R"(</D:propstat></D:response><D:response><D:href>http://127.0.0.1:8080/n/sub%20dir/</D:href>)"
    R"(<D:status>HTTP/1.1 424 Failed Dependency</D:status></D:response></D:multistatus>)";

TEST(MultistatusTest, ReadsBothServersByNamespaceNotPrefix) {
    std::string problem;
    const auto apache = parseMultistatus(kApache, &problem);
    ASSERT_TRUE(apache) << problem;
    ASSERT_EQ(apache->resources.size(), 2u);
    const DavResource& folder = apache->resources[0];
    EXPECT_EQ(folder.path, "/dav/n");
    EXPECT_TRUE(folder.isCollection);
    EXPECT_EQ(folder.etag, "\"1000-660fe1251a630\"");
    EXPECT_EQ(folder.lastModified, parseHttpDate("Tue, 24 Nov 2026 04:23:25 GMT"));
    const DavResource& file = apache->resources[1];
    EXPECT_EQ(file.path, "/dav/n/\xc3\xbc-nfc x.txt");
    EXPECT_FALSE(file.isCollection);
    EXPECT_EQ(file.status, 200);
    EXPECT_EQ(file.contentLength, 12u);
    EXPECT_EQ(file.etag, "W/\"c-660fe0d0c96d3\"");
    EXPECT_EQ(file.deadProperties,
              (std::map<std::string, std::string>{{"{urn:qnicloud}device", "laptop"}}))
        << "what the server lacks is not a property";

    const auto rclone = parseMultistatus(kRclone, &problem);
    ASSERT_TRUE(rclone) << problem;
    ASSERT_EQ(rclone->resources.size(), 2u);
    EXPECT_EQ(rclone->resources[0].path, "/n/\xc3\xbc-nfc x.txt");
    EXPECT_EQ(rclone->resources[0].lastModified, 784111777.0);
    EXPECT_EQ(rclone->resources[0].deadProperties.at("{urn:qnicloud}device"), "desktop");
    EXPECT_EQ(rclone->resources[1].path, "/n/sub dir");
    EXPECT_TRUE(rclone->resources[1].isCollection);
    EXPECT_EQ(rclone->resources[1].status, 424);
}

TEST(MultistatusTest, RefusesWhatNoServerShouldSend) {
    const auto refused = [](std::string_view body, std::string_view why) {
        std::string problem;
        EXPECT_FALSE(parseMultistatus(body, &problem)) << body;
        EXPECT_NE(problem.find(why), std::string::npos) << problem;
    };
    refused("", "not well-formed");
    refused(R"(<D:multistatus xmlns:D="DAV:"><D:response>)", "not well-formed");
    refused(R"(<html><body>Login</body></html>)", "not a multistatus");
    refused(R"(<multistatus><response><href>/a</href></response></multistatus>)",
            "not a multistatus");
    refused(R"(<!DOCTYPE m [<!ENTITY a "aaaaaaaaaa"><!ENTITY b "&a;&a;&a;&a;&a;&a;">]>)"
            R"(<D:multistatus xmlns:D="DAV:"><D:response><D:href>/&b;</D:href></D:response>)"
            R"(</D:multistatus>)",
            "document type");
    refused(R"(<D:multistatus xmlns:D="DAV:"><D:response><D:href>/a%2</D:href></D:response>)"
            R"(</D:multistatus>)",
            "names a resource badly");
    refused(R"(<D:multistatus xmlns:D="DAV:"><D:response><D:href>/a%00b</D:href></D:response>)"
            R"(</D:multistatus>)",
            "names a resource badly");
    refused(R"(<D:multistatus xmlns:D="DAV:"><D:response><D:status>HTTP/1.1 200 OK</D:status>)"
            R"(</D:response></D:multistatus>)",
            "without href");
    refused(std::string(R"(<D:multistatus xmlns:D="DAV:"><D:response><D:href>/)") +
                std::string(70 << 10, 'a') + "</D:href></D:response></D:multistatus>",
            "too long");
}

TEST(MultistatusTest, PathsAndDatesRoundTrip) {
    const std::string name = "/dav/Caf\xc3\xa9 & 100%/a+b;c#d?.txt";
    const std::string encoded = percentEncodePath(name);
    EXPECT_EQ(encoded.find_first_of(" &%#?;+\xc3"), encoded.find('%'));
    EXPECT_EQ(percentDecode(encoded), name);
    EXPECT_EQ(parseHttpDate("Thu, 01 Jan 1970 00:00:00 GMT"), 0.0);
    EXPECT_FALSE(parseHttpDate("Thu, 01 Jan 1970 00:00:00 UTC"));
    EXPECT_FALSE(parseHttpDate("Thu, 32 Jan 1970 00:00:00 GMT"));
    EXPECT_FALSE(parseHttpDate("Thu, 01 Foo 1970 00:00:00 GMT"));
    EXPECT_FALSE(parseHttpDate("1970-01-01T00:00:00Z"));
}

}  // namespace
}  // namespace qn::drive
