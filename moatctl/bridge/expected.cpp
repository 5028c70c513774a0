#include "moatctl/bridge/expected.hpp"

#include "handler/debug_mode.hpp"
#include "handler/moatkeeper.hpp"
#include "platform_fake/captured_log.hpp"
#include "platform_fake/memory_tables.hpp"
#include "platform_fake/recording_queue.hpp"

#include <algorithm>
#include <array>
#include <map>
#include <span>
#include <stdexcept>
#include <utility>

namespace moatctl
{

namespace
{

using RowList = std::vector<const Row*>;

// The handler's messages that say: this row is passed over.
bool isRejection(const fake::LogLine& line)
{
    constexpr std::array numbers{252, 256, 263, 476, 480, 487, 552, 563, 571};
    return line.label == "moatkeeper" && std::ranges::find(numbers, line.line) != numbers.end();
}

// Rejections of disabled rows are debug messages.
class DebugMode
{
public:
    DebugMode() { zol::moatkeeper::g_debugMode = 1; }
    ~DebugMode() { zol::moatkeeper::g_debugMode = m_before; }
    DebugMode(const DebugMode&) = delete;
    DebugMode& operator=(const DebugMode&) = delete;

private:
    unsigned char m_before = zol::moatkeeper::g_debugMode;
};

// Feeds the rows to the handler and listens which row every message belongs to.
class Feeder
{
public:
    explicit Feeder(const Configuration& configuration)
    {
        for (const schema::Table& table : schema::allTables()) {
            std::vector<fake::Row> rows;
            for (const Row& row : configuration.rows(table.id)) {
                fake::Row& fed = rows.emplace_back();
                for (std::size_t i = 0; i < table.columns.size(); ++i)
                    fed.set(table.columns[i].name, row.values[i]);
            }
            m_tables.setRows(std::string(table.name), std::move(rows));
        }
        m_tables.onGetRowCount = [this](const std::string&) {
            turnTo(nullptr);
            return zol::cfg::ConfigStatus();
        };
        m_tables.onReadRow = [this, &configuration](const std::string& name, std::uint32_t index) {
            const TableId table = findTable(name)->id;
            const Row& row = configuration.rows(table)[index];
            turnTo(&row);
            // Policies are passed over without a message.
            const bool isPolicy = table == TableId::InputPolicies || table == TableId::ForwardingPolicies;
            if (!isPolicy || row.integer("Enabled") == 1)
                m_used[table].push_back(&row);
            return zol::cfg::ConfigStatus();
        };
    }

    fake::MemoryTables& tables() { return m_tables; }

    // The row that messages belong to from now on.
    void turnTo(const Row* row)
    {
        for (fake::LogLine& line : fake::capturedLog().takeLines()) {
            if (m_current != nullptr && isRejection(line))
                std::erase(m_used[m_current->table->id], m_current);
            if (line.level == fake::LogLevel::warning || line.level == fake::LogLevel::error)
                m_messages.push_back({line.label, line.line, line.text, m_current});
        }
        m_current = row;
    }

    // The rows that became records, in the order of the daemon's lists.
    RowList used(TableId table)
    {
        RowList rows = m_used[table];
        if (table == TableId::Rules) {
            std::ranges::stable_sort(rows, {}, [](const Row* row) { return row->integer("RulePrio"); });
        } else if (table == TableId::Filters) {
            std::ranges::stable_sort(rows, std::greater(), [](const Row* row) { return row->integer("Prio"); });
        }
        return rows;
    }

    std::vector<ExpectedMessage> takeMessages() { return std::move(m_messages); }

private:
    fake::MemoryTables m_tables;
    const Row* m_current = nullptr;
    std::map<TableId, RowList> m_used;
    std::vector<ExpectedMessage> m_messages;
};

// Deals the groups of queued lines out to the rows: the handler closes a group behind every record.
class Dealer
{
public:
    Dealer(const std::vector<fake::QueueCall>& calls, Expected& expected) : m_calls(calls), m_expected(expected) {}

    void deal(const Row* origin)
    {
        for (; m_next < m_calls.size() && !m_calls[m_next].isProcess; ++m_next)
            m_expected.lines.push_back({m_calls[m_next].line, origin});
        if (m_next == m_calls.size())
            throw std::logic_error("the handler closed fewer groups than there are records");
        ++m_next;
    }

    void deal(const RowList& rows)
    {
        for (const Row* row : rows) {
            deal(row);
            m_expected.used.push_back(row);
        }
    }

    void end() const
    {
        if (m_next != m_calls.size())
            throw std::logic_error("the handler closed more groups than there are records");
    }

private:
    const std::vector<fake::QueueCall>& m_calls;
    Expected& m_expected;
    std::size_t m_next = 0;
};

} // namespace

Expected expectedOf(const Configuration& configuration)
{
    const DebugMode debugMode;
    fake::capturedLog().reset();

    Expected expected;
    Feeder feeder(configuration);
    {
        fake::RecordingQueue queue;
        zol::moatkeeper::moatkeeper handler;
        handler.loadFromConfig(feeder.tables(), "");
        feeder.turnTo(nullptr);
        handler.commitToSystem(feeder.tables(), &queue);

        const std::vector<fake::QueueCall> calls = queue.takeCalls();
        Dealer dealer(calls, expected);
        dealer.deal(nullptr);
        // In the order of the commit. A group without records is as it was before: no lines.
        dealer.deal(feeder.used(TableId::Filters));
        dealer.deal(feeder.used(TableId::FilterRules));
        if (const RowList rules = feeder.used(TableId::Rules); !rules.empty()) {
            dealer.deal(nullptr);
            dealer.deal(rules);
        }
        const std::vector<Row>& global = configuration.rows(TableId::Global);
        dealer.deal(global.empty() ? nullptr : &global.front());
        for (const TableId table : {TableId::InputPolicies, TableId::ForwardingPolicies}) {
            if (const RowList policies = feeder.used(table); !policies.empty()) {
                dealer.deal(nullptr);
                dealer.deal(policies);
            }
        }
        dealer.end();
    }
    fake::capturedLog().reset();
    expected.messages = feeder.takeMessages();
    return expected;
}

Applied apply(const Expected& expected)
{
    Applied applied;
    for (const ExpectedLine& line : expected.lines) {
        const ebtables::ParsedLine parsed = ebtables::parseLine(line.text);
        if (parsed.error) {
            applied.refused.push_back({line.origin, line.text, parsed.error, {}, {}});
            continue;
        }
        for (const ebtables::Command& command : parsed.commands) {
            if (std::optional<std::string> reason = applied.model.apply(command, line.origin))
                applied.refused.push_back({line.origin, line.text, {}, std::move(*reason), command});
        }
    }
    return applied;
}

} // namespace moatctl
