// SPDX-License-Identifier: MIT
// What --port names: a serial device, or a device server by URL; a URL that is wrong is refused
// with what is wrong and never taken for a device name.
#include "link_address.h"

#include <gtest/gtest.h>

#include "tool_error.h"

namespace {

TEST(ParseLinkAddress, APathOrANameIsASerialDevice) {
    for (const char *text : {"/dev/ttyS1", "ttyUSB0", "/tmp/rig/master"}) {
        const LinkAddress address = ParseLinkAddress(QLatin1String(text));
        EXPECT_EQ(address.kind, LinkKind::Serial) << text;
        EXPECT_EQ(address.device, QLatin1String(text));
    }
}

struct UrlCase {
    const char *text;
    LinkKind kind;
    const char *host;
    quint16 port;
};

class UrlTest : public ::testing::TestWithParam<UrlCase> {};

TEST_P(UrlTest, NamesTheKindHostAndPort) {
    const LinkAddress address = ParseLinkAddress(QLatin1String(GetParam().text));
    EXPECT_EQ(address.kind, GetParam().kind);
    EXPECT_EQ(address.host, QLatin1String(GetParam().host));
    EXPECT_EQ(address.port, GetParam().port);
    EXPECT_TRUE(IsNetworkLink(address));
}

const UrlCase kUrlCases[] = {
    {"tcp://127.0.0.1:4001", LinkKind::RawTcp, "127.0.0.1", 4001},
    {"rfc2217://device-server.plant:7000", LinkKind::Rfc2217, "device-server.plant", 7000},
    {"tcp://[::1]:65535", LinkKind::RawTcp, "::1", 65535},
    {"RFC2217://10.0.0.5:1/", LinkKind::Rfc2217, "10.0.0.5", 1},
};

INSTANTIATE_TEST_SUITE_P(Urls, UrlTest, ::testing::ValuesIn(kUrlCases));

struct BadUrlCase {
    const char *text;
    const char *message;
};

class BadUrlTest : public ::testing::TestWithParam<BadUrlCase> {};

TEST_P(BadUrlTest, IsRefusedWithWhatIsWrong) {
    try {
        ParseLinkAddress(QLatin1String(GetParam().text));
        FAIL() << "accepted " << GetParam().text;
    } catch (const ToolError &error) {
        EXPECT_EQ(error.message(), QLatin1String(GetParam().message));
    }
}

const BadUrlCase kBadUrlCases[] = {
    {"tcp://host", "--port tcp://host: no TCP port (HOST:PORT)"},
    {"tcp://host:", "--port tcp://host:: no TCP port (HOST:PORT)"},
    {"tcp://host:0", "--port tcp://host:0: TCP port 0 is not from 1 to 65535"},
    {"tcp://host:65536", "--port tcp://host:65536: TCP port 65536 is not from 1 to 65535"},
    {"tcp://host:http", "--port tcp://host:http: TCP port http is not from 1 to 65535"},
    {"tcp://:502", "--port tcp://:502: no host (HOST:PORT)"},
    {"tcp://host:502/ttyS1", "--port tcp://host:502/ttyS1: not SCHEME://HOST:PORT"},
    {"udp://host:502",
     "--port udp://host:502: unknown scheme 'udp://' (tcp:// for a raw stream, rfc2217:// for "
     "Telnet with the COM-PORT option, or a serial device)"},
};

INSTANTIATE_TEST_SUITE_P(Urls, BadUrlTest, ::testing::ValuesIn(kBadUrlCases));

}  // namespace
