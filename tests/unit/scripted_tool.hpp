// Stand-ins for the ebtables programs: shell scripts that record how they are called and do what a test says.
#pragma once

#include "platform_linux/queue/tool.hpp"
#include "tests/unit/scratch_folder.hpp"

#include <filesystem>
#include <string>
#include <vector>

class ScriptedTool
{
public:
    // Until told otherwise, everything goes well and the tables are empty.
    ScriptedTool()
    {
        onVersion("echo 'ebtables 1.8.9 (nf_tables)'");
        onSave("");
    }

    ebtables::ToolPaths paths() const { return {m_folder.path("ebtables"), m_folder.path("ebtables-save")}; }

    // What each program does: lines of shell.
    void onVersion(const std::string& script) const { install("ebtables", script); }
    void onSave(const std::string& script) const { install("ebtables-save", script); }

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
