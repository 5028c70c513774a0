// The two tables of the kernel that rules may be in: ebtables' own, for the plain form, and the one of the compiled
// form.
#pragma once

#include "compiled/difference.hpp"
#include "compiled/keeper.hpp"
#include "nftables/program_reader.hpp"
#include "platform_linux/compiled/compiler_input.hpp"
#include "platform_linux/queue/compiled_form.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

namespace zol::cfg
{

class BothForms : public CompiledForm
{
public:
    explicit BothForms(KernelTables& tables) : m_tables(tables) {}

    void choose(bool compiled) override;
    bool know(std::string& reason) override;
    KernelTables::Outcome bring() override;
    std::string inWords() const override;
    TableImage& rest() override;
    void refuse(const std::string& reason) override;

private:
    // What is sent as one transaction.
    struct Part {
        enum class Kind { Nothing, Program, NoProgram };
        Kind kind = Kind::Nothing;
        compiled::Program program;           // that is there then
        compiled::Difference difference;     // from the one that is there now
        compiled::Difference toWanted;       // likewise, to the one that is wanted in the end
        std::vector<ebtables::Origin> marks; // of the messages
    };
    enum class Sent { Taken, Again, Less, Failed }; // Less: again, with less wanted

    void update();
    Part nextPart();
    Part preparing(const compiled::Difference& all) const;
    Part withoutProgram() const;
    void keepLeftover(compiled::Program& program, const compiled::Difference& difference) const;
    Sent send(Part& part, KernelTables::Outcome& outcome);
    nftables::Batch build(Part& part, std::optional<std::uint32_t> generation);
    nftables::CountersByMark keptCounters(const compiled::Difference& all);
    void take(Part& part);
    Sent refuse(const Part& part, const std::vector<nftables::Refusal>& refusals, KernelTables::Outcome& outcome);

    KernelTables& m_tables;
    TableImage m_rest; // what ebtables' table is to have beside the compiled form

    bool m_isChosen = false;
    bool m_isUpdated = false;   // nothing has been wanted or refused since:
    bool m_isCompiled = false;  // as of the last look at what is wanted
    std::string m_plainBecause; // or why not
    std::string m_refused;      // why the kernel does not take it
    CompilerInput m_input;
    compiled::Keeper m_keeper;

    nftables::HeldProgram m_held; // as last known
    bool m_everRead = false;      // it says something
    bool m_isKnown = false;       // and is what is there, unless the tables were looked at since:
    std::size_t m_looks = 0;
    bool m_isUnclear = false;                            // or what was sent last
    bool m_heldIsWanted = false;                         // it is what m_input makes
    std::optional<compiled::Program> m_program;          // what m_input makes, until it is held
    std::unordered_set<ebtables::Origin> m_keptCounters; // given on since it was made
    unsigned m_changedMeanwhile = 0;                     // transactions that were too late, of one bring
    unsigned m_unclear = 0;
};

} // namespace zol::cfg
