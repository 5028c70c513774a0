#include "moatctl/verbs/all.hpp"
#include "moatctl/verbs/table_verb.hpp"

namespace moatctl
{

void addPolicy(const Command& root, Program& program)
{
    addTableVerb(root, program,
                 {.table = TableId::InputPolicies,
                  .description = "Input policies: frames for the device itself, by the port that they arrive on",
                  .options = {{"--in", "Interface", "PORT"}},
                  .targetColumn = "Policy",
                  .logs = true,
                  .addExample = "--in eth0 --drop --log",
                  .setExample = "2 --accept"});
}

} // namespace moatctl
