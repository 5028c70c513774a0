// Writes OpenMetrics text. It keeps to what readers of the older Prometheus text format understand as well: gauges and
// counters only.
#pragma once

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace moatctl
{

class OpenMetrics
{
public:
    using Labels = std::vector<std::pair<std::string_view, std::string>>;
    enum class Type { Gauge, Counter };

    explicit OpenMetrics(std::ostream& out) : m_out(out) {}

    // The samples that follow are of this family, until the next one begins. unit: "" or the name's last word.
    void begin(std::string_view name, Type type, std::string_view unit, std::string_view help);

    // No two of a family may have the same labels. Of a label's value, each byte that is not printable ASCII is written
    // as \xNN, so that a terminal obeys none of it.
    void sample(const Labels& labels, std::uint64_t value) { write(labels, std::to_string(value)); }
    void sample(const Labels& labels, std::chrono::milliseconds value);
    void sample(const Labels& labels, bool value) { write(labels, value ? "1" : "0"); }

    // After the last sample.
    void end();

private:
    void write(const Labels& labels, const std::string& value);

    std::ostream& m_out;
    std::string m_sample; // the name of each
};

} // namespace moatctl
