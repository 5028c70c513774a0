// The words for a server's place, and what counts as this machine.
#include "endpoint/endpoint.hpp"
#include "endpoint/tcp_stream.hpp"

#include <arpa/inet.h>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

namespace
{

using endpoint::Endpoint;
using endpoint::Kind;
using endpoint::Mistake;
using endpoint::parseEndpoints;
using testing::ElementsAre;

TEST(EndpointTest, EachKindHasItsForm)
{
    EXPECT_THAT(parseEndpoints("/run/a,b"), ElementsAre(Endpoint{.kind = Kind::Local, .path = "/run/a,b"}));
    EXPECT_THAT(parseEndpoints("relative"), ElementsAre(Endpoint{.kind = Kind::Local, .path = "relative"}));
    EXPECT_THAT(parseEndpoints("unix:/a,tcp:host-1.example:1,ssl:[2001:db8::1]:65535"),
                ElementsAre(Endpoint{.kind = Kind::Local, .path = "/a"},
                            Endpoint{.kind = Kind::Tcp, .host = "host-1.example", .port = 1},
                            Endpoint{.kind = Kind::Tls, .host = "2001:db8::1", .port = 65535}));
    for (const char* const text : {"tcp:127.0.0.1:6640", "ssl:[::1]:6640", "ssl:[fe80::1%eth0]:6640"})
        EXPECT_EQ(toText(parseEndpoints(text).front()), text);
}

TEST(EndpointTest, WhatIsNoneIsRefusedByItsName)
{
    for (const char* const text :
         {"tcp:", "tcp:h", "tcp::1", "tcp:h:", "tcp:h:0", "tcp:h:65536", "tcp:h:-1", "tcp:h:1x", "tcp:::1:6640",
          "ssl:[]:1", "ssl:[::1", "ssl:a b:1", "ssl:h\n:1", "unix:", "unix:/a,", "unix:/a,/b", "unix:/a,,unix:/b", ""})
        EXPECT_THROW(parseEndpoints(text), Mistake) << text;
    EXPECT_THAT([] { parseEndpoints("ssl:a:1,ssl:h\033:1"); },
                testing::ThrowsMessage<Mistake>(testing::StartsWith("\"ssl:h\\x1b:1\": expected unix:PATH")));
    EXPECT_THAT([] { parseEndpoints("ssl:a:1,"); },
                testing::ThrowsMessage<Mistake>(testing::HasSubstr("\"ssl:a:1,\": expected")));
    EXPECT_THAT([] { parseEndpoints("ssl:a:1,ssl:a:1"); },
                testing::ThrowsMessage<Mistake>(testing::HasSubstr("named twice")));
}

endpoint::Address address(const char* text)
{
    endpoint::Address result{};
    sockaddr_in v4{};
    sockaddr_in6 v6{};
    if (inet_pton(AF_INET, text, &v4.sin_addr) == 1) {
        v4.sin_family = AF_INET;
        std::memcpy(&result.value, &v4, sizeof v4);
    } else {
        EXPECT_EQ(inet_pton(AF_INET6, text, &v6.sin6_addr), 1) << text;
        v6.sin6_family = AF_INET6;
        std::memcpy(&result.value, &v6, sizeof v6);
    }
    return result;
}

TEST(EndpointTest, OnlyTheLoopbackIsThisMachine)
{
    for (const char* const here : {"127.0.0.1", "127.255.255.254", "::1", "::ffff:127.0.0.1"})
        EXPECT_TRUE(isLoopback(address(here))) << here;
    for (const char* const there :
         {"0.0.0.0", "126.0.0.1", "128.0.0.1", "192.0.2.1", "::", "::2", "::127.0.0.1", "::ffff:192.0.2.1", "7f00::1"})
        EXPECT_FALSE(isLoopback(address(there))) << there;
}

} // namespace
