#include "compiled/places.hpp"

#include <algorithm>

namespace compiled
{

namespace
{

constexpr std::size_t beyond = 65'536;

// Of the known numbers the longest ascending sequence stays.
void keepAscending(std::vector<std::optional<Place>>& places)
{
    std::optional<Place> last; // most of the time they do
    if (std::ranges::all_of(places, [&](std::optional<Place> place) {
            const bool ascends = !place || !last || *last < *place;
            last = place ? place : last;
            return ascends;
        }))
        return;
    std::vector<std::size_t> lastOfLength; // where the least last number of a sequence this long is
    std::vector<std::size_t> previous(places.size(), places.size());
    for (std::size_t i = 0; i < places.size(); ++i) {
        if (!places[i])
            continue;
        const auto at =
            std::ranges::lower_bound(lastOfLength, *places[i], {}, [&](std::size_t j) { return *places[j]; });
        if (at != lastOfLength.begin())
            previous[i] = *(at - 1);
        if (at == lastOfLength.end())
            lastOfLength.push_back(i);
        else
            *at = i;
    }
    std::vector<bool> keeps(places.size());
    for (std::size_t i = lastOfLength.empty() ? places.size() : lastOfLength.back(); i < places.size(); i = previous[i])
        keeps[i] = true;
    for (std::size_t i = 0; i < places.size(); ++i) {
        if (!keeps[i])
            places[i].reset();
    }
}

} // namespace

std::vector<Place> placesFor(const std::vector<std::optional<Place>>& before)
{
    std::vector<std::optional<Place>> places = before;
    keepAscending(places);
    std::vector<Place> result(places.size());
    for (std::size_t i = 0; i < places.size(); ++i)
        result[i] = places[i].value_or(0);

    const auto numberAt = [&](std::size_t i) { return i < result.size() ? std::size_t{result[i]} : beyond; };
    for (std::size_t i = 0; i < places.size(); ++i) {
        if (places[i])
            continue;
        const auto toKnown = [&](std::size_t from) {
            while (from < places.size() && !places[from])
                ++from;
            return from;
        };
        std::size_t first = i; // of those to be numbered
        std::size_t end = toKnown(i);
        const auto room = [&] { return numberAt(end) - (first == 0 ? 0 : numberAt(first - 1)); };
        // Neighbours give up theirs, until there is room for as many again.
        for (std::size_t least = end - first + 1; room() < least; least = 2 * (end - first + 1)) {
            const std::size_t wider = end - first;
            first -= std::min(first, wider);
            end = toKnown(std::min(places.size(), end + wider));
            if (first == 0 && end == places.size())
                break;
        }
        const std::size_t from = first == 0 ? 0 : numberAt(first - 1);
        const std::size_t between = room();
        for (std::size_t j = first; j < end; ++j)
            result[j] = static_cast<Place>(from + between * (j - first + 1) / (end - first + 1));
        i = end - 1;
    }
    return result;
}

} // namespace compiled
