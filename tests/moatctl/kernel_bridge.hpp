// A real bridge in a network namespace of this process, frames for it, and what it does with them.
#pragma once

#include "moatctl/bridge/frame.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace test
{

using Bytes = std::vector<std::uint8_t>;

// The device's own.
inline constexpr moatctl::MacAddress bridgeAddress{2, 0, 0, 0, 0, 4};

// optionsHeader: with headers inside IPv6 that have to be skipped.
Bytes bytesOf(const moatctl::Frame& frame, bool optionsHeader);

// How many frames came in, and got through: to another port, to the device.
struct Seen {
    std::uint64_t arrived = 0, forwarded = 0, delivered = 0;
    bool operator==(const Seen&) const = default;
};

// With the ports of random configurations. The address 02:00:00:00:00:01 is behind the first of them, and so on.
class KernelBridge : public testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    // The frame comes in by the port.
    void send(const std::string& port, const Bytes& bytes) const;
    static Seen seen();

private:
    int m_socket = -1;
};

} // namespace test
