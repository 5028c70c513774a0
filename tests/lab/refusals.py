"""Command lines of which one in ten is refused, for reasons of several kinds."""

REFUSED = {
    "chain": lambda number: f"ebtables -A Missing -s 02:00:00:00:{number >> 8:02x}:{number & 255:02x} -j DROP",
    "jump": lambda number: f"ebtables -A U -i eth{number} -j Missing",
    "delete": lambda number: f"ebtables -D U -i eth{number} -j DROP",
    "kernel": lambda number: "kernel-refuses U",  # understood by queue_driver --direct
}


def lines(count, kind):
    """A chain U and `count` rules for it; kind: one of REFUSED, or "none"."""
    result = ["ebtables -N U"]
    for number in range(count):
        if kind != "none" and number % 10 == 3:
            result.append(REFUSED[kind](number))
        else:
            result.append(f"ebtables -A U -s 02:00:00:00:{number >> 8:02x}:{number & 255:02x} -j DROP")
    return result
