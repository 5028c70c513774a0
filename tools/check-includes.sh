#!/bin/sh
# Who may include what. Fails, naming file and line, when a source includes anything else, and when a folder has no rule.
# usage: tools/check-includes.sh [FOLDER]   the sources to look at, instead of those around this script
#
# A rule: a folder, and what its files may include besides the standard library and each other. That is: other folders
# of ours, one by one; "system", the headers of the operating system, or one of them by its name; another package's
# headers, named as before the slash in <gtest/gtest.h>.
set -eu

rules='
platform

records              platform
handler              records platform
daemon               handler platform unistd.h

text
subprocess           system
ebtables             text arpa/inet.h
compiled             ebtables
ovsdb                platform text system rapidjson
endpoint             ovsdb text system netdb.h openssl
nftables             ebtables compiled text system libmnl
schema               platform
schema/server        schema ovsdb platform text

platform_linux       platform_linux/queue platform ebtables ovsdb nftables schema schema/server text system
platform_linux/queue platform_linux platform ebtables nftables schema subprocess text system
platform_linux/compiled platform_linux/queue compiled ebtables nftables
platform_fake        platform

relay                system dlfcn.h

moatctl              moatctl/command_line moatctl/verbs schema unistd.h sys/ioctl.h
moatctl/tables       moatctl handler ebtables ovsdb schema schema/server platform text system
moatctl/bridge       moatctl moatctl/tables handler records compiled ebtables nftables schema subprocess text system libmnl
moatctl/check        moatctl/tables moatctl/bridge ebtables schema platform
moatctl/command_line moatctl moatctl/tables moatctl/bridge moatctl/check endpoint ebtables ovsdb schema schema/server platform text
                     system CLI
moatctl/verbs        moatctl moatctl/page moatctl/tables moatctl/bridge moatctl/check moatctl/command_line compiled ebtables ovsdb schema schema/server
                     platform text unistd.h
moatctl/page
moatctl/describe     moatctl/tables moatctl/command_line moatctl/verbs ovsdb schema CLI

examples/platform    platform daemon system

demo                 handler platform platform_fake schema
bench                handler platform platform_fake platform_linux/queue compiled ebtables nftables system

tests/unit           daemon handler records platform platform_fake platform_linux platform_linux/compiled platform_linux/queue
                     ebtables compiled ovsdb nftables schema schema/server subprocess text moatctl moatctl/tables
                     moatctl/bridge moatctl/check moatctl/command_line endpoint tests/moatctl tests/compiled system gtest gmock
tests/golden         handler platform_fake tests/random gtest
tests/random         handler platform_fake gtest
tests/process        platform platform_linux/queue ovsdb schema/server system gtest
tests/system         platform platform_linux/queue compiled tests/compiled ebtables nftables libmnl subprocess moatctl/tables moatctl/bridge
                     moatctl/check moatctl/command_line tests/moatctl system gtest
tests/compiled       compiled ebtables
tests/moatctl        moatctl/tables moatctl/bridge subprocess system gtest
tests/fuzz           platform_linux/queue compiled tests/compiled ebtables ovsdb nftables schema schema/server
'

cd "${1:-$(dirname "$0")/..}"
# All C++ sources but those in build folders and in hidden ones.
find . -mindepth 1 -type d \( -name '.*' -o -name build -o -exec test -e '{}/CMakeCache.txt' \; \) -prune -o \
    -type f \( -name '*.cpp' -o -name '*.hpp' -o -name '*.h' \) -print | sort |
    rules=$rules awk '
    BEGIN {
        count = split(ENVIRON["rules"], lines, "\n")
        for (i = 1; i <= count; i++) {
            words = split(lines[i], word, " ")
            first = 1
            if (words && lines[i] !~ /^ /) {
                folder = word[1]
                known[folder] = 1
                first = 2
            }
            for (w = first; w <= words; w++) {
                may[folder, word[w]] = 1
                list[folder] = list[folder] " " word[w]
            }
        }
    }

    function folderOf(path) { return sub(/\/[^\/]*$/, "", path) ? path : "" }

    function allowed(folder, name, mark) {
        if (mark == "\"")
            return folderOf(name) == folder || (folder, folderOf(name)) in may
        if (name ~ /^[a-z_]+$/ || (folder, name) in may)
            return 1
        package = index(name, "/") ? substr(name, 1, index(name, "/") - 1) : ""
        if (package ~ /^(arpa|linux|net|netinet|netpacket|sys|)$/)
            package = "system"
        return (folder, package) in may
    }

    {
        file = substr($0, 3)
        folder = folderOf(file)
        if (!(folder in known)) {
            if (!(folder in missing))
                print file ": " (folder == "" ? "." : folder) " has no rule in tools/check-includes.sh"
            missing[folder] = status = 1
            next
        }
        number = 0
        while ((getline line < $0) > 0) {
            number++
            if (line !~ /^[ \t]*#[ \t]*include/)
                continue
            name = line
            sub(/^[ \t]*#[ \t]*include[ \t]*/, "", name)
            mark = substr(name, 1, 1)
            name = substr(name, 2)
            sub(/[">].*/, "", name)
            if (!(mark == "\"" || mark == "<") || !allowed(folder, name, mark)) {
                print file ":" number ":" line
                broken[folder] = status = 1
            }
        }
        close($0)
    }

    END {
        for (folder in broken)
            print folder "/ may include the standard library, itself" (list[folder] ? " and" list[folder] : "") " only"
        exit status
    }'
