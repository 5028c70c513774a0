// Stand-ins for the ebtables programs: shell scripts that record how they are called and do what a test says.
#pragma once

#include "platform_linux/queue/tool.hpp"
#include "tests/unit/scratch_folder.hpp"

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

class ScriptedTool
{
public:
    // Until told otherwise, everything goes well and the tables are empty.
    ScriptedTool()
    {
        onVersion("echo 'ebtables 1.8.9 (nf_tables)'");
        onRestore("");
        onSave("");
    }

    ebtables::ToolPaths paths() const
    {
        return {m_folder.path("ebtables"), m_folder.path("ebtables-restore"), m_folder.path("ebtables-save")};
    }

    // What each program does: lines of shell. That of ebtables-restore finds its input in the file "$input".
    void onVersion(const std::string& script) const { install("ebtables", script); }
    void onSave(const std::string& script) const { install("ebtables-save", script); }
    void onRestore(const std::string& script) const
    {
        const std::string calls = m_folder.path("calls");
        install("ebtables-restore", "input=" + calls + ".$$\ncat > $input\necho $$ >> " + calls + "\n" + script);
    }
    void removeRestore() const { std::filesystem::remove(m_folder.path("ebtables-restore")); }

    // The inputs of ebtables-restore so far.
    std::vector<std::string> inputs() const
    {
        std::vector<std::string> found;
        std::istringstream calls(m_folder.read("calls"));
        for (std::string pid; std::getline(calls, pid);)
            found.push_back(m_folder.read("calls." + pid));
        return found;
    }

    const ScratchFolder& folder() const { return m_folder; }

private:
    void install(const std::string& name, const std::string& script) const
    {
        // In one step: the old one may be running.
        m_folder.write(name + ".new", "#!/bin/sh\n" + script + "\n", 0755);
        std::filesystem::rename(m_folder.path(name + ".new"), m_folder.path(name));
    }

    ScratchFolder m_folder;
};
