// A program in words, for people and for tests.
#pragma once

#include "compiled/program.hpp"

#include <cstddef>
#include <string>

namespace compiled
{

// Chain by chain, a line for each step:
//
//   FORWARD/eth0/eth1
//     type 0x0800, ip-length 5, ip-fragment 0x0000: look up ip-src.dport in FORWARD/eth0/eth1/ip4.ip-src.dport (200)
//     -s 02:00:00:00:00:01 -j DROP
std::string describe(const Program& program);

// An element's key, in hexadecimal digits, and what becomes of a frame that has it.
std::string textOf(const Element& element);

// The most steps that a frame is compared with on its way through the chain and those that it leads to.
std::size_t mostSteps(const Program& program, const Chain& chain);

} // namespace compiled
