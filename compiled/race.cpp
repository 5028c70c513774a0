#include "compiled/race.hpp"

#include "compiled/form.hpp"
#include "compiled/lookup.hpp"
#include "compiled/numbers.hpp"
#include "compiled/places.hpp"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
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

// For tables: the library hashes texts.
std::string_view asText(const Bytes& bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

class RaceMaker
{
public:
    RaceMaker(const std::string& name, const FormedRules& rules, Making& making)
        : m_name(name), m_formed(rules), m_rules(rules.rules), m_making(making)
    {
        sortByForm();
        addMaps();
    }

    std::vector<Step> make(const std::function<std::string(Family)>& asWritten)
    {
        const bool hasPorts =
            std::ranges::any_of(m_runners, [](const Runner& runner) { return dependsOnHeaderLength(runner.key()); });
        const bool hasOtherLengths = hasPorts && otherLengthsAreShort();
        std::vector<Step> steps;
        if (hasOtherLengths)
            steps.push_back({hasOtherLength(), Jump{m_name + "/lengths"}});
        else if (hasPorts)
            steps.push_back({hasOtherLength(), Jump{asWritten(Family::Ip4), false}});
        if (std::ranges::any_of(m_runners, [](const Runner& runner) { return dependsOnExtensions(runner.key()); }))
            steps.push_back({hasExtensions(), Jump{asWritten(Family::Ip6), false}});
        const SectionMemory::Race& race = keptRace(hasOtherLengths);
        steps.insert(steps.end(), race.steps.begin(), race.steps.end());
        for (const Chain& chain : race.chains)
            m_making.addChain(chain);
        return steps;
    }

private:
    // The rules of one form.
    struct Runner {
        const Form* form = nullptr;
        std::vector<std::size_t> rules = {}; // in m_rules
        SectionMemory::Runner* kept = nullptr;
        std::size_t places = 0;                // the map's number
        std::size_t verdicts = 0;              // likewise
        std::vector<std::size_t> reached = {}; // of these
        bool isAsBefore = false;               // the memory is of the same rules
        std::vector<std::size_t> changed = {}; // or of all but these, of its rules; none when it is of others

        const RuleKey& key() const { return form->like; }
    };

    void sortByForm()
    {
        constexpr std::size_t none = std::numeric_limits<std::size_t>::max();
        std::vector<std::size_t> runnerOf; // by form
        for (std::size_t i = 0; i < m_rules.size(); ++i) {
            const Form* const form = m_formed.forms[i];
            if (runnerOf.size() <= form->number)
                runnerOf.resize(form->number + 1, none);
            std::size_t& runner = runnerOf[form->number];
            if (runner == none) {
                runner = m_runners.size();
                m_runners.push_back({form});
            }
            m_runners[runner].rules.push_back(i);
        }
        // An order that other rules do not change. Those for all frames come first: only those of one family follow
        // then.
        std::ranges::sort(m_runners, {},
                          [](const Runner& runner) { return std::tie(runner.key().family, runner.form->name); });
    }

    void addMaps()
    {
        std::vector<std::optional<Place>> before(m_rules.size());
        for (Runner& runner : m_runners) {
            runner.kept = &m_making.memory().runners[m_name + "/" + runner.form->name];
            findReached(runner);
            findPlaces(runner, before);
        }
        // Those that are never reached have room, too: they may be reached tomorrow.
        const std::vector<Place> places = placesFor(before);
        for (Runner& runner : m_runners) {
            updateMaps(runner, places);
            runner.places = m_making.addMap(runner.kept->placeMap);
            runner.verdicts = m_making.addMap(runner.kept->verdicts);
            m_making.addMap(runner.kept->meanings);
            m_making.addLogs(runner.kept->logs);
        }
    }

    // One that another with the same value stands before is never reached.
    void findReached(Runner& runner) const
    {
        SectionMemory::Runner& kept = *runner.kept;
        runner.isAsBefore = std::ranges::equal(runner.rules, kept.rules, {},
                                               [this](std::size_t rule) { return m_formed.serials[rule]; });
        if (!runner.isAsBefore && !takesOverMost(runner)) {
            kept.rules.clear();
            kept.reached.clear();
            std::unordered_set<std::string_view> values;
            for (const std::size_t rule : runner.rules) {
                if (values.insert(asText(m_rules[rule]->key->value)).second)
                    kept.reached.push_back(kept.rules.size());
                kept.rules.push_back(m_formed.serials[rule]);
            }
        }
        for (const std::size_t place : kept.reached)
            runner.reached.push_back(runner.rules[place]);
    }

    // Most of the time one rule has taken the place of another, and none stands before another with the same value.
    bool takesOverMost(Runner& runner) const
    {
        constexpr std::size_t few = 4;
        SectionMemory::Runner& kept = *runner.kept;
        if (kept.rules.size() != runner.rules.size() || kept.reached.size() != kept.rules.size())
            return false;
        std::vector<std::size_t> changed;
        for (std::size_t i = 0; i < runner.rules.size(); ++i) {
            if (kept.rules[i] == m_formed.serials[runner.rules[i]])
                continue;
            changed.push_back(i);
            if (changed.size() > few)
                return false;
        }
        const auto valueOf = [&](std::size_t i) -> const Bytes& { return m_rules[runner.rules[i]]->key->value; };
        for (const std::size_t one : changed) {
            for (std::size_t i = 0; i < runner.rules.size(); ++i) {
                const bool isChanged = std::ranges::find(changed, i) != changed.end();
                if (i != one && (isChanged ? valueOf(i) : kept.verdicts.elements[i].first) == valueOf(one))
                    return false;
            }
        }
        for (const std::size_t i : changed)
            kept.rules[i] = m_formed.serials[runner.rules[i]];
        runner.changed = std::move(changed);
        return true;
    }

    void findPlaces(const Runner& runner, std::vector<std::optional<Place>>& places) const
    {
        const Map* map = m_making.mapBefore(m_name + "/" + runner.form->name + "/places");
        if (map == nullptr)
            return;
        const SectionMemory::Runner& kept = *runner.kept;
        if ((runner.isAsBefore || !runner.changed.empty()) && map->elements.isSharedWith(kept.placeMap.elements)) {
            for (std::size_t i = 0; i < runner.reached.size(); ++i)
                places[runner.reached[i]] = kept.places[i];
            for (const std::size_t i : runner.changed) {
                if (map->elements[i].first != m_rules[runner.rules[i]]->key->value)
                    places[runner.rules[i]].reset();
            }
            return;
        }
        std::unordered_map<std::string_view, Place> known;
        for (const Element& element : map->elements)
            known.emplace(asText(element.first), element.place);
        for (const std::size_t rule : runner.reached) {
            if (const auto found = known.find(asText(m_rules[rule]->key->value)); found != known.end())
                places[rule] = found->second;
        }
    }

    void updateMaps(Runner& runner, const std::vector<Place>& places)
    {
        SectionMemory::Runner& kept = *runner.kept;
        std::vector<Place> theirs;
        theirs.reserve(runner.reached.size());
        for (const std::size_t index : runner.reached)
            theirs.push_back(places[index]);
        if (!runner.changed.empty()) {
            for (const std::size_t i : runner.changed)
                kept.verdicts.elements.edit()[i] = elementOf(*m_rules[runner.rules[i]]);
            nameVerdicts(kept);
        } else if (!runner.isAsBefore) {
            kept.verdicts = {};
            kept.verdicts.name = m_name + "/" + runner.form->name;
            for (const Part part : runner.key().parts)
                kept.verdicts.sizes.push_back(fieldOf(part).size);
            kept.placeMap = kept.verdicts;
            kept.placeMap.name += "/places";
            kept.placeMap.places = true;
            kept.verdicts.counts = true;
            kept.verdicts.numbers = true;
            std::vector<Element> elements;
            elements.reserve(runner.reached.size());
            for (const std::size_t index : runner.reached)
                elements.push_back(elementOf(*m_rules[index]));
            kept.verdicts.elements = std::move(elements);
            nameVerdicts(kept);
        }
        const auto placeOf = [&](std::size_t i) {
            return Element{m_rules[runner.reached[i]]->key->value, {}, {}, theirs[i], ebtables::noOrigin};
        };
        if (!runner.changed.empty()) {
            std::vector<Element>& elements = kept.placeMap.elements.edit();
            for (std::size_t i = 0; i < theirs.size(); ++i) {
                if (theirs[i] != kept.places[i] || std::ranges::find(runner.changed, i) != runner.changed.end())
                    elements[i] = placeOf(i);
            }
        } else if (!runner.isAsBefore || theirs != kept.places) {
            std::vector<Element> elements;
            elements.reserve(theirs.size());
            for (std::size_t i = 0; i < theirs.size(); ++i)
                elements.push_back(placeOf(i));
            kept.placeMap.elements = std::move(elements);
        }
        kept.places = std::move(theirs);
    }

    Element elementOf(const Known& rule)
    {
        return {rule.key->value, {}, m_making.verdictOf(rule.item.rule), 0, rule.item.origin};
    }

    static void nameVerdicts(SectionMemory::Runner& kept)
    {
        kept.logs = chainsOf(kept.verdicts);
        if (Map meanings = meaningsOf(kept.verdicts); kept.meanings != meanings)
            kept.meanings = std::move(meanings);
    }

    const SectionMemory::Race& keptRace(bool hasOtherLengths)
    {
        SectionMemory::Race& kept = m_making.memory().races[m_name];
        std::vector<const Form*> forms;
        for (const Runner& runner : m_runners)
            forms.push_back(runner.form);
        const auto shared = [](const std::shared_ptr<const Form>& form) { return form.get(); };
        if (kept.firstMap == m_runners.front().places && kept.hasOtherLengths == hasOtherLengths &&
            std::ranges::equal(forms, kept.forms, {}, {}, shared))
            return kept;
        kept = {};
        kept.firstMap = m_runners.front().places;
        kept.hasOtherLengths = hasOtherLengths;
        for (const Runner& runner : m_runners)
            kept.forms.push_back(m_rules[runner.rules.front()]->form);
        if (hasOtherLengths)
            addOtherLengths(kept.chains);
        kept.steps = addRace(m_name, Family::Any, usualLength, kept.chains);
        return kept;
    }

    static LookUp lookUp(std::size_t map, const Runner& runner, std::uint8_t words)
    {
        return {map, fieldsOf(runner.key(), words)};
    }

    // The race for frames of this family (or any) whose IPv4 header has this length: the steps of those that nobody is
    // ahead for, and a chain for each form that may be ahead.
    std::vector<Step> addRace(const std::string& name, Family family, std::uint8_t words,
                              std::vector<Chain>& chains) const
    {
        std::vector<Step> steps;
        for (std::size_t i = 0; i < m_runners.size(); ++i) {
            const Runner& ahead = m_runners[i];
            if (!canMeet(family, ahead.key().family))
                continue;
            const std::string chain = name + "/" + ahead.form->name;
            steps.push_back({conditionsOf(ahead.key(), words), Lead{lookUp(ahead.places, ahead, words), {}, chain}});
            std::vector<Step> inside;
            for (std::size_t j = i + 1; j < m_runners.size(); ++j) {
                const Runner& behind = m_runners[j];
                if (canMeet(family, behind.key().family) && canMeet(ahead.key().family, behind.key().family))
                    inside.push_back({conditionsOf(behind.key(), words),
                                      Lead{lookUp(behind.places, behind, words), lookUp(ahead.places, ahead, words),
                                           name + "/" + behind.form->name}});
            }
            inside.push_back({{}, lookUp(ahead.verdicts, ahead, words)});
            chains.push_back({chain, Hook::None, false, std::move(inside)});
        }
        return steps;
    }

    // What a jump leads to cannot leave the chain that it came from.
    bool otherLengthsAreShort() const
    {
        std::size_t forms = 0;
        std::size_t items = 0;
        for (const Runner& runner : m_runners) {
            if (!canMeet(Family::Ip4, runner.key().family))
                continue;
            ++forms;
            items += runner.reached.size();
            if (std::ranges::any_of(runner.reached, [this](std::size_t rule) { return m_rules[rule]->returns; }))
                return false;
        }
        return lengths * forms * (forms + 3) / 2 < items;
    }

    void addOtherLengths(std::vector<Chain>& chains) const
    {
        std::vector<Step> all;
        for (std::uint8_t words = 0; words < lengths; ++words) {
            if (words == usualLength)
                continue;
            const std::string name = m_name + "/length-" + std::to_string(words);
            all.push_back({{hasLength(words)}, Jump{name, false}});
            std::vector<Step> steps = addRace(name, Family::Ip4, words, chains);
            chains.push_back({name, Hook::None, false, std::move(steps)});
        }
        chains.push_back({m_name + "/lengths", Hook::None, false, std::move(all)});
    }

    const std::string& m_name;
    const FormedRules& m_formed;
    const KnownRules m_rules; // of these
    Making& m_making;
    std::vector<Runner> m_runners;
};

} // namespace

std::vector<Step> raceOf(const std::string& name, const FormedRules& rules, Making& making,
                         const std::function<std::string(Family)>& asWritten)
{
    return RaceMaker(name, rules, making).make(asWritten);
}

} // namespace compiled
