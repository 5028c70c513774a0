"""Values that somebody would put into a text column to make the daemon do something else than what the row says."""

import itertools

FOREIGN = "theirs"
LIKE_A_FILTER = "7p1p2macblacklist"  # somebody else's chain with a name as the daemon gives it

COMMANDS = ("-F", "-F FORWARD", "-F OUTPUT", f"-F {FOREIGN}", f"-X {FOREIGN}", "-X", "-Z", "--init-table",
            "-P OUTPUT DROP", "-P FORWARD DROP", "-A OUTPUT -j DROP", "-A OUTPUT", "-I OUTPUT 1 -j ACCEPT",
            "-D FORWARD -j UserForwardRules", "-D INPUT -j UserInputRules", f"-A FORWARD -j {FOREIGN}",
            f"-A {FOREIGN} -j DROP", f"-F {LIKE_A_FILTER}", f"-X {LIKE_A_FILTER}", f"-P {LIKE_A_FILTER} DROP",
            "-N mine", "-E theirs mine", "-t nat -F", "-t broute -F", "-F UserInputRules", "-F UserForwardRules",
            "-F UserInputPolicy", "-F UserForwardPolicy", "-X UserInputRules", "-A UserForwardRules -j UserForwardRules",
            "-A UserForwardRules -j UserForwardPolicy", "-A UserForwardPolicy -j UserForwardRules",
            "--atomic-file /tmp/x --atomic-save", "-L", "--version")

OPTIONS = ("-A", "-C", "-D", "-E", "-F", "-I", "-L", "-M", "-N", "-P", "-V", "-X", "-Z", "-c", "-d", "-h", "-i", "-j",
           "-o", "-p", "-s", "-t", "--append", "--change-counters", "--check", "--delete", "--delete-chain", "--flush",
           "--insert", "--list", "--new-chain", "--policy", "--rename-chain", "--zero", "--Lc", "--Ln", "--Lx", "--Lmac2",
           "--init-table", "--atomic-init", "--atomic-save", "--atomic-commit", "--atomic-file", "--concurrent",
           "--modprobe", "--set-counters", "--table", "--protocol", "--proto", "--source", "--src", "--destination",
           "--dst", "--in-interface", "--in-if", "--out-interface", "--out-if", "--logical-in", "--logical-out", "--jump",
           "--ip-source", "--ip-src", "--ip-destination", "--ip-dst", "--ip-tos", "--ip-protocol", "--ip-proto",
           "--ip-source-port", "--ip-sport", "--ip-destination-port", "--ip-dport", "--ip-icmp-type", "--ip-igmp-type",
           "--ip6-source", "--ip6-src", "--ip6-destination", "--ip6-dst", "--ip6-tclass", "--ip6-protocol",
           "--ip6-proto", "--ip6-source-port", "--ip6-sport", "--ip6-destination-port", "--ip6-dport",
           "--ip6-icmp-type", "--vlan-id", "--vlan-prio", "--vlan-encap", "--arp-opcode", "--arp-htype",
           "--arp-ptype", "--arp-ip-src", "--arp-ip-dst", "--arp-mac-src", "--arp-mac-dst", "--arp-gratuitous",
           "--among-src", "--among-dst", "--among-src-file", "--among-dst-file", "--802_3-sap", "--802_3-type",
           "--limit", "--limit-burst", "--mark", "--mark-set", "--mark-or", "--mark-and", "--mark-xor", "--mark-target",
           "--pkttype-type", "--stp-type", "--stp-flags", "--string-algo", "--string", "--string-hex", "--log",
           "--log-level", "--log-prefix", "--log-ip", "--log-arp", "--log-ip6", "--nflog", "--nflog-group",
           "--nflog-prefix", "--ulog", "--arpreply-mac", "--arpreply-target", "--dnat-target", "--to-destination",
           "--redirect-target", "--snat-target", "--snat-arp", "--to-source", "--among-dst")

SEPARATORS = (";", "; ", " ; ", "\n", "\r\n", " && ", " | ", " || ", "`", "$(", "& ", "\";", "';", "\t;\t")

CHAINS = (FOREIGN, LIKE_A_FILTER, "OUTPUT", "INPUT", "FORWARD", "UserInputRules", "UserInputPolicy",
          "UserForwardRules", "UserForwardPolicy", "ACCEPT", "DROP", "RETURN", "CONTINUE", "mark", "dnat", "snat")

BLANKS = (" ", "\t", "\n", "\v", "\f", "\r", "\x85", "\xa0", "\u1680", "\u2000", "\u2003", "\u2028", "\u2029", "\u202f",
          "\u205f", "\u3000", "\u200b", "\ufeff")

LENGTHS = (14, 15, 16, 17, 18, 28, 29, 30, 31, 32, 33, 37, 38, 93, 94, 255, 256, 4095, 4096, 4097, 65536, 1 << 20)


def forColumn(good):
    """At least 2,000 different values; `good` is a value that the column may hold."""
    values = [
        f"{good} -j DROP;ebtables -F FORWARD;ebtables -X {FOREIGN};ebtables -A OUTPUT",
        f"{good} -p ARP", f"{good} -p ARP -j ACCEPT", "! ", "!", "! !", "! -F", "! -j", "--", "-", "-1", "-1 -F", "!-1",
        "$(reboot)", "`reboot`", "${IFS}", "%s%s%n", "../../etc/passwd", "\\", "\\n", "\\x3b", "&#59;", "%3B", "*", "?",
        "~root", "{a,b}", "0x", "0x100000000", "4096", "65536", "99999999999999999999", "1e9", "nan", "null", "true"]
    for prefix in ("", good, good + " "):
        values += [prefix + separator + "ebtables " + command
                   for separator, command in itertools.product(SEPARATORS, COMMANDS)]
    for option in OPTIONS:
        values += [option, f"{good} {option}", f"{option} {good}", f"{good} {option} {FOREIGN}", f"! {option}"]
    for chain in CHAINS:
        values += [chain, f"{good} -j {chain}", f"-j {chain}", f"{good};{chain}"]
    for quote in ("\"", "'", "`", "\u201c", "\u2019"):
        values += [quote, quote + good, good + quote, quote + good + quote, good[:1] + quote + good[1:], quote * 2,
                   f"{good}{quote} -F {quote}"]
    for blank in BLANKS:
        values += [blank, blank + good, good + blank, good[:1] + blank + good[1:], blank * 2, f"!{blank}{good}",
                   f"!{blank}{blank}{good}", f"{good}{blank}-F"]
    for byte in range(1, 256):  # 0 is for the raw ones below
        values += [chr(byte), good + chr(byte), chr(byte) + good]
    values += ["a" * length for length in LENGTHS]
    values += ["\u20ac", "\U0001f525", good + "\u0301", "\u202e" + good]
    return list(dict.fromkeys(values))


# What no JSON text may hold, as it would stand between the quotation marks of one.
RAW = [b"\\u0000", b"a\\u0000b", b"\x00", b"a\x00b", b"\\ud800", b"\\udc00x", b"\\ud800\\ud800", b"\n", b"\x01"] + \
      [bytes([byte]) for byte in range(0x80, 0x100)] + [b"\xc0\xaf", b"\xed\xa0\x80", b"\xf8\x88\x80\x80\x80", b"\xc3"]
