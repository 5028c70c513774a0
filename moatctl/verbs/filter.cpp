#include "moatctl/verbs/all.hpp"
#include "moatctl/verbs/table_verb.hpp"

namespace moatctl
{

namespace
{

void takePorts(const Given& given, Row& row)
{
    if (!given.has("--between"))
        return;
    const std::vector<std::string>& ports = given.values("--between");
    if (ports.size() != 2)
        throw Failure(ExitStatus::BadInput, "--between: expected two ports");
    row.set("InInterface", ports[0]);
    row.set("OutInterface", ports[1]);
}

void takePriority(const Given& given, Editor& editor, Row& row, bool isNew)
{
    if (isNew && !given.has("--priority"))
        row.set("Prio", nextPriority(editor.configuration, TableId::Filters, "Prio"));
}

void removeItsRules(const Given& given, Editor& editor, const Row& filter)
{
    std::vector<std::int32_t> rules;
    for (const Row& rule : editor.configuration.rows(TableId::FilterRules)) {
        if (rule.integer("BridgeFilterID") == filter.id())
            rules.push_back(rule.id());
    }
    if (!rules.empty() && !given.has("--with-rules"))
        throw Failure(ExitStatus::Conflict,
                      "filter " + std::to_string(filter.id()) + " has " + std::to_string(rules.size()) +
                          (rules.size() == 1 ? " rule" : " rules") + ": remove them first, or use --with-rules");
    for (const std::int32_t rule : rules)
        editor.configuration.remove(TableId::FilterRules, rule);
}

} // namespace

void addFilter(const Command& root, Program& program)
{
    addTableVerb(
        root, program,
        {.table = TableId::Filters,
         .description = "Bridge filters: a list of what is kept out or let through between two ports",
         .options = {{"--priority", "Prio", "NUMBER"},
                     {"--in", "InInterface", "PORT"},
                     {"--out", "OutInterface", "PORT"},
                     {"--match", "MatchCriteria", "mac|ipv4|ipv6|vlan"},
                     {"--mode", "Mode", "blacklist|whitelist"}},
         .targetColumn = "",
         .logs = false,
         .addExample = "--between eth0 wlan0 --match mac --mode whitelist",
         .setExample = "1 --mode blacklist",
         .describe =
             [](const Command& command) {
                 command.option("--between", "PORT", "The two ports, instead of --in and --out")
                     .values(2)
                     .excludes(command.find("--in"))
                     .excludes(command.find("--out"));
             },
         .complete = takePorts,
         .arrange = takePriority,
         .describeRemove =
             [](const Command& command) { command.flag("--with-rules", "Also remove the rules of the filter"); },
         .beforeRemove = removeItsRules});
}

} // namespace moatctl
