#include "moatctl/describe/command_line.hpp"

#include "moatctl/tables/table_names.hpp"

#include <CLI/CLI.hpp>

#include <ostream>

namespace moatctl
{

namespace
{

// Words, interfaces or files: what may stand where the option's value stands. In shell syntax, sets COMPREPLY.
std::string candidatesOf(const CLI::Option& option)
{
    std::string type = option.get_type_name();
    if (type.find('|') != std::string::npos) {
        for (char& character : type) {
            if (character == '|')
                character = ' ';
        }
        return "_moatctl_words '" + type + "'";
    }
    if (type == "PORT")
        return "_moatctl_words \"$(ls /sys/class/net 2>/dev/null)\"";
    if (type == "PATH" || option.get_name() == "FILE")
        return "_moatctl_files";
    if (option.get_name() == "TABLE") {
        std::string words;
        for (const schema::Table& table : schema::allTables())
            words += (words.empty() ? "" : " ") + std::string(table.word);
        return "_moatctl_words '" + words + "'";
    }
    return ":"; // a number, an address: nothing to offer
}

// One case per command: "path|previous option" gives values, "path|" gives sub-commands, options and positionals.
void writeCases(std::ostream& out, const CLI::App& app, const std::string& path)
{
    std::string words;
    std::string positional;
    for (const CLI::App* part : subcommandsOf(app))
        words += part->get_name() + ' ';
    for (const CLI::Option* option : optionsOf(app)) {
        if (!option->nonpositional()) {
            positional = candidatesOf(*option);
            continue;
        }
        words += option->get_name() + ' ';
        if (option->get_type_size_max() != 0)
            out << "    '" << path << '|' << option->get_name() << "') " << candidatesOf(*option) << " ;;\n";
    }
    out << "    '" << path << "|') _moatctl_words '" << words << "--help'";
    if (!positional.empty() && positional != ":")
        out << "; [[ $cur == -* ]] || " << positional;
    out << " ;;\n";
    for (const CLI::App* part : subcommandsOf(app))
        writeCases(out, *part, path + ' ' + part->get_name());
}

void writePaths(std::ostream& out, const CLI::App& app, const std::string& path)
{
    for (const CLI::App* part : subcommandsOf(app)) {
        const std::string name = path + ' ' + part->get_name();
        out << " |'" << name << '\'';
        writePaths(out, *part, name);
    }
}

void writeValueOptions(std::ostream& out, const CLI::App& app)
{
    for (const CLI::Option* option : optionsOf(app)) {
        if (option->nonpositional() && option->get_type_size_max() != 0)
            out << '|' << option->get_name();
    }
    for (const CLI::App* part : subcommandsOf(app))
        writeValueOptions(out, *part);
}

} // namespace

void writeCompletion(std::ostream& out, const CLI::App& root)
{
    out << R"(# Completion of moatctl for bash. Generated from its command line.
_moatctl_words() { COMPREPLY+=($(compgen -W "$1" -- "$cur")); }
_moatctl_files() { COMPREPLY+=($(compgen -f -- "$cur")); }

_moatctl() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev='' path='' word i
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        case "$path $word" in
        '')";
    writePaths(out, root, "");
    out << R"() path="$path $word" ;;
        esac
    done
    case "${COMP_WORDS[COMP_CWORD - 1]}" in
    '')";
    writeValueOptions(out, root);
    out << R"() prev=${COMP_WORDS[COMP_CWORD - 1]} ;;
    esac
    case "$prev" in
)";
    for (const CLI::Option* option : optionsOf(root)) {
        if (option->get_type_size_max() != 0)
            out << "    " << option->get_name() << ") " << candidatesOf(*option) << "; return ;;\n";
    }
    out << "    esac\n    case \"$path|$prev\" in\n";
    writeCases(out, root, "");
    out << R"(    esac
}
complete -F _moatctl moatctl
)";
}

} // namespace moatctl
