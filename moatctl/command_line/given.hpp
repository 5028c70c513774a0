// The options that were on the command line, copied: the command line of a batch is parsed again for its next line.
#pragma once

#include "moatctl/command_line/options.hpp"

#include <cstdint>
#include <string_view>

namespace moatctl
{

class Given
{
public:
    explicit Given(const Command& command) : m_values(command.given()) {}

    bool has(const std::string& option) const { return m_values.contains(option); }
    const std::vector<std::string>& values(const std::string& option) const { return m_values.at(option); }
    const std::string& value(const std::string& option) const { return m_values.at(option).front(); }
    bool hasOtherThan(std::initializer_list<std::string_view> options) const;
    // The value as an Id. Throws Failure(BadInput).
    std::int32_t id(const std::string& option) const;
    std::vector<std::int32_t> ids(const std::string& option) const;

private:
    std::map<std::string, std::vector<std::string>> m_values;
};

} // namespace moatctl
