"""moatctl's help, manual page and completion, and command lines and files that are wrong."""

import fcntl
import json
import os
import pathlib
import re
import shutil
import struct
import subprocess
import termios

from moatctl_case import BAD_INPUT, COMPLETION, MANUAL, MOATCTL, OK, Case, main, read_terminal
from lab import config
from lab.programs import SCHEMA


class CommandLine(Case):
    def words_after(self, *words):
        script = f'source {COMPLETION}; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _moatctl; printf "%s\\n" "${{COMPREPLY[@]}}"'
        done = subprocess.run(["bash", "-c", script, "bash", MOATCTL, *words], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True, timeout=10)
        self.assertEqual(done.stderr, "")
        return done.stdout.split()

    def verbs(self, path=()):
        text = self.ok(*path, "--help")
        if "\nSubcommands:\n" not in text:
            return
        block = text.split("\nSubcommands:\n")[1].split("\n\n")[0]
        for name in re.findall(r"^  (\S+) ", block, re.M):
            yield (*path, name)
            yield from self.verbs((*path, name))

    def test_every_verb_has_help_example_manual_and_completion(self):
        manual = pathlib.Path(MANUAL).read_text()
        verbs = list(self.verbs())
        self.assertGreater(len(verbs), 35)
        for verb in verbs:
            text = self.ok(*verb, "--help")
            self.assertIn(f"\nExample:\n  moatctl {verb[0]}", text, verb)
            self.assertIn(verb[-1], self.words_after(*verb[:-1], ""))
            if "\nSubcommands:\n" not in text:
                self.assertIn(f"\n.It Cm {' '.join(verb)}\n", manual)
                for option in re.findall(r"^  (--[a-z-]+)", text, re.M):
                    self.assertIn(option, self.words_after(*verb, "--"), verb)
                    self.assertIn(f"\n.It Fl {option[1:]}", manual)

    def test_completion_of_values(self):
        self.assertEqual(self.words_after("rule", "add", "--proto", "t"), ["tcp"])
        self.assertEqual(self.words_after("rule", "list", "--format", ""), ["table", "json", "csv"])
        self.assertIn("lo", self.words_after("rule", "add", "--in", ""))
        self.assertEqual(self.words_after("show", "fil"), ["filter", "filter-rule"])
        self.assertEqual(self.words_after("--server", SCHEMA[:-3]), [SCHEMA])
        self.assertIn("lo", self.words_after("filter", "add", "--between", ""))
        self.assertIn("lo", self.words_after("filter", "add", "--between", "lo", ""), "the second port")
        self.assertNotIn("lo", self.words_after("filter", "add", "--between", "lo", "lo", ""))
        self.assertIn("lo", self.words_after("port", "rename", ""))

    def test_completion_goes_on_after_flags_and_values(self):
        for words in (("--log",), ("--in", "lo"), ("--log", "--vlan", "3"), ("--vlan=3",), ("--vlan", "=", "3"),
                      ("--drop", "--log", "--disabled", "--force")):
            self.assertIn("--src-mac", self.words_after("rule", "add", *words, "--s"), words)
        self.assertEqual(self.words_after("rule", "list", "--no-headings", "--format", "c"), ["csv"])
        self.assertIn("--replace", self.words_after("import", "--elsewhere", "--"))
        self.assertEqual(self.words_after("rule", "list", "--format", "=", "c"), ["csv"])
        self.assertEqual(self.words_after("rule", "list", "--format", "="), ["table", "json", "csv"])

    def test_completion_of_ids(self):
        self.ok("batch", stdin="""filter add --id 7 --between eth0 eth1 --match mac --mode blacklist
rule add --id 12 --in eth0 --drop
rule add --id 13 --in eth1 --drop
filter-rule add --id 4 --filter 7 --match 02:00:00:00:00:01
""")
        ids = lambda *words: [word for word in self.words_after("--server", str(self.socket), *words, "")
                              if not word.startswith("-")]
        self.assertEqual(ids("rule", "set"), ["12", "13"])
        self.assertEqual(ids("rule", "remove", "--if-exists", "12"), ["12", "13"])
        self.assertEqual(ids("rule", "add", "--in", "lo", "--before"), ["12", "13"])
        self.assertEqual(ids("rule", "add", "--id"), [], "a new one")
        self.assertEqual(ids("filter-rule", "add", "--filter"), ["7"])
        self.assertEqual(ids("filter-rule", "enable"), ["4"])
        self.assertEqual(ids("acknowledge", "filter"), ["7"])
        self.assertIn("filter-rule", ids("acknowledge"))

    def test_examples_are_right(self):
        """Each example of a verb that changes rows is carried out; some need rows to be there."""
        self.ok("batch", stdin="".join(
            f"rule add --id {i} --in eth{i} --src 10.0.0.{i} --proto tcp --drop\npolicy add --id {i} --in eth{i} --drop\n"
            f"forward-policy add --id {i} --in eth{i} --out eth9 --drop\n"
            f"filter add --id {i} --between eth{i} eth9 --match mac --mode whitelist\n"
            f"filter-rule add --id {i} --filter 1 --match 00:11:22:33:44:0{i}\n" for i in range(1, 7)))
        rows = self.ok("export")
        self.transact(config.insert(config.DEVICE, Name="bridge7"))
        for verb in self.verbs():
            if len(verb) == 2:
                self.assertEqual(self.run_tool("import", "-", "--replace", stdin=rows).returncode, OK)
                example = re.search(r"\nExample:\n  moatctl (.+)\n", self.ok(*verb, "--help")).group(1)
                self.ok(*example.split())

    def test_wrong_command_lines(self):
        for words, message in (
                ("", "a verb is missing: expected show, rule, .* or expire"), ("fly", 'unknown verb "fly": expected show, '),
                ("--fly", 'unknown option "--fly"'), ("rule", "a verb is missing: expected add, set, .* or list"),
                ("rule fly", 'unknown verb "fly": expected add, set, .* or list'),
                ("rule --fly", 'unknown option "--fly"'), ("global list", 'unknown verb "list": expected set'),
                ("rule add --fly 3", 'unknown option "--fly"'), ("rule add extra", 'unexpected word "extra"'),
                ("rule add --in", "--in has no value: expected PORT"), ("rule set", "ID is missing"),
                ("rule add --in eth0 --in eth1", "--in is given 2 times: expected once"),
                ("rule set 1 2 --drop", 'unexpected word "2"'), ("rule remove", "ID is missing"),
                ("rule remove x", 'ID "x": expected a number'), ("rule remove 3 3", "ID 3 is repeated"),
                ("rule list --format", r"--format has no value: expected table\|json\|csv"),
                ("rule list --format=x", '--format "x": expected table, json or csv'), ("import", "FILE is missing"),
                ("filter add --between eth0", "--between: expected 2 values"), ("import --merge --replace x", "--replace excludes --merge"),
                ("show rule filter", 'unexpected word "filter"'), ("export x", 'unexpected word "x"'),
                ("monitor --format=csv", '--format "csv": expected text or json'), ("batch a b", 'unexpected word "b"'),
                *((f"engine plain --wait {word}", f'--wait "{word}": expected all, a number of devices or a percentage')
                  for word in ("0", "101%", "0%", "x", "5%%", "1.5", "-1", "1000001", "ALL")),
                ("engine plain --wait all --no-wait", "--wait excludes --no-wait"),
                ("status x", 'unexpected word "x"'), ("check a b", 'unexpected word "b"'),
                ("status --pid-folder", "--pid-folder has no value: expected FOLDER"),
                ("explain --out eth0", "--in is missing"), ("explain --configured --file x --in eth0", "--(file|configured) excludes --"),
                ("acknowledge", "TABLE is missing"), ("port rename a", "NEW is missing"), ("--server", "--server has no value: expected ENDPOINT"),
                ("--no-wait=maybe rule remove 1", "--no-wait takes no value"), ("rule remove 1 --force=x", "--force takes no value"),
                ("status --watch=5", "--watch takes no value"), ("status --watch x", 'unexpected word "x"'),
                ("status --watch", "--watch: expected a terminal for standard output, and the format table"),
                ("status --watch --format=json", "--watch: expected a terminal for standard output, and the format table"),
                ("--timeout x show", '--timeout "x": expected sec'), ("--timeout 0 show", '--timeout "0": expected sec')):
            done = subprocess.run([MOATCTL, *words.split()], capture_output=True, text=True, timeout=60, check=False)
            self.assertEqual((done.returncode, done.stdout), (BAD_INPUT, ""), words)
            self.assertRegex(done.stderr, f"^moatctl: {message}.*\n$", words)
            self.assertEqual(done.stderr.count("\n"), 1, done.stderr)

    def test_wrong_frames(self):
        frame = "explain --in eth0 --src-mac 00:11:22:33:44:55 --dst-mac 00:11:22:33:44:56"
        for words, message in (
                ("--port 80", '--port "80": expected --proto tcp or udp'), ("--vlan 5000", '--vlan "5000": expected a number from'),
                ("--vlan x", '--vlan "x": expected a number'), ("--proto fly", '--proto "fly": expected tcp'),
                ("--proto tcp --port 70000", '--port "70000": expected'), ("--src 10.0.0", '--src "10.0.0": expected one IPv4'),
                ("--src 10.0.0.1 --dst fe80::1", '--dst "fe80::1": expected an address of the same family'),
                ("--ethertype fly", '--ethertype "fly": expected IPv4'), ("--vlan-prio 3", "--vlan-prio: expected --vlan"),
                ("--format=csv", '--format "csv": expected table or json'), ("--out a-name-that-is-too-long", "--out")):
            self.refused(BAD_INPUT, f"^moatctl: {message}", *frame.split(), *words.split())
        self.refused(BAD_INPUT, '^moatctl: --dst-mac "zz": expected one MAC', *frame.split()[:-1], "zz")
        self.refused(BAD_INPUT, '^moatctl: --out "": expected PORT', *frame.split(), "--out", "")


class Explain(Case):
    """Without a look at the kernel; tests/system has the kernel's side."""

    def setUp(self):
        super().setUp()
        self.ok("batch", stdin="".join(f"rule add --in eth0 --out eth1 --src-mac 02:00:00:00:00:{i:02x} --drop\n"
                                       for i in range(1, 40)) + "rule add --in eth0 --out eth1 --vlan 3 --drop\n"
                "global set --forward ACCEPT\n")

    def explain(self, *words, status=OK):
        done = self.run_tool("explain", "--configured", "--in", "eth0", "--out", "eth1", *words)
        self.assertEqual(done.returncode, status, done.stderr)
        return done.stdout.splitlines(), done.stderr

    def test_only_the_steps_that_matter(self):
        out, err = self.explain("--src-mac", "02:00:00:00:00:27", "--vlan", "9")
        self.assertEqual(out[:2], ["frame arriving on eth0, leaving by eth1, from 02:00:00:00:00:27, VLAN 9 priority 0",
                                   "through the configuration"])
        self.assertEqual([line.split()[:3] for line in out[3:-2]],
                         [["FORWARD", "1", "yes"], ["UserForwardRules", "39", "yes"]])
        self.assertEqual(out[-2:], ["38 steps that lead nowhere not shown (--all shows all)",
                                    "DROP: MoatKeeperRuleset Id 39 (rule 39 of UserForwardRules)"])
        self.assertEqual(len(self.explain("--src-mac", "02:00:00:00:00:27", "--all")[0]), 3 + 40 + 1)

    def test_mac_addresses_may_be_unknown(self):
        out, _ = self.explain(status=BAD_INPUT)
        self.assertEqual(out[-1], "UNKNOWN: it depends on the source MAC address, which MoatKeeperRuleset Id 1 looks at")
        self.ok("rule", "remove", *range(1, 40))
        out, _ = self.explain()
        self.assertEqual(out[0], "frame arriving on eth0, leaving by eth1")
        self.assertRegex(out[-1], "^ACCEPT: no rule decides; the policy of FORWARD, MoatKeeper$")

    def test_json(self):
        out, _ = self.explain("--src-mac", "02:00:00:00:00:02", "--format=json")
        found = json.loads("".join(out))
        self.assertEqual((found["walked"], found["differs"], found["configured"], found["fate"]),
                         ("configuration", None, None, "DROP"))
        self.assertEqual((found["decided_by"]["id"], len(found["steps"]), found["steps_left_out"]), (2, 2, 1))
        out, _ = self.explain("--src-mac", "02:00:00:00:00:02", "--format=json", "--all")
        self.assertEqual((len(json.loads("".join(out))["steps"]), json.loads("".join(out))["steps_left_out"]), (3, 0))

    def test_ports_that_do_not_exist_are_noted(self):
        done = self.run_tool("explain", "--configured", "--in", "lo", "--out", "eht1")
        self.assertIn('note: "eht1": this machine has no such interface, so there is no such frame\n', done.stderr)
        self.assertIn('note: "lo": not a port of a bridge on this machine, so there is no such frame\n', done.stderr)
        path = self.folder / "site.json"
        path.write_text(self.ok("export"))
        done = self.run_tool("explain", "--file", path, "--in", "lo", "--out", "eht1")
        self.assertEqual((done.returncode, done.stderr), (OK, ""))
        self.assertEqual(done.stdout.splitlines()[1], f"through the configuration in {path}")

    def matrix(self, *words, status=OK):
        done = self.run_tool("matrix", "--configured", *words)
        self.assertEqual(done.returncode, status, done.stderr)
        return done.stdout

    def test_matrix(self):
        """Global policies: nothing goes to the device, and every port to every other but for 39 addresses and a VLAN."""
        out = self.matrix().splitlines()
        self.assertEqual(out[:2], ["frames: every frame", "through the configuration"])
        self.assertRegex(out[2], "^the ordinary frame: from 02:.* to 02:.*, IPv4 from .*, protocol 6, source port .*, port ")
        self.assertEqual([line.split() for line in out[4:]],
                         [["FROM", "device", "eth0", "eth1"], ["eth0", "open", "global", "-", "partly", "global", "+40"],
                          ["eth1", "open", "global", "open", "global", "-"]])
        self.assertIn("closed rule 7", self.matrix("--src-mac", "02:00:00:00:00:07", "--in", "eth0", "--out", "eth1"))
        self.assertIn("partly global +1", self.matrix("--src-mac", "02:00:00:00:01:07", "--in", "eth0", "--out", "eth1"))
        self.assertIn("open global", self.matrix("--src-mac", "02:00:00:00:01:07", "--untagged", "--in", "eth0", "--out", "eth1"))
        self.assertIn("closed rule 40", self.matrix("--vlan", "3", "--in", "eth0", "--out", "eth1"))

    def test_matrix_for_programs(self):
        found = json.loads(self.matrix("--format=json", "--exceptions"))
        self.assertEqual([(cell["in"], cell["out"], cell["passage"], cell["exceptions"], cell["complete"], cell["fate"],
                           cell["table"]) for cell in found["cells"]],
                         [("eth0", None, "open", 0, 1, "ACCEPT", "MoatKeeper"), ("eth0", "eth1", "partly", 40, 1, "ACCEPT", "MoatKeeper"),
                          ("eth1", None, "open", 0, 1, "ACCEPT", "MoatKeeper"), ("eth1", "eth0", "open", 0, 1, "ACCEPT", "MoatKeeper")])
        self.assertEqual([(row["table"], row["fate"]) for row in found["exceptions"]], [("MoatKeeperRuleset", "DROP")] * 40)
        self.assertEqual([row["id"] for row in found["exceptions"]], list(range(1, 41)))
        lines = self.matrix("--format=csv", "--out", "eth1").split("\n")
        self.assertEqual(lines[0], "in,out,passage,exceptions,complete,fate,table,id,chain,rule,text")
        self.assertEqual(lines[1], "eth0,eth1,partly,40,1,ACCEPT,MoatKeeper,,FORWARD,,policy ACCEPT")
        self.refused(BAD_INPUT, "^moatctl: --untagged excludes --vlan|--vlan excludes --untagged", "matrix", "--vlan", "1", "--untagged")
        self.refused(BAD_INPUT, '^moatctl: --in "a/b": expected the name of one port', "matrix", "--configured", "--in", "a/b")

    def test_a_socket_that_may_not_be_used(self):
        """Told as what it is, not as a server that is not there."""
        if os.geteuid() != 0:
            self.skipTest("only root can become another user")
        self.folder.chmod(0o755)
        self.socket.chmod(0o600)
        tool = shutil.copy(MOATCTL, self.folder)  # where it was built, nobody may be kept out
        done = subprocess.run([tool, *self.command("show")[1:]], capture_output=True, text=True, timeout=60, user=65534, check=False)
        self.assertEqual((done.returncode, done.stdout), (3, ""))
        self.assertEqual(done.stderr, "moatctl: not allowed to use the configuration server at "
                         f"{self.socket}: Permission denied\n")


class OnATerminal(Case):
    def screen(self, *words, term="xterm", columns=0, **variables):
        ours, theirs = os.openpty()
        if columns:
            fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        environment = {**{k: v for k, v in os.environ.items() if k != "NO_COLOR"}, "TERM": term, **variables}
        done = subprocess.run(self.command(*words), stdout=theirs, stderr=subprocess.DEVNULL, env=environment, timeout=60,
                              check=False)
        text = read_terminal(ours, theirs).replace("\r\n", "\n")
        self.assertEqual(done.returncode, OK)
        return text

    def setUp(self):
        super().setUp()
        self.ok("rule", "add", "--in", "eth0", "--out", "eth1", "--src-mac", "02:00:00:00:00:01", "--src", "10.0.0.0/8",
                "--proto", "tcp", "--port", "80", "--drop", "--log")

    def test_headings_stand_out_where_that_is_understood(self):
        self.assertIn("\x1b[1m", self.screen("rule", "list"))
        for variables in ({"term": "dumb"}, {"term": ""}, {"NO_COLOR": "1"}):
            self.assertNotIn("\x1b", self.screen("rule", "list", **variables), variables)

    def test_tables_fit_the_width(self):
        wide = self.screen("rule", "list", term="dumb", columns=200).splitlines()
        self.assertEqual(len(wide), 2)
        narrow = self.screen("rule", "list", term="dumb", columns=60).splitlines()
        self.assertLessEqual(max(map(len, narrow)), 60)
        self.assertEqual([line.split() for line in narrow], [list(pair) for pair in zip(wide[0].split(), wide[1].split())])
        self.assertEqual(len(self.screen("rule", "list", term="dumb").splitlines()), 2, "a width that is not known")

    def test_files_that_cannot_be_used(self):
        binary = self.folder / "binary"
        binary.write_bytes(bytes(range(256)) * 8)
        empty = self.folder / "empty"
        empty.write_text("")
        secret = self.folder / "secret"
        secret.write_text("{}")
        secret.chmod(0)
        for verb in ("import", "check", "batch"):
            self.refused(BAD_INPUT, f"^moatctl: {self.folder}/absent: cannot be read: No such file", verb,
                         self.folder / "absent")
            self.refused(BAD_INPUT, f"^moatctl: {self.folder}: cannot be read: Is a directory", verb, self.folder)
            self.refused(BAD_INPUT, "^moatctl: /dev/zero: cannot be read: more than 268435456 bytes; expected at most",
                         verb, "/dev/zero")
            if os.geteuid() != 0:
                self.refused(BAD_INPUT, f"^moatctl: {secret}: cannot be read: Permission denied", verb, secret)
        for path, message in ((empty, "empty; expected an object with"), (binary, "not JSON: .+; expected an object")):
            done = self.run_tool("import", path)
            self.assertEqual((done.returncode, done.stdout), (BAD_INPUT, ""))
            self.assertRegex(done.stderr, f"^{path}:1: error: {message}.*\nmoatctl: {path}: 1 error; nothing was changed\n$")
            done = self.run_tool("check", path)
            self.assertEqual((done.returncode, done.stderr), (BAD_INPUT, ""))
            self.assertRegex(done.stdout, f"^{path}:1: error: {message}.*\n$")
        self.refused(BAD_INPUT, f'^moatctl: {binary}:1: not a text: found ".x00"; nothing was changed', "batch", binary)
        self.assertEqual(self.ok("batch", empty), "")

    def test_version(self):
        self.assertRegex(self.ok("--version"), r"^moatctl \d+\.\d+\.\d+\n$")

    def test_manual_is_well_formed(self):
        done = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", MANUAL], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, timeout=10)
        self.assertEqual((done.returncode, done.stdout), (0, ""))


if __name__ == "__main__":
    main()
