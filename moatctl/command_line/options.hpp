// What a verb says of its command line: options, flags, words and sub-commands. Handles, copied freely; what they lead
// to lives as long as the Parser. Only the files beside this one know which library does the work.
#pragma once

#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

namespace CLI
{
class App;
class Option;
} // namespace CLI

namespace moatctl
{

class Option
{
public:
    explicit Option(CLI::Option& option) : m_option(&option) {}

    Option& required();
    // So many values, else one. And: one or more.
    Option& values(int count);
    Option& anyNumber();
    // May be given again and again, each time with one value.
    Option& repeated();
    // What counts when the option is not given, for the help.
    Option& defaultsTo(const std::string& text);
    Option& oneOf(std::initializer_list<const char*> words);
    // Returns what is wrong with a value, "" when it is right.
    Option& check(const std::function<std::string(const std::string& value)>& wrong);
    // Not both.
    Option& excludes(const Option& other);

private:
    CLI::Option* m_option;
};

class Command
{
public:
    explicit Command(CLI::App& app) : m_app(&app) {}

    // A sub-command with an example for its help, which is what follows "moatctl ". With sub-commands of its own it
    // needs one of them.
    Command add(const std::string& name, const std::string& description, const std::string& example) const;

    // The sub-commands that there are by now need not be given.
    void standsAlone() const;

    // "--in", or for a word without an option "FILE". type stands for the value in the help. An empty value is refused.
    // The values are handed to `take`, or left to be asked for.
    Option option(const std::string& name, const std::string& type, const std::string& help) const;
    Option option(const std::string& name, const std::string& type, const std::string& help,
                  const std::function<void(const std::string& value)>& take) const;
    Option option(const std::string& name, const std::string& type, const std::string& help, std::string& value) const;
    Option flag(const std::string& name, const std::string& help) const;
    Option flag(const std::string& name, const std::string& help, bool& given) const;
    // One that is there already.
    Option find(const std::string& name) const;

    // Called once the command and all that it needs was on the command line.
    void onGiven(const std::function<void()>& call) const;

    // The options that were on the command line, with their values.
    std::map<std::string, std::vector<std::string>> given() const;

private:
    CLI::App* m_app;
};

} // namespace moatctl
