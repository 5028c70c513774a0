#include "moatctl/tables/place_rule.hpp"
#include "moatctl/verbs/all.hpp"
#include "moatctl/verbs/table_verb.hpp"

namespace moatctl
{

namespace
{

// Who names an address means frames of its family.
void inferEthertype(const Given& given, Row& row)
{
    if (given.has("--no-ethertype") || !row.text("Ethertype").empty() || row.integer("VLANID") != -1)
        return;
    for (const char* column : {"IPSrcAddr", "IPDstAddr"}) {
        if (!row.text(column).empty()) {
            row.set("Ethertype", std::string(row.text(column).find(':') != std::string::npos ? "IPv6" : "IPv4"));
            return;
        }
    }
}

void arrange(const Given& given, Editor& editor, Row& row, bool isNew)
{
    if (given.has("--before"))
        placeBeside(editor, row, given.id("--before"), true);
    else if (given.has("--after"))
        placeBeside(editor, row, given.id("--after"), false);
    else if (isNew && !given.has("--priority"))
        row.set("RulePrio", nextPriority(editor.configuration, TableId::Rules, "RulePrio"));
}

} // namespace

void addRule(const Command& root, Program& program)
{
    addTableVerb(root, program,
                 {.table = TableId::Rules,
                  .description = "Rules: which frames pass a port, by address, VLAN, protocol and port",
                  .options = {{"--priority", "RulePrio", "NUMBER"},
                              {"--in", "InInterface", "PORT"},
                              {"--out", "OutInterface", "PORT"},
                              {"--src-mac", "SrcMAC", "MAC"},
                              {"--dst-mac", "DstMAC", "MAC"},
                              {"--vlan", "VLANID", "NUMBER"},
                              {"--ethertype", "Ethertype", "TYPE"},
                              {"--src", "IPSrcAddr", "NETWORK"},
                              {"--dst", "IPDstAddr", "NETWORK"},
                              {"--proto", "IPProto", "tcp|udp"},
                              {"--port", "IPPort", "NUMBER"}},
                  .targetColumn = "Target",
                  .logs = true,
                  .addExample = "--in eth0 --out eth1 --src 10.0.0.0/8 --proto tcp --port 80 --log --drop",
                  .setExample = "3 --port 443 --no-src-mac --after 5",
                  .describe =
                      [](const Command& command) {
                          const Option priority = command.find("--priority");
                          Option before = command.option("--before", "ID", "Put the rule directly before this one");
                          Option after = command.option("--after", "ID", "Put the rule directly after this one");
                          before.excludes(priority).excludes(after);
                          after.excludes(priority);
                      },
                  .complete = inferEthertype,
                  .arrange = arrange});
}

} // namespace moatctl
