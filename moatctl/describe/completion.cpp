#include "moatctl/describe/command_line.hpp"

#include "moatctl/tables/table_names.hpp"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace moatctl
{

namespace
{

bool takesValue(const CLI::Option& option)
{
    return option.get_items_expected_max() > 0;
}

std::string tableWords()
{
    std::string words;
    for (const schema::Table& table : schema::allTables())
        words += (words.empty() ? "" : " ") + std::string(table.word);
    return "_moatctl_words '" + words + "'";
}

// The Ids of the table that an option or word is about; that of a new row is free.
std::string idsOf(const std::string& option, const std::string& path)
{
    if (option == "--filter")
        return "_moatctl_ids filter";
    if (option == "--id")
        return ":";
    if (path == " acknowledge")
        return "_moatctl_ids \"${words[0]}\"";
    return "_moatctl_ids" + path.substr(0, path.find(' ', 1)); // "rule set"
}

// Words, interfaces, Ids or files: what may stand where the option's value stands. In shell syntax, sets COMPREPLY.
std::string candidatesOf(const CLI::Option& option, const std::string& path)
{
    std::string type = option.get_type_name();
    if (type.find('|') != std::string::npos) {
        std::ranges::replace(type, '|', ' ');
        return "_moatctl_words '" + type + "'";
    }
    if (type == "PORT")
        return "_moatctl_words \"$(ls /sys/class/net 2>/dev/null)\"";
    if (type == "ID" || option.get_name() == "ID")
        return idsOf(option.get_name(), path);
    if (type == "PATH" || type.starts_with("ENDPOINT") || type == "FILE" || type == "FOLDER" ||
        option.get_name() == "FILE")
        return "_moatctl_files";
    if (option.get_name() == "TABLE")
        return tableWords();
    return ":"; // a number, an address: nothing to offer
}

// One case per command: "path|previous option" gives values, "path|" gives sub-commands, options and words. The words
// of a command come one after the other, the last one as often as it likes.
void writeCases(std::ostream& out, const CLI::App& app, const std::string& path)
{
    std::string words;
    std::vector<std::string> positionals;
    for (const CLI::App* part : subcommandsOf(app))
        words += part->get_name() + ' ';
    for (const CLI::Option* option : optionsOf(app)) {
        if (!option->nonpositional()) {
            positionals.push_back(candidatesOf(*option, path));
            continue;
        }
        words += option->get_name() + ' ';
        if (takesValue(*option))
            out << "    '" << path << '|' << option->get_name() << "') " << candidatesOf(*option, path) << " ;;\n";
    }
    out << "    '" << path << "|') _moatctl_words '" << words << "--help'";
    if (!positionals.empty()) {
        out << "; [[ $cur == -* ]] || case ${#words[@]} in";
        for (std::size_t i = 0; i + 1 < positionals.size(); ++i)
            out << ' ' << i << ") " << positionals[i] << " ;;";
        out << " *) " << positionals.back() << " ;; esac";
    }
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

// The options with so many values, or more.
void collectOptions(std::set<std::string>& names, const CLI::App& app, int values)
{
    for (const CLI::Option* option : optionsOf(app)) {
        if (option->nonpositional() && option->get_items_expected_max() >= values)
            names.insert(option->get_name());
    }
    for (const CLI::App* part : subcommandsOf(app))
        collectOptions(names, *part, values);
}

// As a pattern of the shell.
std::string optionsWith(const CLI::App& root, int values)
{
    std::set<std::string> names;
    collectOptions(names, root, values);
    std::string pattern;
    for (const std::string& name : names)
        pattern += (pattern.empty() ? "" : "|") + name;
    return pattern;
}

} // namespace

void writeCompletion(std::ostream& out, const CLI::App& root)
{
    out << R"sh(# Completion of moatctl for bash. Generated from its command line.
_moatctl_words() { COMPREPLY+=($(compgen -W "$1" -- "$cur")); }
_moatctl_files() { COMPREPLY+=($(compgen -f -- "$cur")); }
_moatctl_ids() {
    _moatctl_words "$("${COMP_WORDS[0]}" "${server[@]}" --timeout 1 show "$1" --format=csv --no-headings 2>/dev/null |
        cut -d, -f1)"
}

_moatctl() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev='' second='' path='' word i words=() server=()
    COMPREPLY=()
    [[ $cur == '=' ]] && cur=''
    # path: the verb; words: what stands there besides options and values; prev: the option whose value is next.
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ -n $prev ]]; then
            [[ $word == '=' ]] && continue
            [[ $prev == --server ]] && server=(--server "$word")
            prev=$second second=''
            continue
        fi
        case "$word" in
        )sh"
        << optionsWith(root, 2) << ") prev=$word second=$word; continue ;;\n        " << optionsWith(root, 1)
        << R"sh() prev=$word; continue ;;
        -*) continue ;;
        esac
        case "$path $word" in
        '')sh";
    writePaths(out, root, "");
    out << R"sh() path="$path $word" ;;
        *) words+=("$word") ;;
        esac
    done
    case "$prev" in
)sh";
    for (const CLI::Option* option : optionsOf(root)) {
        if (takesValue(*option))
            out << "    " << option->get_name() << ") " << candidatesOf(*option, "") << "; return ;;\n";
    }
    out << "    esac\n    case \"$path|$prev\" in\n";
    writeCases(out, root, "");
    out << R"sh(    esac
}
complete -F _moatctl moatctl
)sh";
}

} // namespace moatctl
