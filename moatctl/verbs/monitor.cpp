#include "moatctl/command_line/time_stamp.hpp"
#include "moatctl/tables/difference.hpp"
#include "moatctl/tables/server.hpp"
#include "moatctl/verbs/all.hpp"
#include "ovsdb/json.hpp"

#include <chrono>
#include <csignal>
#include <memory>
#include <ostream>
#include <unistd.h>

namespace moatctl
{

namespace
{

ovsdb::Json rowOf(const Row* row)
{
    if (row == nullptr)
        return {};
    ovsdb::Json::Object members;
    for (std::size_t i = 0; i < row->values.size(); ++i) {
        const tessera::Value& value = row->values[i];
        members.emplace_back(row->table->columns[i].name, value.isText()
                                                              ? ovsdb::Json(value.getText())
                                                              : ovsdb::Json(std::int64_t{value.getInteger()}));
    }
    return members;
}

std::string jsonLine(const std::string& time, const Change& change)
{
    const char* kind = change.before == nullptr ? "added" : change.after == nullptr ? "removed" : "changed";
    return ovsdb::toText(ovsdb::Json::Object{{"time", time},
                                             {"change", kind},
                                             {"table", change.table->name},
                                             {"id", change.id},
                                             {"before", rowOf(change.before)},
                                             {"after", rowOf(change.after)}});
}

// Every line is written out as soon as it is complete, so there is nothing left to do.
extern "C" void stopMonitor(int)
{
    _exit(static_cast<int>(ExitStatus::Ok));
}

ExitStatus monitor(Program& program, bool json)
{
    ovsdb::Client client = program.connect();
    std::vector<std::string> tables;
    for (const schema::Table& table : schema::allTables())
        tables.emplace_back(table.name);
    std::signal(SIGINT, stopMonitor);
    std::signal(SIGTERM, stopMonitor);
    std::unique_ptr<Configuration> last;
    const auto onChange = [&](const ovsdb::TableCache& state, const std::set<std::string>&) {
        auto current = std::make_unique<Configuration>(toConfiguration(state));
        if (last == nullptr) {
            program.err << "watching the configuration\n" << std::flush;
        } else {
            const std::string time = timeStamp(std::chrono::system_clock::now());
            for (const Change& change : difference(*last, *current))
                program.out << (json ? jsonLine(time, change) : time + ' ' + toText(change)) << '\n';
            program.out.flush();
        }
        last = std::move(current);
        return program.out.good();
    };
    const auto onConnection = [&](const ovsdb::Error* lost) {
        program.err << timeStamp(std::chrono::system_clock::now()) << ' '
                    << (lost != nullptr ? std::string(lost->what()) + "; trying again" : std::string("connected again"))
                    << '\n'
                    << std::flush;
    };
    client.watch(tables, onChange, onConnection);
    return ExitStatus::Ok;
}

} // namespace

void addMonitor(const Command& root, Program& program)
{
    auto format = std::make_shared<std::string>("text");
    const Command command = root.add(
        "monitor",
        "Show changes as they happen, with the time, until interrupted; connects again when the server was away",
        "monitor --format=json");
    command.option("--format", "text|json", "Form of a change: a line for people, or a JSON object on a line", *format)
        .oneOf({"text", "json"})
        .defaultsTo("text");
    command.onGiven(
        [&program, format] { program.action = [&program, format] { return monitor(program, *format == "json"); }; });
}

} // namespace moatctl
