#include "moatctl/bridge/walk.hpp"
#include "moatctl/check/findings.hpp"

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <utility>

namespace moatctl
{

namespace
{

constexpr MacAddress neighbour{0x02, 0, 0, 0, 0, 0x01};
constexpr MacAddress other{0x02, 0, 0, 0, 0, 0x02};

// Frames that a port cannot do without.

Frame arpRequest()
{
    Frame frame;
    frame.source = neighbour;
    frame.destination = MacAddress{0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    frame.type = ethertype::arp;
    return frame;
}

Frame neighbourSolicitation()
{
    Frame frame;
    frame.source = neighbour;
    frame.destination = MacAddress{0x33, 0x33, 0xff, 0, 0, 0x02};
    frame.type = ethertype::ip6;
    frame.ip6Source = Ip6Address{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xfe, 0, 0, 0x01};
    frame.ip6Destination = Ip6Address{0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0xff, 0, 0, 0x02};
    frame.protocol = ipProtocol::icmp6;
    return frame;
}

Frame spanningTree()
{
    Frame frame;
    frame.source = neighbour;
    frame.destination = MacAddress{0x01, 0x80, 0xc2, 0, 0, 0};
    frame.type = std::uint16_t{0x26}; // a length: the frame is an IEEE 802.3 one
    return frame;
}

Frame portAuthentication()
{
    Frame frame;
    frame.source = neighbour;
    frame.destination = MacAddress{0x01, 0x80, 0xc2, 0, 0, 0x03};
    frame.type = ethertype::eapol;
    return frame;
}

Frame packet(std::uint16_t type)
{
    Frame frame;
    frame.source = neighbour;
    frame.destination = other;
    frame.type = type;
    if (type == ethertype::ip4) {
        frame.ip4Source = Ip4Address{192, 0, 2, 1};
        frame.ip4Destination = Ip4Address{192, 0, 2, 2};
    } else {
        frame.ip6Source = Ip6Address{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01};
        frame.ip6Destination = Ip6Address{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x02};
    }
    frame.protocol = ipProtocol::tcp;
    frame.sourcePort = std::uint16_t{40000};
    frame.destinationPort = std::uint16_t{443};
    return frame;
}

// The packet, changed so that the rule may match it.
Frame fitted(Frame frame, const ebtables::Rule& rule)
{
    const auto take = [](auto& field, const auto& match) {
        if (match && !match->negated)
            field = match->address;
    };
    const auto takeNumber = [](auto& field, const std::optional<ebtables::RangeMatch>& match) {
        if (match && !match->negated)
            field = static_cast<typename std::remove_reference_t<decltype(field)>::value_type>(match->first);
    };
    take(frame.source, rule.source);
    take(frame.destination, rule.destination);
    take(frame.ip4Source, rule.ip.source);
    take(frame.ip4Destination, rule.ip.destination);
    take(frame.ip6Source, rule.ip6.source);
    take(frame.ip6Destination, rule.ip6.destination);
    takeNumber(frame.protocol, rule.ip.protocol);
    takeNumber(frame.protocol, rule.ip6.protocol);
    takeNumber(frame.destinationPort, rule.ip.destinationPort);
    takeNumber(frame.destinationPort, rule.ip6.destinationPort);
    return frame;
}

struct Way {
    std::string in;
    std::string out; // empty: for the device itself
    bool operator<(const Way& way) const { return std::tie(in, out) < std::tie(way.in, way.out); }
};

std::string nameOf(const Way& way)
{
    return way.out.empty() ? way.in : way.in + " to " + way.out;
}

// The table with the rules that `keep` wants, and without the chains that no rule leads to any more.
ebtables::Table restricted(const ebtables::Table& table, const std::function<bool(const ebtables::Rule&)>& keep)
{
    ebtables::Table result = ebtables::emptyTable();
    for (std::size_t i = 0; i < result.chains.size(); ++i) { // grows
        const ebtables::Chain& whole = *table.find(result.chains[i].name);
        ebtables::Chain kept{whole.name, whole.policy, {}, whole.policyOrigin};
        for (const ebtables::TableRule& rule : whole.rules) {
            if (!keep(*rule.rule))
                continue;
            kept.rules.push_back(rule);
            const std::string& target = rule.rule->target;
            if (!ebtables::isStandardTarget(target) && result.find(target) == nullptr)
                result.chains.push_back({target, {}, {}, ebtables::noOrigin});
        }
        result.chains[i] = std::move(kept);
    }
    return result;
}

// Walks frames and collects those that are dropped. Its work has a limit, which keeps large configurations quick.
class Examiner
{
public:
    Examiner(const Applied& applied, Findings& findings) : m_applied(applied), m_findings(findings) {}

    // What follows is about this way. Ways in by the same port are to be entered one after the other.
    void enter(const Way& way)
    {
        const auto fits = [](const std::optional<ebtables::InterfaceMatch>& match, const std::string& port) {
            return !match || (!port.empty() && matchesPort(*match, port));
        };
        if (!m_in || m_way.in != way.in)
            m_in = restricted(m_applied.table, [&](const ebtables::Rule& rule) { return fits(rule.in, way.in); });
        m_here = restricted(*m_in, [&](const ebtables::Rule& rule) { return fits(rule.out, way.out); });
        m_way = way;
        m_ruleCount = 0;
        m_openers.clear();
        for (const ebtables::Chain& chain : m_here.chains) {
            for (const ebtables::TableRule& rule : chain.rules) {
                ++m_ruleCount;
                if (rule.rule->target == "ACCEPT" || rule.rule->target == "RETURN")
                    m_openers.push_back(&*rule.rule);
            }
        }
    }

    // Remembers who drops what a station asks before it sends packets of the ethertype, if such packets get through:
    // those of any station, or else those that a rule lets through.
    void examineQuestion(std::uint16_t type, Frame question, const char* protocol, const char* consequence)
    {
        const Frame plain = packet(type);
        if (fateOf(plain).first == Fate::Accept) {
            examine(question, protocol, consequence);
            return;
        }
        for (const ebtables::Rule* opener : m_openers) {
            const Frame opened = fitted(plain, *opener);
            if (m_walked >= mostWork || fateOf(opened).first != Fate::Accept)
                continue;
            question.source = opened.source;
            if (examine(question, protocol, consequence))
                return;
        }
    }

    // Remembers who drops the frame, if it is dropped; returns whether it is.
    bool examine(Frame frame, const char* protocol, const char* consequence)
    {
        const auto [fate, by] = fateOf(std::move(frame));
        if (fate == Fate::Drop)
            m_dropped[{protocol, consequence, by, m_way.out.empty()}].push_back(nameOf(m_way));
        return fate == Fate::Drop;
    }

    void report()
    {
        for (const auto& [what, ways] : m_dropped) {
            std::string names;
            for (std::size_t i = 0; i < ways.size() && i < mostNames; ++i)
                names += (i == 0 ? "" : ", ") + ways[i];
            if (ways.size() > mostNames)
                names += " and " + std::to_string(ways.size() - mostNames) + " more";
            const std::string text = std::string("drops ") + what.protocol + " from " + names + ": " + what.consequence;
            if (what.by == nullptr)
                m_findings.add(Severity::Warning, TableId::Global, text);
            else if (what.by->table->id == TableId::Global)
                m_findings.warning(*what.by, what.isInput ? "GlobalInputPolicy" : "GlobalForwardingPolicy", text);
            else
                m_findings.warning(*what.by, "", text);
        }
    }

private:
    static constexpr std::size_t mostNames = 8;
    static constexpr std::size_t mostWork = 5'000'000; // rules looked at

    struct What {
        const char* protocol;
        const char* consequence;
        const Row* by;
        bool isInput;
        bool operator<(const What& what) const
        {
            return std::tie(protocol, by, isInput) < std::tie(what.protocol, what.by, what.isInput);
        }
    };

    std::pair<Fate, const Row*> fateOf(Frame frame)
    {
        m_walked += m_ruleCount;
        frame.in = m_way.in;
        frame.out = m_way.out;
        const Walk walked = walk(m_here, frame);
        return {walked.fate, m_applied.rowOf(walked.steps.back().origin())};
    }

    const Applied& m_applied;
    Findings& m_findings;
    std::optional<ebtables::Table> m_in; // the rules about the port that the way leads in by
    ebtables::Table m_here;              // and of them those about the port that it leads out by
    Way m_way;
    std::vector<const ebtables::Rule*> m_openers;
    std::size_t m_ruleCount = 0;
    std::size_t m_walked = 0;
    std::map<What, std::vector<std::string>> m_dropped;
};

// The ways that the configuration names; wildcards and exceptions name no port.
std::set<Way> waysIn(const Expected& expected)
{
    std::set<Way> ways;
    const auto isPort = [](const std::string& name) {
        return !name.empty() && name.back() != '+' && !name.starts_with('!');
    };
    const auto add = [&](const std::string& in, const std::string& out) {
        if (isPort(in))
            ways.insert({in, ""});
        if (isPort(out))
            ways.insert({out, ""});
        if (isPort(in) && isPort(out) && in != out)
            ways.insert({in, out});
    };
    for (const Row* row : expected.used) {
        if (row->table->id == TableId::InputPolicies)
            add(row->text("Interface"), "");
        if (row->table->id == TableId::ForwardingPolicies || row->table->id == TableId::Rules ||
            row->table->id == TableId::Filters)
            add(row->text("InInterface"), row->text("OutInterface"));
        if (row->table->id == TableId::Filters)
            add(row->text("OutInterface"), row->text("InInterface"));
    }
    if (ways.empty())
        ways.insert({"every port", ""});
    return ways;
}

} // namespace

void findCutOff(const Expected& expected, const Applied& applied, Findings& findings)
{
    Examiner examiner(applied, findings);
    for (const Way& way : waysIn(expected)) {
        examiner.enter(way);
        // Address resolution serves packets that may pass; a way that is closed to them does not need it.
        examiner.examineQuestion(ethertype::ip4, arpRequest(), "ARP",
                                 "IPv4 can pass, but stations cannot find each other");
        examiner.examineQuestion(ethertype::ip6, neighbourSolicitation(), "neighbour discovery",
                                 "IPv6 can pass, but stations cannot find each other");
        if (!way.out.empty())
            continue;
        examiner.examine(spanningTree(), "spanning tree frames", "01:80:c2:00:00:00; loops may go unnoticed");
        examiner.examine(portAuthentication(), "802.1X frames", "EAPOL, 0x888e; stations cannot authenticate");
    }
    examiner.report();
}

} // namespace moatctl
