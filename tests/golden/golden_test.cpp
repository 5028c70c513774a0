// Runs every case of every data file in the folder given at build time, each as a test of its own. The folder is
// read when the tests are listed or run, so that a new case needs no build.
#include "handler/debug_mode.hpp"
#include "handler/moatkeeper.hpp"
#include "platform_fake/captured_log.hpp"
#include "platform_fake/recording_queue.hpp"
#include "tests/golden/case_file.hpp"
#include "tests/random/first_commit_check.hpp"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace
{

using golden::Action;

// What a handler logs and queues, as one list in the order in which it happens.
class Record
{
public:
    void add(std::string item) { m_items.push_back(std::move(item)); }

    // What happened since the last call, one item a line.
    std::string take(bool withTrace)
    {
        std::string text;
        for (const std::string& item : std::exchange(m_items, {})) {
            if (withTrace || !item.starts_with("trace "))
                text += item + "\n";
        }
        return text;
    }

private:
    std::vector<std::string> m_items;
};

// The log has no hook of its own: its new lines are moved over before each call of the queue and at a step's end.
void moveLog(Record& record)
{
    for (const fake::LogLine& line : fake::capturedLog().takeLines()) {
        EXPECT_EQ(fake::capturedLog().moduleName(line.module), "moatkeeper") << line.text;
        record.add(std::string(fake::toString(line.level)) + " " + line.label + ":" + std::to_string(line.line) + " " +
                   golden::render(line.text));
    }
}

std::string join(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines)
        text += line + "\n";
    return text;
}

class GoldenCase : public testing::Test
{
public:
    GoldenCase(std::string path, golden::Case theCase) : m_path(std::move(path)), m_case(std::move(theCase)) {}

    void TestBody() override
    {
        fake::capturedLog().reset();
        zol::moatkeeper::g_debugMode = 0;
        for (const char* table : {"MoatKeeper", "MoatKeeperInputPolicy", "MoatKeeperForwardingPolicy",
                                  "MoatKeeperRuleset", "MoatKeeperBridgeFilters", "MoatKeeperBridgeFilterRules"})
            m_tables.setRows(table, {});
        m_queue.onAddCommand = [this](const std::string& line) {
            moveLog(m_record);
            m_record.add("add " + golden::render(line));
        };
        m_queue.onProcess = [this] {
            moveLog(m_record);
            m_record.add("process");
        };

        for (const golden::Step& step : m_case.steps) {
            SCOPED_TRACE(m_path + ":" + std::to_string(step.lineNumber) + ": case " + m_case.name);
            // The constructor's own lines belong to the first step that comes after what prepares it.
            const bool prepares = step.action == Action::rows || step.action == Action::noTable ||
                                  step.action == Action::debug || step.action == Action::trace;
            if (!prepares && !m_stopped && m_handler == nullptr)
                m_handler = std::make_unique<zol::moatkeeper::moatkeeper>();
            ASSERT_TRUE(prepares || m_handler != nullptr) << "a step after stop";
            run(step);
            moveLog(m_record);
            if (step.action == Action::ready) {
                m_record.take(true);
            } else if (!prepares) {
                EXPECT_EQ(join(step.expected), m_record.take(m_trace)) << "(expected first, recorded second)";
            }
            if (step.action == Action::load || step.action == Action::ready) {
                EXPECT_EQ(randomtest::compareFirstCommit(m_tables), "");
            }
        }
        m_handler.reset();
        zol::moatkeeper::g_debugMode = 0;
    }

private:
    void run(const golden::Step& step)
    {
        switch (step.action) {
        case Action::rows:
            m_tables.setRows(step.table, step.rows);
            break;
        case Action::noTable:
            m_tables.removeTable(step.table);
            break;
        case Action::load:
            EXPECT_EQ(step.flag, m_handler->loadFromConfig(m_tables, step.table)) << "the result of loadFromConfig";
            break;
        case Action::commit:
            m_handler->commitToSystem(m_tables, &m_queue);
            break;
        case Action::ready:
            m_handler->loadFromConfig(m_tables, "");
            m_handler->commitToSystem(m_tables, &m_queue);
            break;
        case Action::stop:
            m_handler.reset();
            m_stopped = true;
            break;
        case Action::debug:
            zol::moatkeeper::g_debugMode = step.flag ? 1 : 0;
            break;
        case Action::debugCall:
            m_handler->setDebugMode(step.flag);
            break;
        case Action::trace:
            m_trace = true;
            break;
        }
    }

    std::string m_path;
    golden::Case m_case;
    fake::MemoryTables m_tables;
    fake::RecordingQueue m_queue;
    Record m_record;
    bool m_trace = false;
    bool m_stopped = false;
    std::unique_ptr<zol::moatkeeper::moatkeeper> m_handler;
};

// A file that is not in the notation is a failing test.
class UnreadableFile : public testing::Test
{
public:
    explicit UnreadableFile(std::string message) : m_message(std::move(message)) {}
    void TestBody() override { FAIL() << m_message; }

private:
    std::string m_message;
};

std::string toTestName(const std::string& text)
{
    std::string name;
    for (const char character : text)
        name += std::isalnum(static_cast<unsigned char>(character)) != 0 ? character : '_';
    return name;
}

void registerFile(const std::filesystem::path& path)
{
    const std::string suite = toTestName(path.stem().string());
    try {
        std::set<std::string> names;
        for (const golden::Case& theCase : golden::readCases(path.string())) {
            const std::string name = toTestName(theCase.name);
            if (theCase.steps.empty() || !names.insert(name).second)
                throw std::runtime_error(path.string() + ":" + std::to_string(theCase.lineNumber) + ": case \"" +
                                         theCase.name + "\" has no steps, or its name is taken");
            testing::RegisterTest(suite.c_str(), name.c_str(), nullptr, nullptr, path.c_str(), theCase.lineNumber,
                                  [=]() -> testing::Test* { return new GoldenCase(path.string(), theCase); });
        }
    } catch (const std::runtime_error& error) {
        const std::string message = error.what();
        testing::RegisterTest(suite.c_str(), "file_can_be_read", nullptr, nullptr, path.c_str(), 1,
                              [=]() -> testing::Test* { return new UnreadableFile(message); });
    }
}

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    std::set<std::filesystem::path> paths;
    for (const auto& entry : std::filesystem::directory_iterator(MOATKEEPER_GOLDEN_FOLDER)) {
        if (entry.path().extension() == ".golden")
            paths.insert(entry.path());
    }
    if (paths.empty()) {
        std::fprintf(stderr, "no data files (*.golden) in %s\n", MOATKEEPER_GOLDEN_FOLDER);
        return 1;
    }
    for (const std::filesystem::path& path : paths)
        registerFile(path);
    return RUN_ALL_TESTS();
}
