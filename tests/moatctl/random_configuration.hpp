// Random configurations and frames out of small pools, so that frames meet rules and rules meet each other.
#pragma once

#include "moatctl/bridge/frame.hpp"
#include "moatctl/tables/configuration.hpp"

#include <random>
#include <string>
#include <vector>

namespace test
{

class Random
{
public:
    explicit Random(unsigned seed) : m_engine(seed) {}

    int number(int first, int last) { return std::uniform_int_distribution<int>(first, last)(m_engine); }
    bool oneIn(int n) { return number(1, n) == 1; }

    template <typename T>
    const T& pick(const std::vector<T>& pool)
    {
        return pool[static_cast<std::size_t>(number(0, static_cast<int>(pool.size()) - 1))];
    }

private:
    std::mt19937 m_engine;
};

// The bridge's ports in all of this.
const std::vector<std::string>& ports();

// wrongOneIn: about every so manieth value is one that the daemon or the tool refuses; 0: none.
moatctl::Configuration randomConfiguration(Random& random, int wrongOneIn);

// Every field known. Sources are stations' addresses.
moatctl::Frame randomFrame(Random& random);

} // namespace test
