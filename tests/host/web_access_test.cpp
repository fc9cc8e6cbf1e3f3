// SPDX-License-Identifier: MIT
// The live page's access rules: --serve and --serve-token, loopback Host names, the refusals,
// the printed address, and the limits on what a request's head may bring.
#include "web_access.h"

#include <gtest/gtest.h>

#include "http_head.h"
#include "tool_error.h"

namespace {

TEST(ParseServeSettings, TakesAPortAloneOrWithAnAddress) {
    const struct {
        const char *text;
        const char *address;
        int port;
        bool loopback;
    } cases[] = {
        {"8080", "127.0.0.1", 8080, true},
        {"127.0.0.1:1", "127.0.0.1", 1, true},
        {"localhost:65535", "127.0.0.1", 65535, true},
        {"[::1]:8080", "::1", 8080, true},
        {"127.9.9.9:80", "127.9.9.9", 80, true},
        {"0.0.0.0:8080", "0.0.0.0", 8080, false},
        {"192.168.1.5:80", "192.168.1.5", 80, false},
        {"[::]:80", "::", 80, false},
    };
    for (const auto &row : cases) {
        const ServeSettings settings = ParseServeSettings(row.text, std::nullopt);
        EXPECT_EQ(settings.address, row.address) << row.text;
        EXPECT_EQ(settings.port, row.port) << row.text;
        EXPECT_EQ(settings.loopback, row.loopback) << row.text;
        EXPECT_EQ(settings.token.empty(), row.loopback) << row.text;
    }
}

TEST(ParseServeSettings, RefusesWhatDoesNotParseNamingTheOption) {
    const struct {
        const char *text;
        const char *message;
    } cases[] = {
        {"0", "--serve: port '0' is not a whole number from 1 to 65535"},
        {"65536", "--serve: port '65536' is not a whole number from 1 to 65535"},
        {"127.0.0.1:", "--serve: port '' is not a whole number from 1 to 65535"},
        {"1.2.3:80",
         "--serve: '1.2.3' is not an IPv4 address, an IPv6 address in brackets or "
         "localhost"},
        {"::1:80",
         "--serve: '::1' is not an IPv4 address, an IPv6 address in brackets or "
         "localhost"},
        {"plant:80",
         "--serve: 'plant' is not an IPv4 address, an IPv6 address in brackets or "
         "localhost"},
    };
    for (const auto &row : cases) {
        try {
            ParseServeSettings(row.text, std::nullopt);
            ADD_FAILURE() << row.text << " was accepted";
        } catch (const ToolError &error) {
            EXPECT_EQ(error.message().toStdString(), row.message);
        }
    }
}

TEST(ParseServeSettings, AnyOtherAddressNeedsATokenThatIsNotEmpty) {
    const ServeSettings made = ParseServeSettings("0.0.0.0:80", std::nullopt);
    EXPECT_EQ(made.token.size(), 32u);
    EXPECT_TRUE(made.tokenMade);
    EXPECT_NE(ParseServeSettings("0.0.0.0:80", std::nullopt).token, made.token);
    EXPECT_EQ(ParseServeSettings("0.0.0.0:80", QString("s3cret")).token, "s3cret");
    EXPECT_EQ(ParseServeSettings("8080", QString("s3cret")).token, "s3cret");
    EXPECT_EQ(ParseServeSettings("8080", QString("")).token, "");
    EXPECT_THROW(ParseServeSettings("0.0.0.0:80", QString("")), ToolError);
}

TEST(IsLoopbackHost, KnowsLoopbackNamesWithOrWithoutAPort) {
    const struct {
        const char *host;
        bool loopback;
    } cases[] = {
        {"localhost", true},
        {"LocalHost:8080", true},
        {"127.0.0.1", true},
        {"127.200.0.1:80", true},
        {"[::1]", true},
        {"[::1]:8080", true},
        {"", false},
        {"::1", false},
        {"[::1", false},
        {"[::1]x", false},
        {"128.0.0.1", false},
        {"evil.example", false},
        {"localhost.evil.example", false},
        {"192.168.1.5:8080", false},
        {"[::2]:80", false},
    };
    for (const auto &row : cases) EXPECT_EQ(IsLoopbackHost(row.host), row.loopback) << row.host;
}

TEST(RefusalStatus, HostThenTokenThenMethod) {
    ServeSettings loopback;
    loopback.port = 8080;
    ServeSettings open = loopback;
    open.address = "0.0.0.0";
    open.loopback = false;
    open.token = "s3cret";
    const struct {
        const ServeSettings &settings;
        RequestFacts request;
        int status;
    } cases[] = {
        {loopback, {"GET", "127.0.0.1:8080", ""}, 0},
        {loopback, {"GET", "evil.example", ""}, 403},
        {loopback, {"POST", "evil.example", ""}, 403},
        {loopback, {"POST", "localhost", ""}, 405},
        {loopback, {"HEAD", "localhost", ""}, 405},
        {open, {"GET", "plant-hmi:8080", "s3cret"}, 0},
        {open, {"GET", "plant-hmi:8080", ""}, 401},
        {open, {"GET", "plant-hmi:8080", "s3cre"}, 401},
        {open, {"GET", "plant-hmi:8080", "s3cretX"}, 401},
        {open, {"DELETE", "plant-hmi:8080", "s3cret"}, 405},
    };
    for (const auto &row : cases) {
        EXPECT_EQ(RefusalStatus(row.settings, row.request), row.status)
            << row.request.method << " " << row.request.host << " " << row.request.token;
    }
}

TEST(PageAddress, CarriesTheTokenAndAReachableHost) {
    ServeSettings settings = ParseServeSettings("[::1]:8080", std::nullopt);
    EXPECT_EQ(PageAddress(settings, "hmi").toStdString(), "http://[::1]:8080/");
    settings = ParseServeSettings("0.0.0.0:80", QString("s3cret"));
    EXPECT_EQ(PageAddress(settings, "hmi").toStdString(), "http://hmi:80/?token=s3cret");
}

TEST(PageAddress, PercentEncodesEveryTokenCharacterButUnreservedOnes) {
    const struct {
        const char *token;
        const char *address;
    } cases[] = {
        {"plc+key%41", "http://127.0.0.1:8080/?token=plc%2Bkey%2541"},
        {"a b", "http://127.0.0.1:8080/?token=a%20b"},
        {"x&y#z", "http://127.0.0.1:8080/?token=x%26y%23z"},
        {"k=v?/", "http://127.0.0.1:8080/?token=k%3Dv%3F%2F"},
        {"Az09-._~", "http://127.0.0.1:8080/?token=Az09-._~"},
        {"\xC3\xBC", "http://127.0.0.1:8080/?token=%C3%BC"},
    };
    for (const auto &row : cases) {
        const ServeSettings settings = ParseServeSettings("8080", QString::fromUtf8(row.token));
        EXPECT_EQ(PageAddress(settings, "hmi").toStdString(), row.address) << row.token;
    }
}

// A head whose request line is lineBytes long with its CRLF, then the header lines given.
std::string HeadWithRequestLine(size_t lineBytes, const std::string &headers = "\r\n") {
    return "GET /" + std::string(lineBytes - 16, 'a') + " HTTP/1.1\r\n" + headers;
}

// A header line headerBytes long with its CRLF.
std::string HeaderLine(size_t headerBytes) {
    return "X: " + std::string(headerBytes - 5, 'b') + "\r\n";
}

HttpHead::State StateAfter(const std::string &bytes) {
    HttpHead head;
    return head.add(bytes.data(), bytes.size());
}

TEST(HttpHead, IsCompleteAtTheBlankLineWhicheverPiecesItComesIn) {
    HttpHead head;
    EXPECT_EQ(head.add("GET / HTTP/1.1\r\nHo", 18), HttpHead::State::Incomplete);
    EXPECT_EQ(head.add("st: a\r\n\r", 8), HttpHead::State::Incomplete);
    EXPECT_EQ(head.add("\nBODY", 5), HttpHead::State::Complete);
    EXPECT_EQ(head.bytes(), "GET / HTTP/1.1\r\nHost: a\r\n\r\nBODY");
    // Nothing more is taken once the head is complete.
    EXPECT_EQ(head.add("MORE", 4), HttpHead::State::Complete);
    EXPECT_EQ(head.bytes().size(), 31u);
}

TEST(HttpHead, RefusesARequestLineOverEightKibibytes) {
    using State = HttpHead::State;
    EXPECT_EQ(StateAfter(HeadWithRequestLine(8192)), State::Complete);
    EXPECT_EQ(StateAfter(HeadWithRequestLine(8193)), State::LineTooLong);
    // Refused before the line ends, as soon as it is sure to be too long.
    EXPECT_EQ(StateAfter(std::string(8191, 'G')), State::Incomplete);
    EXPECT_EQ(StateAfter(std::string(8192, 'G')), State::LineTooLong);
}

TEST(HttpHead, RefusesAHeaderLineOverEightKibibytes) {
    using State = HttpHead::State;
    EXPECT_EQ(StateAfter(HeadWithRequestLine(20, HeaderLine(8192) + "\r\n")), State::Complete);
    EXPECT_EQ(StateAfter(HeadWithRequestLine(20, HeaderLine(8193) + "\r\n")),
              State::HeadersTooLarge);
    EXPECT_EQ(StateAfter(HeadWithRequestLine(20, "X: " + std::string(8188, 'b'))),
              State::Incomplete);
    EXPECT_EQ(StateAfter(HeadWithRequestLine(20, "X: " + std::string(8189, 'b'))),
              State::HeadersTooLarge);
}

TEST(HttpHead, RefusesMoreThanAHundredHeaderLines) {
    std::string hundred;
    for (int i = 0; i < 100; ++i) hundred += "X: b\r\n";
    EXPECT_EQ(StateAfter(HeadWithRequestLine(20, hundred + "\r\n")), HttpHead::State::Complete);
    EXPECT_EQ(StateAfter(HeadWithRequestLine(20, hundred + "X: b\r\n\r\n")),
              HttpHead::State::HeadersTooLarge);
}

TEST(HttpHead, RefusesHeadersOverThirtyTwoKibibytesInAll) {
    const std::string threeFull = HeaderLine(8192) + HeaderLine(8192) + HeaderLine(8192);
    // 3 x 8,192 + 8,190 + the blank line's 2 bytes: 32,768.
    EXPECT_EQ(StateAfter(HeadWithRequestLine(20, threeFull + HeaderLine(8190) + "\r\n")),
              HttpHead::State::Complete);
    EXPECT_EQ(StateAfter(HeadWithRequestLine(20, threeFull + HeaderLine(8191) + "\r\n")),
              HttpHead::State::HeadersTooLarge);
}

TEST(HttpHead, GivesAHeaderExactlyAsSent) {
    const std::string bytes =
        "GET / HTTP/1.1\r\n"
        "Host: 127.0.0.1\r\n"
        "Authorisation-Hint: no\r\n"
        "authorization:  Bearer plc+key%41 \t\r\n"
        "Authorization: Bearer second\r\n"
        "\r\n";
    HttpHead head;
    ASSERT_EQ(head.add(bytes.data(), bytes.size()), HttpHead::State::Complete);
    EXPECT_EQ(head.rawHeader("Authorization"), "Bearer plc+key%41");
    EXPECT_EQ(head.rawHeader("Host"), "127.0.0.1");
    EXPECT_EQ(head.rawHeader("Cookie"), "");
}

TEST(HttpHead, SkipsHeaderLinesWithoutCarriageReturnAsTheServerDoes) {
    const std::string bytes = "GET / HTTP/1.1\r\nAuthorization: Bearer a\nHost: b\r\n\r\n";
    HttpHead head;
    ASSERT_EQ(head.add(bytes.data(), bytes.size()), HttpHead::State::Complete);
    EXPECT_EQ(head.rawHeader("Authorization"), "");
    EXPECT_EQ(head.rawHeader("Host"), "b");
}

}  // namespace
