#!/usr/bin/env python3
# Whole runs as text: run_cases.py PROGRAM FILE.case...
#
# A case lays out files, runs one command, and lists all that results: status, output, programs run, log lines, and each
# file that is new, changed or gone, with mode and bytes. Anything else makes it fail. The later cases of a file list only
# what differs from the first one.
#
#     case TITLE                or the first line of its scene, when that says enough
#     smtp JSON                 keys of a settings file; likewise the other names in SETTINGS
#     file PATH CONTENT         a file (\n, \t, \r, \xHH and \\ as in C; \{9 c} is nine times c); secret: with mode 0600
#     script PATH COMMAND       a program; postmap and postalias copy the table, nubopkghelper does nothing
#     dir PATH... / remove PATH... / link PATH TARGET    a directory in the file's place / no file / a symbolic link
#     closed                    descriptors 0, 1 and 2 are closed
#     run WORD...               the program's arguments
#     base                      the later cases start from this one
#     status N / says TEXT / runs PROGRAM... / log TEXT
#     PATH MODE                 a file; $E is target/etc, $P the package, XXXXXX a temporary name's suffix
#     |TEXT                     one of its lines
#     PATH ~N |TEXT             this line stands in place of line N of the first case with this file
#     +N |TEXT / -N to M        this line stands after line N / lines N to M are missing
#     \TEXT                     the line before goes on
#
# A file that differs in more than two thirds of its lines is shown whole.
#
# Runs only on a private machine (lab/private_root). Differences are printed as a patch, which can be applied to the
# cases with `patch -p1` after a review.
import difflib
import itertools
import json
import os
import re
import shlex
import shutil
import subprocess
import sys

from appliance import ETC, PACKAGE, POSTMAP, listen, read, write

SETTINGS = ("smtp", "scanner", "imap_pop3", "aliases", "sender_quotas", "attachment_filter")
VERBS = (*SETTINGS, "file", "secret", "script", "dir", "remove", "link", "closed", "run", "base")
SUFFIX = re.compile(r"((?:\.cf|\.conf|_checks|Table|Hosts|aliases|_map|ad_info))[A-Za-z0-9]{6}\b")
OWN = re.compile(r"^<11>.{15} nubo_set_config: ")  # LOG_USER and LOG_ERR
EMULATOR = os.environ.get("EMULATOR", "").split()  # runs a program of another architecture
PROGRAMS = (POSTMAP, PACKAGE + "/target/sbin/postalias", "/usr/nubo/sbin/nubopkghelper", "/usr/bin/net")
# Where every scene starts, beside templates and programs.
SCENE = (r"file /etc/passwd root:x:0:0::/:\nD\\zoe:x:7:7::/:\n",
         r"file /usr/nubo/etc/nslcd.conf uri ldap://a\nbase b\nbinddn c\n",
         r"secret /usr/nubo/etc/ldap.secret s3cret\n",
         r"secret /usr/nubo/etc/wins.secret domain=D\nuser=u\npassword=p\n",
         r"script /usr/bin/net printf 'LDAP server: h\nLDAP port: 389\nBind Path: b\ndistinguishedName: CN=a\n'")


def expand(text):
    def escaped(match):
        byte, count, repeated, letter = match.groups()
        if byte:
            return bytes.fromhex(byte).decode(errors="surrogateescape")
        return int(count) * repeated if count else {"n": "\n", "t": "\t", "r": "\r"}.get(letter, letter)

    return re.sub(r"\\(?:x(..)|\{(\d+) (.)\}|(.))", escaped, text)


def shorten(text):
    text = re.sub(r"(.)\1{99,}", lambda match: f"\\{{{len(match[0])} {match[1]}}}", SUFFIX.sub(r"\1XXXXXX", text))
    return text.replace(ETC, "$E").replace(PACKAGE, "$P")


def put_program(path, command):
    write(path, f"#!/bin/sh\nprintf '%s\\0' \"$0 $*\" >>/run/trace\n{command}\n", 0o755)


def tree():
    """Mode and content of every file, by path."""
    paths = [os.path.join(folder, name) for top in (PACKAGE, "/usr/nubo", "/tmp") for folder, _, names in os.walk(top)
             for name in names]
    return {path: (f"{os.stat(path).st_mode & 0o7777:o}", read(path)) for path in filter(os.path.exists, paths)}


def in_scene(line):
    return line[0] == "\\" or line.split(" ")[0] in VERBS


def unfold(lines):
    return "\n".join(lines).replace("\n\\", "").split("\n")


def fold(line, width=120):
    """The line in pieces of at most this many characters, cut before a blank, if possible after a comma."""
    cut = re.match(rf".{{1,{width - 1}}},(?= )", line) or re.match(rf".{{1,{width - 1}}}\S(?= )", line)
    return [cut[0], *fold("\\" + line[cut.end():], width)] if cut and len(line) > width else [line]


def set_scene(lines):
    """Lays out the files of a scene. Returns the words of `run`, and the lines of one word."""
    for path in (PACKAGE, "/usr/nubo", *(entry.path for entry in os.scandir("/tmp"))):
        shutil.rmtree(path, ignore_errors=True)
    for folder in ("MailScanner", "dovecot/conf.d", "opendkim", "spamassassin"):
        os.makedirs(f"{ETC}/{folder}")
    for name in "main master header_checks opendkim opendmarc 10-mail mailscanner spamassassin".split():
        write(f"{ETC}/template/{name}.template", f"# {name}\n")
    for path in PROGRAMS:
        put_program(path, 'cp -p "$1" "$1.db" 2>&-' if "/post" in path else "")
    argv, flags = [], set()
    for line in (*SCENE, *lines):
        verb, _, rest = line.replace("$E", ETC).replace("$P", PACKAGE).partition(" ")
        path, _, content = rest.partition(" ")
        if verb in SETTINGS:
            path = f"{PACKAGE}/etc/settings/{verb}.json"
            values = json.loads(read(path)) if os.path.exists(path) else {}
            write(path, json.dumps(values | json.loads(rest), ensure_ascii=False))
        elif verb in ("file", "secret"):
            write(path, expand(content), 0o644 if verb == "file" else 0o600)
        elif verb == "script":
            put_program(path, content)
        elif verb == "dir":  # not empty, so that rename cannot replace it
            for path in rest.split():
                os.makedirs(path + "/x")
        elif verb == "remove":
            for path in rest.split():
                shutil.rmtree(path) if os.path.isdir(path) else os.unlink(path)
        elif verb == "link":
            os.makedirs(os.path.dirname(path), exist_ok=True)
            os.symlink(content, path)
        elif verb == "run":
            argv = shlex.split(rest)
        else:
            flags.add(verb)
    return argv, flags


def cover():
    """Gives the test its own /tmp and /usr/bin, which is for net. Works without root too."""
    os.makedirs("/run/upper")
    os.makedirs("/run/work")
    layers = "lowerdir=/usr/bin,upperdir=/run/upper,workdir=/run/work"
    subprocess.run(["mount", "-t", "overlay", "-o", layers, "overlay", "/usr/bin"], check=True)
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/tmp"], check=True)


def run(program, argv, flags, take_log):
    """The results of a run, as lines by file; those of no file are under ""."""
    write("/run/trace", "")
    before = tree()
    # SIGCHLD may be ignored when the program starts. Then the kernel drops the status of a child.
    shell = 'trap "" CHLD; exec "$@"' + " <&- >&- 2>&-" * ("closed" in flags)
    done = subprocess.run(["sh", "-c", shell, "sh", *program, *argv], stdin=subprocess.DEVNULL, capture_output=True,
                          check=False, timeout=60, env={})
    lines = ["says " + line.decode() for line in (done.stdout + done.stderr).splitlines()]
    lines += ["runs " + line for line in read("/run/trace").split("\0")[:-1]]
    lines += ["log " + OWN.sub("", line) for line in take_log()]
    lines = [shorten(line).replace("\n", "\\n") for line in lines]
    if EMULATOR:  # there, vfork(2) is a fork: a child that finds no program can tell it only by its exit status
        lines = [line.replace(": exit status 127", ": could not be run: Permission denied") for line in lines]
    blocks = {"": [f"status {done.returncode}", *lines]}
    after = tree()
    for path in before.keys() - after.keys():
        blocks[shorten(path)] = ["gone"]
    for path, (mode, content) in after.items():
        compiled = after.get(path + ".db") == after[path]
        done = path.endswith(".db") and after.get(path[:-3]) == after[path]
        if compiled or before.get(path) != after[path] and not done:
            lines = ["|" + line for line in shorten(content).split("\n")]
            lines = lines[:-1] if content.endswith("\n") or not content else [*lines, "(no line end)"]
            blocks[shorten(path)] = [mode + " compiled" * compiled, *lines]
    return blocks


def differences(lines, known):
    """The changes that turn the known lines into these."""
    for kind, begin, end, start, stop in difflib.SequenceMatcher(None, known, lines, False).get_opcodes():
        if kind != "equal":
            both = begin + min(end - begin, stop - start)
            yield from (f"~{number + 1} {lines[start + number - begin]}" for number in range(begin, both))
            yield from (f"+{both} {line}" for line in lines[start + both - begin:stop])
            yield from [f"-{both + 1}" + f" to {end}" * (end > both + 1)] * (end > both)


def render(blocks, base, known):
    """The run as text: the differences from the base, and from the known lines of each file."""
    shown = []
    for name in sorted(name for name in blocks if blocks[name] != base.get(name)):
        head, *lines = blocks[name]
        like = known.get(name.removesuffix("XXXXXX"))
        changes = list(differences(lines, like[1:])) if like else lines
        if name and 3 * len(changes) > 2 * len(lines) > 6:
            like, changes = None, lines
        title = [name, head if not like or head != like[0] else ""]
        if like and name and changes and len(name + changes[0]) < 120:
            title.append(changes.pop(0))
        shown += [" ".join(filter(None, title)), *changes]
    missing = sorted(base.keys() - blocks.keys())
    shown += fold(" ".join(["not written", *missing])) if missing else []
    return list(filter(None, shown))


def main(program, *paths):
    os.umask(0o022)
    shutil.copy(program, "/run/nubo_set_config")
    texts = {path: read(path) for path in filter(os.path.exists, paths)}
    cover()
    write("/etc/nsswitch.conf", "passwd: files\n")
    take_log = listen()
    counts = [0, 0]
    for path, text in texts.items():
        written, start, base, known = "", [], {}, {}
        for case in re.split(r"(?m)^case ", text)[1:]:
            title, *lines = case.removesuffix("\n").split("\n")
            given = [title, *itertools.takewhile(in_scene, lines)]
            scene = unfold(given[not in_scene(title):])
            results = run([*EMULATOR, "/run/nubo_set_config"], *set_scene(start + scene), take_log)
            # Leaves room for what stands before a line that differs.
            blocks = {name: [piece for line in lines for piece in fold(line, 116)] for name, lines in results.items()}
            actual = "\n".join(given + render(blocks, base, known)) + "\n"
            if not base or "base" in scene:
                start, base = start + scene, blocks
            known = {**blocks, **known, **base}
            written += "case " + actual
            counts[actual == case] += 1
            print("" if actual == case else f"{path}: {title}\n", end="")
        name = path[path.rindex("tests/"):]
        diff = difflib.unified_diff(text.splitlines(True), written.splitlines(True), "a/" + name, "b/" + name)
        print("".join(diff), end="")
    print(f"{counts[1]} passed, {counts[0]} failed")
    return counts[0] != 0 or counts[1] == 0


if __name__ == "__main__":
    sys.stdout.reconfigure(errors="surrogateescape")
    sys.exit(main(*sys.argv[1:]))
