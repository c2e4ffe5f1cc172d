#!/usr/bin/env python3
# Nothing half-written, whatever fails: faults.py STAGE
#
# Every command of the staged package runs on a private machine: with each of its system calls made to fail in turn, with
# SIGKILL or SIGTERM at each that changes a file, on a disk full but for some pages, with a power cut on ext4 and xfs; and
# what compiles its tables is killed. Then every target and table holds what it held or all of what it is to hold, a write
# that failed has left one log line, no secret lies about. Damage that has to be seen: half a file, Postfix's compilers.
import collections
import functools
import os
import re
import shutil
import subprocess
import sys

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, TOP + "/lab")
import appliance
from appliance import ETC, PACKAGE, PROGRAM, read, settings, write

SBIN = PACKAGE + "/target/sbin/"
# The second writes also what the third does when `net` fails.
CASES = ("smtp local", "domain_alias win", "smtp win", "smtp ldap", "dovecot", "mailscanner", "alias", "sender_quota_map")
ERRORS = {"openat": "EMFILE", "read": "EIO", "write": "ENOSPC", "close|fsync|lseek": "EIO", "f?chmod|unlink": "EPERM",
          "rename": "EXDEV", "newfstatat": "EACCES", "mmap": "ENOMEM", "pipe2": "EMFILE", "v?fork|clone3?": "EAGAIN",
          "wait4": "ECHILD"}
CHANGING = "p?write(64)?|f(data)?sync|f?chmod|f?chown|rename(at2?)?|unlink(at)?|mkdir|symlinkat"
OLD, OLD_ENTRIES, OWN = "old old\n", "old\told", "own = key\n"  # in targets before a run; the administrator's key
SECRETS = {"relay-secret": "sasl_passwd", "ldap-secret": "ldap-aliases.cf", "wins-secret": "domain-aliases.cf"}
SMTP = {"win_domain_short_name": "CORP", "smtp_relay_password": "relay-secret", **dict.fromkeys((
    "smtp_relay_enabled", "enable_dkim", "enable_dmarc", "reject_spf_soft_fail", "reject_sasl_sender_rate_exceed"), True)}
INPUTS = {
    **{f"{PACKAGE}/etc/customize/{path}": OWN for path in (
        "postfix/main.cf", "MailScanner/MailScanner.conf", "dovecot/10-mail.conf")},
    "/run/old": OLD, "/usr/nubo/etc/ldap.secret": "ldap-secret\n",
    "/usr/nubo/etc/wins.secret": "domain = C\nuser = u\npassword = wins-secret\n",
    "/usr/nubo/etc/nslcd.conf": "uri ldap://ldap.example\nbase dc=example\nbinddn cn=mail\n",
    "/usr/bin/net": "#!/bin/sh\nprintf 'LDAP server: h\\nLDAP port: 1\\nBind Path: b\\ndistinguishedName: CN=u\\n'\n"}
LISTED = f"alias_maps = hash:{ETC}/aliases, hash:{ETC}/domain-aliases"  # in main.cf when `net` fails
new = {}  # (mode, text) of each target after a run without faults, by its path
own = {}  # those of the command at hand


def sh(command):
    return appliance.run("bash", "-ec", command).returncode


@functools.lru_cache(None)
def entries(table, _content):
    lines = appliance.run("postmap", "-s", "hash:" + table.removesuffix(".db")).stdout.splitlines()
    return "\n".join(sorted(line for line in lines if "YP_LAST_MODIFIED" not in line))


def files():
    """What stands where the program could write: (mode, text) by its path; of a compiled table, its entries."""
    paths = [f"{folder}/{name}" for top in (ETC, "/tmp") for folder, _, names in os.walk(top) for name in names]
    return {path: (os.stat(path).st_mode & 0o7777, entries(path, read(path)) if path.endswith(".db") else read(path))
            for path in filter(os.path.exists, paths)}


def restore():
    for place in (*os.scandir(ETC), *os.scandir("/tmp")):
        shutil.rmtree(place.path) if place.is_dir() else os.unlink(place.path)
    shutil.copytree("/run/etc", ETC, dirs_exist_ok=True)
    for path in new:
        shutil.copyfile("/run/old.db" if path.endswith(".db") else "/run/old", path)


def lay_out(stage):
    appliance.lay_out(stage, ())
    os.umask(0o022)
    for path, text in INPUTS.items():
        write(path, text, 0o755 if path == "/usr/bin/net" else 0o600)
    sh(f"rm {ETC}/*.db; cp -a {ETC} /run/etc; mount -t tmpfs -o size=3m tmpfs {ETC}; mount -t tmpfs tmpfs /tmp;"
       "postmap /run/old; echo passwd: files >/etc/nsswitch.conf;"
       "for n in {3000..3019}; do echo \"CORP\\user$n:x:$n:$n:$(printf %300d 0):/:\" >>/etc/passwd; done")


def run(case, fault="", *options):
    """Runs a command with a fault: its status, what it logged, and its trace."""
    inject = ("-e", "trace=" + fault.split(":")[0], "-e", "inject=" + fault) if fault else ()
    strace = ("timeout", "60", "strace", "-qq", "-s", "400", "-o", "/run/trace", *inject, *options)
    status = appliance.run(*strace, PROGRAM, case.split()[0]).returncode
    return status, [line for line in appliance.take_log() if " postfix/" not in line], read("/run/trace")


def prepare(case, compiler):
    """Finds out what each target of the command is to hold. Returns the trace of a run without a fault."""
    sh(f"ln -sf {compiler} {SBIN}postmap; ln -sf {compiler} {SBIN}postalias")
    settings(smtp=SMTP | {"account_type": case.split()[-1]}, aliases={f"alias{n}": ["root", "b"] for n in range(50)},
             scanner={"spam_enable": True}, sender_quotas={f"u{n}@example.com": n for n in range(50)})
    restore()
    before = files()
    status, log, trace = run(case)
    own.clear()
    own.update((path, value) for path, value in files().items() if value != before.get(path))
    new.update(own)
    if status or log or trace.count("rename(") != len(re.findall(r"fsync.* = 0\nclose.* = 0\nrename", trace)):
        raise RuntimeError(f"{case}: status {status}, logged {log}, or a rename without an fsync before it")
    return trace


def faults(trace):
    """All that can be made to fail in a run with this trace, from the end of the loader's own calls on."""
    count, loaded = collections.Counter(), False
    for line in trace.splitlines():
        name = line.split("(")[0]
        count[name] += 1
        loaded = loaded or '"/dev/null"' in line
        ends = ["error=" + error for names, error in ERRORS.items() if re.fullmatch(names, name)]
        ends += ["signal=KILL", "signal=TERM"] if re.fullmatch(CHANGING, name) else []
        yield from (f"{name}:{end}:when={count[name]}" for end in ends if loaded)


def damage(fault, status, log):
    """What is wrong after a run, as text."""
    killed, late, merged = "signal" in fault, set(own), re.search(r"\w{6}: cannot be", "".join(log))
    strict = re.match("write|fsync|full|.*signal|$", fault)  # else what cannot be opened may be left out
    for path, (mode, text) in files().items():
        name = path.removeprefix(ETC + "/")
        for secret, home in SECRETS.items():
            kept = {home + ".db", home if home != "sasl_passwd" or "unlink:e" in fault else ""}
            if secret in text and name not in kept and not ("KILL" in fault and name.startswith(home)):
                yield f"a secret in {name}"
        if path in new and text not in (OLD, OLD_ENTRIES):
            late.discard(path)
            whole = text in (new[path][1], merged and new[path][1].removesuffix(OWN))
            lines = set(text.splitlines()) <= {*new[path][1].splitlines(), LISTED}
            if not whole and (strict or not lines) or mode != new[path][0] and strict:
                yield f"{name} with mode {mode:o} holds {text!r}"
        elif path not in new and strict and not killed and name[:-6] != "aliases" and not os.path.exists("/run/etc/" + name):
            yield f"{name} is left"
    if status not in (0, 255) and not killed or status == 255 and not log or late and not (fault and (
            killed or log or not strict)) or re.match("(write|fsync):e", fault) and len(log) != 1 or any(
            map("".join(log).count, SECRETS)) or not all(re.match("<11>.{15} nubo_set_config: [ -~]", line) for line in log):
        yield f"status {status}, {late} is old, logged {log}"


def each_fault(case, part):
    for fault in ["", *faults(prepare(case, "/bin/true"))][part::2]:
        restore()
        yield fault, damage(fault, *run(case, fault)[:2])


def full_disk(case):
    prepare(case, "compile_table")
    for pages in range(26):
        restore()
        sh(f"head -c {4096 * (os.statvfs(ETC).f_bavail - pages)} /dev/zero >{ETC}/filler")
        result = run(case)[:2]
        os.unlink(ETC + "/filler")
        yield f"but for {pages} pages", damage("full", *result)


def power_cut(kind):
    """What is on the disk at ten moments, each right after its journal was written."""
    prepare("smtp ldap", "compile_table")
    if sh(f"[ -e /dev/loop-control ] || mknod /dev/loop-control c 10 237; rm -f /run/disk; truncate -s 320M /run/disk;"
          f"for n in {{0..15}}; do [ -e /dev/loop$n ] || mknod /dev/loop$n b 7 $n; done;"
          f"mkfs.{kind} -q /run/disk; mount -o loop /run/disk {ETC}"):
        print(f"no {kind} in a loop device here: only each fsync before a rename is checked")
        return
    for moment in range(1, 11):
        restore()
        sh("sync -f " + ETC)
        result = run("smtp ldap", f"rename:signal=KILL:when={moment}")[:2]
        sh(f"echo >{ETC}/x; sync {ETC}/x; cp --sparse=always /run/disk /run/cut;"
           f"mount -o {'loop,nouuid' if kind == 'xfs' else 'loop'} /run/cut {ETC}")
        yield f"after rename {moment}", damage("signal=KILL", *result)
        sh(f"umount {ETC}")
    sh(f"umount {ETC}")


def killed_compiler(program):
    """Each of the processes that compile is killed at its first changing call, then at its second, and so on."""
    prepare("alias", "compile_table")
    for call in range(1, 9):
        restore()
        write(ETC + "/aliases", new[ETC + "/aliases"][1])
        sh(f"strace -fqq -o /dev/null -e 'inject=/^({CHANGING})$:signal=KILL:when={call}' {program} {ETC}/aliases")
        yield f"call {call}", damage("signal=KILL", 0, [])


def fifty_at_once(case):
    prepare(case, "/bin/true")
    restore()
    runs = [subprocess.Popen([PROGRAM, case.split()[0]]) for _ in range(50)]
    yield "", damage("", max(run.wait() for run in runs), appliance.take_log())
    trace = run(case, "", "-f", "-e", "trace=execve")[2]
    yield "arguments", [trace] if any(map(trace.count, SECRETS)) else []


def damage_is_seen(command):
    prepare(command, "/bin/true")
    write(ETC + "/dovecot/conf.d/10-master.conf", new[ETC + "/dovecot/conf.d/10-master.conf"][1][:-2])
    yield "half a file", [] if list(damage("", 0, [])) else ["not seen"]
    yield "Postfix's own", [] if any(list(wrong) for _, wrong in killed_compiler("/usr/sbin/postalias")) else ["not seen"]


def work(stage, part):
    """Half of the checks."""
    lay_out(stage)
    more = [(check, case) for check in (full_disk, fifty_at_once) for case in CASES]
    more += [(killed_compiler, SBIN + "postalias"), (killed_compiler, SBIN + "postmap"), (damage_is_seen, "dovecot"),
             (power_cut, "ext4"), (power_cut, "xfs")]
    for check, case, *half in [*((each_fault, case, part) for case in CASES), *more[part::2]]:
        count = [0, 0]
        for fault, wrong in ((fault, list(wrong)) for fault, wrong in check(case, *half)):
            count[bool(wrong)] += 1
            print("".join(f"{case} {fault}: {text}"[:1000] + "\n" for text in wrong), end="")
        print(f"{check.__name__} {case}: {count[0]} good, {count[1]} bad", flush=True)


def main(stage):
    argv = [TOP + "/lab/private_root", TOP, sys.executable, os.path.abspath(__file__), os.path.abspath(stage)]
    workers = [subprocess.Popen([*argv, part], stdout=subprocess.PIPE, text=True) for part in "01"]
    text = "".join(worker.communicate()[0] for worker in workers)
    good, bad = (sum(map(int, re.findall(rf"(?m)(\d+) {word}", text))) for word in ("good,", "bad$"))
    bad += sum(worker.returncode != 0 for worker in workers)
    print(f"{text}{good} passed, {bad} failed")
    sys.exit(bad != 0)


if __name__ == "__main__":
    work(sys.argv[1], int(sys.argv[2])) if sys.argv[2:] else main(sys.argv[1])
