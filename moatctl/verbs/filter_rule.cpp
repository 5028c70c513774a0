#include "moatctl/verbs/all.hpp"
#include "moatctl/verbs/table_verb.hpp"

namespace moatctl
{

namespace
{

void requireFilter(const Given&, Editor& editor, Row& row, bool)
{
    const std::int32_t filter = row.integer("BridgeFilterID");
    if (filter != 0 && editor.configuration.find(TableId::Filters, filter) == nullptr)
        throw Failure(ExitStatus::Conflict, "there is no filter " + std::to_string(filter));
}

} // namespace

void addFilterRule(const Command& root, Program& program)
{
    addTableVerb(root, program,
                 {.table = TableId::FilterRules,
                  .description = "Bridge filter rules: the entries of a filter's list",
                  .options = {{"--filter", "BridgeFilterID", "ID"}, {"--match", "FilterMatch", "VALUE"}},
                  .targetColumn = "",
                  .logs = false,
                  .addExample = "--filter 1 --match 00:11:22:33:44:55",
                  .setExample = "4 --match 00:11:22:33:44:66",
                  .arrange = requireFilter});
}

} // namespace moatctl
