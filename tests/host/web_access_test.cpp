// SPDX-License-Identifier: MIT
// The live page's access rules: --serve and --serve-token, loopback Host names, the refusals.
#include "web_access.h"

#include <gtest/gtest.h>

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

}  // namespace
