// The module's entrance: its one symbol, as queue/compiled_form.cpp looks for it.
#include "platform_linux/compiled/both_forms.hpp"

extern "C" __attribute__((visibility("default"))) zol::cfg::CompiledForm*
MOATKEEPER_COMPILED_FORM(zol::cfg::KernelTables& tables)
{
    return new zol::cfg::BothForms(tables);
}
