// What the page of moatctl report is made with: the files beside this one, as they are.
#pragma once

namespace moatctl
{

extern const char* const reportStyle;
extern const char* const reportScript;

} // namespace moatctl
