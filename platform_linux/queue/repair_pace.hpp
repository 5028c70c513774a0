// How fast what others change is put back: at once, unless they do it again and again.
#pragma once

#include <algorithm>
#include <chrono>
#include <utility>

namespace zol::cfg
{

// Two programs that fight over the tables must not take the processor or fill the log. Times are given by the caller.
class RepairPace
{
public:
    using Clock = std::chrono::steady_clock;

    struct Verdict {
        bool tell = false;                  // this repair is worth a line
        bool tellStorm = false;             // and from now on repairs are not told one by one
        std::chrono::milliseconds pause{0}; // before the next one
    };

    Verdict repaired(Clock::time_point now)
    {
        m_lines.refill(now);
        m_repairs.refill(now);
        m_toldStorm = m_toldStorm && m_lines.left < m_lines.most;
        m_storm = m_storm && m_repairs.left < m_repairs.most / 2;
        Verdict verdict;
        verdict.tell = m_lines.take();
        verdict.tellStorm = verdict.tell && m_lines.left == 0 && !std::exchange(m_toldStorm, true);
        m_storm = !m_repairs.take() || m_storm;
        m_pause = m_storm ? std::clamp(2 * m_pause, shortest, longest) : std::chrono::milliseconds(0);
        verdict.pause = m_pause;
        return verdict;
    }

private:
    static constexpr std::chrono::milliseconds shortest{1'000};
    static constexpr std::chrono::milliseconds longest{30'000};

    // So many at once, and one more each interval.
    struct Allowance {
        unsigned most;
        std::chrono::seconds interval;
        unsigned left = most;
        Clock::time_point since{};

        void refill(Clock::time_point now)
        {
            if (left == most)
                since = now;
            while (left < most && now - since >= interval) {
                ++left;
                since += interval;
            }
        }
        bool take()
        {
            if (left == 0)
                return false;
            --left;
            return true;
        }
    };

    Allowance m_lines{4, std::chrono::seconds(15)};
    Allowance m_repairs{60, std::chrono::seconds(2)};
    bool m_toldStorm = false;
    bool m_storm = false;
    std::chrono::milliseconds m_pause{0};
};

} // namespace zol::cfg
