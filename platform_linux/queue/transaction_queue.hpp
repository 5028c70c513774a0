// The command queue on stock Linux: lines are parsed and checked when they are queued, and carried out as one
// transaction of the kernel's bridge tables when a notification has been delivered. What is ours there is watched, and
// put back when another program changes it.
#pragma once

#include "nftables/socket.hpp"
#include "platform/action_queue.hpp"
#include "platform_linux/queue/queue_status.hpp"
#include "platform_linux/queue/record_file.hpp"
#include "platform_linux/queue/tool.hpp"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zol::cfg
{

struct TransactionQueueOptions {
    ebtables::ToolPaths tools;
    ebtables::RunLimits limits;
    // What is in the tables is written down here, for the next start, and when that was last changed.
    std::string recordFolder = ebtables::defaultRecordFolder;
    // Takes every line that ebtables can take, not only the forms that the handler makes.
    bool anyForm = false;
    std::chrono::milliseconds firstPause{500};      // before the second try when the tool cannot run; doubles ...
    std::chrono::milliseconds longestPause{30'000}; // ... up to this
    // For tests: what to speak to the kernel through, instead of a socket of its own. Nothing is watched then.
    nftables::SocketOpener openSocket;
};

// Ownership: owns nothing of its callers'. Threading: the daemon's one thread. Only construction may throw
// (std::bad_alloc); whatever goes wrong later is logged under the label `queue`.
class TransactionQueue : public ActionQueue
{
public:
    // Asks the tool, if there is one, which variant it is, and reads what the process before left. Changes nothing.
    explicit TransactionQueue(TransactionQueueOptions options = {});

    // Carries out what is left, and takes out what the process before left if no commit has done so: a stop leaves
    // nothing. Only when an exception is under way and nothing was ever committed does that stay in force, for the next
    // start. Each process of a legacy tool has 10 s for it, or limits.afterStop once a stop signal has come.
    ~TransactionQueue() override;
    TransactionQueue(const TransactionQueue&) = delete;
    TransactionQueue& operator=(const TransactionQueue&) = delete;

    // Puts these lines in force at once, as one transaction, until the first line is queued: the transaction that
    // carries it out takes these out. To be called before that. Their forms are not looked at, so they are the
    // platform's own; what they put into the tables must be in chains that they make, and in jumps to these.
    enum class Held {
        InForce,
        Waits,     // the log says why; it is tried again as commits are
        NotNeeded, // the rules of a process before us are in force, or another one is at work: they stay
    };
    Held hold(const std::vector<std::string>& lines);

    // From here on the destructor leaves everything as it is, for the next process to take over.
    void keep();

    // Looks at the tables and puts right what is not as it should be, and tries again what waits, at once.
    void look();

    // The form that the rules are to have in the kernel (docs/decisions/compiled-form.md), from the next commit on;
    // after the first one at once. Where the compiled form cannot be, the log and the status say why, and they stay
    // plain.
    void setCompiled(bool compiled);

    void addCommand(const std::string& commandLine) override;
    int process() override;

    // At the end of the delivery of one notification, also when the handler threw: carries out the groups that process
    // has closed, all in one transaction.
    void endDelivery();

    // How long to wait before calling retry, counted from now (0: at once): something waits, or is to be put back.
    // Nothing when nothing does.
    std::optional<std::chrono::milliseconds> retryIn() const;

    // Tries again what waits. False when nothing does, its time has not come, or the right to do it is still missing.
    bool retry();

    // Readable when somebody has changed the tables: handleChange is to be called then. -1 when there is nothing to
    // watch.
    int watchedDescriptor() const;
    void handleChange();

    // As of the last call of any of these; at most so many of the lines that are not in force.
    QueueStatus status(std::size_t mostLines) const;

private:
    class State;
    std::unique_ptr<State> m_state;
};

} // namespace zol::cfg
