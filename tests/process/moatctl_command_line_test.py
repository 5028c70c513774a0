"""moatctl's help, manual page and completion, and command lines and files that are wrong."""

import os
import pathlib
import re
import subprocess

from moatctl_case import BAD_INPUT, COMPLETION, MANUAL, MOATCTL, OK, Case, main
from lab.programs import SCHEMA


class CommandLine(Case):
    def words_after(self, *words):
        script = f'source {COMPLETION}; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _moatctl; printf "%s\\n" "${{COMPREPLY[@]}}"'
        done = subprocess.run(["bash", "-c", script, "bash", "moatctl", *words], stdout=subprocess.PIPE,
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

    def test_examples_are_right(self):
        """Each example of a verb that changes rows is carried out; some need rows to be there."""
        self.ok("batch", stdin="".join(
            f"rule add --id {i} --in eth{i} --src 10.0.0.{i} --proto tcp --drop\npolicy add --id {i} --in eth{i} --drop\n"
            f"forward-policy add --id {i} --in eth{i} --out eth9 --drop\n"
            f"filter add --id {i} --between eth{i} eth9 --match mac --mode whitelist\n"
            f"filter-rule add --id {i} --filter 1 --match 00:11:22:33:44:0{i}\n" for i in range(1, 7)))
        rows = self.ok("export")
        for verb in self.verbs():
            if len(verb) == 2:
                self.assertEqual(self.run_tool("import", "-", "--replace", stdin=rows).returncode, OK)
                example = re.search(r"\nExample:\n  moatctl (.+)\n", self.ok(*verb, "--help")).group(1)
                self.ok(*example.split())

    def test_wrong_command_lines(self):
        for words, message in (
                ("", "a verb is missing: expected show, rule, .* or monitor"), ("fly", 'unknown verb "fly": expected show, '),
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
                ("status x", 'unexpected word "x"'), ("check a b", 'unexpected word "b"'),
                ("status --pid-folder", "--pid-folder has no value: expected FOLDER"),
                ("explain --in eth0", "--src-mac is missing"), ("--server", "--server has no value: expected PATH"),
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
