#include "moatctl/describe/command_line.hpp"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <istream>
#include <ostream>
#include <sstream>

namespace moatctl
{

namespace
{

constexpr std::string_view exampleMark = "Example:\n  ";

// Text on a line of its own: nothing in it is taken for a request.
std::string plain(const std::string& text)
{
    std::string result;
    for (const char character : text) {
        if (character == '\\')
            result += "\\e";
        else
            result += character;
    }
    if (!result.empty() && (result.front() == '.' || result.front() == '\''))
        result.insert(0, "\\&");
    return result;
}

// With its full stop, wrapped as manual sources are.
std::string sentence(const std::string& text)
{
    constexpr std::size_t longestLine = 78;
    std::istringstream words(text + '.');
    std::string result;
    std::string line;
    for (std::string word; words >> word;) {
        if (!line.empty() && line.size() + 1 + word.size() > longestLine) {
            result += plain(line) + '\n';
            line.clear();
        }
        line += (line.empty() ? "" : " ") + word;
    }
    return result + plain(line);
}

void writeOption(std::ostream& out, const CLI::Option& option)
{
    const std::string type = option.get_type_size_max() == 0 ? "" : option.get_type_name();
    if (option.nonpositional())
        out << ".It Fl " << option.get_name().substr(1) << (type.empty() ? "" : " Ar " + type);
    else
        out << ".It Ar " << option.get_name() << (option.get_items_expected_max() > 1 ? " ..." : "");
    out << '\n' << sentence(option.get_description()) << '\n';
}

void writeOptions(std::ostream& out, const std::vector<const CLI::Option*>& options)
{
    if (options.empty())
        return;
    out << ".Bl -tag -width Ds\n";
    for (const CLI::Option* option : options)
        writeOption(out, *option);
    out << ".El\n";
}

// The options of `set` are, but for a few, those of `add`: they are described once.
std::vector<const CLI::Option*> newOptions(const CLI::App& app, const CLI::App* sibling, bool& leftOut)
{
    std::vector<const CLI::Option*> options = optionsOf(app);
    leftOut = false;
    if (sibling == nullptr || sibling == &app)
        return options;
    const std::vector<const CLI::Option*> known = optionsOf(*sibling);
    const auto isKnown = [&known](const CLI::Option* option) {
        return std::ranges::any_of(known, [option](const CLI::Option* other) {
            return other->get_name() == option->get_name() && other->get_description() == option->get_description();
        });
    };
    leftOut = std::erase_if(options, isKnown) != 0;
    return options;
}

void writeVerb(std::ostream& out, const CLI::App& app, const std::string& name, const CLI::App* sibling)
{
    const std::vector<const CLI::App*> parts = subcommandsOf(app);
    if (parts.empty() || !optionsOf(app).empty()) {
        bool leftOut = false;
        const std::vector<const CLI::Option*> options = newOptions(app, sibling, leftOut);
        out << ".It Cm " << name << '\n' << sentence(app.get_description()) << '\n';
        if (leftOut)
            out << "Takes the options of\n.Cm add ,\ntoo.\n";
        writeOptions(out, options);
        const std::string footer = app.get_footer();
        if (footer.starts_with(exampleMark))
            out << ".Pp\nExample:\n.Dl " << plain(footer.substr(exampleMark.size())) << '\n';
    }
    const auto add =
        std::ranges::find(parts, std::string("add"), [](const CLI::App* part) { return part->get_name(); });
    for (const CLI::App* part : parts)
        writeVerb(out, *part, name + ' ' + part->get_name(), add != parts.end() ? *add : nullptr);
}

void writeVerbs(std::ostream& out, const CLI::App& root)
{
    for (const CLI::App* verb : subcommandsOf(root)) {
        out << ".Ss " << verb->get_name() << '\n';
        if (!subcommandsOf(*verb).empty() && optionsOf(*verb).empty())
            out << sentence(verb->get_description()) << '\n';
        out << ".Bl -tag -width Ds\n";
        writeVerb(out, *verb, verb->get_name(), nullptr);
        out << ".El\n";
    }
}

} // namespace

std::vector<const CLI::App*> subcommandsOf(const CLI::App& app)
{
    return app.get_subcommands([](const CLI::App* part) { return !part->get_name().empty(); });
}

std::vector<const CLI::Option*> optionsOf(const CLI::App& app)
{
    return app.get_options([](const CLI::Option* option) { return option->get_name() != "--help"; });
}

void writeManual(std::ostream& out, const CLI::App& root, std::istream& pattern)
{
    for (std::string line; std::getline(pattern, line);) {
        if (line == "@VERBS@")
            writeVerbs(out, root);
        else if (line == "@OPTIONS@")
            writeOptions(out, optionsOf(root));
        else
            out << line << '\n';
    }
}

} // namespace moatctl
