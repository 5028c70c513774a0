// How often what is random is tried.
#pragma once

namespace test
{

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define MOATKEEPER_SANITIZED
#endif
#endif

// With sanitizers, which look for other faults and are slow, a tenth; at least once.
constexpr int rounds(int usual)
{
#ifdef MOATKEEPER_SANITIZED
    return usual < 10 ? 1 : usual / 10;
#else
    return usual;
#endif
}

} // namespace test
