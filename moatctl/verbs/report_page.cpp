#include "moatctl/verbs/report_page.hpp"

#include "moatctl/command_line/html.hpp"
#include "moatctl/page/files.hpp"
#include "moatctl/tables/kernel_order.hpp"
#include "moatctl/verbs/matrix_view.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <map>
#include <utility>

namespace moatctl
{

namespace
{

constexpr std::size_t mostListed = 500;    // of findings and rows not in force
constexpr std::size_t mostLinks = 100;     // of the exceptions of a way
constexpr std::size_t mostWays = 12;       // named above these
constexpr std::size_t rulesTogether = 500; // in one part that opens and closes

std::string link(const std::string& target, const std::string& text)
{
    return "<a href=\"#" + target + "\">" + html(text) + "</a>";
}

std::string andMore(std::size_t all, std::size_t shown, const std::string& where)
{
    return all <= shown ? "" : "<p>" + std::to_string(all - shown) + " more: see " + html(where) + ".</p>\n";
}

class Page
{
public:
    Page(const Report& report, const std::string& nonce)
        : m_report(report), m_nonce(nonce), m_chains(report.scene.walked().table.chains)
    {
    }

    std::string make()
    {
        addHead();
        addFacts();
        addMatrix();
        addAnswers();
        addRules();
        addFilters();
        addNotInForce();
        addFindings();
        addHistory();
        m_page += "</main>\n<script nonce=\"" + m_nonce + "\">" + reportScript + "</script>\n</body>\n</html>\n";
        return std::move(m_page);
    }

private:
    void addHead()
    {
        m_page += "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
                  "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src 'nonce-" +
                  m_nonce + "'; script-src 'nonce-" + m_nonce +
                  "'; base-uri 'none'; form-action 'none'\">\n"
                  "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
                  "<title>What the bridge does</title>\n<style nonce=\"" +
                  m_nonce + "\">\n" + reportStyle +
                  "</style>\n</head>\n<body>\n<header>\n<a class=\"skip\" href=\"#matrix\">To the matrix</a>\n"
                  "<h1>What the bridge does</h1>\n<p>As of " +
                  html(m_report.time) + "</p>\n<nav aria-label=\"Parts of the page\"><ul>";
        for (const auto& [target, text] : {std::pair("matrix", "Who may talk to whom"), std::pair("rules", "All rules"),
                                           std::pair("filters", "Filters"), std::pair("not-in-force", "Not in force"),
                                           std::pair("findings", "Findings"), std::pair("history", "History")})
            m_page += "<li>" + link(target, text) + "</li>";
        m_page += "</ul></nav>\n</header>\n<main>\n";
    }

    void begin(const std::string& id, const std::string& title)
    {
        m_page += "<section aria-labelledby=\"" + id + "\">\n<h2 id=\"" + id + "\">" + html(title) + "</h2>\n";
    }
    void end() { m_page += "</section>\n"; }

    void beginTable(const std::string& caption, const std::vector<std::string>& headings,
                    const std::string& attributes = "")
    {
        m_page += "<div class=\"scroll\" role=\"region\" tabindex=\"0\" aria-label=\"" + html(caption) + "\"><table" +
                  attributes + "><caption>" + html(caption) + "</caption>\n<thead><tr>";
        for (const std::string& heading : headings)
            m_page += "<th scope=\"col\">" + html(heading) + "</th>";
        m_page += "</tr></thead>\n<tbody>\n";
    }
    void endTable() { m_page += "</tbody></table></div>\n"; }

    void addRow(const std::vector<std::string>& cells)
    {
        m_page += "<tr>";
        for (const std::string& cell : cells)
            m_page += "<td>" + html(cell) + "</td>";
        m_page += "</tr>\n";
    }

    void addFacts()
    {
        begin("state", "State");
        beginTable("How server, daemon and kernel are", {"What", "State"});
        for (const auto& [what, state] : m_report.facts)
            addRow({what, state});
        endTable();
        end();
    }

    std::size_t numberOf(const ebtables::Chain* chain) const
    {
        return static_cast<std::size_t>(chain - m_chains.data());
    }

    static std::string idOf(std::size_t chain, std::size_t position, bool isRule)
    {
        return (isRule ? "r" : "p") + std::to_string(chain) + (isRule ? "-" + std::to_string(position) : "");
    }

    std::string idOf(const Decider& decider) const
    {
        return idOf(numberOf(decider.chain), decider.position, decider.rule != nullptr);
    }

    // Rules without a row by their place.
    std::string nameOf(const Decider& decider) const
    {
        if (m_report.scene.walked().rowOf(decider.origin()) != nullptr || decider.rule == nullptr)
            return shortNameOf(m_report.scene, decider.origin());
        return "rule " + std::to_string(decider.position + 1) + " of " + decider.chain->name;
    }

    void addMatrix()
    {
        const Matrix& matrix = m_report.matrix;
        begin("matrix", "Who may talk to whom");
        if (!matrix.ordinary || matrix.cells.empty()) {
            m_page += "<p>No row names a port, and this machine has no bridge with one.</p>\n";
            return end();
        }
        m_page +=
            "<p>Of all frames, from the port on the left to the one above: <span class=\"open\">open</span>, all "
            "pass; <span class=\"closed\">closed</span>, none; <span class=\"partly\">partly</span>, some. The row "
            "named decides about an ordinary frame, an IPv4 packet of TCP without a tag, with addresses and ports "
            "that no rule names; after the \"but\", how many rows decide otherwise about others.</p>\n";
        std::vector<std::string> headings{"From", "device"};
        headings.insert(headings.end(), matrix.ports.begin(), matrix.ports.end());
        beginTable("Ports by ports and the device itself", headings, " id=\"picture\"");
        std::size_t next = 0;
        for (std::size_t in = 0; in < matrix.ports.size(); ++in) {
            m_page += "<tr><th scope=\"row\">" + html(matrix.ports[in]) + "</th>";
            for (std::size_t column = 0; column <= matrix.ports.size(); ++column) {
                const bool isCell = next < matrix.cells.size() && matrix.cells[next].in == in &&
                                    (matrix.cells[next].out ? *matrix.cells[next].out + 1 : 0) == column;
                m_page += isCell ? cell(matrix.cells[next++].answer) : "<td>-</td>";
            }
            m_page += "</tr>\n";
        }
        endTable();
        end();
    }

    std::string cell(std::size_t number) const
    {
        const Answered& answer = m_report.matrix.answers[number];
        const std::string word = moatctl::nameOf(answer.passage);
        std::string text =
            "<td class=\"" + word + "\">" + link(idOf(answer.ordinary), word + ": " + nameOf(answer.ordinary));
        if (!answer.otherwise.empty()) {
            const std::string count = std::to_string(answer.otherwise.size());
            text += " " + link("a" + std::to_string(number), "but " + count + (answer.complete ? "" : " or more") +
                                                                 (answer.otherwise.size() == 1 ? " row" : " rows"));
        }
        return text + "</td>";
    }

    void addAnswers()
    {
        const Matrix& matrix = m_report.matrix;
        std::map<std::size_t, std::vector<std::string>> ways;
        for (const MatrixCell& cell : matrix.cells) {
            if (!matrix.answers[cell.answer].otherwise.empty())
                ways[cell.answer].push_back(matrix.ports[cell.in] + " to " +
                                            (cell.out ? matrix.ports[*cell.out] : "device"));
        }
        if (ways.empty())
            return;
        begin("exceptions", "Exceptions");
        m_page += "<details open><summary>Ways on which some frames pass and some do not</summary>\n";
        for (const auto& [number, names] : ways)
            addAnswer(number, names);
        m_page += "</details>\n";
        end();
    }

    void addAnswer(std::size_t number, const std::vector<std::string>& ways)
    {
        const Answered& answer = m_report.matrix.answers[number];
        std::string title;
        for (std::size_t i = 0; i < std::min(ways.size(), mostWays); ++i)
            title += (i == 0 ? "" : ", ") + ways[i];
        if (ways.size() > mostWays)
            title += " and " + std::to_string(ways.size() - mostWays) + " more";
        m_page += "<section class=\"answer\" id=\"a" + std::to_string(number) + "\"><h3>" + html(title) + "</h3>\n<p>" +
                  moatctl::nameOf(answer.ordinary.fate) + " for ordinary frames, by " +
                  link(idOf(answer.ordinary), nameOf(answer.ordinary)) + ". Otherwise decide:";
        for (std::size_t i = 0; i < std::min(answer.otherwise.size(), mostLinks); ++i)
            m_page += (i == 0 ? " " : ", ") + link(idOf(answer.otherwise[i]), nameOf(answer.otherwise[i]));
        if (answer.otherwise.size() > mostLinks)
            m_page += " and " + std::to_string(answer.otherwise.size() - mostLinks) + " more";
        m_page += "</p></section>\n";
    }

    void addRules()
    {
        begin("rules", "Rules");
        m_page +=
            "<div id=\"search\" hidden><label for=\"words\">Find rules</label> <input id=\"words\" type=\"search\" "
            "autocomplete=\"off\"> <span id=\"found\" role=\"status\"></span></div>\n";
        for (const Entry& entry : m_report.view.entries)
            m_states[{entry.chain, entry.position}] = entry.state;
        for (std::size_t i = 0; i < m_chains.size(); ++i) {
            if (m_chains[i].name != "OUTPUT") // not the daemon's
                addChain(i);
        }
        end();
    }

    void addChain(std::size_t number)
    {
        const ebtables::Chain& chain = m_chains[number];
        std::uint64_t frames = 0;
        for (const ebtables::TableRule& rule : chain.rules)
            frames += rule.counters ? rule.counters->packets : 0;
        m_page += "<h3>" + html(chain.name) + "</h3>\n";
        for (std::size_t first = 0; first < chain.rules.size(); first += rulesTogether) {
            const std::size_t last = std::min(first + rulesTogether, chain.rules.size());
            const std::string name =
                chain.name + ", rules " + std::to_string(first + 1) + " to " + std::to_string(last);
            m_page += std::string("<details") + (chain.rules.size() <= rulesTogether ? " open" : "") + "><summary>" +
                      html(name) + "</summary>\n";
            beginTable(name, {"Rule", "Row", "Frames", "Bytes", "What"}, " class=\"rules\"");
            for (std::size_t i = first; i < last; ++i)
                addRule(number, i, frames);
            endTable();
            m_page += "</details>\n";
        }
        m_page += "<p id=\"" + idOf(number, 0, false) + "\">At its end: <strong>" + html(chain.policy) +
                  "</strong>, by " + html(shortNameOf(m_report.scene, chain.policyOrigin)) + "</p>\n";
    }

    // Ten thousand of these: closing tags that may be left out are.
    void addRule(std::size_t chain, std::size_t position, std::uint64_t frames)
    {
        const ebtables::TableRule& rule = m_chains[chain].rules[position];
        const auto state = m_states.find({m_chains[chain].name, position + 1});
        const bool strange = m_report.view.differs() && state != m_states.end() && state->second != EntryState::Same;
        m_page += "<tr id=\"" + idOf(chain, position, true) + "\"><th scope=\"row\">" + std::to_string(position + 1) +
                  "<td>" + html(shortNameOf(m_report.scene, rule.origin)) + "<td class=\"number\">";
        if (rule.counters)
            m_page += std::to_string(rule.counters->packets) + bar(rule.counters->packets, frames);
        m_page += "<td class=\"number\">" + (rule.counters ? std::to_string(rule.counters->bytes) : "") + "<td" +
                  (strange ? " class=\"bad\"><strong>not as configured</strong> " : ">") + "<code>" +
                  html(textOf(m_chains[chain], &rule)) + "</code>\n";
    }

    // Of the frames that the chain's rules have met; nothing where it could not be seen.
    static std::string bar(std::uint64_t count, std::uint64_t all)
    {
        constexpr double least = 0.005;
        const double share = all == 0 ? 0 : static_cast<double>(count) / static_cast<double>(all);
        if (share < least)
            return "";
        std::array<char, 8> text{};
        std::snprintf(text.data(), text.size(), "%.2f", share);
        return std::string("<meter aria-hidden=\"true\" value=\"") + text.data() + "\"></meter>";
    }

    void addFilters()
    {
        begin("filters", "Filters");
        if (!m_report.view.configuration || m_report.view.configuration->rows(TableId::Filters).empty()) {
            m_page += "<p>There are none.</p>\n";
            return end();
        }
        const Configuration& configuration = *m_report.view.configuration;
        std::map<std::int32_t, std::size_t> entries;
        for (const Row& row : configuration.rows(TableId::FilterRules))
            entries[row.integer("BridgeFilterID")] += row.integer("Enabled") != 0 ? 1 : 0;
        beginTable("Lists between two ports, in the order of the kernel",
                   {"Filter", "Between", "And", "List of", "Mode", "Entries", "Enabled"});
        for (const Row* row : inKernelOrder(configuration, TableId::Filters))
            addRow({std::to_string(row->id()), row->text("InInterface"), row->text("OutInterface"),
                    row->text("MatchCriteria"), row->text("Mode"), std::to_string(entries[row->id()]),
                    row->integer("Enabled") != 0 ? "yes" : "no"});
        endTable();
        end();
    }

    void addNotInForce()
    {
        begin("not-in-force", "Not in force");
        if (m_report.notInForce.empty()) {
            m_page += m_report.view.configuration ? "<p>All rows that are enabled are in force.</p>\n"
                                                  : "<p>Not known: the server is down.</p>\n";
            return end();
        }
        beginTable("Rows that are enabled and not in force", {"Row", "Why", "Line"});
        for (std::size_t i = 0; i < std::min(m_report.notInForce.size(), mostListed); ++i) {
            const auto& [device, row] = m_report.notInForce[i];
            Problem place = row.problem;
            addRow({placeOf(place), (device.empty() ? "" : "on " + device + ": ") + place.text, row.line});
        }
        endTable();
        m_page += andMore(m_report.notInForce.size(), mostListed, "moatctl status");
        end();
    }

    static std::string placeOf(const Problem& problem)
    {
        return problem.table + (problem.id != 0 ? " Id " + std::to_string(problem.id) : "") +
               (problem.column.empty() ? "" : ", " + problem.column);
    }

    void addFindings()
    {
        begin("findings", "Findings");
        if (m_report.findings.empty()) {
            m_page += m_report.view.configuration ? "<p>Nothing is wrong with the configuration.</p>\n"
                                                  : "<p>Not known: the server is down.</p>\n";
            return end();
        }
        beginTable("What moatctl check finds", {"Severity", "Where", "What"});
        for (std::size_t i = 0; i < std::min(m_report.findings.size(), mostListed); ++i) {
            const Problem& problem = m_report.findings[i];
            addRow({moatctl::nameOf(problem.severity), placeOf(problem), problem.text});
        }
        endTable();
        m_page += andMore(m_report.findings.size(), mostListed, "moatctl check");
        end();
    }

    void addHistory()
    {
        begin("history", "History");
        if (m_report.history.empty()) {
            m_page += "<p>" + html(m_report.noHistory) + "</p>\n";
            return end();
        }
        beginTable("The last changes, the newest first", {"Change", "Time", "User", "Command", "Rows"});
        for (const std::vector<std::string>& entry : m_report.history)
            addRow(entry);
        endTable();
        end();
    }

    const Report& m_report;
    const std::string& m_nonce;
    const std::vector<ebtables::Chain>& m_chains;
    std::map<std::pair<std::string, std::size_t>, EntryState> m_states;
    std::string m_page;
};

} // namespace

std::string pageOf(const Report& report, const std::string& nonce)
{
    return Page(report, nonce).make();
}

} // namespace moatctl
