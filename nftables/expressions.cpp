#include "nftables/expressions.hpp"

#include "ebtables/operands.hpp"

#include <arpa/inet.h> // before the kernel's headers, which then leave out what it has

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter_bridge/ebt_ip.h>
#include <linux/netfilter_bridge/ebt_ip6.h>
#include <linux/netfilter_bridge/ebt_log.h>
#include <linux/netfilter_bridge/ebt_vlan.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <span>
#include <string_view>

namespace nftables
{

namespace
{

using ebtables::Rule;
using Kind = ExpressionKind;

// Where the fields are in an Ethernet header.
constexpr std::uint32_t destinationAt = 0;
constexpr std::uint32_t sourceAt = 6;
constexpr std::uint32_t typeAt = 12;
constexpr std::uint16_t smallestType = 0x600; // below it the field is a length

constexpr std::uint32_t code(int verdict)
{
    return static_cast<std::uint32_t>(verdict);
}

std::array<std::uint8_t, 2> bigEndian(std::uint16_t number)
{
    return {static_cast<std::uint8_t>(number >> 8U), static_cast<std::uint8_t>(number & 0xffU)};
}

std::uint16_t networkOrder(std::uint16_t number)
{
    return std::bit_cast<std::uint16_t>(bigEndian(number));
}

void copyName(Expression& expression, std::string_view name)
{
    std::ranges::copy(name, expression.name.begin());
}

class Encoder
{
public:
    explicit Encoder(Expressions& into) : m_into(into)
    {
        m_into.list.clear();
        m_into.chain.clear();
        m_into.counters = {};
    }

    void encode(const Rule& rule)
    {
        addInterface(NFT_META_IIFNAME, rule.in);
        addInterface(NFT_META_OIFNAME, rule.out);
        addMac(sourceAt, rule.source);
        addMac(destinationAt, rule.destination);
        addEthertype(rule.ethertype);
        if (rule.ip.any())
            addIp<4, ebt_ip_info>(EBT_IP_MATCH, rule.ip);
        if (rule.ip6.any())
            addIp<16, ebt_ip6_info>(EBT_IP6_MATCH, rule.ip6);
        if (rule.vlan.any())
            addVlan(rule.vlan);
        if (rule.log)
            addLog(*rule.log);
        add(Kind::Counter);
        addTarget(rule.target);
    }

private:
    Expression& add(Kind kind)
    {
        Expression& added = m_into.list.emplace_back();
        added.kind = kind;
        return added;
    }

    static void setData(Expression& expression, const void* data, std::size_t size)
    {
        expression.size = static_cast<std::uint8_t>(size);
        std::memcpy(expression.data.data(), data, size);
    }

    void addPayload(std::uint32_t offset, std::uint32_t length)
    {
        Expression& load = add(Kind::Payload);
        load.offset = offset;
        load.length = length;
    }

    void addCompare(std::uint32_t operation, const void* data, std::size_t size)
    {
        Expression& compare = add(Kind::Compare);
        compare.key = operation;
        setData(compare, data, size);
    }

    static std::uint32_t equality(bool negated) { return negated ? NFT_CMP_NEQ : NFT_CMP_EQ; }

    void addInterface(std::uint32_t key, const std::optional<ebtables::InterfaceMatch>& match)
    {
        if (!match)
            return;
        add(Kind::Meta).key = key;
        // With its final zero a name must be the whole one.
        addCompare(equality(match->negated), match->name.c_str(), match->name.size() + (match->prefix ? 0 : 1));
    }

    void addMac(std::uint32_t offset, const std::optional<ebtables::MacMatch>& match)
    {
        if (!match)
            return;
        const auto& mask = match->mask;
        const auto* const end = std::ranges::find_if(mask, [](std::uint8_t byte) { return byte != 0xff; });
        const auto ones = static_cast<std::uint32_t>(end - mask.begin());
        const bool wholeBytes = ones > 0 && std::all_of(end, mask.end(), [](std::uint8_t byte) { return byte == 0; });
        const std::uint32_t length = wholeBytes ? ones : static_cast<std::uint32_t>(mask.size());
        addPayload(offset, length);
        if (!wholeBytes)
            setData(add(Kind::Bitwise), mask.data(), mask.size());
        addCompare(equality(match->negated), match->address.data(), length);
    }

    void addEthertype(const std::optional<ebtables::EthertypeMatch>& match)
    {
        if (!match)
            return;
        addPayload(typeAt, 2);
        const auto number = bigEndian(match->lengthField ? smallestType : match->number);
        if (match->lengthField)
            addCompare(match->negated ? NFT_CMP_GTE : NFT_CMP_LT, number.data(), number.size());
        else
            addCompare(equality(match->negated), number.data(), number.size());
    }

    void addExtension(Kind kind, const char* name, const void* info, std::size_t size)
    {
        Expression& extension = add(kind);
        copyName(extension, name);
        setData(extension, info, size);
        extension.size = static_cast<std::uint8_t>((size + 7) & ~std::size_t{7}); // as extensions are aligned
    }

    template <std::size_t N, typename Info>
    void addIp(const char* name, const ebtables::IpMatches<N>& ip)
    {
        Info info{};
        // The bits are the same for both versions.
        const auto set = [&](unsigned bit, bool negated) {
            info.bitmask = static_cast<std::uint8_t>(info.bitmask | bit);
            info.invflags = static_cast<std::uint8_t>(info.invflags | (negated ? bit : 0));
        };
        if (ip.source) {
            set(EBT_IP_SOURCE, ip.source->negated);
            std::memcpy(&info.saddr, ip.source->address.data(), N);
            std::memcpy(&info.smsk, ip.source->mask.data(), N);
        }
        if (ip.destination) {
            set(EBT_IP_DEST, ip.destination->negated);
            std::memcpy(&info.daddr, ip.destination->address.data(), N);
            std::memcpy(&info.dmsk, ip.destination->mask.data(), N);
        }
        if (ip.protocol) {
            set(EBT_IP_PROTO, ip.protocol->negated);
            info.protocol = static_cast<std::uint8_t>(ip.protocol->first);
        }
        if (ip.sourcePort) {
            set(EBT_IP_SPORT, ip.sourcePort->negated);
            info.sport[0] = ip.sourcePort->first;
            info.sport[1] = ip.sourcePort->last;
        }
        if (ip.destinationPort) {
            set(EBT_IP_DPORT, ip.destinationPort->negated);
            info.dport[0] = ip.destinationPort->first;
            info.dport[1] = ip.destinationPort->last;
        }
        addExtension(Kind::Match, name, &info, sizeof info);
    }

    void addVlan(const ebtables::VlanMatches& vlan)
    {
        ebt_vlan_info info;
        std::memset(&info, 0, sizeof info); // its padding too
        const auto set = [&](unsigned bit, bool negated) {
            info.bitmask = static_cast<std::uint8_t>(info.bitmask | bit);
            info.invflags = static_cast<std::uint8_t>(info.invflags | (negated ? bit : 0));
        };
        if (vlan.id) {
            set(EBT_VLAN_ID, vlan.id->negated);
            info.id = vlan.id->first;
        }
        if (vlan.priority) {
            set(EBT_VLAN_PRIO, vlan.priority->negated);
            info.prio = static_cast<std::uint8_t>(vlan.priority->first);
        }
        if (vlan.encapsulated) {
            set(EBT_VLAN_ENCAP, vlan.encapsulated->negated);
            info.encap = networkOrder(vlan.encapsulated->number);
        }
        addExtension(Kind::Match, EBT_VLAN_MATCH, &info, sizeof info);
    }

    void addLog(const ebtables::LogOptions& log)
    {
        ebt_log_info info;
        std::memset(&info, 0, sizeof info);
        info.loglevel = static_cast<std::uint8_t>(log.level);
        std::memcpy(info.prefix, log.prefix.data(), std::min(log.prefix.size(), sizeof info.prefix - 1));
        info.bitmask = (log.ip ? EBT_LOG_IP : 0U) | (log.arp ? EBT_LOG_ARP : 0U) | (log.ip6 ? EBT_LOG_IP6 : 0U);
        addExtension(Kind::Target, EBT_LOG_WATCHER, &info, sizeof info);
    }

    void addTarget(const std::string& target)
    {
        if (target == "CONTINUE")
            return;
        Expression& verdict = add(Kind::Verdict);
        if (target == "ACCEPT") {
            verdict.key = NF_ACCEPT;
        } else if (target == "DROP") {
            verdict.key = NF_DROP;
        } else if (target == "RETURN") {
            verdict.key = code(NFT_RETURN);
        } else {
            verdict.key = code(NFT_JUMP);
            m_into.chain = target;
        }
    }

    Expressions& m_into;
};

// Takes the expressions one after the other; what does not fit is left for the comparison at the end.
class Decoder
{
public:
    explicit Decoder(const Expressions& from) : m_from(from) {}

    std::optional<Rule> decode()
    {
        Rule rule;
        takeInterface(NFT_META_IIFNAME, rule.in);
        takeInterface(NFT_META_OIFNAME, rule.out);
        takeMac(sourceAt, rule.source);
        takeMac(destinationAt, rule.destination);
        takeEthertype(rule.ethertype);
        if (const auto* ip = takeExtension<ebt_ip_info>(Kind::Match, EBT_IP_MATCH))
            readIp<4>(load<ebt_ip_info>(*ip), rule.ip);
        else if (const auto* ip6 = takeExtension<ebt_ip6_info>(Kind::Match, EBT_IP6_MATCH))
            readIp<16>(load<ebt_ip6_info>(*ip6), rule.ip6);
        else if (const auto* vlan = takeExtension<ebt_vlan_info>(Kind::Match, EBT_VLAN_MATCH))
            readVlan(load<ebt_vlan_info>(*vlan), rule.vlan);
        if (const auto* log = takeExtension<ebt_log_info>(Kind::Target, EBT_LOG_WATCHER))
            readLog(load<ebt_log_info>(*log), rule.log);
        take(Kind::Counter);
        if (!takeTarget(rule.target) || m_at != m_from.list.size())
            return std::nullopt;
        Expressions again;
        encode(rule, again);
        std::vector<Expression> found = m_from.list;
        for (const std::size_t dead : m_deadLoads)
            found.erase(found.begin() + static_cast<std::ptrdiff_t>(dead));
        if (again.list != found || again.chain != m_from.chain)
            return std::nullopt;
        return rule;
    }

private:
    static void encode(const Rule& rule, Expressions& into) { nftables::encode(rule, into); }

    const Expression* peek(Kind kind, std::size_t ahead = 0) const
    {
        const std::size_t at = m_at + ahead;
        return at < m_from.list.size() && m_from.list[at].kind == kind ? &m_from.list[at] : nullptr;
    }

    const Expression* take(Kind kind)
    {
        const Expression* found = peek(kind);
        m_at += found != nullptr ? 1 : 0;
        return found;
    }

    void takeInterface(std::uint32_t key, std::optional<ebtables::InterfaceMatch>& match)
    {
        if (const Expression* meta = peek(Kind::Meta); meta == nullptr || meta->key != key)
            return;
        ++m_at;
        const Expression* compare = take(Kind::Compare);
        if (compare == nullptr) { // `-i +`: loaded and never looked at
            m_deadLoads.insert(m_deadLoads.begin(), m_at - 1);
            return;
        }
        match.emplace();
        match->negated = compare->key == NFT_CMP_NEQ;
        const auto* const begin = reinterpret_cast<const char*>(compare->data.data());
        const std::string_view bytes(begin, compare->size);
        match->prefix = !bytes.ends_with('\0');
        match->name = bytes.substr(0, bytes.find('\0'));
        if (match->name.empty() || match->name.size() > ebtables::maxInterfaceName ||
            std::ranges::any_of(match->name, [](char c) { return c <= ' ' || c > '~' || c == '"' || c == '+'; }))
            giveUp();
    }

    // Nothing that could not be written as a word again.
    void giveUp() { m_at = m_from.list.size() + 1; }

    void takeMac(std::uint32_t offset, std::optional<ebtables::MacMatch>& match)
    {
        const Expression* payload = peek(Kind::Payload);
        if (payload == nullptr || payload->offset != offset || payload->length > 6)
            return;
        const Expression* bitwise = peek(Kind::Bitwise, 1);
        const Expression* compare = peek(Kind::Compare, bitwise != nullptr ? 2 : 1);
        if (compare == nullptr || compare->size > 6)
            return;
        m_at += bitwise != nullptr ? 3 : 2;
        match.emplace();
        match->mask = {};
        if (bitwise != nullptr)
            std::copy_n(bitwise->data.begin(), 6, match->mask.begin());
        else
            std::fill_n(match->mask.begin(), payload->length, std::uint8_t{0xff});
        std::copy_n(compare->data.begin(), compare->size, match->address.begin());
        match->negated = compare->key == NFT_CMP_NEQ;
    }

    void takeEthertype(std::optional<ebtables::EthertypeMatch>& match)
    {
        const Expression* payload = peek(Kind::Payload);
        const Expression* compare = peek(Kind::Compare, 1);
        if (payload == nullptr || payload->offset != typeAt || compare == nullptr)
            return;
        m_at += 2;
        match.emplace();
        match->lengthField = compare->key == NFT_CMP_LT || compare->key == NFT_CMP_GTE;
        match->negated = compare->key == NFT_CMP_NEQ || compare->key == NFT_CMP_GTE;
        if (!match->lengthField)
            match->number = static_cast<std::uint16_t>(compare->data[0] << 8U | compare->data[1]);
    }

    template <typename Info>
    const Expression* takeExtension(Kind kind, std::string_view name)
    {
        static_assert(sizeof(Info) <= Expression::maxData);
        const Expression* extension = peek(kind);
        if (extension == nullptr || std::string_view(extension->name.data()) != name)
            return nullptr;
        ++m_at;
        return extension;
    }

    template <typename Info>
    static Info load(const Expression& extension)
    {
        Info info;
        std::memcpy(&info, extension.data.data(), sizeof info);
        return info;
    }

    static ebtables::RangeMatch range(unsigned first, unsigned last, bool negated)
    {
        return {static_cast<std::uint16_t>(first), static_cast<std::uint16_t>(last), negated};
    }

    template <std::size_t N, typename Info>
    static void readIp(const Info& info, ebtables::IpMatches<N>& ip)
    {
        const auto has = [&](unsigned bit) { return (info.bitmask & bit) != 0; };
        const auto negated = [&](unsigned bit) { return (info.invflags & bit) != 0; };
        const auto network = [&](unsigned bit, const auto& address, const auto& mask, auto& match) {
            if (!has(bit))
                return;
            match.emplace();
            std::memcpy(match->address.data(), &address, N);
            std::memcpy(match->mask.data(), &mask, N);
            match->negated = negated(bit);
        };
        network(EBT_IP_SOURCE, info.saddr, info.smsk, ip.source);
        network(EBT_IP_DEST, info.daddr, info.dmsk, ip.destination);
        if (has(EBT_IP_PROTO))
            ip.protocol = range(info.protocol, info.protocol, negated(EBT_IP_PROTO));
        if (has(EBT_IP_SPORT))
            ip.sourcePort = range(info.sport[0], info.sport[1], negated(EBT_IP_SPORT));
        if (has(EBT_IP_DPORT))
            ip.destinationPort = range(info.dport[0], info.dport[1], negated(EBT_IP_DPORT));
    }

    static void readVlan(const ebt_vlan_info& info, ebtables::VlanMatches& vlan)
    {
        const auto has = [&](unsigned bit) { return (info.bitmask & bit) != 0; };
        const auto negated = [&](unsigned bit) { return (info.invflags & bit) != 0; };
        if (has(EBT_VLAN_ID))
            vlan.id = range(info.id, info.id, negated(EBT_VLAN_ID));
        if (has(EBT_VLAN_PRIO))
            vlan.priority = range(info.prio, info.prio, negated(EBT_VLAN_PRIO));
        if (has(EBT_VLAN_ENCAP))
            vlan.encapsulated = ebtables::EthertypeMatch{networkOrder(info.encap), false, negated(EBT_VLAN_ENCAP)};
    }

    void readLog(const ebt_log_info& info, std::optional<ebtables::LogOptions>& log)
    {
        log.emplace();
        const auto* const prefix = reinterpret_cast<const char*>(info.prefix);
        log->prefix.assign(prefix, strnlen(prefix, sizeof info.prefix));
        if (!std::ranges::all_of(log->prefix, [](char c) { return c >= ' ' && c <= '~' && c != '"'; }))
            giveUp();
        log->level = info.loglevel;
        log->ip = (info.bitmask & EBT_LOG_IP) != 0;
        log->arp = (info.bitmask & EBT_LOG_ARP) != 0;
        log->ip6 = (info.bitmask & EBT_LOG_IP6) != 0;
    }

    bool takeTarget(std::string& target)
    {
        const Expression* verdict = take(Kind::Verdict);
        if (verdict == nullptr)
            target = "CONTINUE";
        else if (verdict->key == NF_ACCEPT)
            target = "ACCEPT";
        else if (verdict->key == NF_DROP)
            target = "DROP";
        else if (verdict->key == code(NFT_RETURN))
            target = "RETURN";
        else if (verdict->key == code(NFT_JUMP) && ebtables::isChainName(m_from.chain))
            target = m_from.chain;
        else
            return false;
        return true;
    }

    const Expressions& m_from;
    std::size_t m_at = 0;
    std::vector<std::size_t> m_deadLoads; // the last one first
};

} // namespace

void encode(const Rule& rule, Expressions& expressions)
{
    Encoder(expressions).encode(rule);
}

std::optional<Rule> decode(const Expressions& expressions)
{
    return Decoder(expressions).decode();
}

} // namespace nftables
