#include "tests/compiled/random_rules.hpp"

#include <algorithm>
#include <array>

namespace test
{

namespace
{

using ebtables::Rule;

constexpr std::uint8_t tcp = 6;
constexpr std::uint8_t udp = 17;

template <std::size_t N>
std::array<std::uint8_t, N> prefix(std::size_t bits)
{
    std::array<std::uint8_t, N> mask{};
    for (std::size_t i = 0; i < bits; ++i)
        mask[i / 8] = static_cast<std::uint8_t>(mask[i / 8] | 0x80U >> i % 8);
    return mask;
}

template <std::size_t N>
constexpr std::uint16_t typeOfIp = N == 4 ? 0x0800 : 0x86dd;

ebtables::EthertypeMatch type(std::uint16_t number)
{
    return {number, false, false};
}

std::uint16_t number(std::size_t of)
{
    return static_cast<std::uint16_t>(of);
}

} // namespace

std::string RandomRules::port()
{
    return "p" + std::to_string(m_next(m_ports));
}

ebtables::MacMatch RandomRules::mac()
{
    ebtables::MacMatch match;
    match.address = {2, 0, 0, 0, static_cast<std::uint8_t>(m_next(2)), static_cast<std::uint8_t>(m_next(m_values))};
    if (one(20))
        match.mask = prefix<6>(8 * (1 + m_next(5)));
    else if (one(40))
        match.mask = {0xff, 0, 0, 0, 0, 0xff};
    for (std::size_t i = 0; i < match.mask.size(); ++i)
        match.address[i] &= match.mask[i];
    return match;
}

template <std::size_t N>
ebtables::NetworkMatch<N> RandomRules::network()
{
    ebtables::NetworkMatch<N> match;
    match.address.fill(0);
    match.address[0] = 10;
    match.address[N - 2] = static_cast<std::uint8_t>(m_next(2));
    match.address[N - 1] = static_cast<std::uint8_t>(m_next(m_values) * 2);
    match.mask = prefix<N>(one(m_values) ? N * 8 - m_next(18) : N * 8);
    if (one(40))
        match.mask = one(2) ? prefix<N>(0) : std::array<std::uint8_t, N>{0xff};
    if (one(40))
        match.mask[N - 1] = 1;
    for (std::size_t i = 0; i < N; ++i)
        match.address[i] &= match.mask[i];
    return match;
}

template <std::size_t N>
void RandomRules::addIp(ebtables::IpMatches<N>& ip, std::size_t kind)
{
    if ((kind & 1U) == 0)
        ip.source = network<N>();
    if ((kind & 2U) == 0)
        ip.destination = network<N>();
    if ((kind & 4U) == 0)
        return;
    const std::uint16_t protocol = one(2) ? tcp : udp;
    ip.protocol = ebtables::RangeMatch{protocol, protocol, false};
    if ((kind & 8U) == 0)
        return;
    const std::uint16_t port = number(m_next(m_values));
    ip.destinationPort = ebtables::RangeMatch{port, port, false};
}

// The bits of a kind say which matches there are.
void RandomRules::addMatches(Rule& rule)
{
    const std::size_t kind = oneOf(m_kinds);
    if ((kind & 3U) == 0)
        rule.source = mac();
    if ((kind & 12U) == 0)
        rule.destination = mac();
    const std::size_t inside = kind >> 7U;
    switch ((kind >> 4U) & 7U) {
    case 0:
    case 1:
    case 2:
        rule.ethertype = type(0x0800);
        addIp(rule.ip, inside);
        break;
    case 3:
    case 4:
        rule.ethertype = type(0x86dd);
        addIp(rule.ip6, inside);
        break;
    case 5: {
        const std::uint16_t id = number(m_next(m_values));
        rule.ethertype = type(0x8100);
        rule.vlan.id = ebtables::RangeMatch{id, id, false};
        if ((inside & 1U) == 0)
            rule.vlan.encapsulated = type(one(2) ? 0x0800 : 0x0806);
        break;
    }
    case 6:
        rule.ethertype = type(one(2) ? 0x0806 : 0x8100);
        break;
    default:
        break;
    }
}

void RandomRules::makeStrange(Rule& rule)
{
    const auto negate = [&](auto& match) {
        if (match && one(4))
            match->negated = true;
    };
    const auto widen = [&](auto& match) {
        if (match && one(4))
            match->last = number(match->first + m_next(3));
    };
    negate(rule.in);
    negate(rule.out);
    negate(rule.source);
    negate(rule.ip.source);
    negate(rule.ip6.destination);
    negate(rule.ip.destinationPort);
    negate(rule.vlan.id);
    widen(rule.ip.destinationPort);
    widen(rule.ip6.destinationPort);
    if (rule.ip.destinationPort && one(3))
        rule.ip.sourcePort = ebtables::RangeMatch{1, 1, false};
    if (rule.ip6.destinationPort && one(3))
        std::swap(rule.ip6.sourcePort, rule.ip6.destinationPort);
    if (rule.ip6.protocol && !rule.ip6.destinationPort && !rule.ip6.sourcePort && one(3))
        rule.ip6.protocol->first = rule.ip6.protocol->last = one(2) ? 44 : 59;
    if (rule.vlan.id && one(4))
        rule.vlan.priority = ebtables::RangeMatch{3, 3, false};
    if (rule.vlan.priority && one(2))
        rule.vlan.id.reset();
    if (rule.in && one(6))
        rule.in.reset();
    if (rule.out && one(6))
        rule.out.reset();
    if (!rule.ethertype && one(4))
        rule.ethertype = {0, true, one(2)};
    if (one(8))
        rule.target = one(2) ? "CONTINUE" : "RETURN";
}

Rule RandomRules::rule(bool forwarded, bool strange)
{
    Rule rule;
    addMatches(rule);
    rule.in = ebtables::InterfaceMatch{port(), false, false};
    if (one(12))
        rule.in = ebtables::InterfaceMatch{"p", true, false};
    if (forwarded)
        rule.out = ebtables::InterfaceMatch{port(), false, one(20)};
    rule.target = one(2) ? "ACCEPT" : "DROP";
    if (one(4))
        rule.log = ebtables::LogOptions{rule.target == "DROP" ? "denied: " : "accepted: ", one(4) ? 4 : 5, false, false,
                                        false};
    if (strange && one(2))
        makeStrange(rule);
    return rule;
}

void RandomRules::addFilter(ebtables::Table& table, std::size_t filterNumber)
{
    const bool blacklist = one(2);
    ebtables::Chain chain{std::to_string(filterNumber) + "filter", blacklist ? "RETURN" : "DROP", {}, ++m_origin};
    Rule jump;
    jump.in = ebtables::InterfaceMatch{port(), false, false};
    jump.out = ebtables::InterfaceMatch{port(), false, false};
    jump.target = chain.name;
    const std::size_t kind = m_next(4);
    constexpr std::uint16_t types[] = {0x0800, 0x86dd, 0x8100};
    if (kind < 3)
        jump.ethertype = type(types[kind]);
    const std::size_t entries = m_next(12);
    for (std::size_t i = 0; i < entries; ++i) {
        Rule entry;
        if (kind < 3)
            entry.ethertype = type(types[kind]);
        if (kind == 0)
            entry.ip.source = network<4>();
        else if (kind == 1)
            entry.ip6.source = network<16>();
        else if (kind == 2)
            entry.vlan.id = ebtables::RangeMatch{number(i), number(i), false};
        else
            entry.source = mac();
        entry.target = blacklist ? "DROP" : "RETURN";
        chain.rules.push_back({"", entry, {}, ++m_origin});
    }
    ebtables::Chain& forward = *table.find("FORWARD");
    const ebtables::Origin origin = ++m_origin;
    for (int way = 0; way < 2; ++way) {
        forward.rules.insert(forward.rules.begin(), {"", jump, {}, origin});
        std::swap(jump.in, jump.out);
    }
    table.chains.push_back(std::move(chain));
}

ebtables::Table RandomRules::table(std::size_t rules, bool strange)
{
    ebtables::Table table = ebtables::emptyTable();
    m_values = std::size_t{2} << m_next(7);
    m_ports = 1 + m_next(3);
    m_kinds.resize(1 + m_next(4));
    for (std::size_t& kind : m_kinds)
        kind = m_next(1U << 11U);
    for (const char* base : {"INPUT", "FORWARD"}) {
        table.find(base)->policy = one(2) ? "DROP" : "ACCEPT";
        for (const char* kind : {"Rules", "Policy"}) {
            const bool forwarded = std::string(base) == "FORWARD";
            ebtables::Chain chain{std::string(forwarded ? "UserForward" : "UserInput") + kind, "RETURN", {}, 0};
            Rule jump;
            jump.target = chain.name;
            table.find(base)->rules.push_back({"", jump, {}, ebtables::noOrigin});
            const bool policies = std::string(kind) == "Policy";
            for (std::size_t i = policies ? 3 : rules; i > 0; --i) {
                Rule made = rule(forwarded, strange);
                if (policies)
                    made.source = made.destination = {};
                chain.rules.push_back({"", made, {}, ++m_origin});
            }
            table.chains.push_back(std::move(chain));
        }
    }
    for (std::size_t i = m_next(4); i > 0; --i)
        addFilter(table, i);
    return table;
}

void RandomRules::changeChain(ebtables::Chain& chain, bool strange)
{
    auto& rules = chain.rules;
    const auto place = [&](std::size_t of) { return rules.begin() + static_cast<std::ptrdiff_t>(m_next(of)); };
    const std::size_t kind = m_next(rules.empty() ? 2 : 8);
    ebtables::TableRule made;
    made.rule = rule(chain.name.starts_with("UserF"), strange);
    made.origin = ++m_origin;
    made.number = m_origin % 3 == 0 ? 0 : m_origin;
    switch (kind) {
    case 0:
    case 1:
        rules.insert(place(rules.size() + 1), made);
        break;
    case 2:
    case 3:
        rules.erase(place(rules.size()));
        break;
    case 4:
        *place(rules.size()) = made;
        break;
    case 5: { // from one place to another
        made = *place(rules.size());
        std::erase_if(rules, [&](const ebtables::TableRule& old) { return old.origin == made.origin; });
        rules.insert(place(rules.size() + 1), made);
        break;
    }
    case 6: // one that is there already
        made.rule = place(rules.size())->rule;
        made.rule->target = one(2) ? "ACCEPT" : made.rule->target;
        rules.insert(place(rules.size() + 1), made);
        break;
    default:
        std::erase_if(rules, [this](const ebtables::TableRule&) { return one(4); });
    }
}

void RandomRules::change(ebtables::Table& table, bool strange)
{
    if (one(15)) {
        ebtables::Chain& base = *table.find(one(2) ? "INPUT" : "FORWARD");
        base.policy = base.policy == "DROP" ? "ACCEPT" : "DROP";
    }
    if (one(15))
        addFilter(table, table.chains.size());
    std::vector<ebtables::Chain*> chains; // each as often as it has rules
    for (ebtables::Chain& chain : table.chains) {
        if (!ebtables::isBuiltIn(chain.name))
            chains.insert(chains.end(), chain.rules.size() + 1, &chain);
    }
    for (std::size_t times = one(4) ? m_next(20) : 1; times > 0; --times)
        changeChain(*oneOf(chains), strange);
}

template <std::size_t N>
void RandomRules::fillIp(const ebtables::IpMatches<N>& ip, RawFrame& frame)
{
    const std::size_t header = N == 4 ? 20 : 40;
    const auto put = [&](std::size_t at, const auto& address) {
        std::ranges::copy(address, frame.data.begin() + static_cast<std::ptrdiff_t>(at));
    };
    const auto other = [&] { return network<N>().address; };
    frame.type = typeOfIp<N>;
    frame.data.assign(header + 8, 0);
    put(N == 4 ? 12 : 8, ip.source ? ip.source->address : other());
    put(N == 4 ? 16 : 24, ip.destination ? ip.destination->address : other());
    frame.data[0] = N == 4 ? 0x45 : 0x60;
    frame.data[N == 4 ? 9 : 6] = static_cast<std::uint8_t>(ip.protocol ? ip.protocol->first : one(2) ? udp : tcp);
    frame.data[header + 1] = static_cast<std::uint8_t>(ip.sourcePort ? ip.sourcePort->first : m_next(3));
    frame.data[header + 3] =
        static_cast<std::uint8_t>(ip.destinationPort ? ip.destinationPort->last : m_next(m_values));
}

// Fragments, options, other headers, frames that end too early, neighbours of an address.
void RandomRules::spoil(RawFrame& frame)
{
    const auto at = [&](std::size_t place) { return frame.data.begin() + static_cast<std::ptrdiff_t>(place); };
    const bool ip4 = frame.type == 0x0800 && frame.data.size() >= 20;
    const bool ip6 = frame.type == 0x86dd && frame.data.size() >= 40;
    switch (m_next(10)) {
    case 0: // about where a header ends
        frame.data.resize(std::min(frame.data.size(), (ip6 ? 36 : ip4 ? 16 : 0) + m_next(ip4 || ip6 ? 9 : 4)));
        break;
    case 1:
        frame.addresses[6 + m_next(6)] ^= static_cast<std::uint8_t>(1U << m_next(8));
        break;
    case 2:
        frame.tag = frame.tag ? std::nullopt : std::optional(number(m_next(m_values) | m_next(8) << 13U));
        break;
    case 3:
        if (!frame.data.empty())
            frame.data[m_next(frame.data.size())] ^= static_cast<std::uint8_t>(1U << m_next(8));
        break;
    case 4:
        frame.in = port();
        break;
    case 5: // a fragment
        if (ip4)
            frame.data[7] = static_cast<std::uint8_t>(m_next(2));
        break;
    case 6: // a header of another length
        if (ip4) {
            const std::size_t words = m_next(16);
            frame.data[0] = static_cast<std::uint8_t>(0x40U | words);
            if (words > 5)
                frame.data.insert(at(20), words * 4 - 20, 0);
        }
        break;
    case 7: // headers between
        for (std::size_t headers = ip6 ? m_next(3) : 0; headers > 0; --headers) {
            constexpr std::uint8_t kinds[] = {0, 43, 44, 51, 59, 60};
            const std::uint8_t kind = kinds[m_next(6)];
            Bytes header(kind == 51 ? 12 : 8);
            header[0] = frame.data[6];
            header[1] = kind == 51 ? 1 : 0;
            header[3] = one(2) ? 8 : 0; // of a fragment: not the first
            frame.data[6] = kind;
            frame.data.insert(at(40), header.begin(), header.end());
        }
        break;
    case 8: // a tag that was left in its place
        if (frame.tag) {
            for (const std::uint16_t field : {frame.type, *frame.tag})
                frame.data.insert(frame.data.begin(),
                                  {static_cast<std::uint8_t>(field >> 8U), static_cast<std::uint8_t>(field)});
            frame.tag.reset();
            frame.type = 0x8100;
        }
        break;
    default:
        frame.type = one(2) ? 0x0026 : 0x0806;
    }
}

RawFrame RandomRules::frame(const ebtables::Table& table)
{
    std::vector<const ebtables::Chain*> chains; // each as often as it has rules
    for (const ebtables::Chain& chain : table.chains)
        chains.insert(chains.end(), chain.rules.size(), &chain);
    const ebtables::Chain& from = *oneOf(chains);
    const Rule& aim = *oneOf(from.rules).rule;
    RawFrame frame;
    frame.in = aim.in && !aim.in->prefix ? aim.in->name : port();
    if (aim.out || from.name.starts_with("UserF") || from.name == "FORWARD" || from.name.ends_with("filter"))
        frame.out = aim.out && !aim.out->negated ? aim.out->name : port();
    const auto destination = aim.destination ? aim.destination->address : mac().address;
    const auto source = aim.source ? aim.source->address : mac().address;
    frame.addresses.assign(destination.begin(), destination.end());
    frame.addresses.insert(frame.addresses.end(), source.begin(), source.end());
    frame.type = 0x88b6;
    frame.data.assign(46, 0);
    const std::uint16_t wanted =
        aim.ethertype ? aim.ethertype->number : oneOf<std::uint16_t>({0x0800, 0x86dd, 0x8100, 0x0806});
    if (wanted == 0x0800)
        fillIp(aim.ip, frame);
    else if (wanted == 0x86dd)
        fillIp(aim.ip6, frame);
    else if (wanted != 0x8100)
        frame.type = wanted;
    else
        frame.tag = number((aim.vlan.id ? aim.vlan.id->first : m_next(m_values)) | (one(2) ? 3U << 13U : 0));
    if (aim.vlan.encapsulated)
        frame.type = aim.vlan.encapsulated->number;
    for (std::size_t times = m_next(3); times > 0; --times)
        spoil(frame);
    return frame;
}

} // namespace test
