#include "moatctl/verbs/all.hpp"
#include "moatctl/verbs/table_verb.hpp"

namespace moatctl
{

void addForwardPolicy(const Command& root, Program& program)
{
    addTableVerb(root, program,
                 {.table = TableId::ForwardingPolicies,
                  .description = "Forwarding policies: frames from one port to another",
                  .options = {{"--in", "InInterface", "PORT"}, {"--out", "OutInterface", "PORT"}},
                  .targetColumn = "Policy",
                  .logs = true,
                  .addExample = "--in eth0 --out eth1 --accept",
                  .setExample = "2 --drop --log"});
}

} // namespace moatctl
