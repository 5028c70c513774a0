// The process-wide debug flag: set by option -d before anything else runs, read wherever informational lines
// are logged. Never changed afterwards.
#pragma once

namespace zol::moatkeeper
{

extern unsigned char g_debugMode;

} // namespace zol::moatkeeper
