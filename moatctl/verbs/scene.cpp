#include "moatctl/verbs/scene.hpp"

#include "moatctl/bridge/kernel.hpp"
#include "moatctl/command_line/this_machine.hpp"
#include "moatctl/tables/file.hpp"
#include "moatctl/tables/read_text.hpp"
#include "moatctl/tables/server.hpp"

#include <algorithm>
#include <ostream>
#include <set>
#include <utility>
#include <vector>

namespace moatctl
{

namespace
{

Configuration readFile(Program& program, const std::string& path)
{
    LoadedFile loaded = parseConfiguration(readText(program.in, path), nameOf(path));
    if (writeProblems(program.err, loaded.problems) != 0)
        throw Failure(ExitStatus::BadInput, "the configuration has errors; nothing is shown");
    return std::move(loaded.configuration);
}

} // namespace

Applied withRows(ebtables::Table kernel, const Applied& configured, const std::vector<Entry>& entries)
{
    for (const Entry& entry : entries) {
        ebtables::Chain* chain = kernel.find(entry.chain);
        if (chain == nullptr || entry.state == EntryState::Missing)
            continue;
        if (entry.position != 0)
            chain->rules[entry.position - 1].origin = entry.origin;
        else if (entry.state == EntryState::Same)
            chain->policyOrigin = entry.origin;
    }
    return {.table = std::move(kernel), .refused = {}, .rows = configured.rows};
}

void lookAt(Scene& scene, Program& program, const ScenePlace& place)
{
    std::string unread;
    std::optional<KernelState> held;
    if (place.path.empty() && !place.configured && !isElsewhere(program))
        held = readKernel(unread);
    try {
        if (place.path.empty()) {
            ovsdb::Client client = program.connect();
            scene.configuration = loadFromServer(client);
        } else {
            scene.configuration = readFile(program, place.path);
        }
        scene.configured = apply(expectedOf(*scene.configuration));
    } catch (const ovsdb::Error& error) {
        if (!held || held->isCompiled()) // which rules were compiled only the configuration says
            throw;
        program.err << "note: " << error.what() << "; rows cannot be named\n";
    }
    if (!held) {
        scene.name = !place.path.empty()    ? "the configuration in " + nameOf(place.path)
                     : isElsewhere(program) ? "the configuration of other machines"
                                            : "the configuration";
        if (!unread.empty())
            scene.name += "; the kernel's tables cannot be read: " + unread;
        return;
    }
    scene.name = "the kernel's tables";
    ebtables::Table kernel = rulesOf(*std::move(held), scene.configured.table);
    const std::vector<Entry> entries = compare(scene.configured.table, kernel);
    scene.differs = scene.configuration &&
                    std::ranges::any_of(entries, [](const Entry& entry) { return entry.state != EntryState::Same; });
    scene.kernel = scene.configuration ? withRows(std::move(kernel), scene.configured, entries)
                                       : Applied{.table = std::move(kernel), .refused = {}, .rows = {}};
}

std::string Scene::nameOf(ebtables::Origin origin) const
{
    if (const Row* row = walked().rowOf(origin); row != nullptr)
        return moatctl::nameOf(*row);
    return kernel && origin == ebtables::noOrigin ? "no row" : "the daemon's own";
}

void addScenePlace(const Command& command, ScenePlace& place)
{
    const Option file =
        command.option("--file", "FILE", "Look at the configuration in a file; - for standard input", place.path);
    command.flag("--configured", "Look at the server's configuration, whatever the kernel has", place.configured)
        .excludes(file);
}

void noteRefused(std::ostream& err, const Applied& configured)
{
    std::set<const Row*> noted;
    for (const RefusedLine& refused : configured.refused) {
        if (noted.insert(refused.origin).second)
            err << "note: "
                << (refused.origin != nullptr ? moatctl::nameOf(*refused.origin) : "the missing row of MoatKeeper")
                << ": a line is left out because the kernel would refuse it (see moatctl check)\n";
    }
}

} // namespace moatctl
