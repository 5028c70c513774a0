// How much of a random test is wanted.
#pragma once

#include <cstdlib>

namespace randomtest
{

inline unsigned long long fromEnvironment(const char* name, unsigned long long otherwise)
{
    const char* text = std::getenv(name);
    return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

} // namespace randomtest
