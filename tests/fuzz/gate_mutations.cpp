// Random lines, made from good ones: what the gate lets through changes nothing but what the rows of a configuration
// may change. usage: gate_mutations [NUMBER OF LINES [SEED]]
#include "tests/fuzz/table_guard.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace
{

using Random = std::mt19937_64;

std::string jump(const std::string& command, const std::string& protocol, const std::string& chain)
{
    return "ebtables " + command + " -i p2 -o p1" + protocol + " -j " + chain + ";ebtables " + command +
           " -o p2 -i p1" + protocol + " -j " + chain + ";";
}

std::vector<std::string> goodLines()
{
    std::vector<std::string> lines{
        "ebtables -A INPUT -j UserInputRules",
        "ebtables -A INPUT -j UserInputPolicy",
        "ebtables -A FORWARD -j UserForwardRules",
        "ebtables -A FORWARD -j UserForwardPolicy",
        "ebtables -D INPUT -j UserInputRules",
        "ebtables -D FORWARD -j UserForwardPolicy",
        "ebtables -P INPUT DROP",
        "ebtables -P FORWARD ACCEPT",
        "ebtables -A UserInputRules -i p1 -s 02:00:00:00:00:01 -j ACCEPT",
        "ebtables -A UserInputRules -i p1 -d Multicast -p ARP -j DROP",
        "ebtables -A UserInputRules -i eth+ -p 802_1Q --vlan-id 7 --vlan-encap IPv4 -j DROP",
        "ebtables -A UserForwardRules -i p1 -o p2 -p IPv4 --ip-source 192.0.2.0/24 --ip-destination ! 10.0.0.1 "
        "--ip-protocol 6 --ip-destination-port 80 --log --log-prefix \"Moatkeeper denied: \" -j DROP",
        "ebtables -A UserForwardRules -i ! p1 -o p2 -p 0x86DD --ip6-destination fe80::1 --ip6-protocol 17 "
        "--ip6-destination-port 53 --log --log-prefix \"Moatkeeper accepted: \" -j ACCEPT",
        "ebtables -A UserInputPolicy -i p1 --log --log-prefix \"Moatkeeper denied: \" -j DROP",
        "ebtables -A UserForwardPolicy -i p1 -o p3 -j ACCEPT",
    };
    for (const std::string chain : {"UserInputRules", "UserInputPolicy", "UserForwardRules", "UserForwardPolicy"}) {
        for (const std::string command : {"-N ", "-F ", "-X "})
            lines.push_back("ebtables " + command + chain);
        lines.push_back("ebtables -P " + chain + " RETURN");
    }
    // Chains of ours, and two that somebody else has.
    for (const auto& [chain, protocol] :
         std::initializer_list<std::pair<std::string, std::string>>{{"9p2p1ipv4blacklist", " -p 0x800 "},
                                                                    {"12p2p1IPv6whitelist", " -p 0x86dd "},
                                                                    {"3p2p1VLANblacklist", " -p 0x8100 "},
                                                                    {"4p2p1macblacklist", ""},
                                                                    {"FilterID12", ""},
                                                                    {"FilterID7", ""},
                                                                    {"7p1p2macblacklist", ""}}) {
        lines.push_back("ebtables -N " + chain + "; ebtables -P " + chain +
                        (chain.ends_with("blacklist") ? " RETURN" : " DROP"));
        lines.push_back(jump("-I FORWARD 1", protocol, chain));
        lines.push_back(jump("-D FORWARD", protocol, chain));
        lines.push_back("ebtables -F " + chain + "; ebtables -X " + chain);
        lines.push_back("ebtables -A " + chain + " -s 02:00:00:00:00:01 -j DROP");
        lines.push_back("ebtables -A " + chain + " -p 0x800 --ip-source 192.0.2.1 -j RETURN");
        lines.push_back("ebtables -A " + chain + " -p 0x86DD --ip6-source fe80::/10 -j RETURN");
        lines.push_back("ebtables -A " + chain + " -p 802_1Q --vlan-id 100 -j DROP");
    }
    return lines;
}

const char* const words[] = {"ebtables",
                             "-A",
                             "-I",
                             "-D",
                             "-N",
                             "-X",
                             "-F",
                             "-P",
                             "-E",
                             "-L",
                             "-Z",
                             "-t",
                             "-i",
                             "-o",
                             "-s",
                             "-d",
                             "-p",
                             "-j",
                             "!",
                             ";",
                             "\"",
                             "'",
                             "1",
                             "2",
                             "0",
                             "-1",
                             "INPUT",
                             "OUTPUT",
                             "FORWARD",
                             "theirs",
                             "UserInputRules",
                             "UserInputPolicy",
                             "UserForwardRules",
                             "UserForwardPolicy",
                             "FilterID7",
                             "FilterID12",
                             "7p1p2macblacklist",
                             "9p2p1ipv4blacklist",
                             "4p2p1macblacklist",
                             "BROUTING",
                             "nat",
                             "ACCEPT",
                             "DROP",
                             "RETURN",
                             "CONTINUE",
                             "mark",
                             "dnat",
                             "--log",
                             "--log-prefix",
                             "--log-level",
                             "--log-ip",
                             "--vlan-id",
                             "--vlan-prio",
                             "--vlan-encap",
                             "--ip-source",
                             "--ip6-source",
                             "--ip-protocol",
                             "--ip-destination",
                             "--ip-source-port",
                             "--ip-destination-port",
                             "--jump",
                             "--append",
                             "--in-interface",
                             "p1",
                             "p2",
                             "p1 p2",
                             "02:00:00:00:00:01",
                             "IPv4",
                             "802_1Q",
                             "0x800",
                             "192.0.2.1",
                             "$(x)",
                             "|",
                             "&&",
                             "\t",
                             "\n",
                             "\xc2\xa0",
                             "\"Moatkeeper denied: \"",
                             "\"Moatkeeper accepted: \"",
                             ";ebtables -F FORWARD",
                             "; ebtables -X theirs",
                             "-j DROP"};

// Operands of a kind, one of which may stand for another.
const std::vector<std::vector<std::string>> operands{
    {"p1", "p2", "p3", "eth+", "+", "! p1", "br-lan"},
    {"02:00:00:00:00:01", "02:00:00:00:00:02", "! Broadcast", "Multicast"},
    {"192.0.2.0/24", "192.0.2.1", "10.0.0.1", "10.0.0.0/8", "! 10.0.0.0/255.0.0.0"},
    {"fe80::1", "fe80::/10", "! 2001:db8::/32"},
    {"7", "100", "80", "53", "4094", "! 5"},
    {"IPv4", "ARP", "0x0800", "0x86DD", "802_1Q", "LENGTH"},
    {"6", "17"},
    {"ACCEPT", "DROP", "RETURN"},
    {"UserInputRules", "UserInputPolicy", "UserForwardRules", "UserForwardPolicy", "INPUT", "FORWARD", "OUTPUT"},
    {"9p2p1ipv4blacklist", "12p2p1IPv6whitelist", "4p2p1macblacklist", "FilterID12", "FilterID7", "7p1p2macblacklist"}};

std::vector<std::string> split(const std::string& line)
{
    std::vector<std::string> result(1);
    for (const char c : line) {
        if (c == ' ')
            result.emplace_back();
        else
            result.back() += c;
    }
    return result;
}

std::string join(const std::vector<std::string>& parts)
{
    std::string line;
    for (const std::string& part : parts)
        line += (&part == &parts.front() ? "" : " ") + part;
    return line;
}

void mutate(std::string& line, const std::vector<std::string>& good, Random& random)
{
    const auto below = [&](std::size_t end) { return std::uniform_int_distribution<std::size_t>(0, end - 1)(random); };
    std::vector<std::string> parts = split(line);
    const std::size_t at = below(parts.size());
    const auto place = parts.begin() + static_cast<std::ptrdiff_t>(at);
    const std::string word = words[below(std::size(words))];
    switch (below(14)) {
    case 0: // another word
        parts[at] = word;
        break;
    case 1: // one more
        parts.insert(place, word);
        break;
    case 2: // one less
        parts.erase(place);
        break;
    case 3: // twice
        parts.insert(place, parts[below(parts.size())]);
        break;
    case 4: // another order
        std::swap(parts[at], parts[below(parts.size())]);
        break;
    case 5: // a word of another line
    {
        const std::vector<std::string> others = split(good[below(good.size())]);
        parts[at] = others[below(others.size())];
        break;
    }
    case 6: // the end of another line
    {
        const std::string& other = good[below(good.size())];
        line = line.substr(0, below(line.size() + 1)) + other.substr(below(other.size()));
        return;
    }
    case 7: // two lines in one
        line += (below(2) == 0 ? ";" : "; ") + good[below(good.size())];
        return;
    case 8: // any byte
        line.insert(below(line.size() + 1), 1, static_cast<char>(below(256)));
        return;
    case 10: // another operand
    case 11:
    case 12:
        for (const std::vector<std::string>& kind : operands) {
            if (std::ranges::find(kind, parts[at]) != kind.end()) {
                parts[at] = kind[below(kind.size())];
                break;
            }
        }
        break;
    case 9:
        if (!line.empty())
            line[below(line.size())] = static_cast<char>(below(256));
        return;
    default: // the same word elsewhere: a chain, a port
        for (const std::string old = parts[at]; std::string & part : parts) {
            if (part == old || part.starts_with(old + ";"))
                part = word + part.substr(old.size());
        }
    }
    line = join(parts);
}

} // namespace

int main(int argc, char** argv)
{
    const char* const wanted = argc > 1 ? argv[1] : std::getenv("MOATKEEPER_GATE_LINES");
    const unsigned long count = wanted != nullptr ? std::strtoul(wanted, nullptr, 10) : 100000;
    const unsigned long seed = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : std::random_device()();
    std::printf("seed %lu\n", seed);
    std::fflush(stdout);
    Random random(seed);
    const std::vector<std::string> good = goodLines();
    GuardedGate gate;
    unsigned long changed = 0;
    unsigned long acceptedChanged = 0;
    for (unsigned long i = 0; i < count; ++i) {
        const std::string& from = good[random() % good.size()];
        std::string line = from;
        for (unsigned long mutations = random() % 4; mutations > 0; --mutations)
            mutate(line, good, random);
        const unsigned long before = gate.accepted;
        gate.take(line);
        if (line != from) {
            ++changed;
            acceptedChanged += gate.accepted - before;
        }
    }
    std::printf("%lu lines, %lu of them changed; accepted %lu, %lu of them changed; %lu commands carried out\n", count,
                changed, gate.accepted, acceptedChanged, gate.carriedOut);
    // Otherwise nothing was tried.
    return gate.accepted > count / 10 && acceptedChanged > count / 1000 && gate.carriedOut > count / 20 ? 0 : 1;
}
