// The kernel's tables in whichever form of the rules is chosen.
#pragma once

#include "platform_linux/queue/compiled_form.hpp"
#include "platform_linux/queue/kernel_tables.hpp"

#include <memory>
#include <string>
#include <utility>

namespace zol::cfg
{

// Threading and exceptions: as KernelTables.
class Forms
{
public:
    // tables: must outlive it.
    explicit Forms(KernelTables& tables) : m_tables(tables) {}

    // From the next bring on. True when that is another choice.
    bool choose(bool compiled) { return std::exchange(m_wantsCompiled, compiled) != compiled; }

    // The compiled form cannot be, and this is why.
    void stayPlain(std::string reason) { m_whyPlain = std::move(reason); }

    // In place of the same of KernelTables.
    bool know(std::string& reason);
    KernelTables::Outcome bring();

    // As of the last bring: "compiled", "plain", or "plain: " and why.
    std::string inWords() const;

private:
    KernelTables& m_tables;
    bool m_wantsCompiled = false;
    std::unique_ptr<CompiledForm> m_compiled; // once it has been needed
    std::string m_whyPlain;
    bool m_hasLooked = false;   // for what an earlier process has left in the compiled form:
    bool m_hasCompiled = false; // it is there
};

} // namespace zol::cfg
