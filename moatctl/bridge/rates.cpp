#include "moatctl/bridge/rates.hpp"

#include <algorithm>
#include <utility>

namespace moatctl
{

namespace
{

bool decides(const Entry& entry)
{
    return entry.text.ends_with("-j ACCEPT") || entry.text.ends_with("-j DROP");
}

std::uint64_t grown(std::uint64_t now, std::uint64_t before)
{
    return now >= before ? now - before : now; // it has begun anew
}

} // namespace

std::vector<Rate> Rates::next(const Applied& applied, const std::vector<Entry>& entries, Time time)
{
    std::map<std::string, ebtables::Counters> now;
    std::map<std::string, unsigned> equal;
    std::map<const Row*, std::size_t> places;
    std::vector<Rate> rates;
    double decided = 0;
    m_interval = time - m_time.value_or(time);
    for (const Entry& entry : entries) {
        const Row* row = applied.rowOf(entry.origin);
        if (!entry.counters || (row == nullptr && entry.origin != ebtables::noOrigin))
            continue;
        std::string key = entry.chain + '\n' + entry.text;
        key += '\n' + std::to_string(equal[key]++);
        const ebtables::Counters before = m_last[key];
        const auto frames = static_cast<double>(grown(entry.counters->packets, before.packets));
        const auto bytes = static_cast<double>(grown(entry.counters->bytes, before.bytes));
        now.emplace(std::move(key), *entry.counters);
        const auto [place, isNew] = places.try_emplace(row, rates.size());
        if (isNew || row == nullptr)
            rates.push_back({row, &entry, 0, 0, {}});
        Rate& rate = row == nullptr ? rates.back() : rates[place->second];
        rate.frames += frames;
        rate.bytes += bytes;
        if (decides(entry)) {
            rate.share = rate.share.value_or(0) + frames;
            decided += frames;
        }
    }
    m_last = std::move(now);
    if (!std::exchange(m_time, time))
        return {};
    const double seconds = std::max(m_interval.count(), 1e-9);
    for (Rate& rate : rates) {
        rate.frames /= seconds;
        rate.bytes /= seconds;
        if (rate.share)
            rate.share = decided > 0 ? *rate.share / decided : 0;
    }
    std::ranges::stable_sort(rates, std::ranges::greater(), &Rate::frames);
    return rates;
}

} // namespace moatctl
