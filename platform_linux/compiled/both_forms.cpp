#include "platform_linux/compiled/both_forms.hpp"

#include "nftables/program.hpp"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <map>
#include <set>
#include <unordered_map>
#include <utility>

namespace zol::cfg
{

namespace
{

using nftables::Answer;

bool sameProgram(const nftables::HeldProgram& known, const nftables::HeldProgram& found)
{
    return known.table == found.table && known.isWhole == found.isWhole &&
           compiled::difference(known.program, found.program).empty();
}

// The places of maps in the list, by their names in the kernel.
std::unordered_map<std::string, std::size_t> placesOf(const std::vector<compiled::Map>& maps)
{
    std::unordered_map<std::string, std::size_t> places;
    for (const compiled::Map& map : maps)
        places.emplace(nftables::nameOf(map), places.size());
    return places;
}

void erase(TableImage& image, const std::map<std::string, std::set<std::size_t>>& rules)
{
    for (const auto& [name, indices] : rules) {
        std::vector<ImageRule>& list = image.find(name)->rules;
        for (auto index = indices.rbegin(); index != indices.rend(); ++index)
            list.erase(list.begin() + static_cast<std::ptrdiff_t>(*index));
    }
}

} // namespace

void BothForms::refuse(const std::string& reason)
{
    m_refused = reason;
    m_isUpdated = false;
}

void BothForms::choose(bool compiled)
{
    if (std::exchange(m_isChosen, compiled) != compiled)
        m_refused.clear();
}

std::string BothForms::inWords() const
{
    if (m_isCompiled)
        return "compiled";
    return m_plainBecause.empty() ? "plain" : "plain: " + m_plainBecause;
}

bool BothForms::know(std::string& reason)
{
    if (m_isKnown && m_tables.isKnown() && m_looks == m_tables.looks())
        return true;
    m_isKnown = false;
    nftables::HeldProgram found;
    nftables::HeldProgram before;
    for (unsigned i = 0; i < KernelTables::maxReads && !m_isKnown; ++i) {
        if (!m_tables.know(reason))
            return false;
        bool settled = true;
        std::swap(before, found);
        const nftables::Result result =
            nftables::readProgram(m_tables.connection(), nftables::compiledTable, found, settled);
        if (result.answer != Answer::Done) {
            reason = result.reason;
            return false;
        }
        settled = settled && m_tables.connection().generation().generation == m_tables.generation();
        // As for ebtables' table: what differs from what is known is looked for twice.
        m_isKnown = m_everRead ? sameProgram(m_held, found) : settled;
        m_isKnown = m_isKnown || (i > 0 && sameProgram(before, found));
    }
    if (!m_isKnown) {
        reason = "other programs change them without a pause";
        return false;
    }
    m_looks = m_tables.looks();
    m_isUpdated = false;
    if (!sameProgram(m_held, found)) {
        if (m_everRead && !m_isUnclear)
            m_tables.addDrift(found.table == 0 ? "the table of the compiled form was gone"
                                               : "the table of the compiled form was changed");
        m_held = std::move(found);
        m_heldIsWanted = false;
        m_program.reset();
    }
    m_isUnclear = false;
    m_everRead = true;
    return true;
}

// The one form is filled before the other one is emptied: a frame passes both tables, one after the other, and between
// the two a transaction may fall. While both are there they decide alike.
KernelTables::Outcome BothForms::bring()
{
    KernelTables::Outcome outcome;
    m_changedMeanwhile = 0;
    m_unclear = 0;
    m_isUpdated = false;
    for (unsigned tries = 0; tries < KernelTables::maxTries; ++tries) {
        if (!know(outcome.reason))
            return outcome;
        update();
        Part part;
        if (m_isCompiled)
            part = nextPart();
        if (part.kind == Part::Kind::Nothing) {
            KernelTables::Outcome rules = m_tables.bring(this);
            outcome.changed = outcome.changed || rules.changed;
            outcome.reason = rules.reason;
            std::ranges::move(rules.dropped, std::back_inserter(outcome.dropped));
            if (!rules.done)
                return outcome;
            if (rules.changed || !m_tables.isKnown() || m_looks != m_tables.looks())
                continue; // there may be more to do
            if (m_isCompiled || m_held.table == 0) {
                outcome.done = true;
                return outcome;
            }
            part = withoutProgram();
        }
        switch (send(part, outcome)) {
        case Sent::Taken:
        case Sent::Again:
            break;
        case Sent::Less:
            tries = 0;
            break;
        case Sent::Failed:
            return outcome;
        }
    }
    outcome.reason = "other programs change them without a pause";
    return outcome;
}

TableImage& BothForms::rest()
{
    if (m_looks != m_tables.looks())
        m_isUpdated = false;
    update();
    if (!m_isCompiled || !m_heldIsWanted)
        return m_tables.wanted();
    const TableImage& actual = m_tables.actual();
    m_rest = withoutOurs(m_tables.wanted(), actual);
    if (!hasOurs(actual))
        return m_rest;
    // A policy changes a moment after the rules: before these go.
    TableImage first = actual;
    bool differs = false;
    for (auto& [name, chain] : first.chains) {
        const ImageChain* const rest = m_rest.find(name);
        if (rest != nullptr && chain.builtIn)
            differs = std::exchange(chain.policy, rest->policy) != rest->policy || differs;
    }
    if (differs)
        m_rest = std::move(first);
    return m_rest;
}

// Whether the rules are to be compiled, and can be; for what is wanted now.
void BothForms::update()
{
    if (std::exchange(m_isUpdated, true))
        return;
    const TableImage& wanted = m_tables.wanted();
    m_plainBecause.clear();
    const bool isAsked = m_isChosen && hasOurs(wanted);
    if (isAsked)
        m_plainBecause = m_refused.empty() ? obstacleToCompiling(wanted) : m_refused;
    if (!isAsked || !m_plainBecause.empty()) {
        m_input.clear();
        m_keeper.forget();
        m_program.reset();
        m_heldIsWanted = false;
        m_isCompiled = false;
        return;
    }
    if (m_input.update(wanted, m_tables.pool().sweeps())) {
        m_heldIsWanted = false;
        m_program.reset();
    }
    m_isCompiled = true;
}

// ---- what is sent

BothForms::Part BothForms::nextPart()
{
    Part part;
    if (m_heldIsWanted)
        return part;
    if (!m_program)
        m_program = m_keeper.compile(m_input.table(), m_held.isWhole ? &m_held.program : nullptr);
    if (!m_program) {
        refuse("a rule cannot be compiled");
        return part;
    }
    compiled::Difference all = compiled::difference(m_held.program, *m_program);
    part = preparing(all);
    part.toWanted = std::move(all);
    if (part.kind != Part::Kind::Nothing)
        return part;
    m_heldIsWanted = m_held.isWhole && m_held.table != 0 && part.toWanted.empty();
    if (m_heldIsWanted) {
        m_held.program = *std::exchange(m_program, std::nullopt);
        m_keptCounters.clear();
        return part;
    }
    part.kind = Part::Kind::Program;
    part.program = *m_program;
    part.difference = part.toWanted;
    if (m_held.isWhole && !part.toWanted.goneMaps.empty() &&
        !(part.toWanted.refilled.empty() && part.toWanted.elements.empty())) {
        keepLeftover(part.program, part.toWanted);
        part.difference = compiled::difference(m_held.program, part.program);
    }
    return part;
}

// The kernel switches all rules at one moment, but a new map of intervals gets its elements a moment later. So what no
// frame gets to yet goes ahead: chains and maps that are new.
BothForms::Part BothForms::preparing(const compiled::Difference& all) const
{
    Part part;
    if (!m_held.isWhole)
        return part;
    std::unordered_map<std::string, std::size_t> maps = placesOf(m_held.program.maps);
    bool pays = false;
    for (const std::size_t added : all.newMaps) {
        const compiled::Map& map = m_program->maps[added];
        pays = pays || map.intervals;
        if (!maps.emplace(nftables::nameOf(map), maps.size()).second)
            return part; // another one must go first
    }
    if (!pays)
        return part;
    part.program = m_held.program;
    for (const std::size_t added : all.newMaps)
        part.program.maps.push_back(m_program->maps[added]);
    const auto renumber = [&](compiled::LookUp& lookUp) {
        lookUp.map = maps.at(nftables::nameOf(m_program->maps[lookUp.map]));
    };
    for (const std::size_t added : all.newChains) {
        if (m_program->chains[added].hook != compiled::Hook::None)
            continue;
        compiled::Chain& chain = part.program.chains.emplace_back(m_program->chains[added]);
        for (compiled::Step& step : chain.steps.edit())
            compiled::forEachLookUp(step, renumber);
    }
    part.difference = compiled::difference(m_held.program, part.program);
    part.kind = Part::Kind::Program;
    return part;
}

// A frame on its way has the rules as they were when it came, but looks into the maps as they are: so nothing leads to
// these any more before they go.
BothForms::Part BothForms::withoutProgram() const
{
    Part part;
    part.program = m_held.program;
    for (compiled::Chain& chain : part.program.chains) {
        if (chain.hook == compiled::Hook::None)
            continue;
        chain.steps.clear();
        chain.dropsByPolicy = false;
    }
    part.difference = compiled::difference(m_held.program, part.program);
    part.kind = m_held.isWhole && !part.difference.empty() ? Part::Kind::Program : Part::Kind::NoProgram;
    return part;
}

// The same for what a change leaves over: it goes in a transaction of its own.
void BothForms::keepLeftover(compiled::Program& program, const compiled::Difference& difference) const
{
    std::unordered_map<std::string, std::size_t> maps = placesOf(program.maps);
    for (const std::size_t gone : difference.goneMaps) {
        if (maps.emplace(nftables::nameOf(m_held.program.maps[gone]), maps.size()).second)
            program.maps.push_back(m_held.program.maps[gone]);
        else
            return; // its name is needed at once
    }
    for (const std::size_t gone : difference.goneChains) {
        compiled::Chain& chain = program.chains.emplace_back(m_held.program.chains[gone]);
        for (compiled::Step& step : chain.steps.edit())
            compiled::forEachLookUp(step, [&](compiled::LookUp& lookUp) {
                lookUp.map = maps.at(nftables::nameOf(m_held.program.maps[lookUp.map]));
            });
    }
}

// ---- sending it

BothForms::Sent BothForms::send(Part& part, KernelTables::Outcome& outcome)
{
    const std::optional<std::uint32_t> generation =
        m_changedMeanwhile < KernelTables::namedTries ? m_tables.generation() : std::nullopt;
    m_tables.beforeChange();
    nftables::Batch batch = build(part, generation);
    const nftables::Result result = m_tables.send(batch, generation.has_value());
    outcome.reason = result.reason;
    switch (result.answer) {
    case Answer::Done:
        outcome.changed = true;
        outcome.reason.clear();
        take(part);
        return Sent::Taken;
    case Answer::Changed:
        ++m_changedMeanwhile;
        m_tables.forget();
        return Sent::Again;
    case Answer::Refused:
        if (!generation) {
            // Without the generation a refusal may come of what others did a moment ago.
            const std::uint64_t table = m_held.table;
            m_tables.forget();
            if (!know(outcome.reason))
                return Sent::Failed;
            if (table != m_held.table)
                return Sent::Again;
        }
        return refuse(part, result.refusals, outcome);
    case Answer::Unclear:
        m_tables.forget();
        m_isUnclear = true;
        return ++m_unclear < KernelTables::maxUnclear ? Sent::Again : Sent::Failed;
    case Answer::Unsupported:
        refuse(result.reason);
        return Sent::Again;
    case Answer::Forbidden:
    case Answer::Shortage:
        break;
    }
    return Sent::Failed;
}

nftables::Batch BothForms::build(Part& part, std::optional<std::uint32_t> generation)
{
    nftables::Batch batch(generation, nftables::compiledTable);
    if (part.kind == Part::Kind::NoProgram) {
        batch.deleteTable();
    } else if (m_held.isWhole) {
        part.marks =
            nftables::addChanges(batch, m_held.program, part.program, part.difference, keptCounters(part.toWanted));
    } else {
        nftables::renewTable(batch);
        part.marks = nftables::addChanges(batch, {}, part.program, compiled::difference({}, part.program),
                                          nftables::countedBy(m_held));
        part.marks.insert(part.marks.begin(), batch.messages() - part.marks.size(), ebtables::noOrigin);
    }
    return batch;
}

// Of the rules that only change their places. What a frame adds from now on is lost to them.
nftables::CountersByMark BothForms::keptCounters(const compiled::Difference& all)
{
    if (!m_program)
        return {};
    const std::vector<ebtables::Origin> moved = nftables::movedMarks(m_held.program, *m_program, all);
    if (moved.empty())
        return {};
    nftables::HeldProgram now;
    bool settled = true;
    nftables::CountersByMark counters;
    if (const auto gone = nftables::goneWhole(m_held.program, all, moved)) {
        nftables::readPart(m_tables.connection(), nftables::compiledTable, *gone, now, settled);
        counters = nftables::countedBy(now);
    } else {
        nftables::readProgram(m_tables.connection(), nftables::compiledTable, now, settled);
        counters = nftables::countedByGone(now, compiled::difference(now.program, *m_program));
    }
    std::erase_if(counters, [this](const auto& counted) { return !m_keptCounters.insert(counted.first).second; });
    return counters;
}

// What was sent is there.
void BothForms::take(Part& part)
{
    if (part.kind == Part::Kind::NoProgram) {
        m_held = {};
        return;
    }
    if (m_held.table == 0 || !m_held.isWhole) {
        std::vector<nftables::ChainView> chains;
        m_tables.connection().readChains(chains, m_held.table, nftables::compiledTable);
    }
    m_held.isWhole = true;
    m_held.program = std::move(part.program);
}

// Rules that the kernel does not take are wanted no more; if it does not take what was made of them, they stay plain.
BothForms::Sent BothForms::refuse(const Part& part, const std::vector<nftables::Refusal>& refusals,
                                  KernelTables::Outcome& outcome)
{
    std::map<std::string, std::set<std::size_t>> rules;
    for (const nftables::Refusal& refusal : refusals) {
        const ebtables::Origin mark =
            refusal.message < part.marks.size() ? part.marks[refusal.message] : ebtables::noOrigin;
        const auto place = mark == ebtables::noOrigin ? std::nullopt : m_input.find(mark);
        if (!place || refusal.error == ELOOP || refusal.error == EMLINK) {
            refuse("the kernel does not take it: " + refusal.text);
            return Sent::Again;
        }
        const auto& [chain, index] = *place;
        const RulePool::Text text = m_tables.wanted().find(chain)->rules[index].text;
        if (rules[chain].insert(index).second)
            outcome.dropped.push_back({chain, text, "-A " + chain + ' ' + *text, refusal.text});
    }
    erase(m_tables.wanted(), rules);
    m_isUpdated = false;
    return Sent::Less;
}

} // namespace zol::cfg
