#include "compiled/race.hpp"

#include "compiled/form.hpp"
#include "compiled/lookup.hpp"
#include "compiled/places.hpp"

#include <algorithm>
#include <map>
#include <optional>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace compiled
{

namespace
{

constexpr std::uint8_t lengths = 16; // that an IPv4 header can say it has

// Whether there is a frame that can be asked for both.
bool canMeet(Family one, Family other)
{
    return one == Family::Any || other == Family::Any || one == other;
}

// For tables: the library hashes texts.
std::string_view asText(const Bytes& bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

class RaceMaker
{
public:
    RaceMaker(const std::string& name, const std::vector<KeyedItem>& items, const Surroundings& surroundings)
        : m_name(name), m_items(items), m_with(surroundings)
    {
        sortByForm();
        addMaps();
    }

    std::vector<Step> make(const std::function<std::string(Family)>& asWritten)
    {
        std::vector<Step> steps;
        if (std::ranges::any_of(m_runners, [](const Runner& runner) { return dependsOnHeaderLength(*runner.key); })) {
            if (otherLengthsAreShort())
                steps.push_back({hasOtherLength(), Jump{otherLengths()}});
            else
                steps.push_back({hasOtherLength(), Jump{asWritten(Family::Ip4), false}});
        }
        if (std::ranges::any_of(m_runners, [](const Runner& runner) { return dependsOnExtensions(*runner.key); }))
            steps.push_back({hasExtensions(), Jump{asWritten(Family::Ip6), false}});
        addRace(m_name, Family::Any, usualLength, steps);
        return steps;
    }

private:
    // The rules of one form.
    struct Runner {
        std::string name;
        const RuleKey* key;                          // the first one's
        std::vector<std::size_t> items;              // in m_items
        std::unordered_set<std::string_view> values; // theirs
        std::size_t places = 0;                      // the map's number
        std::size_t verdicts = 0;                    // likewise
    };

    void sortByForm()
    {
        std::map<const RuleKey*, std::size_t, ByForm> known;
        for (std::size_t i = 0; i < m_items.size(); ++i) {
            const RuleKey& key = *m_items[i].key;
            const auto [place, isNew] = known.emplace(&key, m_runners.size());
            if (isNew)
                m_runners.push_back({nameOfForm(key), &key, {}, {}});
            // One with the same value stands before: it is never reached.
            if (m_runners[place->second].values.insert(asText(key.value)).second)
                m_runners[place->second].items.push_back(i);
        }
        // An order that other rules do not change. Those for all frames come first: only those of one family follow
        // then.
        std::ranges::sort(m_runners, {},
                          [](const Runner& runner) { return std::tie(runner.key->family, runner.name); });
    }

    void addMaps()
    {
        std::vector<std::optional<Place>> before(m_items.size());
        for (const Runner& runner : m_runners)
            findPlaces(runner, before);
        // Those that are never reached have room, too: they may be reached tomorrow.
        const std::vector<Place> places = placesFor(before);
        for (Runner& runner : m_runners) {
            Map verdicts;
            verdicts.name = m_name + "/" + runner.name;
            verdicts.counts = true;
            for (const Part part : runner.key->parts)
                verdicts.sizes.push_back(fieldOf(part).size);
            Map placeMap = verdicts;
            placeMap.name += "/places";
            placeMap.counts = false;
            placeMap.places = true;
            for (const std::size_t index : runner.items) {
                const KeyedItem& item = m_items[index];
                placeMap.elements.push_back({item.key->value, item.key->value, {}, places[index]});
                verdicts.elements.push_back({item.key->value, item.key->value,
                                             verdictOf(item.item->rule, m_with.loggingChain), 0, item.item->origin});
            }
            runner.places = m_with.program.maps.size();
            m_with.program.maps.push_back(std::move(placeMap));
            runner.verdicts = m_with.program.maps.size();
            m_with.program.maps.push_back(std::move(verdicts));
        }
    }

    void findPlaces(const Runner& runner, std::vector<std::optional<Place>>& places) const
    {
        const Map* map = m_with.mapBefore(m_name + "/" + runner.name + "/places");
        if (map == nullptr)
            return;
        std::unordered_map<std::string_view, Place> known;
        for (const Element& element : map->elements)
            known.emplace(asText(element.first), element.place);
        for (const std::size_t index : runner.items) {
            if (const auto found = known.find(asText(m_items[index].key->value)); found != known.end())
                places[index] = found->second;
        }
    }

    static LookUp lookUp(std::size_t map, const Runner& runner, std::uint8_t words)
    {
        return {map, fieldsOf(*runner.key, words)};
    }

    // The race for frames of this family (or any) whose IPv4 header has this length: the steps of those that nobody is
    // ahead for, and a chain for each form that may be ahead.
    void addRace(const std::string& name, Family family, std::uint8_t words, std::vector<Step>& steps)
    {
        for (std::size_t i = 0; i < m_runners.size(); ++i) {
            const Runner& ahead = m_runners[i];
            if (!canMeet(family, ahead.key->family))
                continue;
            Chain chain;
            chain.name = name + "/" + ahead.name;
            steps.push_back(
                {conditionsOf(*ahead.key, words), Lead{lookUp(ahead.places, ahead, words), {}, chain.name}});
            for (std::size_t j = i + 1; j < m_runners.size(); ++j) {
                const Runner& behind = m_runners[j];
                if (canMeet(family, behind.key->family) && canMeet(ahead.key->family, behind.key->family))
                    chain.steps.push_back({conditionsOf(*behind.key, words),
                                           Lead{lookUp(behind.places, behind, words),
                                                lookUp(ahead.places, ahead, words), name + "/" + behind.name}});
            }
            chain.steps.push_back({{}, lookUp(ahead.verdicts, ahead, words)});
            m_with.program.chains.push_back(std::move(chain));
        }
    }

    // What a jump leads to cannot leave the chain that it came from.
    bool otherLengthsAreShort() const
    {
        std::size_t forms = 0;
        std::size_t items = 0;
        for (const Runner& runner : m_runners) {
            if (!canMeet(Family::Ip4, runner.key->family))
                continue;
            ++forms;
            items += runner.items.size();
            if (std::ranges::any_of(runner.items,
                                    [this](std::size_t item) { return m_items[item].item->rule.target == "RETURN"; }))
                return false;
        }
        return lengths * forms * (forms + 3) / 2 < items;
    }

    std::string otherLengths()
    {
        Chain all;
        all.name = m_name + "/lengths";
        for (std::uint8_t words = 0; words < lengths; ++words) {
            if (words == usualLength)
                continue;
            Chain chain;
            chain.name = m_name + "/length-" + std::to_string(words);
            all.steps.push_back({{hasLength(words)}, Jump{chain.name, false}});
            addRace(chain.name, Family::Ip4, words, chain.steps);
            m_with.program.chains.push_back(std::move(chain));
        }
        std::string name = all.name;
        m_with.program.chains.push_back(std::move(all));
        return name;
    }

    const std::string& m_name;
    const std::vector<KeyedItem>& m_items;
    const Surroundings& m_with;
    std::vector<Runner> m_runners;
};

} // namespace

std::vector<Step> raceOf(const std::string& name, const std::vector<KeyedItem>& items, const Surroundings& surroundings,
                         const std::function<std::string(Family)>& asWritten)
{
    return RaceMaker(name, items, surroundings).make(asWritten);
}

} // namespace compiled
