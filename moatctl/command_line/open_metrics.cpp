#include "moatctl/command_line/open_metrics.hpp"

#include "text/one_line.hpp"

#include <array>
#include <cstdio>
#include <ostream>

namespace moatctl
{

namespace
{

std::string escaped(std::string_view text)
{
    std::string result;
    for (const char character : text) {
        if (character == '\\' || character == '"')
            result += '\\';
        result += character;
    }
    return result;
}

} // namespace

void OpenMetrics::begin(std::string_view name, Type type, std::string_view unit, std::string_view help)
{
    m_out << "# TYPE " << name << (type == Type::Counter ? " counter\n" : " gauge\n");
    if (!unit.empty())
        m_out << "# UNIT " << name << ' ' << unit << '\n';
    m_out << "# HELP " << name << ' ' << escaped(help) << '\n';
    m_sample = std::string(name) + (type == Type::Counter ? "_total" : "");
}

void OpenMetrics::sample(const Labels& labels, std::chrono::milliseconds value)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.3f", static_cast<double>(value.count()) / 1000);
    write(labels, text.data());
}

void OpenMetrics::write(const Labels& labels, const std::string& value)
{
    m_out << m_sample;
    char before = '{';
    for (const auto& [name, text] : labels) {
        m_out << before << name << "=\"" << escaped(text::oneLine(text, std::string::npos)) << '"';
        before = ',';
    }
    m_out << (labels.empty() ? " " : "} ") << value << '\n';
}

void OpenMetrics::end()
{
    m_out << "# EOF\n";
}

} // namespace moatctl
