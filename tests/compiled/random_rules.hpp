// Random rules, and frames at their borders. Values are few, so that rules meet.
#pragma once

#include "ebtables/table.hpp"
#include "tests/compiled/raw_frame.hpp"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace test
{

class RandomRules
{
public:
    // next(n) gives a number below n.
    explicit RandomRules(std::function<std::size_t(std::size_t)> next) : m_next(std::move(next)) {}

    // Chains as moatkeeper makes them, with filters between ports; and, where `strange`, rules that it would not make.
    // Every rule has a mark of its own, but for the jumps that all frames take.
    ebtables::Table table(std::size_t rules, bool strange);

    // Takes rules out, puts others in, moves and repeats some, or does something to a chain: here and there, or to
    // many. Which rules are the same ones says their mark.
    void change(ebtables::Table& table, bool strange);

    // One that a rule of the table may match, and then perhaps not quite.
    RawFrame frame(const ebtables::Table& table);

private:
    bool one(std::size_t in) { return m_next(in) == 0; }
    template <typename T>
    const T& oneOf(const std::vector<T>& all)
    {
        return all[m_next(all.size())];
    }

    std::string port();
    ebtables::MacMatch mac();
    template <std::size_t N>
    ebtables::NetworkMatch<N> network();
    template <std::size_t N>
    void addIp(ebtables::IpMatches<N>& ip, std::size_t kind);
    void addMatches(ebtables::Rule& rule);
    void makeStrange(ebtables::Rule& rule);
    ebtables::Rule rule(bool forwarded, bool strange);
    void addFilter(ebtables::Table& table, std::size_t number);
    void changeChain(ebtables::Chain& chain, bool strange);
    template <std::size_t N>
    void fillIp(const ebtables::IpMatches<N>& ip, RawFrame& frame);
    void spoil(RawFrame& frame);

    // As in real configurations, a table has rules of a few kinds only, and those are many.
    std::vector<std::size_t> m_kinds{0};
    std::size_t m_values = 4; // of each kind of match
    std::size_t m_ports = 3;
    std::function<std::size_t(std::size_t)> m_next;
    ebtables::Origin m_origin = 0;
};

} // namespace test
