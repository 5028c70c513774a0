// The history of changes as the server keeps it, what is added to it, and the way back.
#pragma once

#include "moatctl/tables/difference.hpp"
#include "moatctl/tables/edit.hpp"
#include "moatctl/tables/occasion.hpp"
#include "schema/server/recorded_change.hpp"
#include "schema/server/trial.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace moatctl
{

struct HistoryEntry {
    std::int32_t number = 0;
    std::string time{};
    std::string user{};
    std::string address{};
    std::string host{};
    std::string verb{};
    std::int32_t rows = 0;
    std::string changes{};
    std::int32_t undoes = 0;
};

// The newest first. Throws Failure(Server) when the server has no place for a history, and the errors of ovsdb::Client.
std::vector<HistoryEntry> readHistory(ovsdb::Client& client);

// The newest change that neither takes another one back nor was itself taken back; nullptr when there is none.
const HistoryEntry* nextToUndo(const std::vector<HistoryEntry>& newestFirst);

// What the entry says of each row. Throws Failure(Conflict) when it was too long to be kept.
std::vector<schema::RecordedChange> changesOf(const HistoryEntry& entry);

// One line, as toText(Change).
std::string toText(const schema::RecordedChange& change);

// Puts every row back as it was before. Throws Failure(Conflict) when one is no longer as the change left it.
void takeBack(const HistoryEntry& entry, Editor& editor);

// Puts one row back as it was before, whatever has become of it since.
void putBack(const schema::RecordedChange& change, Configuration& configuration);

std::vector<schema::RecordedChange> recordedChanges(const std::vector<Change>& changes, const Configuration& before,
                                                    const Configuration& after);

// Which change waits to be confirmed, and for how long: "change 17 (rule add ...) of root waits to be confirmed, 37 s
// left".
std::string toText(const schema::Trial& trial);

// Who, where, when and how, as columns of an entry.
ovsdb::ColumnValues entryOf(const Occasion& occasion);

// The operations that add the entry and take out what is too old, and make the change a trial if it is to be one. The
// server refuses them when somebody else has just added an entry or begun a trial. state: has the entries' numbers and
// the trial. name: what the entry can be known by later. Throws Failure(Conflict) when a change waits to be confirmed.
std::vector<ovsdb::Json> addToHistory(const ovsdb::TableCache& state, const Occasion& occasion,
                                      const std::vector<schema::RecordedChange>& changes,
                                      const std::optional<ovsdb::Uuid>& name);

} // namespace moatctl
