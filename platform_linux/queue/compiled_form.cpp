#include "platform_linux/queue/compiled_form.hpp"

#include <dlfcn.h>

namespace zol::cfg
{

// The name that the module's one symbol has says of which build it is: both sides share classes.
std::unique_ptr<CompiledForm> openCompiledForm(KernelTables& tables, std::string& reason)
{
    using Make = CompiledForm*(KernelTables&);
    void* const module = dlopen("moatkeeper-compiled.so", RTLD_NOW);
    if (module == nullptr) {
        reason = dlerror();
        return nullptr;
    }
    auto* const make = reinterpret_cast<Make*>(dlsym(module, MOATKEEPER_COMPILED_FORM));
    if (make == nullptr) {
        dlclose(module);
        reason = "moatkeeper-compiled.so is of another build than the daemon";
        return nullptr;
    }
    return std::unique_ptr<CompiledForm>(make(tables));
}

} // namespace zol::cfg
