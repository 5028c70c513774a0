#include "tests/moatctl/random_configuration.hpp"

#include <algorithm>

namespace test
{

using moatctl::Configuration;
using moatctl::Frame;
using moatctl::Row;
using moatctl::TableId;

namespace
{

using Texts = std::vector<std::string>;

class Maker
{
public:
    Maker(Random& random, int wrongOneIn) : m_random(random), m_wrongOneIn(wrongOneIn) {}

    Configuration make()
    {
        Row global(schema::table(TableId::Global));
        global.set("GlobalInputPolicy", text({"ACCEPT", "DROP"}, {"", "RETURN", "accept"}));
        global.set("GlobalForwardingPolicy", text({"ACCEPT", "DROP"}, {"", "REJECT"}));
        if (!wrong())
            m_configuration.add(global);
        for (int id = 1; id <= m_random.number(0, 4); ++id)
            addPolicy(id);
        for (int id = 1; id <= m_random.number(0, 4); ++id)
            addForwardingPolicy(id);
        for (int id = 1; id <= m_random.number(0, 14); ++id)
            addRule(id);
        const int filters = m_random.number(0, 4);
        for (int id = 1; id <= filters; ++id)
            addFilter(id);
        for (int id = 1; filters != 0 && id <= m_random.number(0, 8); ++id)
            addFilterRule(id, filters);
        return std::move(m_configuration);
    }

private:
    bool wrong() { return m_wrongOneIn != 0 && m_random.oneIn(m_wrongOneIn); }

    std::string text(const Texts& good, const Texts& bad) { return m_random.pick(wrong() ? bad : good); }
    std::int32_t number(const std::vector<int>& good, const std::vector<int>& bad)
    {
        return m_random.pick(wrong() ? bad : good);
    }

    std::string port()
    {
        return text({"eth0", "eth0", "eth1", "eth1", "wlan0", "eth+", "+", "! eth1"},
                    {"", "interface-name16", "-i", "eth 0", "a/b"});
    }
    std::string mac()
    {
        return text({"02:00:00:00:00:01", "02:00:00:00:00:02", "02:00:00:00:00:03",
                     "02:00:00:00:00:00/ff:ff:ff:ff:ff:fe", "! 02:00:00:00:00:01", "2:0:0:0:0:2"},
                    {"02:00:00:00:00", "02:00:00:00:00:0g", "02-00-00-00-00-01", "02:00:00:00:00:01/8", "nonsense"});
    }
    std::string ip4()
    {
        return text({"10.0.0.1", "10.0.0.2", "10.0.0.0/24", "10.0.0.0/8", "! 10.0.0.1", "10.0.0.2/255.0.0.255"},
                    {"10.0.0", "10.0.0.256", "10.0.0.0/33", "fe80::1", "host"});
    }
    std::string ip6()
    {
        return text({"fe80::1", "fe80::2", "fe80::/10", "2001:db8::/32", "! fe80::1"},
                    {"fe80::/129", "fe80:::1", "10.0.0.1", "::g"});
    }
    std::int32_t logging() { return m_random.oneIn(5) ? 1 : 0; }

    void addRow(Row row) { m_configuration.add(std::move(row)); }

    Row rowOf(TableId table, int id)
    {
        Row row(schema::table(table));
        row.set("Id", id);
        row.set("Enabled", m_random.oneIn(8) ? 0 : 1);
        return row;
    }

    void addPolicy(int id)
    {
        Row row = rowOf(TableId::InputPolicies, id);
        row.set("Interface", port());
        row.set("Policy", text({"ACCEPT", "DROP"}, {"RETURN", ""}));
        row.set("EnableLogging", logging());
        addRow(row);
    }

    void addForwardingPolicy(int id)
    {
        Row row = rowOf(TableId::ForwardingPolicies, id);
        row.set("InInterface", port());
        row.set("OutInterface", port());
        row.set("Policy", text({"ACCEPT", "DROP"}, {"drop", ""}));
        row.set("EnableLogging", logging());
        addRow(row);
    }

    void addRule(int id)
    {
        Row row = rowOf(TableId::Rules, id);
        row.set("RulePrio", number({1, 2, 3, -1}, {0}));
        row.set("InInterface", port());
        if (!m_random.oneIn(3))
            row.set("OutInterface", port());
        if (m_random.oneIn(3))
            row.set("DstMAC", mac());
        if (m_random.oneIn(3))
            row.set("SrcMAC", mac());
        if (m_random.oneIn(4))
            row.set("VLANID", number({0, 1, 100, 4094}, {4095, -2, 5000}));
        if (m_random.oneIn(2))
            addIp(row);
        else if (m_random.oneIn(2))
            row.set("Ethertype", text({"ARP", "0x888e", "0x0800", "ipv6", "! IPv4"}, {"0x5ff", "none", "0x12345"}));
        row.set("Target", text({"ACCEPT", "DROP"}, {"RETURN", "REJECT", ""}));
        row.set("EnableLogging", logging());
        addRow(row);
    }

    void addIp(Row& row)
    {
        const bool four = m_random.oneIn(2);
        row.set("Ethertype", m_random.pick(four ? Texts{"IPv4", "0x800"} : Texts{"IPv6", "0x86DD"}));
        if (m_random.oneIn(3))
            row.set("IPSrcAddr", four ? ip4() : ip6());
        if (m_random.oneIn(3))
            row.set("IPDstAddr", four ? ip4() : ip6());
        if (m_random.oneIn(2))
            row.set("IPProto", text({"TCP", "UDP"}, {"tcp", "ICMP"}));
        if (row.text("IPProto").empty() ? wrong() : m_random.oneIn(2))
            row.set("IPPort", number({53, 80, 65535}, {65536, -1}));
    }

    void addFilter(int id)
    {
        Row row = rowOf(TableId::Filters, id);
        row.set("Prio", number({1, 2, 10, 77}, {0, -1}));
        row.set("InInterface", text({"eth0", "eth1", "wlan0"}, {"", "long-interface1", "eth 0", "! eth0"}));
        row.set("OutInterface", text({"eth0", "eth1", "wlan0"}, {"", "long-interface2", "$x"}));
        row.set("MatchCriteria", text({"MAC", "mac", "IPv4", "ipv4", "IPv6", "ipv6", "VLAN", "vlan"}, {"", "Mac"}));
        row.set("Mode", text({"blacklist", "whitelist"}, {"", "Whitelist"}));
        addRow(row);
        // Two of the same name cannot be.
        const auto isAnother = [&](const Row& other) { return other.id() != id && sameChain(other, row); };
        if (m_wrongOneIn == 0 && std::ranges::any_of(m_configuration.rows(TableId::Filters), isAnother))
            m_configuration.remove(TableId::Filters, id);
    }

    static bool sameChain(const Row& a, const Row& b)
    {
        return a.integer("Prio") == b.integer("Prio") && a.text("InInterface") == b.text("InInterface") &&
               a.text("OutInterface") == b.text("OutInterface") && a.text("MatchCriteria") == b.text("MatchCriteria") &&
               a.text("Mode") == b.text("Mode");
    }

    void addFilterRule(int id, int filters)
    {
        Row row = rowOf(TableId::FilterRules, id);
        row.set("BridgeFilterID", wrong() ? 99 : m_random.number(1, filters));
        const Row* filter = m_configuration.find(TableId::Filters, row.integer("BridgeFilterID"));
        if (m_wrongOneIn == 0 && (filter == nullptr || filter->integer("Enabled") == 0))
            return;
        const char kind =
            filter == nullptr || filter->text("MatchCriteria").empty() ? 'm' : filter->text("MatchCriteria")[0];
        if (kind == 'v' || kind == 'V')
            row.set("FilterMatch", text({"0", "1", "100", "4094"}, {"4095", "4096", "-1", "100x", "abc"}));
        else if (kind == 'm' || kind == 'M')
            row.set("FilterMatch", mac());
        else
            row.set("FilterMatch", filter->text("MatchCriteria").back() == '4' ? ip4() : ip6());
        addRow(row);
    }

    Random& m_random;
    int m_wrongOneIn;
    Configuration m_configuration;
};

} // namespace

const std::vector<std::string>& ports()
{
    static const std::vector<std::string> names{"eth0", "eth1", "wlan0"};
    return names;
}

Configuration randomConfiguration(Random& random, int wrongOneIn)
{
    return Maker(random, wrongOneIn).make();
}

Frame randomFrame(Random& random)
{
    using moatctl::Ip4Address;
    using moatctl::Ip6Address;
    Frame frame;
    frame.in = random.pick(ports());
    if (!random.oneIn(3)) {
        do
            frame.out = random.pick(ports());
        while (frame.out == frame.in);
    }
    const auto byte = [&] { return static_cast<std::uint8_t>(random.number(1, 4)); };
    frame.source = moatctl::MacAddress{2, 0, 0, 0, 0, byte()};
    frame.destination = moatctl::MacAddress{2, 0, 0, 0, 0, byte()};
    if (random.oneIn(3))
        frame.vlan = moatctl::VlanTag{random.pick(std::vector<std::uint16_t>{0, 1, 100, 4094, 4095}),
                                      static_cast<std::uint8_t>(random.number(0, 7))};
    frame.type = random.pick(
        std::vector<std::uint16_t>{0x800, 0x800, 0x800, 0x86dd, 0x86dd, 0x86dd, 0x806, 0x888e, 0x40, 0x88b5});
    const Ip6Address address6{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, byte()};
    if (*frame.type == moatctl::ethertype::ip4) {
        frame.ip4Source = Ip4Address{10, static_cast<std::uint8_t>(random.number(0, 1)), 0, byte()};
        frame.ip4Destination = Ip4Address{10, 0, static_cast<std::uint8_t>(random.number(0, 1)), byte()};
    } else if (*frame.type == moatctl::ethertype::ip6) {
        frame.ip6Source = address6;
        frame.ip6Destination =
            random.oneIn(2) ? address6 : Ip6Address{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    } else {
        return frame;
    }
    frame.protocol = random.pick(std::vector<std::uint8_t>{6, 17, 6, 17, 58, 1, 59});
    if (*frame.protocol == 6 || *frame.protocol == 17) {
        frame.sourcePort = std::uint16_t{1234};
        frame.destinationPort = random.pick(std::vector<std::uint16_t>{53, 80, 81, 65535});
        frame.laterFragment = random.oneIn(8);
    }
    return frame;
}

} // namespace test
