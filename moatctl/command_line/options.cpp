#include "moatctl/command_line/options.hpp"

#include "moatctl/command_line/errors.hpp"
#include "moatctl/tables/problem.hpp"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace moatctl
{

namespace
{

// An empty value comes from a variable that a script has not set, hardly from a person who means it.
Option filled(CLI::Option& added, const std::string& type)
{
    Option option(added);
    option.check([type](const std::string& value) {
        return value.empty() ? inQuotes(value) + ": expected " + (type.empty() ? "a value" : type) : std::string();
    });
    return option;
}

} // namespace

Option& Option::required()
{
    m_option->required();
    return *this;
}

Option& Option::values(int count)
{
    m_option->expected(count);
    return *this;
}

Option& Option::anyNumber()
{
    m_option->expected(1, CLI::detail::expected_max_vector_size)->allow_extra_args();
    return *this;
}

Option& Option::repeated()
{
    m_option->expected(1, CLI::detail::expected_max_vector_size)->allow_extra_args(false);
    return *this;
}

Option& Option::defaultsTo(const std::string& text)
{
    m_option->default_str(text);
    return *this;
}

Option& Option::oneOf(std::initializer_list<const char*> words)
{
    return check([accepted = std::vector<std::string>(words.begin(), words.end())](const std::string& word) {
        return std::ranges::find(accepted, word) != accepted.end()
                   ? std::string()
                   : inQuotes(word) + ": expected " + alternatives(accepted);
    });
}

Option& Option::check(const std::function<std::string(const std::string& value)>& wrong)
{
    m_option->check(CLI::Validator([wrong](const std::string& value) { return wrong(value); }, ""));
    return *this;
}

Option& Option::excludes(const Option& other)
{
    m_option->excludes(other.m_option);
    return *this;
}

Command Command::add(const std::string& name, const std::string& description, const std::string& example) const
{
    CLI::App* command = m_app->add_subcommand(name, description);
    command->footer("Example:\n  moatctl " + example);
    m_app->require_subcommand(1);
    return Command(*command);
}

void Command::standsAlone() const
{
    m_app->require_subcommand(0, 1);
}

Option Command::option(const std::string& name, const std::string& type, const std::string& help) const
{
    return filled(*m_app->add_option(name, help)->type_name(type)->expected(1), type);
}

Option Command::option(const std::string& name, const std::string& type, const std::string& help,
                       const std::function<void(const std::string& value)>& take) const
{
    return filled(*m_app->add_option_function<std::string>(name, take, help)->type_name(type), type);
}

Option Command::option(const std::string& name, const std::string& type, const std::string& help,
                       std::string& value) const
{
    return option(name, type, help, [&value](const std::string& given) { value = given; });
}

Option Command::flag(const std::string& name, const std::string& help) const
{
    return Option(*m_app->add_flag(name, help)->disable_flag_override());
}

Option Command::flag(const std::string& name, const std::string& help, bool& given) const
{
    return Option(*m_app->add_flag(name, given, help)->disable_flag_override());
}

Option Command::find(const std::string& name) const
{
    return Option(*m_app->get_option(name));
}

void Command::onGiven(const std::function<void()>& call) const
{
    m_app->callback(call);
}

std::map<std::string, std::vector<std::string>> Command::given() const
{
    std::map<std::string, std::vector<std::string>> values;
    for (const CLI::Option* option : m_app->get_options()) {
        if (option->count() != 0)
            values.emplace(option->get_name(), option->results());
    }
    return values;
}

} // namespace moatctl
