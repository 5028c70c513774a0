// The bridge tables in the kernel, kept as they are wanted: the image of what is there, what is to be there, and the
// way from the one to the other.
#pragma once

#include "nftables/connection.hpp"
#include "nftables/generation_watch.hpp"
#include "platform_linux/queue/difference.hpp"
#include "platform_linux/queue/table_image.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace zol::cfg
{

class CompiledForm;

// Something wanted that the kernel takes never; it is wanted no more.
struct Dropped {
    std::string chain;
    RulePool::Text rule = nullptr; // nothing when it is about the chain or its policy
    std::string what;              // as a command without its first word
    std::string reason;
};

// Threading: one thread. No operation throws but std::bad_alloc.
class KernelTables
{
public:
    // beforeChange: called before anything is sent that changes the tables.
    KernelTables(RulePool& pool, std::function<void()> beforeChange,
                 nftables::SocketOpener opener = nftables::openSocket);
    KernelTables(const KernelTables&) = delete;
    KernelTables& operator=(const KernelTables&) = delete;

    // What is to be there; commands are played on it.
    TableImage& wanted() { return m_wanted; }

    // What a process before us may have put there, to be told before the first read. It is ours.
    void setLeftover(ebtables::Footprint leftover) { m_leftover = std::move(leftover); }
    bool hasLeftover() const { return !m_leftover.empty(); }

    // What is or may be there of ours.
    ebtables::Footprint footprint() const;

    struct Outcome {
        bool done = false;            // the tables are as wanted
        std::string reason;           // why not; nothing is lost, it can be tried again
        bool changed = false;         // something was sent and taken
        std::vector<Dropped> dropped; // what the kernel refused for good
    };

    // Reads the tables if they are not known. True when they are.
    bool know(std::string& reason);

    // Makes ebtables' table as wanted, in one transaction. form: who says what is to be there instead of all that is
    // wanted, or null.
    Outcome bring(CompiledForm* form = nullptr);

    // Whether the last of these failed for lack of a right.
    bool isForbidden() const { return m_isForbidden; }

    // Whether there is a right to change them; costs next to nothing.
    bool mayChange() { return m_connection.mayChange().answer != nftables::Answer::Forbidden; }

    // Begins to watch what others do. 0 or an error (errno); what there is no right to is tried again when the tables
    // could be changed.
    int watch() { return m_watch.open(); }

    // Readable when there is a change by others, or one of ours; -1 when nothing is watched.
    int watchedDescriptor() const { return m_watch.descriptor(); }

    // The next change by others; nothing when there is none now. The tables are read before anything else is done.
    std::optional<nftables::GenerationChange> nextForeignChange();

    // Whether the tables are what they are held for, as far as is known. If not, they are read before the next change.
    bool isKnown() const { return m_isKnown; }

    // So many rules of ours are wanted there.
    std::size_t countOurRules() const;

    // The tables may have changed: they are read before anything else is done.
    void forget() { m_isKnown = false; }

    // From here on nothing is wanted, and what is there of ours counts as another process's.
    void startOver();

    // Whether that generation was made by us, or is older than what is known.
    bool isOwn(std::uint32_t generation) const;

    // What others did to what is ours, one phrase each, since this was last asked.
    std::vector<std::string> takeDrift() { return std::move(m_drift); }

    // Whether the text is in use.
    void collectTexts(const std::function<void(RulePool::Text)>& use) const;

    // ---- the table of the compiled form

    // Whether the kernel has one, of whatever process.
    bool hasCompiledTable();

    // Takes it out, as far as it may. What it decides must be decided elsewhere by then.
    void removeCompiledTable();

    // ---- for who brings it there (compiled_form.hpp), through the same connection

    static constexpr unsigned maxReads = 12;  // while others change the tables all the time
    static constexpr unsigned namedTries = 3; // then the generation is not named any more
    static constexpr unsigned maxTries = 40;
    static constexpr unsigned maxUnclear = 3;

    nftables::Connection& connection() { return m_connection; }

    // What was there when it was last known.
    const TableImage& actual() const { return m_actual; }

    // So many times the tables were read: what was known of other tables before may be so no more.
    std::size_t looks() const { return m_looks; }

    // That what is known is exactly, if that is sure.
    std::optional<std::uint32_t> generation() const
    {
        return m_sureOfGeneration ? std::optional(m_generation) : std::nullopt;
    }

    // Whose texts the images have.
    const RulePool& pool() const { return m_pool; }

    // To be called before a batch is built.
    void beforeChange() { m_beforeChange(); }

    // named: the batch names the generation. What others do meanwhile is noticed.
    nftables::Result send(nftables::Batch& batch, bool named);

    // Tells of something as of what others did.
    void addDrift(std::string what) { m_drift.push_back(std::move(what)); }

private:
    bool read(TableImage& image, std::uint32_t& generation, bool& settled, std::string& reason);
    using CountersByHandle = std::unordered_map<std::uint64_t, nftables::Counters>;

    CountersByHandle readCounters(const std::vector<Change>& changes);
    nftables::Batch build(const std::vector<Change>& changes, bool named);
    void drop(const std::vector<Change>& changes, const std::vector<nftables::Refusal>& refusals, Outcome& outcome);
    void takeHandles(const std::vector<Change>& changes, const nftables::Result& result);
    bool numberRules(const std::vector<Change>& changes, const std::vector<nftables::NewRule>& told);
    bool readHandles();
    void forgetHandles();
    bool isOursUntouched(const TableImage& actual) const;
    void noteDrift(const TableImage& actual);

    RulePool& m_pool;
    std::function<void()> m_beforeChange;
    nftables::Connection m_connection;
    nftables::GenerationWatch m_watch;
    TableImage m_wanted = TableImage::untouched();
    TableImage m_actual;              // as last known
    TableImage* m_target = &m_wanted; // what is being brought there
    bool m_everRead = false;          // m_actual says something
    bool m_isForbidden = false;
    bool m_isKnown = false; // and it is what is there, as far as we have heard
    std::size_t m_looks = 0;
    std::uint32_t m_generation = 0; // that m_actual is exactly
    std::uint32_t m_ownGeneration = 0;
    bool m_sureOfGeneration = false;
    ebtables::Footprint m_leftover;
    std::vector<std::string> m_drift;
};

} // namespace zol::cfg
