// Changes to the server's configuration: made on a copy, sent as one transaction that fails when the rows are no
// longer what the copy says, and then made again on a fresh copy.
#pragma once

#include "moatctl/tables/configuration.hpp"
#include "moatctl/tables/devices.hpp"
#include "ovsdb/operations.hpp"

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace ovsdb
{
class Client;
}

namespace moatctl
{

struct Occasion;

// Lines for the operator.
struct Told {
    std::vector<std::string> reports;
    std::vector<std::string> notes;
};

// A copy of the server's configuration that is being changed. May be filled several times until the change holds.
class Editor
{
public:
    // The state must outlive the editor.
    explicit Editor(const Configuration& state) : before(state), configuration(state) {}

    const Configuration& before;
    Configuration configuration;

    // The change is right only as long as this row, if it is there, has the values it has now. Rows that are
    // changed or removed need not be named.
    void reliesOn(TableId table, std::int32_t id) { m_reliedOn.emplace(table, id); }
    const std::set<std::pair<TableId, std::int32_t>>& reliedOn() const { return m_reliedOn; }

    // A line for the operator once the change is done.
    void report(std::string line) { m_told.reports.push_back(std::move(line)); }
    // Likewise, but a remark, which is no data.
    void note(std::string line) { m_told.notes.push_back(std::move(line)); }
    const Told& told() const { return m_told; }

    bool force = false;     // rows are taken whatever is wrong with them
    bool elsewhere = false; // this machine is none of those that have the configuration
    bool flawless = false;  // a look at what the edit brings about has found nothing

private:
    std::set<std::pair<TableId, std::int32_t>> m_reliedOn;
    Told m_told;
};

// An edit that held, and what was there before it.
struct Stored {
    Told told;
    std::set<std::pair<TableId, std::int32_t>> rows; // that are new or different
    bool changed = false;                            // any row, also one that is gone
    bool flawless = false;                           // as the editor was
    std::optional<std::int32_t> number;              // of the change, where the server counts them
    std::optional<std::int32_t> numberBefore;        // of the change that it was made on
    Configuration before;
    Configuration after;
    std::vector<Device> devicesBefore;
};

// Reads, edits, writes; at most attemptLimit times, as long as others come in between. Does nothing when the edit
// changes nothing. Throws what the edit throws, Failure(Conflict) when it
// never got through, Failure(BadInput) when the server refuses a value, Failure(Server) when it is not known whether
// the change was stored, and the errors of ovsdb::Client.
//
// A server that is lost before it has answered may have stored the change, or may do so yet. A client that connects
// again finds out by the entry of the history, whose name was chosen here; when it is not there, the change is made
// again, with an entry of the same number, so that the server takes one of the two only.
inline constexpr int attemptLimit = 50;
// The client follows all tables afterwards.
Stored applyEdit(ovsdb::Client& client, const std::function<void(Editor&)>& edit, const Occasion& occasion);

// One transaction that is sent once. Throws Failure(Server) when it is not known whether it was done: the text says
// that, and how to find out.
ovsdb::TransactionResult transactOnce(ovsdb::Client& client, const std::vector<ovsdb::Json>& operations,
                                      const std::string& unknown);

// A text of that kind.
inline constexpr const char* unknownWhetherStored =
    "it is not known whether the change was stored: if it was, moatctl history shows it";

} // namespace moatctl
