// The compiled form of the rules in the kernel (docs/decisions/compiled-form.md), as the command queue sees it. What
// does the work is a module of its own, which is opened when it is needed: who never chooses this form carries nothing
// of it.
#pragma once

#include "platform_linux/queue/kernel_tables.hpp"

#include <memory>
#include <string>

namespace zol::cfg
{

// Brings what is wanted in the tables into the kernel, in whichever form is chosen. Threading and exceptions: as
// KernelTables.
class CompiledForm
{
public:
    virtual ~CompiledForm() = default;

    // From the next bring on. Where the compiled form cannot be, the rules are plain.
    virtual void choose(bool compiled) = 0;

    // In place of the same of KernelTables, which they use.
    virtual bool know(std::string& reason) = 0;
    virtual KernelTables::Outcome bring() = 0;

    // As of the last bring: "compiled", "plain", or "plain: " and why.
    virtual std::string inWords() const = 0;

    // ---- for KernelTables

    // What ebtables' table is to have now, for the tables as they are known; owned by this or by the tables.
    virtual TableImage& rest() = 0;

    // The kernel does not take that.
    virtual void refuse(const std::string& reason) = 0;
};

// Null, and why in one line, when there is no module or one of another build. tables: must outlive it.
std::unique_ptr<CompiledForm> openCompiledForm(KernelTables& tables, std::string& reason);

} // namespace zol::cfg
