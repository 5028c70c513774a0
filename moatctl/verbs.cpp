#include "moatctl/verbs.hpp"

#include <array>

namespace moatctl
{

std::span<const Verb> allVerbs()
{
    static constexpr std::array verbs{
        Verb{addShow, false},
    };
    return verbs;
}

} // namespace moatctl
