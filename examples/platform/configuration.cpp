// The configuration: tables from a text file, and a queue that prints.
#include "platform/action_queue.hpp"
#include "platform/config_handler.hpp"
#include "platform/config_reader.hpp"
#include "platform/notification_handler.hpp"
#include "platform/sysloglevel.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <stdexcept>
#include <vector>

extern volatile std::sig_atomic_t g_configurationIsDue; // event_dispatcher.cpp

namespace
{

using zol::cfg::ConfigStatus;
using Row = std::vector<std::pair<std::string, tessera::Value>>;
using Tables = std::map<std::string, std::vector<Row>>;

int idOf(const Row& row)
{
    const auto found = std::find_if(row.begin(), row.end(), [](const auto& column) { return column.first == "Id"; });
    return found != row.end() ? found->second.getInteger() : 0;
}

// A line's columns: NAME=NUMBER or NAME="TEXT", with blanks between them. Throws std::runtime_error.
Row parseColumns(const std::string& line, std::size_t at)
{
    Row row;
    while ((at = line.find_first_not_of(' ', at)) != std::string::npos) {
        const std::size_t sign = line.find('=', at);
        if (sign == std::string::npos || sign + 1 == line.size())
            throw std::runtime_error("expected NAME=NUMBER or NAME=\"TEXT\": " + line.substr(at));
        const std::string name = line.substr(at, sign - at);
        if (line[sign + 1] == '"') {
            const std::size_t end = line.find('"', sign + 2);
            if (end == std::string::npos)
                throw std::runtime_error("expected another quotation mark: " + line.substr(at));
            row.emplace_back(name, tessera::Value(line.substr(sign + 2, end - sign - 2)));
            at = end + 1;
        } else {
            at = std::min(line.find(' ', sign), line.size());
            try {
                row.emplace_back(name, tessera::Value(std::stoi(line.substr(sign + 1, at - sign - 1))));
            } catch (const std::logic_error&) {
                throw std::runtime_error("expected a number: " + line.substr(sign + 1));
            }
        }
    }
    return row;
}

Tables readFile(const std::string& path)
{
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error(path + " cannot be read");
    Tables tables;
    for (std::string line; std::getline(file, line);) {
        const std::size_t nameEnd = line.find(' ');
        if (!line.empty() && line.front() != '#')
            tables[line.substr(0, nameEnd)].push_back(parseColumns(line, std::min(nameEnd, line.size())));
    }
    for (auto& [name, rows] : tables)
        std::stable_sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) { return idOf(a) < idOf(b); });
    return tables;
}

class Reader : public zol::cfg::IConfigReader
{
public:
    ConfigStatus getRowCount(const std::string& tableName, std::uint32_t& rowCount) override
    {
        rowCount = static_cast<std::uint32_t>(tables[tableName].size());
        return {};
    }

    ConfigStatus readRow(const std::string& tableName, std::uint32_t rowIndex, tessera::NameList& names,
                         tessera::ValueList& values) override
    {
        const std::vector<Row>& rows = tables[tableName];
        if (rowIndex >= rows.size())
            return {false, "no row " + std::to_string(rowIndex) + " in table " + tableName};
        names.clear();
        values.clear();
        for (const auto& [name, value] : rows[rowIndex]) {
            names.push_back(name);
            values.setValue(name, value);
        }
        return {};
    }

    Tables tables;
};

// A real queue parses and checks the lines before it carries them out; see docs/porting.md of the sources.
class PrintingQueue : public zol::cfg::ActionQueue
{
public:
    void addCommand(const std::string& commandLine) override
    {
        if (!commandLine.empty())
            std::cout << commandLine << '\n';
    }

    int process() override
    {
        std::cout.flush();
        return 0;
    }
};

} // namespace

namespace zol::cfg
{

class NotificationHandler::State
{
public:
    IConfigHandler* handler = nullptr;
    Reader reader;
    PrintingQueue queue;
    bool isFirst = true;
};

NotificationHandler::NotificationHandler(const std::string& /*socketPath*/, tessera::net::EventDispatcher&,
                                         const std::string& /*clientName*/, bool /*failWithoutServer*/,
                                         int /*requestTimeoutSeconds*/, int /*reconnectIntervalMs*/, bool /*reconnect*/)
    : m_state(std::make_unique<State>())
{
}

NotificationHandler::~NotificationHandler()
{
    std::cout.flush(); // the handler's clean-up
}

void NotificationHandler::registerConfigHandler(IConfigHandler* handler)
{
    m_state->handler = handler;
}

void NotificationHandler::initialize() {}

// A file that cannot be read changes nothing: what was read before stays in force.
void NotificationHandler::process()
{
    g_configurationIsDue = 0;
    const char* path = std::getenv("PRINTING_CONFIGURATION");
    Tables tables;
    try {
        tables = readFile(path != nullptr ? path : "configuration.txt");
    } catch (const std::runtime_error& problem) {
        ZOL_Sysloglevel_error(ZOL_Sysloglevel_registerModul("moatkeeper"), "configuration", 10, problem.what());
        return;
    }
    if (!m_state->isFirst && tables == m_state->reader.tables)
        return;
    // All at once, as after connecting: a file does not say what has changed in it.
    m_state->isFirst = false;
    m_state->reader.tables = std::move(tables);
    m_state->handler->loadFromConfig(m_state->reader, "");
    m_state->handler->commitToSystem(m_state->reader, &m_state->queue);
}

} // namespace zol::cfg
