#include "tests/random/first_commit_check.hpp"

#include "handler/debug_mode.hpp"
#include "handler/first_commit.hpp"
#include "handler/moatkeeper.hpp"
#include "handler/rows_from_values.hpp"
#include "platform_fake/captured_log.hpp"
#include "platform_fake/recording_queue.hpp"

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <utility>
#include <vector>

namespace randomtest
{

namespace
{

using namespace zol::moatkeeper;

constexpr std::array<const char*, 6> tableNames{
    "MoatKeeper",        "MoatKeeperInputPolicy",   "MoatKeeperForwardingPolicy",
    "MoatKeeperRuleset", "MoatKeeperBridgeFilters", "MoatKeeperBridgeFilterRules"};

struct Values {
    const tessera::ValueList& values;

    std::int32_t integer(std::string_view column) const { return values.getValue(column).getInteger(); }
    const std::string& text(std::string_view column) const { return values.getValue(column).getText(); }
};

// The rows refer to the tables' texts.
Tables toTables(const fake::MemoryTables& source)
{
    Tables tables;
    const auto read = [&](Table table, auto& rows, auto toRow) {
        const std::vector<fake::Row>* held = source.rows(tableNames[static_cast<std::size_t>(table)]);
        for (std::size_t i = 0; held != nullptr && i < held->size(); ++i)
            rows.push_back(toRow(Values{(*held)[i].values()}));
    };
    read(Table::Global, tables.global, globalRow<Values>);
    read(Table::InputPolicies, tables.inputPolicies, inputPolicyRow<Values>);
    read(Table::ForwardingPolicies, tables.forwardingPolicies, forwardingPolicyRow<Values>);
    read(Table::Rules, tables.rules, ruleRow<Values>);
    read(Table::Filters, tables.filters, filterRow<Values>);
    read(Table::FilterRules, tables.filterRules, filterRuleRow<Values>);
    return tables;
}

// What each message about a row says; nothing for one that only says again that the row is ignored.
const std::map<std::pair<std::string, int>, std::optional<Unusable>> meanings{
    {{"moatkeeper", 263}, Unusable::Disabled},
    {{"moatkeeper", 252}, Unusable::NoInInterface},
    {{"moatkeeper", 256}, Unusable::PriorityZero},
    {{"moatkeeper", 487}, Unusable::Disabled},
    {{"moatkeeper", 476}, Unusable::Incomplete},
    {{"moatkeeper", 480}, Unusable::PriorityZero},
    {{"moatkeeper", 571}, Unusable::Disabled},
    {{"moatkeeper", 552}, Unusable::InvalidReference},
    {{"moatkeeper", 563}, Unusable::NoMatch},
    {{"etherrules", 121}, Unusable::InvalidVlanId},
    {{"etherrules", 165}, Unusable::UnknownProtocol},
    {{"etherrules", 201}, Unusable::InvalidTarget},
    {{"policys", 59}, Unusable::UnknownPolicy},
    {{"policys", 127}, Unusable::UnknownPolicy},
    {{"filters", 95}, Unusable::InvalidMode},
    {{"filters", 136}, std::nullopt},
    {{"filters", 233}, Unusable::InvalidVlanMatch},
    {{"filters", 246}, Unusable::InvalidMatchType},
    {{"filters", 255}, std::nullopt},
};

// A handler that reads, and which row each of its messages is about.
class Listener
{
public:
    explicit Listener(fake::MemoryTables tables) : m_tables(std::move(tables))
    {
        m_tables.onReadRow = [this](const std::string& name, std::uint32_t index) {
            hear();
            const auto table = std::ranges::find(tableNames, name) - tableNames.begin();
            m_row = {static_cast<Table>(table), index};
            return zol::cfg::ConfigStatus();
        };
    }

    void run()
    {
        fake::capturedLog().takeLines();
        const unsigned char before = std::exchange(g_debugMode, 1); // disabled rows are told in debug mode only
        {
            moatkeeper handler;
            handler.loadFromConfig(m_tables, "");
            hear();
            handler.commitToSystem(m_tables, &m_queue);
            lines = m_queue.lines();
        }
        g_debugMode = before;
        fake::capturedLog().takeLines();
    }

    std::vector<std::string> lines;
    std::vector<UnusableRow> unusable;
    std::string unknownMessage;

private:
    void hear()
    {
        for (const fake::LogLine& line : fake::capturedLog().takeLines()) {
            const auto meaning = meanings.find({line.label, line.line});
            if (meaning != meanings.end() && meaning->second)
                unusable.push_back({m_row, *meaning->second});
            else if (meaning == meanings.end() && line.level >= fake::LogLevel::warning)
                unknownMessage = line.text;
        }
    }

    fake::MemoryTables m_tables;
    fake::RecordingQueue m_queue;
    RowPlace m_row;
};

// The policies' readers pass disabled rows over in silence.
bool isTold(const UnusableRow& row)
{
    const bool isPolicy = row.row.table == Table::InputPolicies || row.row.table == Table::ForwardingPolicies;
    return !isPolicy || row.reason != Unusable::Disabled;
}

std::string toText(const std::vector<UnusableRow>& rows)
{
    std::string text;
    for (const UnusableRow& each : rows)
        text += std::string(" ") + tableNames[static_cast<std::size_t>(each.row.table)] + "[" +
                std::to_string(each.row.index) + "]:" + std::to_string(static_cast<int>(each.reason));
    return text;
}

} // namespace

std::string compareFirstCommit(const fake::MemoryTables& tables)
{
    const FirstCommit pure = firstCommit(toTables(tables));
    Listener handler(tables);
    handler.run();

    if (!handler.unknownMessage.empty())
        return "no reason is known for: " + handler.unknownMessage;
    std::vector<UnusableRow> told;
    std::ranges::copy_if(pure.unusable, std::back_inserter(told), isTold);
    if (told != handler.unusable)
        return "rows without lines, by the pure function:" + toText(told) +
               ", by the handler:" + toText(handler.unusable);

    for (std::size_t i = 0; i < std::max(pure.lines.size(), handler.lines.size()); ++i) {
        const std::string pureLine = i < pure.lines.size() ? pure.lines[i].text : "(none)";
        const std::string handlerLine = i < handler.lines.size() ? handler.lines[i] : "(none)";
        if (pureLine != handlerLine)
            return "line " + std::to_string(i) + ", by the pure function: " + pureLine +
                   ", by the handler: " + handlerLine;
    }
    return "";
}

} // namespace randomtest
