#include "moatctl/verbs/all.hpp"

#include <array>

namespace moatctl
{

std::span<const Verb> allVerbs()
{
    static constexpr std::array verbs{
        Verb{addShow, false},    Verb{addRule, true},        Verb{addPolicy, true},   Verb{addForwardPolicy, true},
        Verb{addFilter, true},   Verb{addFilterRule, true},  Verb{addGlobal, true},   Verb{addPort, true},
        Verb{addBatch, false},   Verb{addExport, false},     Verb{addImport, false},  Verb{addRollout, false},
        Verb{addHistory, false}, Verb{addUndo, false},       Verb{addConfirm, false}, Verb{addCancel, false},
        Verb{addCheck, false},   Verb{addAcknowledge, true}, Verb{addExplain, false}, Verb{addMatrix, false},
        Verb{addTrace, false},   Verb{addStatus, false},     Verb{addDevices, false}, Verb{addTop, false},
        Verb{addMetrics, false}, Verb{addReport, false},     Verb{addMonitor, false}, Verb{addEngine, false},
        Verb{addExpire, false},
    };
    return verbs;
}

} // namespace moatctl
