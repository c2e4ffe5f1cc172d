#!/usr/bin/env python3
# Whole runs as text: run_cases.py PROGRAM... FILE.case...
#
# A case sets the scene, runs one command, and names all that comes of it: what was printed, calls and log lines,
# the status, and every file that is new, changed or gone, with its mode and bytes. What it does not name makes
# it fail. Cases in cases/fake run the program with the platform of fake_platform.cpp, which explains the lines
# set, domain, dnsbl, user, value, info, search and fail; those in cases/local run it as it is shipped.
#
#     case TITLE
#     file PATH CONTENT         a file in place (\n, \t, \r, \xHH and \\ as in C); secret: with mode 0600
#     script PATH COMMAND       a program in place; postmap, postalias, nubopkghelper and net do nothing by default
#     dir PATH / remove PATH    a directory in place; nothing there
#     brief NAME...             files whose bytes other cases show; "reads", "trace" for such calls, all calls
#     run COMMAND...            the program's arguments
#     expect
#     (the transcript; $E is the package's target/etc, $P the package, XXXXXX a temporary name's suffix)
#
# Runs on a private machine only (lab/private_root). What differs is printed as a patch: once reviewed, it can
# be applied to the cases with `patch -p1`.
import difflib
import os
import re
import shutil
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../lab")
from appliance import ETC, PACKAGE, POSTMAP, listen, read, write

NAMES = ("main.cf|master.cf|header_checks|opendkim.conf|KeyTable|SigningTable|TrustedHosts|opendmarc.conf|"
         "10-master.conf|10-mail.conf|MailScanner.conf|local.cf|aliases|aliases.cf|quota_memcache.cf|ad_info")
OWN = re.compile(r"^<11>.{15} nubo_set_config: ")  # LOG_USER and LOG_ERR
ESCAPES = {"n": "\n", "t": "\t", "r": "\r", "\\": "\\"}
EMULATOR = os.environ.get("EMULATOR", "").split()  # runs the program where it is another machine's
PROGRAMS = (POSTMAP, PACKAGE + "/target/sbin/postalias", "/usr/nubo/sbin/nubopkghelper", "/usr/bin/net")


def expand(text):
    def escaped(match):
        byte = match[1] and bytes.fromhex(match[1]).decode(errors="surrogateescape")
        return byte or ESCAPES[match[2]]

    return re.sub(r"\\(?:x(..)|(.))", escaped, text)


def shorten(text):
    text = re.sub(rf"({NAMES})[A-Za-z0-9]{{6}}\b", r"\1XXXXXX", text)
    return text.replace(ETC, "$E").replace(PACKAGE, "$P")


def put_program(path, command):
    write(path, f'#!/bin/sh\necho "$0 $*" >>/run/trace\n{command}\n', 0o755)


def tree():
    """Mode and content of every file, by path."""
    found = {}
    for top in ("/tmp", PACKAGE, "/usr/nubo"):
        for folder, _, names in os.walk(top):
            for path in (os.path.join(folder, name) for name in names):
                found[path] = f"{os.stat(path).st_mode & 0o7777:o}", read(path)
    return found


def set_scene(lines):
    """Lays the files of a scene out; returns the program's arguments and what is to be brief."""
    for path in ("/tmp", PACKAGE, "/usr/nubo", "/etc/passwd", "/usr/bin/net"):
        subprocess.run(f"rm -rf {path}/* {path}", shell=True, stderr=subprocess.DEVNULL, check=False)
        os.makedirs("/tmp", exist_ok=True)
    for folder in ("MailScanner", "dovecot/conf.d", "opendkim", "spamassassin"):
        os.makedirs(f"{ETC}/{folder}")
    for name in "main master header_checks opendkim opendmarc 10-mail mailscanner spamassassin".split():
        write(f"{ETC}/template/{name}.template", f"# {name}\n")
    for path in PROGRAMS:
        put_program(path, "exit 0")
    write("/etc/passwd", "")
    arguments, brief = [], set()
    for line in lines:
        verb, _, rest = line.partition(" ")
        path, _, content = rest.partition(" ")
        path = path.replace("$E", ETC).replace("$P", PACKAGE)
        if verb == "run":
            arguments = rest.split()
        elif verb == "brief":
            brief |= set(rest.split())
        elif verb in ("file", "secret"):
            write(path, expand(content), 0o644 if verb == "file" else 0o600)
        elif verb == "script":
            put_program(path, content)
        elif verb == "dir":  # not empty, so that no rename replaces it
            os.makedirs(path + "/x")
        elif verb == "remove":
            subprocess.run(["rm", "-r", path], check=True)
        elif verb == "user":
            with open("/etc/passwd", "a", encoding="utf-8") as file:
                file.write(f"{rest}:x:7:7::/:\n")
    return arguments, brief


def cover():
    """Makes /tmp, and /usr/bin, where net goes, the test's own; without root too."""
    os.makedirs("/run/upper")
    os.makedirs("/run/work")
    layers = "lowerdir=/usr/bin,upperdir=/run/upper,workdir=/run/work"
    subprocess.run(["mount", "-t", "overlay", "-o", layers, "overlay", "/usr/bin"], check=True)
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/tmp"], check=True)


def transcript(program, lines, take_log):
    arguments, brief = set_scene(lines)
    write("/run/trace", "")
    before = tree()
    run = subprocess.run([*EMULATOR, program, *arguments], stdin=subprocess.DEVNULL, capture_output=True, check=False,
                         env={"NUBO_SCENE": "\n".join(lines)}, timeout=60)
    shown = (run.stdout + run.stderr).decode(errors="surrogateescape")
    if "reads" in brief:
        shown = re.sub(r"(?m)^read .*\n", "", shown)
    shown += "".join("runs " + line for line in read("/run/trace").splitlines(True))
    shown += "".join("log " + OWN.sub("", line) + "\n" for line in take_log())
    shown = ("" if "trace" in brief else shorten(shown)) + f"status {run.returncode}\n"
    after, in_brief = tree(), []
    for path in sorted(before.keys() | after.keys()):
        if path not in after:
            shown += f"{shorten(path)} gone\n"
        elif before.get(path) != after[path]:
            mode, content = after[path]
            line = f"{shorten(path)} {mode}"
            if os.path.basename(path) in brief:
                in_brief.append(line)
                continue
            shown += line + "\n"
            if content:
                shown += "".join(f"|{line}\n" for line in shorten(content).removesuffix("\n").split("\n"))
                shown += "" if content.endswith("\n") else "(no newline at the end)\n"
    shown += "in brief " + ", ".join(in_brief) + "\n" if in_brief else ""
    return shown


def main(*paths):
    os.umask(0o022)
    for name, path in zip(("fake", "local"), paths):
        os.mkdir("/run/" + name)
        shutil.copy(path, f"/run/{name}/nubo_set_config")
    texts = {path: read(path) for path in paths[2:]}
    cover()
    write("/etc/nsswitch.conf", "passwd: files\n")
    take_log = listen()
    passed = failed = 0
    for path, text in texts.items():
        cases = re.split(r"(?m)^case ", text)[1:]
        program = f"/run/{os.path.basename(os.path.dirname(path))}/nubo_set_config"
        written = ""
        for case in cases:
            scene, _, expected = case.partition("\nexpect\n")
            title, *lines = scene.split("\n")
            actual = transcript(program, lines, take_log)
            if EMULATOR:  # vfork(2) is a fork there, whose child can only exit to say that it found no program
                actual = actual.replace(": exit status 127\n", ": could not be run: Permission denied\n")
            written += f"case {scene}\nexpect\n{actual}"
            if actual == expected:
                passed += 1
                continue
            failed += 1
            print(f"{path}: {title}")
        name = path[path.rindex("tests/"):]
        diff = difflib.unified_diff(text.splitlines(True), written.splitlines(True), "a/" + name, "b/" + name)
        print("".join(diff), end="")
    print(f"{passed} passed, {failed} failed")
    return failed != 0 or passed == 0


if __name__ == "__main__":
    sys.stdout.reconfigure(errors="surrogateescape")
    sys.exit(main(*sys.argv[1:]))
