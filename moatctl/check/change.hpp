// What a change of a configuration would make wrong.
#pragma once

#include "moatctl/check/check.hpp"

namespace moatctl
{

// The problems of `after`, less what is none of the change's business. Of a row that is the same in `before`: warnings
// that there were before are left out, and errors that there were before as well, or are warnings when the row stands
// in a file. Of a row that is changed and stands in no file: what said the same before is left out if it is a warning,
// and becomes one if it is an error. Acknowledged warnings are left out. That there is no row of global policies is a
// warning.
//
// Rows of `after` that have lines are from the file that it names; problems of the others have no file.
// Time: as for checkConfiguration, of both.
std::vector<Problem> checkChange(const Configuration& before, const Configuration& after,
                                 const CheckOptions& options = {});

} // namespace moatctl
