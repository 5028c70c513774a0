// What verbs look at that say what becomes of frames: the kernel's tables, or a configuration.
#pragma once

#include "moatctl/bridge/compare.hpp"
#include "moatctl/bridge/expected.hpp"
#include "moatctl/command_line/verb.hpp"

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace moatctl
{

struct ScenePlace {
    std::string path; // of a file; empty: none
    bool configured = false;
};

// --file and --configured; the place must outlive the parsing.
void addScenePlace(const Command& command, ScenePlace& place);

// The tables that frames are walked through, and what is known beside them. Stays where it is: parts point to others.
struct Scene {
    std::optional<Configuration> configuration; // none: the server is down, and the kernel's tables are read
    Applied configured;
    std::optional<Applied> kernel; // with the rows that the configuration has for its rules
    std::string name;              // of what is walked, in words
    bool differs = false;          // the kernel's tables are not as configured

    const Applied& walked() const { return kernel ? *kernel : configured; }
    // Of the row that a rule or policy is made of.
    std::string nameOf(ebtables::Origin origin) const;
};

// The kernel's tables are what happens; the configuration is what is walked where they cannot be read, or when asked
// for, or it is that of other machines. Either may be absent, not both. Fills the scene in place.
void lookAt(Scene& scene, Program& program, const ScenePlace& place);

// The kernel's tables with the rows of the configuration; entries: of the comparison.
Applied withRows(ebtables::Table kernel, const Applied& configured, const std::vector<Entry>& entries);

// Rows with lines that the kernel would refuse.
void noteRefused(std::ostream& err, const Applied& configured);

} // namespace moatctl
