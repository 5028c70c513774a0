"""moatctl and other clients of the server, and servers that go away, are absent or are no such servers."""

import json
import pathlib
import re
import signal
import socket
import subprocess
import threading

from moatctl_case import BAD_INPUT, NO_SERVER, OK, Case, main
from lab.programs import SCHEMA, startServer


class Concurrency(Case):
    def test_ids_of_many_at_once_differ(self):
        running = [subprocess.Popen(self.command("rule", "add", "--in", f"eth{i}", "--drop"), stdout=subprocess.PIPE,
                                    stderr=subprocess.PIPE, text=True) for i in range(12)]
        results = [process.communicate(timeout=60) + (process.returncode,) for process in running]
        self.assertEqual([result[2] for result in results], [0] * 12, results)
        self.assertEqual(sorted(int(result[0]) for result in results), list(range(1, 13)))
        self.assertEqual(len(self.rows("rule")), 12)

    def test_changes_of_different_columns_both_hold(self):
        self.ok("rule", "add", "--in", "eth0", "--drop")
        for _ in range(5):
            self.ok("rule", "set", "1", "--no-log", "--enabled")
            words = (("rule", "set", "1", "--log"), ("rule", "disable", "1"))
            running = [subprocess.Popen(self.command(*w)) for w in words]
            self.assertEqual([process.wait(60) for process in running], [0, 0])
            row = self.rows("rule")[0]
            self.assertEqual((row["EnableLogging"], row["Enabled"]), (1, 0))

    def test_a_filter_that_goes_leaves_no_entry(self):
        """Somebody removes a filter while somebody else adds an entry: both hold, or one of them is refused."""
        for number in range(1, 61):
            self.ok("filter", "add", "--id", number, "--between", "eth0", "eth1", "--match", "mac", "--mode", "blacklist")
            match = ("--match", "02:00:00:00:00:01")
            if number % 2:
                self.ok("filter-rule", "add", "--filter", number, *match)
            if number % 3:
                added = ("filter-rule", "add", "--filter", number, *match)
            else:
                file = self.folder / "entry.json"
                row = {"Id": number, "Enabled": 1, "BridgeFilterID": number, "FilterMatch": match[1]}
                file.write_text(json.dumps({"MoatKeeperBridgeFilterRules": [row]}), encoding="utf-8")
                added = ("import", "--elsewhere", file)
            words = (("filter", "remove", number, "--with-rules"), added)
            running = [subprocess.Popen(self.command(*w), stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
                       for w in words]
            results = [process.communicate(timeout=60) + (process.returncode,) for process in running]
            filters = {row["Id"] for row in self.rows("filter")}
            self.assertEqual({row["BridgeFilterID"] for row in self.rows("filter-rule")} - filters, set(),
                             f"round {number}: {results}")


class Monitor(Case):
    def watch(self, *words):
        process = subprocess.Popen(self.command("monitor", *words), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                   text=True)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        self.assertEqual(process.stderr.readline(), "watching the configuration\n")
        return process

    def test_changes_with_time(self):
        process = self.watch()
        self.ok("rule", "add", "--in", "eth0", "--drop")
        self.ok("rule", "set", "1", "--log")
        self.ok("rule", "remove", "1")
        lines = [process.stdout.readline() for _ in range(3)]
        time = r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d "
        self.assertRegex(lines[0], time + r'\+ MoatKeeperRuleset Id 1: RulePrio 10, InInterface "eth0", Target "DROP"$')
        self.assertRegex(lines[1], time + "~ MoatKeeperRuleset Id 1: EnableLogging 0 -> 1$")
        self.assertRegex(lines[2], time + "- MoatKeeperRuleset Id 1: ")
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(10), OK)

    def test_json_lines(self):
        process = self.watch("--format=json")
        self.ok("policy", "add", "--in", "eth0", "--drop")
        change = json.loads(process.stdout.readline())
        self.assertEqual((change["change"], change["table"], change["id"], change["before"]),
                         ("added", "MoatKeeperInputPolicy", 1, None))
        self.assertEqual(change["after"]["Interface"], "eth0")

    TIME = r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d "

    def change_unseen(self, *words):
        """Changes the database while the server that is watched is stopped."""
        elsewhere = self.folder / "elsewhere"
        self.start_server(socketPath=elsewhere)
        done = self.run_tool(*words, socket_path=elsewhere)
        self.assertEqual(done.returncode, OK, done.stderr)
        self.server.stop()

    def test_a_server_that_goes_away_is_waited_for(self):
        process = self.watch()
        self.ok("rule", "add", "--in", "eth0", "--drop")
        self.assertIn("+ MoatKeeperRuleset Id 1:", process.stdout.readline())
        for number, how in ((2, signal.SIGTERM), (3, signal.SIGKILL)):
            self.server.stop(how)
            self.assertRegex(process.stderr.readline(), self.TIME + "connection .+; trying again$")
            self.change_unseen("rule", "add", "--in", f"eth{number}", "--drop")
            self.change_unseen("rule", "set", "1", "--vlan", number)
            self.start_server()
            self.assertRegex(process.stderr.readline(), self.TIME + "connected again$")
            seen = [process.stdout.readline(), process.stdout.readline()]
            self.assertRegex(seen[0], self.TIME + f"~ MoatKeeperRuleset Id 1: VLANID -?\\d+ -> {number}$")
            self.assertRegex(seen[1], self.TIME + rf"\+ MoatKeeperRuleset Id {number}: ")
            self.ok("rule", "set", number, "--log")
            self.assertIn(f"~ MoatKeeperRuleset Id {number}: EnableLogging 0 -> 1", process.stdout.readline())
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(10), OK)
        self.assertEqual((process.stdout.read(), process.stderr.read()), ("", ""))

    def test_nothing_changed_meanwhile(self):
        process = self.watch("--format=json")
        self.server.stop()
        process.stderr.readline()
        self.start_server()
        self.assertRegex(process.stderr.readline(), "connected again$")
        self.ok("policy", "add", "--in", "eth0", "--drop")
        self.assertEqual(json.loads(process.stdout.readline())["table"], "MoatKeeperInputPolicy")

    def test_the_server_returns_with_another_schema(self):
        process = self.watch()
        self.server.stop()
        self.assertRegex(process.stderr.readline(), "trying again$")
        schema = json.loads(pathlib.Path(SCHEMA).read_text(encoding="utf-8"))
        schema["version"] = "2.0.0"
        (self.folder / "schema").write_text(json.dumps(schema))
        self.start_server(self.folder / "schema", database="other.db")
        self.assertRegex(process.stderr.readline(), r"2\.0\.0.*; trying again$")
        self.server.stop()
        self.assertRegex(process.stderr.readline(), "no configuration server.*; trying again$")
        self.start_server()
        self.assertRegex(process.stderr.readline(), "connected again$")
        self.ok("policy", "add", "--in", "eth0", "--drop")
        self.assertIn("+ MoatKeeperInputPolicy Id 1", process.stdout.readline())

    def test_a_signal_ends_the_wait_for_the_server(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            process = self.watch()
            self.server.stop()
            self.assertRegex(process.stderr.readline(), "trying again$")
            process.send_signal(number)
            self.assertEqual(process.wait(10), OK)
            self.start_server()


class Servers(Case):
    def refused_by(self, path, pattern, *words):
        done = self.run_tool(*(words or ("show",)), socket_path=str(path))
        self.assertEqual((done.returncode, done.stdout), (NO_SERVER, ""), done.stderr)
        self.assertRegex(done.stderr, pattern)
        self.assertEqual(done.stderr.count("\n"), 1)

    def test_absent(self):
        for words in (("show",), ("export",), ("monitor",), ("rule", "add", "--in", "eth0", "--drop"), ("rule", "list"),
                      ("--timeout", "1", "global", "set", "--input", "DROP")):
            self.refused_by(self.folder / "absent", "absent", *words)

    def test_silent(self):
        path = str(self.folder / "silent")
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(path)
            listener.listen()
            for words in (("show",), ("monitor",), ("check",), ("import", self.file("{}")), ("batch", self.file("")),
                          ("rule", "add", "--in", "eth0", "--drop")):
                self.refused_by(path, "no answer .* within 200 ms", "--timeout", "0.2", *words)

    def file(self, text):
        path = self.folder / f"file{len(list(self.folder.iterdir()))}"
        path.write_text(text)
        return path

    def test_mistakes_are_told_without_a_server(self):
        absent = str(self.folder / "absent")
        batch = self.file('rule add --in eth0 --drop\nrule add --in eth0 --drop --vlan 5000\nrule fly\n"\n'
                          'rule remove 7\nrule set 7 --src-mac zz\nrule add --in eth0\nglobal set --input no\n'
                          'filter-rule add --filter 9 --match x\npolicy remove 0\nfilter add --between a --match mac\n')
        done = self.run_tool("batch", batch, socket_path=absent)
        self.assertEqual((done.returncode, done.stdout), (BAD_INPUT, ""))
        lines = done.stderr.splitlines()
        self.assertEqual([re.match(rf"{batch}:(\d+): error: ", line).group(1) for line in lines[:-1]],
                         ["2", "3", "4", "6", "7", "8", "9", "10", "11"])
        self.assertRegex(lines[-1], "^moatctl: .*9 lines are wrong; nothing was changed .and no configuration server at")
        self.refused_by(absent, "no configuration server", "batch", self.file("rule remove 7\n"))

        broken = self.file('{"MoatKeeperRuleset": [\n{"Id": 1,\n]}')
        done = self.run_tool("import", broken, socket_path=absent)
        self.assertEqual((done.returncode, done.stdout), (BAD_INPUT, ""))
        self.assertRegex(done.stderr, f"^{broken}:3: error: .+\nmoatctl: {broken}: 1 error; nothing was changed\n$")
        wrong = self.file('''{"MoatKeeperRuleset": [
  {"Id": 1, "RulePrio": 1, "InInterface": "eth0", "Target": "DROP", "SrcMAC": "zz"},
  {"Id": 2, "RulePrio": 1, "InInterface": "eth0"}],
"MoatKeeperBridgeFilterRules": [
  {"Id": 1, "BridgeFilterID": 5, "FilterMatch": "1"}]}''')
        done = self.run_tool("import", wrong, socket_path=absent)
        self.assertEqual((done.returncode, done.stdout), (BAD_INPUT, ""))
        self.assertEqual(re.findall(r":(\d+): error: \S+ Id (\d), (\w+): ", done.stderr),
                         [("2", "1", "SrcMAC"), ("3", "2", "Target")])
        self.assertRegex(done.stderr, "2 errors; nothing was changed .and no configuration server at ")
        done = self.run_tool("import", wrong, "--replace", socket_path=absent)
        self.assertIn(":5: error: MoatKeeperBridgeFilterRules Id 1, BridgeFilterID: 5: there is no such filter",
                      done.stderr)
        self.refused_by(absent, "no configuration server", "import", self.file("{}"))

    def test_values_are_checked_without_a_server(self):
        absent = str(self.folder / "absent")
        for words, pattern in ((("rule", "add", "--in", "eth0", "--drop", "--src-mac", "zz"), "--src-mac"),
                               (("rule", "set", "1", "--vlan", "5000"), "--vlan"),
                               (("rule", "add", "--in", "e", "--drop", "--port", "80", "--ethertype", "IPv4"), "--port 80"),
                               (("rule", "remove", "0"), "ID"), (("rule", "set", "1"), "nothing to change"),
                               (("global", "set", "--input", "no"), "--input")):
            done = self.run_tool(*words, socket_path=absent)
            self.assertEqual((done.returncode, done.stdout, done.stderr.count("\n")), (BAD_INPUT, "", 1), done.stderr)
            self.assertRegex(done.stderr, pattern)

    def test_other_protocol(self):
        path = str(self.folder / "other")
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(path)
            listener.listen()

            def answer():
                connection, _ = listener.accept()
                with connection:
                    connection.recv(100)
                    connection.sendall(b"HTTP/1.1 400 Bad Request\r\n\r\n")
                    connection.recv(100)
            thread = threading.Thread(target=answer)
            thread.start()
            self.refused_by(path, "moatctl: ")
            thread.join()

    def test_other_schema(self):
        schema = json.loads(pathlib.Path(SCHEMA).read_text(encoding="utf-8"))
        for name, change in (("version", lambda: schema.update(version="2.0.0")),
                             ("database", lambda: schema.update(name="another"))):
            change()
            folder = self.folder / name
            folder.mkdir()
            (folder / "schema").write_text(json.dumps(schema))
            self.addCleanup(startServer(folder / "schema", folder, socketPath=folder / "sock").stop)
            self.refused_by(folder / "sock", "2.0.0|moatkeeper")

    def test_timeout_values(self):
        for value in ("0", "-1", "x", "nan", "1e9"):
            self.refused(BAD_INPUT, "--timeout", "--timeout", value, "show")


if __name__ == "__main__":
    main()
