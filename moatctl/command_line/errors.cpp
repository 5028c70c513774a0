#include "moatctl/command_line/errors.hpp"

#include "moatctl/tables/problem.hpp"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <iterator>
#include <string_view>
#include <vector>

namespace moatctl
{

namespace
{

std::string oneLine(std::string text)
{
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    std::ranges::replace(text, '\n', ' ');
    return text;
}

std::string verbsOf(const CLI::App& app)
{
    std::vector<std::string> names;
    for (const CLI::App* verb : app.get_subcommands([](const CLI::App*) { return true; }))
        names.push_back(verb->get_name());
    return alternatives(names);
}

std::string unexpectedWord(const CLI::App& verb, const CLI::App& root)
{
    const std::vector<std::string> words = root.remaining(true);
    const auto option = std::ranges::find_if(words, [](const std::string& word) { return word.starts_with('-'); });
    if (option != words.end())
        return "unknown option " + inQuotes(*option);
    const std::string verbs = verbsOf(verb);
    if (words.empty())
        return "a verb is missing: expected " + verbs;
    if (!verbs.empty())
        return "unknown verb " + inQuotes(words.front()) + ": expected " + verbs;
    return "unexpected word " + inQuotes(words.front());
}

// The option that the message begins with.
const CLI::Option* optionIn(const std::string& message, const CLI::App& verb, const CLI::App& root)
{
    for (const CLI::App* app : {&verb, &root}) {
        for (const CLI::Option* option : app->get_options()) {
            if (message.starts_with(option->get_name() + ": "))
                return option;
        }
    }
    return nullptr;
}

std::string wrongCount(const CLI::Option& option)
{
    const int expected = option.get_items_expected_min();
    if (static_cast<int>(option.count()) > expected)
        return option.get_name() + " is given " + std::to_string(option.count()) + " times: expected once";
    if (expected == 1)
        return option.get_name() + " has no value: expected " + option.get_type_name();
    return option.get_name() + ": expected " + std::to_string(expected) + " values";
}

std::string missing(const CLI::App& verb, const CLI::App& root)
{
    const std::vector<const CLI::Option*> options = verb.get_options();
    const auto option =
        std::ranges::find_if(options, [](const CLI::Option* o) { return o->get_required() && o->count() == 0; });
    return option != options.end() ? (*option)->get_name() + " is missing" : unexpectedWord(verb, root);
}

} // namespace

std::string describeError(const CLI::ParseError& error, const CLI::App& root)
{
    const CLI::App* verb = &root;
    std::string path = "moatctl";
    while (!verb->get_subcommands().empty()) {
        verb = verb->get_subcommands().front();
        path += ' ' + verb->get_name();
    }
    std::string text = oneLine(error.what());
    constexpr std::string_view valueOfFlag = " was given a disallowed flag override";
    if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr)
        text = missing(*verb, root);
    else if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr)
        text = unexpectedWord(*verb, root);
    else if (text.ends_with(valueOfFlag))
        text = "--" + text.substr(0, text.size() - valueOfFlag.size()) + " takes no value";
    else if (const CLI::Option* option = optionIn(text, *verb, root); option != nullptr)
        text = dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr
                   ? wrongCount(*option)
                   : option->get_name() + text.substr(option->get_name().size() + 1); // without the colon
    return text + " (see " + path + " --help)";
}

std::string alternatives(const std::vector<std::string>& words)
{
    std::string text;
    for (std::size_t i = 0; i < words.size(); ++i)
        text += (i == 0 ? "" : i + 1 == words.size() ? " or " : ", ") + words[i];
    return text;
}

} // namespace moatctl
