#include "platform_linux/queue/kernel_tables.hpp"

#include "ebtables/line_parser.hpp"
#include "platform_linux/queue/compiled_form.hpp"
#include "platform_linux/queue/difference.hpp"

#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <set>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace zol::cfg
{

namespace
{

using Kind = Change::Kind;
using nftables::Answer;

constexpr std::size_t fewKept = 50;       // rules are asked for one by one
constexpr std::size_t manyMessages = 500; // of a batch: then nobody listens to what the kernel tells of each

// Whether two reads found the same.
bool sameRules(const TableImage& a, const TableImage& b)
{
    return a.table == b.table && std::ranges::equal(a.chains, b.chains, [](const auto& left, const auto& right) {
               const ImageChain& l = left.second;
               const ImageChain& r = right.second;
               return left.first == right.first && l.builtIn == r.builtIn && l.present == r.present &&
                      l.policy == r.policy && l.policyHandle == r.policyHandle &&
                      std::ranges::equal(l.rules, r.rules, {}, &ImageRule::handle, &ImageRule::handle);
           });
}

std::string describe(const Change& change, const TableImage& wanted)
{
    const ImageChain* chain = wanted.find(change.chain);
    switch (change.kind) {
    case Kind::AddRule:
        return "-A " + change.chain + ' ' + *chain->rules[change.index].text;
    case Kind::AddBuiltIn:
    case Kind::SetPolicy:
    case Kind::AddChainPolicy:
        return "-P " + change.chain + ' ' + chain->policy;
    case Kind::AddChain:
        return "-N " + change.chain;
    case Kind::DeleteChain:
        return "-X " + change.chain;
    case Kind::DeleteRules:
        return "-F " + change.chain;
    default:
        return "-D " + change.chain;
    }
}

std::string joined(std::initializer_list<std::string_view> parts)
{
    std::string text;
    for (const std::string_view part : parts)
        text += part;
    return text;
}

} // namespace

KernelTables::KernelTables(RulePool& pool, std::function<void()> beforeChange, nftables::SocketOpener opener)
    : m_pool(pool), m_beforeChange(std::move(beforeChange)), m_connection(std::move(opener))
{
}

ebtables::Footprint KernelTables::footprint() const
{
    ebtables::Footprint result = m_wanted.footprint();
    result.unite(m_actual.footprint());
    result.unite(m_leftover);
    return result;
}

void KernelTables::startOver()
{
    m_leftover = footprint();
    m_wanted = TableImage::untouched();
    m_actual = {};
    m_everRead = false;
    m_isKnown = false;
}

bool KernelTables::isOwn(std::uint32_t generation) const
{
    return generation == m_ownGeneration ||
           (m_isKnown && m_sureOfGeneration && static_cast<std::int32_t>(generation - m_generation) <= 0);
}

std::optional<nftables::GenerationChange> KernelTables::nextForeignChange()
{
    std::optional<nftables::GenerationChange> change = m_watch.next();
    while (change && !change->lost && isOwn(change->generation))
        change = m_watch.next();
    if (change)
        m_isKnown = false;
    return change;
}

std::size_t KernelTables::countOurRules() const
{
    std::size_t count = 0;
    for (const auto& [name, chain] : m_wanted.chains)
        count += static_cast<std::size_t>(std::ranges::count_if(chain.rules, &ImageRule::ours));
    return count;
}

void KernelTables::collectTexts(const std::function<void(RulePool::Text)>& use) const
{
    for (const TableImage* image : {&m_wanted, &m_actual}) {
        for (const auto& [name, chain] : image->chains) {
            for (const ImageRule& rule : chain.rules) {
                use(rule.text);
                use(rule.jump);
            }
        }
    }
}

// One look at the tables. Rules that were known before are not worked out again: the kernel never changes one.
bool KernelTables::read(TableImage& image, std::uint32_t& generation, bool& settled, std::string& reason)
{
    image = TableImage::untouched();
    nftables::Result result = m_connection.generation();
    std::vector<nftables::ChainView> chains;
    if (result.answer == Answer::Done) {
        generation = *result.generation;
        result = m_connection.readChains(chains, image.table);
    }
    m_isForbidden = result.answer == Answer::Forbidden;
    if (result.answer != Answer::Done) {
        reason = result.reason;
        return false;
    }
    for (nftables::ChainView& found : chains) {
        if (found.foreign) // a chain with a hook that the tool would not give it
            found.builtIn = false;
        ImageChain& chain = image.chains[found.name];
        chain.builtIn = found.builtIn;
        chain.present = true;
        chain.policy = found.builtIn ? found.policy : "RETURN";
    }
    std::unordered_map<std::uint64_t, const ImageRule*> known;
    std::unordered_map<std::uint64_t, const std::string*> knownPolicies;
    if (m_everRead && m_actual.table == image.table) {
        for (const auto& [name, chain] : m_actual.chains) {
            for (const ImageRule& rule : chain.rules)
                known.emplace(rule.handle, &rule);
            knownPolicies.emplace(chain.policyHandle, &chain.policy);
        }
    }
    nftables::Expressions expressions;
    result = m_connection.readRules(
        [&](const nftables::RuleView& rule) {
            ImageChain* chain = image.find(rule.chain);
            if (chain == nullptr)
                return;
            if (chain->policyHandle != 0) { // what stands behind it makes it an ordinary rule
                chain->rules.push_back({nullptr, nullptr, chain->policyHandle, false});
                chain->policyHandle = 0;
                chain->policy = "RETURN";
            }
            const bool isPolicy = rule.isChainPolicy && !chain->builtIn;
            if (const auto policy = knownPolicies.find(rule.handle); isPolicy && policy != knownPolicies.end()) {
                chain->policyHandle = rule.handle;
                chain->policy = *policy->second;
                return;
            }
            if (const auto found = known.find(rule.handle); !isPolicy && found != known.end()) {
                chain->rules.push_back({found->second->text, found->second->jump, rule.handle, false});
                return;
            }
            rule.readExpressions(expressions);
            const std::optional<ebtables::Rule> decoded = nftables::decode(expressions);
            if (isPolicy && decoded) {
                ebtables::Rule plain;
                plain.target = decoded->target;
                if (*decoded == plain && (plain.target == "ACCEPT" || plain.target == "DROP")) {
                    chain->policyHandle = rule.handle;
                    chain->policy = plain.target;
                    return;
                }
            }
            ImageRule& added = chain->rules.emplace_back();
            added.handle = rule.handle;
            if (decoded && !isPolicy)
                added.text = m_pool.add(*decoded);
            if (!expressions.chain.empty())
                added.jump = m_pool.add(std::string_view(expressions.chain));
        },
        settled);
    if (result.answer == Answer::Done) {
        result = m_connection.generation();
        settled = settled && result.generation == generation;
    }
    m_isForbidden = result.answer == Answer::Forbidden;
    reason = result.reason;
    return result.answer == Answer::Done;
}

bool KernelTables::know(std::string& reason)
{
    if (m_isKnown)
        return true;
    TableImage found;
    TableImage before;
    std::uint32_t generation = 0;
    bool accepted = false;
    for (unsigned i = 0; i < maxReads && !accepted; ++i) {
        bool settled = true;
        if (!read(found, generation, settled, reason))
            return false;
        // Others who change other tables make each read doubtful, and so does what is not there any more: before that
        // is put in once more it is looked for twice. Two that agree are taken.
        accepted = (settled && (!m_everRead || isOursUntouched(found))) || (i > 0 && sameRules(found, before)) ||
                   (m_everRead && sameRules(found, m_actual));
        m_sureOfGeneration = settled;
        if (!accepted)
            std::swap(before, found);
    }
    if (!accepted) {
        reason = "other programs change them without a pause";
        return false;
    }
    m_generation = generation;
    if (!m_everRead || !sameRules(found, m_actual)) {
        if (m_actual.table != found.table)
            forgetHandles();
        fit(m_wanted, m_everRead ? &m_actual : nullptr, found, m_leftover);
        if (m_everRead)
            noteDrift(found);
        m_actual = std::move(found);
        m_wanted.table = m_actual.table;
    }
    m_leftover = {};
    m_everRead = true;
    m_isKnown = true;
    ++m_looks;
    return true;
}

// Whether all of ours is where it was last seen.
bool KernelTables::isOursUntouched(const TableImage& actual) const
{
    return actual.table == m_actual.table && std::ranges::all_of(m_actual.chains, [&](const auto& entry) {
               const ImageChain& known = entry.second;
               const ImageChain* found = actual.find(entry.first);
               if (known.ours)
                   return found != nullptr && found->present && found->policy == known.policy &&
                          std::ranges::equal(found->rules, known.rules, {}, &ImageRule::handle, &ImageRule::handle);
               return (!known.policyIsOurs || (found != nullptr && found->policy == known.policy)) &&
                      std::ranges::all_of(known.rules, [&](const ImageRule& rule) {
                          return !rule.ours ||
                                 (found != nullptr && std::ranges::find(found->rules, rule.handle,
                                                                        &ImageRule::handle) != found->rules.end());
                      });
           });
}

// Compares what was ours with what is found; `actual` says already which of its rules are.
void KernelTables::noteDrift(const TableImage& actual)
{
    const auto oursOf = [](const ImageChain& chain) {
        std::vector<RulePool::Text> texts;
        for (const ImageRule& rule : chain.rules) {
            if (chain.ours || rule.ours)
                texts.push_back(rule.text);
        }
        return texts;
    };
    for (const auto& [name, known] : m_actual.chains) {
        const ImageChain* found = actual.find(name);
        const bool present = found != nullptr && found->present;
        const std::vector<RulePool::Text> before = oursOf(known);
        if (known.ours && !present) {
            m_drift.push_back("chain " + name + " was gone");
            continue;
        }
        const std::vector<RulePool::Text> after = present ? oursOf(*found) : std::vector<RulePool::Text>();
        if (before != after) {
            const std::string which = known.ours ? "rules of chain " + name : "jumps or rules of ours in " + name;
            m_drift.push_back(joined({which, " were changed (", std::to_string(after.size()), " instead of ",
                                      std::to_string(before.size()), ")"}));
        }
        const bool policyIsOurs = known.ours || known.policyIsOurs;
        const std::string policy = present ? found->policy : "ACCEPT";
        if (policyIsOurs && policy != known.policy)
            m_drift.push_back(joined({"the policy of ", name, " was ", policy, " instead of ", known.policy}));
    }
}

// Of the rules that are put in anew as they were. What a frame adds from now on is lost to them.
KernelTables::CountersByHandle KernelTables::readCounters(const std::vector<Change>& changes)
{
    CountersByHandle counters;
    nftables::Expressions expressions;
    const auto take = [&](const nftables::RuleView& rule) {
        const auto found = counters.find(rule.handle);
        if (found != counters.end() && rule.readExpressions(expressions))
            found->second = expressions.counters;
    };
    std::vector<const Change*> kept;
    for (const Change& change : changes) {
        if (change.kind == Kind::AddRule && change.handle != 0 &&
            counters.emplace(change.handle, nftables::Counters()).second)
            kept.push_back(&change);
    }
    if (kept.size() > fewKept) {
        bool settled = true;
        m_connection.readRules(take, settled);
        return counters;
    }
    for (const Change* change : kept)
        m_connection.readRule(change->chain, change->handle, take);
    return counters;
}

nftables::Batch KernelTables::build(const std::vector<Change>& changes, bool named)
{
    const CountersByHandle counters = readCounters(changes);
    nftables::Batch batch(named ? std::optional(m_generation) : std::nullopt);
    for (const Change& change : changes) {
        const ImageChain* chain = m_target->find(change.chain);
        switch (change.kind) {
        case Kind::AddBuiltIn:
            batch.addBuiltInChain(change.chain, chain->policy);
            break;
        case Kind::SetPolicy:
            batch.setPolicy(change.chain, chain->policy);
            break;
        case Kind::DeleteRule:
            batch.deleteRule(change.chain, change.handle);
            break;
        case Kind::DeleteRules:
            batch.deleteRules(change.chain);
            break;
        case Kind::AddChain:
            batch.addChain(change.chain);
            break;
        case Kind::AddRule: {
            const std::optional<ebtables::Rule> rule =
                ebtables::parseRule(*chain->rules[change.index].text, change.chain);
            const auto known = counters.find(change.handle);
            batch.addRule(change.chain, rule.value_or(ebtables::Rule()), change.place,
                          known != counters.end() ? known->second : nftables::Counters());
            break;
        }
        case Kind::AddChainPolicy:
            batch.addChainPolicy(change.chain, chain->policy);
            break;
        case Kind::DeleteChain:
            batch.deleteChain(change.chain);
            break;
        }
    }
    return batch;
}

nftables::Result KernelTables::send(nftables::Batch& batch, bool named)
{
    if (batch.messages() > manyMessages)
        m_watch.listen(false);
    nftables::Result result = m_connection.apply(batch);
    m_isForbidden = result.answer == Answer::Forbidden;
    const bool unheard = m_watch.descriptor() >= 0 && !m_watch.isListening();
    if (unheard)
        m_watch.listen(true);
    if (result.answer == Answer::Done) {
        m_ownGeneration = result.generation.value_or(m_ownGeneration);
        m_sureOfGeneration = named && result.generation.has_value();
        m_generation = result.generation.value_or(m_generation);
        if (unheard && m_connection.generation().generation != m_ownGeneration)
            m_isKnown = false; // somebody was there while we did not listen
    }
    return result;
}

KernelTables::Outcome KernelTables::bring(CompiledForm* form)
{
    Outcome outcome;
    unsigned unclear = 0;
    unsigned changedMeanwhile = 0;
    for (unsigned tries = 0; tries < maxTries; ++tries) {
        if (!know(outcome.reason))
            return outcome;
        m_target = form != nullptr ? &form->rest() : &m_wanted;
        const std::vector<Change> changes = difference(m_actual, *m_target);
        if (changes.empty()) {
            m_actual = *m_target;
            outcome.done = true;
            outcome.reason.clear();
            return outcome;
        }
        // Handles make a difference safe also when others have changed other tables meanwhile.
        const bool named = m_sureOfGeneration && changedMeanwhile < namedTries;
        m_beforeChange();
        nftables::Batch batch = build(changes, named);
        const nftables::Result result = send(batch, named);
        outcome.reason = result.reason;
        switch (result.answer) {
        case Answer::Done:
            outcome.done = true;
            outcome.changed = true;
            outcome.reason.clear();
            takeHandles(changes, result);
            return outcome;
        case Answer::Changed:
            ++changedMeanwhile;
            m_isKnown = false;
            continue;
        case Answer::Refused:
            if (m_target != &m_wanted) { // from here on they are the same
                form->refuse(result.reason);
                continue;
            }
            if (named) {
                tries = 0; // each time less is wanted
                drop(changes, result.refusals, outcome);
                continue;
            }
            {
                // Without the generation a refusal may come of what others did a moment ago.
                const TableImage before = m_actual;
                m_isKnown = false;
                if (!know(outcome.reason))
                    return outcome;
                if (sameRules(before, m_actual)) {
                    difference(m_actual, *m_target);
                    drop(changes, result.refusals, outcome);
                }
            }
            continue;
        case Answer::Unclear:
            m_isKnown = false;
            m_leftover.unite(m_wanted.footprint());
            if (++unclear < maxUnclear)
                continue;
            return outcome;
        case Answer::Forbidden:
        case Answer::Shortage:
        case Answer::Unsupported:
            return outcome;
        }
    }
    outcome.reason = "other programs change them without a pause";
    return outcome;
}

bool KernelTables::hasCompiledTable()
{
    std::vector<nftables::ChainView> chains;
    std::uint64_t table = 0;
    m_connection.readChains(chains, table, nftables::compiledTable);
    return table != 0;
}

// A frame on its way has the rules as they were when it came, but looks into the maps as they are: so nothing leads to
// these any more before they go.
void KernelTables::removeCompiledTable()
{
    nftables::Batch emptied(std::nullopt, nftables::compiledTable);
    for (const char* const chain : {"INPUT", "FORWARD"})
        emptied.deleteRules(chain);
    m_connection.apply(emptied);
    nftables::Batch gone(std::nullopt, nftables::compiledTable);
    gone.deleteTable();
    m_connection.apply(gone);
}

void KernelTables::takeHandles(const std::vector<Change>& changes, const nftables::Result& result)
{
    const bool told = numberRules(changes, result.newRules) && m_actual.table != 0;
    m_target->table = m_actual.table;
    if (!told) {
        m_actual = *m_target;
        if (!readHandles()) {
            m_isKnown = false;
            m_leftover.unite(m_wanted.footprint());
            return;
        }
    }
    m_actual = *m_target;
}

// The kernel counts handles upwards. When between the first new rule's and the last one's there are as many as rules
// were added, each has the one of its turn.
bool KernelTables::numberRules(const std::vector<Change>& changes, const std::vector<nftables::NewRule>& told)
{
    std::vector<std::uint64_t*> handles;
    for (const Change& change : changes) {
        if (change.kind == Kind::AddRule)
            handles.push_back(&m_target->find(change.chain)->rules[change.index].handle);
        else if (change.kind == Kind::AddChainPolicy)
            handles.push_back(&m_target->find(change.chain)->policyHandle);
    }
    if (handles.empty())
        return true;
    if (told.empty() || told.back().handle - told.front().handle != handles.size() - 1)
        return false;
    for (std::size_t i = 0; i < handles.size(); ++i)
        *handles[i] = told.front().handle + i;
    return true;
}

// What is there is what is wanted, rule by rule, unless somebody has been there since.
bool KernelTables::readHandles()
{
    std::vector<nftables::ChainView> chains;
    if (m_connection.readChains(chains, m_target->table).answer != Answer::Done || m_target->table == 0)
        return false;
    std::map<std::string, std::size_t, std::less<>> counts;
    bool good = true;
    bool settled = true;
    const nftables::Result result = m_connection.readRules(
        [&](const nftables::RuleView& rule) {
            ImageChain* chain = m_target->find(rule.chain);
            std::size_t& count = counts.try_emplace(std::string(rule.chain), 0).first->second;
            if (chain == nullptr || count > chain->rules.size()) {
                good = false;
                return;
            }
            std::uint64_t& handle = count == chain->rules.size() ? chain->policyHandle : chain->rules[count].handle;
            good = good && (handle == 0 || handle == rule.handle);
            handle = rule.handle;
            ++count;
        },
        settled);
    const nftables::Result after = m_connection.generation();
    return good && settled && result.answer == Answer::Done && m_sureOfGeneration && after.generation == m_generation;
}

// The tables are new ones, and their numbers begin again.
void KernelTables::forgetHandles()
{
    for (TableImage* image : {&m_wanted, &m_actual}) {
        for (auto& [name, chain] : image->chains) {
            chain.policyHandle = 0;
            for (ImageRule& rule : chain.rules)
                rule.handle = 0;
        }
    }
}

// Takes what was refused out of what is wanted.
void KernelTables::drop(const std::vector<Change>& changes, const std::vector<nftables::Refusal>& refusals,
                        Outcome& outcome)
{
    std::map<std::string, std::set<std::size_t>> rules;
    std::set<std::string> chains;
    bool judgedAsWhole = false;
    for (const nftables::Refusal& refusal : refusals) {
        if (refusal.message >= changes.size())
            continue;
        const Change& change = changes[refusal.message];
        // Where the jumps lead is judged for the table as a whole: the first one named is to blame.
        if (refusal.error == ELOOP || refusal.error == EMLINK) {
            if (std::exchange(judgedAsWhole, true))
                continue;
        }
        ImageChain* chain = m_target->find(change.chain);
        Dropped& dropped = outcome.dropped.emplace_back();
        dropped.chain = change.chain;
        dropped.what = describe(change, *m_target);
        dropped.reason = refusal.text;
        switch (change.kind) {
        case Kind::AddRule:
            dropped.rule = chain->rules[change.index].text;
            rules[change.chain].insert(change.index);
            break;
        case Kind::AddBuiltIn:
        case Kind::AddChain:
            chains.insert(change.chain);
            break;
        case Kind::SetPolicy:
        case Kind::AddChainPolicy:
            chain->policyIsOurs = false;
            if (const ImageChain* actual = m_actual.find(change.chain))
                chain->policy = actual->policy;
            else
                chain->policy = "RETURN";
            break;
        case Kind::DeleteChain: // others have a way to it: it stays, empty, and is theirs
            if (const ImageChain* actual = m_actual.find(change.chain)) {
                ImageChain& kept = m_target->chains[change.chain];
                kept = *actual;
                kept.rules.clear();
            }
            break;
        default:
            m_isKnown = false; // what was to be taken out is gone already
            outcome.dropped.pop_back();
            break;
        }
    }
    for (const auto& [name, indices] : rules) {
        std::vector<ImageRule>& list = m_target->find(name)->rules;
        for (auto index = indices.rbegin(); index != indices.rend(); ++index)
            list.erase(list.begin() + static_cast<std::ptrdiff_t>(*index));
    }
    for (const std::string& name : chains) {
        ImageChain* chain = m_target->find(name);
        if (chain->builtIn) {
            chain->present = false;
            chain->rules.clear();
        } else {
            m_target->chains.erase(name);
        }
    }
}

} // namespace zol::cfg
