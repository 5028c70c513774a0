#include "platform_linux/history_watch.hpp"

#include "ovsdb/error.hpp"
#include "ovsdb/operations.hpp"
#include "schema/history.hpp"
#include "schema/server/database.hpp"
#include "schema/server/row_sum.hpp"
#include "schema/server/trial.hpp"
#include "schema/tables.hpp"
#include "text/one_line.hpp"
#include "text/utc_time.hpp"

#include <algorithm>
#include <limits>
#include <malloc.h>

namespace zol::cfg
{

namespace
{

namespace history = schema::history;
using schema::RecordedChange;

constexpr const char* historyLabel = "history";
constexpr const char* anotherClient = "another client";
constexpr std::size_t longestHostName = 60;
// What waits is bounded by the configuration, however often its rows change meanwhile.
constexpr std::size_t mostSteps = 1000;
constexpr std::size_t mostRows = 20'000;

template <typename Values>
std::int32_t idOf(const ovsdb::Table& table, const Values& values)
{
    const auto id = table.find("Id");
    return id ? tessera::Value(values[*id]).getInteger() : 0;
}

std::optional<ovsdb::RowValues> valuesOf(const std::optional<std::vector<tessera::Value>>& told)
{
    return told ? std::optional(ovsdb::RowValues(*told)) : std::nullopt;
}

std::optional<std::vector<tessera::Value>> listOf(const std::optional<ovsdb::RowValues>& values)
{
    return values ? std::optional(values->toList()) : std::nullopt;
}

std::vector<RecordedChange> toldIn(const ovsdb::Json& entry)
{
    const ovsdb::Json* text = entry.find(history::changes);
    if (text == nullptr || text->asText() == nullptr || text->asText()->empty())
        return {};
    try {
        return schema::parseRecordedChanges(*text->asText());
    } catch (const ovsdb::Error&) {
        return {}; // anybody may have written it
    }
}

// Others are faster now and then, and a trial may begin.
bool isOrdinary(const std::string& error)
{
    return error.starts_with("timed out") || error.find("identical values") != std::string::npos;
}

// The server's role-based access lets a device of a fleet write its own row only.
bool isForbidden(const std::string& error)
{
    return error.starts_with("permission error");
}

} // namespace

HistoryWatch::HistoryWatch(const std::string& hostName, const ovsdb::TableCache& tables,
                           tessera::net::EventDispatcher::State& dispatcher, ZOL_Sysloglevel_Module logModule,
                           Send send, std::function<std::chrono::system_clock::time_point()> wallClock)
    : m_host(text::oneLine(hostName, longestHostName)),
      m_tables(tables),
      m_dispatcher(dispatcher),
      m_logModule(logModule),
      m_send(std::move(send)),
      m_wallClock(std::move(wallClock))
{
}

HistoryWatch::~HistoryWatch()
{
    m_dispatcher.stopTimer(m_timer);
}

void HistoryWatch::rowChanges(const ovsdb::Table& table, const ovsdb::Row* before, const ovsdb::Row* after)
{
    if (schema::findTable(table.name) == nullptr)
        return;
    if (before != nullptr)
        m_sum -= schema::sumOf(table, before->values);
    if (after != nullptr)
        m_sum += schema::sumOf(table, after->values);
    if (!m_begun)
        return;
    // A row that is deleted and inserted anew is the same row to everybody.
    const ovsdb::Table& own = schema::serverDatabase().at(table.name);
    SeenChange& change = m_rows[{&own, idOf(table, (before != nullptr ? before : after)->values)}];
    if (before != nullptr)
        change.before = before->values;
    if (after != nullptr)
        change.after = after->values;
}

void HistoryWatch::update(bool connected, bool served)
{
    if (connected)
        m_underWay = m_forbidden = false;
    m_served = served;
    Step step{.sum = m_sum - m_before, .rows = std::exchange(m_rows, {})};
    m_before = m_sum;
    if (!m_served)
        return;
    const schema::NewestEntry newest = schema::newestEntry(m_tables);
    if (!m_begun || newest.number < m_newest) { // somebody has emptied the history
        begin(newest);
    } else {
        takeEntries(step);
        if (step.sum != 0)
            m_steps.push_back(std::move(step));
        bound();
    }
    if (m_sum == m_told || m_forbidden)
        m_steps.clear();
    schedule();
}

// Makes one step of many.
void HistoryWatch::bound()
{
    std::size_t rows = 0;
    for (const Step& step : m_steps)
        rows += step.rows.size();
    if (m_steps.size() < 2 || (m_steps.size() <= mostSteps && rows <= mostRows))
        return;
    Step all = std::move(m_steps.front());
    for (auto step = m_steps.begin() + 1; step != m_steps.end(); ++step) {
        all.sum += step->sum;
        all.from = all.from == 0 ? step->from : all.from;
        all.upTo = std::max(all.upTo, step->upTo);
        for (auto& [key, change] : step->rows) {
            if (const auto [row, isNew] = all.rows.emplace(key, change); !isNew)
                row->second.after = std::move(change.after);
        }
    }
    std::erase_if(all.rows, [](const auto& row) { return row.second.changesNothing(); });
    m_steps.clear();
    m_steps.push_back(std::move(all));
}

// What was changed before nobody has seen.
void HistoryWatch::begin(const schema::NewestEntry& newest)
{
    m_begun = true;
    m_begunAt = Clock::now();
    m_steps.clear();
    m_newest = newest.number;
    m_told = newest.sum.value_or(m_sum);
    if (m_sum != m_told)
        m_steps.push_back({.sum = m_sum - m_told});
}

// An entry tells of what is to be told here, or else of rows that came with it.
void HistoryWatch::takeEntries(Step& step)
{
    std::map<std::int32_t, std::optional<std::uint64_t>> fresh;
    const ovsdb::Table& table = *m_tables.find(schema::historyTable);
    for (const ovsdb::Row& row : m_tables.rows(schema::historyTable)) {
        const std::int32_t number = ovsdb::TableCache::value(table, row, history::number)->getInteger();
        if (number > m_newest)
            fresh.emplace(number, schema::parseSum(ovsdb::TableCache::value(table, row, history::sum)->getText()));
    }
    for (const auto& [number, sum] : fresh) {
        m_newest = number;
        if (!sum) { // nobody can tell what it tells of
            m_told = m_sum;
            m_steps.clear();
            step = {};
            continue;
        }
        const std::uint64_t told = *sum - std::exchange(m_told, *sum);
        if (told == 0 || take(told))
            continue;
        m_othersTell = Clock::now();
        step.sum -= told;
        step.from = step.from == 0 ? number : step.from;
        step.upTo = number;
    }
}

// Takes away from what the row went through what an entry tells of it: the last or the first part of the way.
void HistoryWatch::SeenChange::subtract(const RecordedChange& told)
{
    if (after == valuesOf(told.after))
        after = valuesOf(told.before);
    else if (before == valuesOf(told.before))
        before = valuesOf(told.after);
}

// Whether it is the first of the steps that an entry with this difference of sums tells of.
bool HistoryWatch::take(std::uint64_t sum)
{
    std::uint64_t all = 0;
    for (auto step = m_steps.begin(); step != m_steps.end(); ++step) {
        all += step->sum;
        if (all == sum) {
            m_steps.erase(m_steps.begin(), step + 1);
            return true;
        }
    }
    return false;
}

bool HistoryWatch::mayWrite() const
{
    return m_served && !m_underWay && !m_steps.empty() && m_tables.rows(schema::trialTable).empty() &&
           m_newest < std::numeric_limits<std::int32_t>::max() - 1;
}

void HistoryWatch::schedule()
{
    if (!mayWrite())
        return;
    // Where rows were not seen, or were seen in other portions, a device that knows better comes first.
    if (std::ranges::any_of(m_steps, [](const Step& step) { return step.rows.empty(); }))
        m_next = std::max({m_next, m_begunAt + pause, m_othersTell + 3 * pause});
    if (m_timer != 0)
        return;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_next - Clock::now());
    m_timer = m_dispatcher.startTimer(std::max(left, std::chrono::milliseconds(0)), [this] {
        m_timer = 0;
        write();
    });
}

void HistoryWatch::write()
{
    if (!mayWrite())
        return;
    if (Clock::now() < m_next)
        return schedule();
    m_underWay = true;
    const auto mixed = std::ranges::find_if(m_steps, [](const Step& step) { return step.from != 0; });
    if (mixed != m_steps.end())
        return separate(*mixed);
    m_next = Clock::now() + pause;
    m_send(entry(), [this](const ovsdb::Json&, const std::optional<std::string>& error) { answered(error); });
}

// One message with rows that entries tell of and others: what do the entries say?
void HistoryWatch::separate(const Step& mixed)
{
    const auto bound = [](const char* how, std::int32_t number) {
        return ovsdb::Json(
            ovsdb::Json::Array{ovsdb::Json(history::number), ovsdb::Json(how), ovsdb::Json(std::int64_t{number})});
    };
    const ovsdb::Json question = ovsdb::Json::Object{
        {"op", "select"},
        {"table", schema::historyTable},
        {"where", ovsdb::Json(ovsdb::Json::Array{bound(">=", mixed.from), bound("<=", mixed.upTo)})},
        {"columns", ovsdb::Json(ovsdb::Json::Array{ovsdb::Json(history::changes)})}};
    m_send({question}, [this, from = mixed.from](const ovsdb::Json& result, const std::optional<std::string>& error) {
        const auto step = std::ranges::find(m_steps, from, &Step::from);
        const ovsdb::Json* entries = result.find("rows");
        if (step != m_steps.end()) {
            step->from = step->upTo = 0;
            if (entries != nullptr && entries->asArray() != nullptr) {
                for (const ovsdb::Json& told : *entries->asArray()) {
                    for (const RecordedChange& change : toldIn(told)) {
                        const auto& values = change.before ? *change.before : *change.after;
                        const auto row = step->rows.find({change.table, idOf(*change.table, values)});
                        if (row != step->rows.end())
                            row->second.subtract(change);
                    }
                }
            }
            std::erase_if(step->rows, [](const auto& row) { return row.second.changesNothing(); });
        }
        answered(error);
    });
}

void HistoryWatch::answered(const std::optional<std::string>& error)
{
    m_underWay = false;
    if (error && !isOrdinary(*error) && std::exchange(m_problem, *error) != *error)
        ZOL_Sysloglevel_warning(m_logModule, historyLabel, 10,
                                "a change by another client is not in the history: " + text::oneLine(*error));
    if (error && isForbidden(*error)) {
        m_forbidden = true; // others tell the history, if anybody does
        m_steps.clear();
    }
    malloc_trim(0); // an entry of many rows takes some megabytes for a while
    schedule();
}

// Of a row that changed several times the whole way, unless somebody else has told of a part in between.
std::vector<RecordedChange> HistoryWatch::changes() const
{
    std::vector<RecordedChange> all;
    std::map<Key, std::size_t> places;
    for (const Step& step : m_steps) {
        for (const auto& [key, change] : step.rows) {
            RecordedChange told{.table = key.first, .before = listOf(change.before), .after = listOf(change.after)};
            const auto [place, isNew] = places.emplace(key, all.size());
            if (!isNew && all[place->second].after == told.before) {
                all[place->second].after = std::move(told.after);
                continue;
            }
            place->second = all.size();
            all.push_back(std::move(told));
        }
    }
    std::erase_if(all, [](const RecordedChange& change) { return change.before == change.after; });
    return all;
}

std::vector<ovsdb::Json> HistoryWatch::entry() const
{
    const std::vector<RecordedChange> told = changes();
    std::string text = told.empty() ? std::string() : schema::toText(told);
    if (text.size() > schema::maximumChanges)
        text.clear();
    const std::string verb = told.empty()
                                 ? "(unknown: changed while no daemon was there; noticed by that of " + m_host + ')'
                                 : "(unknown: noticed by the daemon of " + m_host + ')';
    const std::int32_t number = m_newest + 1;
    ovsdb::ColumnValues row;
    const auto add = [&row](std::string_view column, auto value) {
        row.emplace_back(std::string(column), tessera::Value(std::move(value)));
    };
    add(history::number, number);
    add(history::time, text::utcTime(m_wallClock()));
    add(history::user, std::string(anotherClient));
    add(history::verb, verb);
    add(history::rows, static_cast<std::int32_t>(told.size()));
    add(history::changes, std::move(text));
    add(history::sum, schema::sumText(m_sum));
    std::vector<ovsdb::Json> operations{schema::requireNoTrial(), ovsdb::insertRow(schema::historyTable, row)};
    if (number > schema::maximumHistory)
        operations.push_back(
            ovsdb::deleteRows(schema::historyTable, ovsdb::rowsUpTo(history::number, number - schema::maximumHistory)));
    return operations;
}

} // namespace zol::cfg
