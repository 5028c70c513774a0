// What the platform calls when configuration tables change.
#pragma once

#include <list>
#include <string>

namespace zol::cfg
{

class ActionQueue;
class IConfigReader;

// A subscriber of configuration tables. All calls come from NotificationHandler::process, on its thread.
// Exceptions that an operation throws reach the caller of process unchanged. A handler's clean-up uses the queue, so
// its destructor may let out what the queue throws.
class IConfigHandler
{
public:
    virtual ~IConfigHandler() noexcept(false) = default;

    // Appends the names of the tables that the handler wants to hear of.
    virtual void getTableNames(std::list<std::string>& tableNames) = 0;

    // The named table changed; the empty name stands for all tables. Each table is read at most once between two
    // commits. Returns true when what the handler holds differs from before. The source is valid during the call only.
    virtual bool loadFromConfig(IConfigReader& source, const std::string& tableName) = 0;

    // All changes of a notification are delivered: apply them. The queue stays valid until the
    // NotificationHandler goes, and is the same at every call.
    virtual void commitToSystem(IConfigReader& source, ActionQueue* queue) = 0;
};

} // namespace zol::cfg
