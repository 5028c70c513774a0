#include "platform_linux/queue/forms.hpp"

namespace zol::cfg
{

// The compiled form's module is opened when that form is wanted, or when an earlier process has left it in the kernel.
bool Forms::know(std::string& reason)
{
    if (!m_tables.know(reason))
        return false;
    if (!std::exchange(m_hasLooked, true))
        m_hasCompiled = m_tables.hasCompiledTable();
    if (!m_compiled && (m_wantsCompiled || m_hasCompiled))
        m_compiled = openCompiledForm(m_tables, m_whyPlain);
    if (!m_compiled)
        return true;
    m_compiled->choose(m_wantsCompiled);
    return m_compiled->know(reason);
}

KernelTables::Outcome Forms::bring()
{
    if (m_compiled)
        return m_compiled->bring();
    KernelTables::Outcome outcome = m_tables.bring();
    if (outcome.done && std::exchange(m_hasCompiled, false))
        m_tables.removeCompiledTable();
    return outcome;
}

std::string Forms::inWords() const
{
    if (m_compiled)
        return m_compiled->inWords();
    return m_wantsCompiled ? "plain: " + m_whyPlain : "plain";
}

} // namespace zol::cfg
