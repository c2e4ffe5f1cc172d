#!/usr/bin/python3
"""faults.py STAGED-PACKAGE: whatever fails while a command writes, its promises hold (the functions below PROMISES).

Each of its system calls is made to fail in turn; it gets SIGKILL or SIGTERM at each call that changes a file; the disk
is full but for some pages; the power is cut on ext4 and on xfs; what compiles its tables is killed. It starts two
private machines, which do half of that each: faults.py STAGED-PACKAGE {0|1} [arguments of unittest]."""

import collections
import functools
import os
import re
import shutil
import subprocess
import sys
import typing
import unittest

import appliance
from appliance import ETC, PACKAGE, PROGRAM, SBIN, read, settings, write

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# A command, and the type of its accounts. The second case writes also what the third does when `net` fails.
CASES = ("smtp local", "domain_alias win", "smtp win", "smtp ldap", "dovecot", "mailscanner", "alias",
         "sender_quota_map")
ERRORS = {
    "openat|pipe2": "EMFILE",
    "read|close|fsync|lseek": "EIO",
    "write": "ENOSPC",
    "f?chmod|unlink": "EPERM",
    "rename": "EXDEV",
    "newfstatat": "EACCES",
    "mmap": "ENOMEM",
    "v?fork|clone3?": "EAGAIN",
    "wait4": "ECHILD",
}
CHANGING = "p?write(64)?|f(data)?sync|f?chmod|f?chown|rename(at2?)?|unlink(at)?|mkdir|symlinkat"
# In each target before a run; the same as entries of a table; and what the administrator adds to a file.
OLD, OLD_ENTRIES, OWN = "old old\n", "old\told", "own = key\n"
SECRETS = {"relay-secret": "sasl_passwd", "ldap-secret": "ldap-aliases.cf", "wins-secret": "domain-aliases.cf"}
SMTP = {
    "win_domain_short_name": "CORP",
    "smtp_relay_password": "relay-secret",
    "smtp_relay_enabled": True,
    "enable_dkim": True,
    "enable_dmarc": True,
    "reject_spf_soft_fail": True,
    "reject_sasl_sender_rate_exceed": True,
}
INPUTS = {
    PACKAGE + "/etc/customize/postfix/main.cf": OWN,
    PACKAGE + "/etc/customize/MailScanner/MailScanner.conf": OWN,
    PACKAGE + "/etc/customize/dovecot/10-mail.conf": OWN,
    "/run/old": OLD,
    "/usr/nubo/etc/ldap.secret": "ldap-secret\n",
    "/usr/nubo/etc/wins.secret": "domain = C\nuser = u\npassword = wins-secret\n",
    "/usr/nubo/etc/nslcd.conf": "uri ldap://ldap.example\nbase dc=example\nbinddn cn=mail\n",
}
NET = "#!/bin/sh\nprintf 'LDAP server: h\\nLDAP port: 1\\nBind Path: b\\ndistinguishedName: CN=u\\n'\n"
LISTED = f"alias_maps = hash:{ETC}/aliases, hash:{ETC}/domain-aliases"  # in main.cf when `net` fails
new = {}  # (mode, text) of each target after a run without faults, by its path
own = {}  # those of the command at hand


class Run(typing.NamedTuple):
    """What a command has left."""
    fault: str  # as strace(1) names it, or "" for none, or "full" for a full disk
    status: int
    log: list
    files: dict

    def is_killed(self):
        return "signal" in self.fault

    def may_leave_out(self):
        """What cannot be opened or read is left out of a file."""
        return not re.match("write|fsync|full|.*signal|$", self.fault)


def secrets_leaked(run):
    """A secret stands in its own file alone, and in the table that is made of it."""
    for path, (_, text) in run.files.items():
        name = path.removeprefix(ETC + "/")
        for secret, home in SECRETS.items():
            # The relay's password stays in its table only, unless its text cannot be removed.
            homes = {home + ".db"} if home == "sasl_passwd" and "unlink:e" not in run.fault else {home, home + ".db"}
            is_cut_off = "KILL" in run.fault and name.startswith(home)
            if secret in text and name not in homes and not is_cut_off:
                yield f"a secret in {name}"


def secrets_logged(run):
    """No secret is logged."""
    for line in run.log:
        if any(secret in line for secret in SECRETS):
            yield line


def half_written(run):
    """Each target, each table holds what it held or all of what it is to hold, with the mode that it is to have."""
    for path, (mode, text) in run.files.items():
        if path not in new or text in (OLD, OLD_ENTRIES):
            continue
        whole = {new[path][1]}
        if any(re.search(r"\w{6}: cannot be", line) for line in run.log):
            whole.add(new[path][1].removesuffix(OWN))
        lines = {*new[path][1].splitlines(), LISTED}
        if text not in whole and not (run.may_leave_out() and lines.issuperset(text.splitlines())):
            yield f"{path} holds {text!r}"
        if mode != new[path][0] and not run.may_leave_out():
            yield f"{path} has mode {mode:o}"


def left_behind(run):
    """No file of a run that was not killed is left, but for a list of aliases that could not be installed."""
    if run.is_killed() or run.may_leave_out():
        return
    for path in run.files.keys() - new.keys():
        if path[:-6] != ETC + "/aliases" and not os.path.exists(path.replace(ETC, "/run/etc")):
            yield path


def silently_old(run):
    """A target that is old has been logged."""
    if run.fault and (run.is_killed() or run.log or run.may_leave_out()):
        return
    for path in own:
        if run.files.get(path, ("", OLD))[1] in (OLD, OLD_ENTRIES):
            yield path


def wrong_status(run):
    """The status is 0, or it is 255 and the log says why."""
    if not run.is_killed() and run.status not in (0, 255) or run.status == 255 and not run.log:
        yield f"{run.status}, {run.log}"


def wrong_log(run):
    """A write that failed is one line of the log; every line is ours, and can be read."""
    if re.match("(write|fsync):e", run.fault) and len(run.log) != 1:
        yield f"{len(run.log)} lines: {run.log}"
    for line in run.log:
        if not re.match("<11>.{15} nubo_set_config: [ -~]", line):
            yield line


PROMISES = (secrets_leaked, secrets_logged, half_written, left_behind, silently_old, wrong_status, wrong_log)


def sh(command):
    return appliance.run("bash", "-ec", command).returncode


@functools.lru_cache(None)
def entries(table, _content):
    lines = appliance.run("postmap", "-s", "hash:" + table.removesuffix(".db")).stdout.splitlines()
    return "\n".join(sorted(line for line in lines if "YP_LAST_MODIFIED" not in line))


def files():
    """What stands where the program could write: (mode, text) by its path; of a compiled table, its entries."""
    paths = [f"{folder}/{name}" for top in (ETC, "/tmp") for folder, _, names in os.walk(top) for name in names]
    found = {}
    for path in filter(os.path.exists, paths):
        text = entries(path, read(path)) if path.endswith(".db") else read(path)
        found[path] = os.stat(path).st_mode & 0o7777, text
    return found


def restore():
    """Puts the templates back, and something old in place of each target."""
    for place in (*os.scandir(ETC), *os.scandir("/tmp")):
        shutil.rmtree(place.path) if place.is_dir() else os.unlink(place.path)
    shutil.copytree("/run/etc", ETC, dirs_exist_ok=True)
    for path in new:
        shutil.copyfile("/run/old.db" if path.endswith(".db") else "/run/old", path)


def run(case, fault="", *options):
    """Runs a command with a fault: its status, what it logged, and its trace."""
    inject = ("-e", "trace=" + fault.split(":")[0], "-e", "inject=" + fault) if fault else ()
    strace = ("timeout", "60", "strace", "-qq", "-s", "400", "-o", "/run/trace", *inject, *options)
    status = appliance.run(*strace, PROGRAM, case.split()[0]).returncode
    return status, [line for line in appliance.take_log() if " postfix/" not in line], read("/run/trace")


def prepare(case, compiler):
    """Finds out what each target of the command is to hold. Returns the trace of a run without a fault."""
    sh(f"ln -sf {compiler} {SBIN}/postmap; ln -sf {compiler} {SBIN}/postalias")
    settings(smtp={**SMTP, "account_type": case.split()[-1]},
             aliases={f"alias{number}": ["root", "b"] for number in range(50)},
             scanner={"spam_enable": True},
             sender_quotas={f"u{number}@example.com": number for number in range(50)})
    restore()
    before = files()
    status, log, trace = run(case)
    own.clear()
    own.update((path, value) for path, value in files().items() if value != before.get(path))
    new.update(own)
    renames, synced = trace.count("rename("), len(re.findall(r"fsync.* = 0\nclose.* = 0\nrename", trace))
    if status or log or renames != synced:
        raise RuntimeError(f"{case}: status {status}, logged {log}, {renames} renames, {synced} of them after an fsync")
    return trace


def calls(trace):
    """The faults of all calls in a trace, from the end of the loader's own calls on."""
    count = collections.Counter()
    loaded = False
    for line in trace.splitlines():
        name = line.split("(")[0]
        count[name] += 1
        loaded = loaded or '"/dev/null"' in line
        ends = ["error=" + error for names, error in ERRORS.items() if re.fullmatch(names, name)]
        if re.fullmatch(CHANGING, name):
            ends += ["signal=KILL", "signal=TERM"]
        if loaded:
            yield from (f"{name}:{end}:when={count[name]}" for end in ends)


def setUpModule():
    appliance.lay_out(stage, ())
    os.umask(0o022)
    for path, text in INPUTS.items():
        write(path, text, 0o600)
    write("/usr/bin/net", NET, 0o755)
    sh(f"""rm {ETC}/*.db; cp -a {ETC} /run/etc
        mount -t tmpfs -o size=3m tmpfs {ETC}; mount -t tmpfs tmpfs /tmp
        postmap /run/old; echo passwd: files >/etc/nsswitch.conf
        for n in {{3000..3019}}; do echo "CORP\\user$n:x:$n:$n:$(printf %300d 0):/:"; done >>/etc/passwd""")


class Faults(unittest.TestCase):
    def check(self, what, fault, status, log, _trace=""):
        left = Run(fault, status, log, files())
        for promise in PROMISES:
            with self.subTest(promise.__doc__, after=what):
                self.assertEqual(list(promise(left)), [])

    def test_each_call(self):
        for case in CASES:
            faults = ["", *calls(prepare(case, "/bin/true"))]
            self.assertGreater(len(faults), 30, case)
            for fault in faults[half::2]:
                restore()
                self.check(f"{case} {fault}", fault, *run(case, fault))

    def test_full_disk(self):
        for case in CASES[half::2]:
            prepare(case, "compile_table")
            for pages in range(26):
                restore()
                sh(f"head -c {4096 * (os.statvfs(ETC).f_bavail - pages)} /dev/zero >{ETC}/filler")
                result = run(case)
                os.unlink(ETC + "/filler")
                self.check(f"{case}, {pages} pages", "full", *result)

    def test_power_cut(self):
        """What is on the disk at ten moments, each right after its journal was written."""
        kind, options = (("ext4", "loop"), ("xfs", "loop,nouuid"))[half]
        prepare("smtp ldap", "compile_table")
        if sh(f"""[ -e /dev/loop-control ] || mknod /dev/loop-control c 10 237; truncate -s 320M /run/disk
                for n in {{0..15}}; do [ -e /dev/loop$n ] || mknod /dev/loop$n b 7 $n; done
                mkfs.{kind} -q /run/disk; mount -o loop /run/disk {ETC}"""):
            self.skipTest(f"no {kind} in a loop device here: only each fsync before a rename was checked")
        for moment in range(1, 11):
            restore()
            sh("sync -f " + ETC)
            result = run("smtp ldap", f"rename:signal=KILL:when={moment}")
            sh(f"""echo >{ETC}/x; sync {ETC}/x; cp --sparse=always /run/disk /run/cut
                mount -o {options} /run/cut {ETC}""")
            self.check(f"rename {moment}, {kind}", "signal=KILL", *result)
            sh(f"umount {ETC}")
        sh(f"umount {ETC}")

    def test_killed_compiler(self):
        """Each of the processes that compile is killed at its first changing call, then at its second, and so on."""
        prepare("alias", "compile_table")
        program = SBIN + ("/postalias", "/postmap")[half]
        for call in range(1, 9):
            restore()
            write(ETC + "/aliases", new[ETC + "/aliases"][1])
            sh(f"strace -fqq -o /dev/null -e 'inject=/^({CHANGING})$:signal=KILL:when={call}' {program} {ETC}/aliases")
            self.check(f"call {call}", "signal=KILL", 0, [])


if __name__ == "__main__":
    stage = os.path.abspath(sys.argv.pop(1))
    if sys.argv[1:]:
        half = int(sys.argv.pop(1))
        unittest.main()
    command = [TOP + "/lab/private_root", TOP, sys.executable, os.path.abspath(__file__), stage]
    halves = [subprocess.Popen([*command, number]) for number in "01"]
    sys.exit(any([process.wait() for process in halves]))
