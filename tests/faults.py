#!/usr/bin/env python3
# Nothing lost, whatever fails: faults.py PROGRAM RENAME_BY_COPY
#
# Every command runs on the local platform, on a private machine, with each of its system calls made to fail
# in turn, on a disk where no file can grow beyond a size, and killed at each call that changes a file. After
# each run every target holds what it held or what it may hold, the run ended by itself with a documented
# status, and nothing stands where nothing belongs. RENAME_BY_COPY, a library that takes the atomic rename
# away, proves that the suite sees damage. Then: fifty runs at once, a million users, what the children get,
# how the binary was built.
import collections
import json
import os
import re
import shutil
import subprocess
import sys

from run_cases import PROGRAMS as CHILDREN, cover
from appliance import PACKAGE, PROGRAM, listen, read, write

ETC, LIBRARY, NET = PACKAGE + "/target/etc/", "/run/library.so", "/usr/bin/net"
CASES = ("smtp local", "smtp ldap", "smtp win", "dovecot", "mailscanner", "alias", "domain_alias win",
         "sender_quota_map")
# System calls, by their names on all architectures, and the errors that they are made to return.
ERRORS = {"open(at)?": "EMFILE EACCES", "read": "EIO", "write": "ENOSPC", "close|fsync|_?l?lseek": "EIO",
          "f?chmod(at)?|unlink(at)?": "EPERM", "rename(at2?)?": "EXDEV", "newfstatat|fstatat64|statx": "EACCES",
          "mmap2?": "ENOMEM", "pipe2": "EMFILE", "v?fork|clone3?": "EAGAIN", "wait4|waitid": "ECHILD EINTR"}
KILLED_AT = "write|fsync|f?chmod(at)?|rename(at2?)?|unlink(at)?"
SIZES = range(0, 2100, 70)  # bytes
# Files of lines: what a fault takes out of one is lost, no more.
LINES = ("main.cf", "master.cf", "header_checks", "dovecot/conf.d/10-master.conf", "dovecot/conf.d/10-mail.conf",
         "MailScanner/MailScanner.conf", "spamassassin/local.cf", "opendmarc.conf", "opendkim.conf",
         "opendkim/KeyTable", "opendkim/SigningTable", "opendkim/TrustedHosts")
# Files that are replaced whole or not at all. The first two may leave a temporary file behind.
WHOLE = ("aliases", "quota_memcache.cf", "domain-aliases", "domain-aliases.cf", "ldap-aliases.cf",
         "sender_quota_map", "MailScanner/filename.rules.conf")
OLD = (0o640, "old\n")
TEMPLATE = "# a template\nkey = template\n"
OWN_KEYS = ("myhostname", "Spam Checks", "key", "new")  # the administrator's
SECRETS = {"relay-secret": "sasl_passwd", "ldap-secret": "ldap-aliases.cf", "wins-secret": "domain-aliases.cf"}
SMTP = {"additional_domains": ["a.example"], "win_domain_short_name": "CORP", "smtp_relay_password": "relay-secret",
        **dict.fromkeys(("smtp_relay_enabled", "smtp_relay_auth_enabled", "enable_dkim", "enable_dmarc",
                         "enable_spf_check", "smtp_ssl_enabled", "restrict_sender", "reject_spf_soft_fail",
                         "reject_sasl_sender_rate_exceed", "reject_unknown_helo_hostname"), True)}
INPUTS = {
    PACKAGE + "/etc/settings/smtp.json": "",
    PACKAGE + "/etc/settings/scanner.json": '{"spam_enable": true, "enable_dangerous_content_scan": true}',
    PACKAGE + "/etc/settings/aliases.json": json.dumps({f"alias{n}": ["root", "b@example.com"] for n in range(50)}),
    PACKAGE + "/etc/settings/sender_quotas.json": json.dumps({f"u{n}@example.com": n for n in range(50)}),
    "/usr/nubo/etc/nslcd.conf": "uri ldap://ldap.example\nbase dc=example\nbinddn cn=mail,dc=example\n",
    "/usr/nubo/etc/ldap.secret": "ldap-secret\n",
    "/usr/nubo/etc/wins.secret": "domain = CORP\nuser = svc\npassword = wins-secret\n",
    "/etc/nsswitch.conf": "passwd: files\n",
    **{f"{ETC}template/{name}.template": TEMPLATE for name in (
        "main", "master", "header_checks", "opendkim", "opendmarc", "mailscanner", "spamassassin", "10-mail")},
    **{f"{PACKAGE}/etc/customize/{path}": "".join(f"{key} = own\n" for key in OWN_KEYS) for path in (
        "postfix/main.cf", "MailScanner/MailScanner.conf", "dovecot/10-mail.conf")}}
STAND_IN = r"""#!/bin/sh
[ "$2" != info ] || printf 'LDAP server: 192.0.2.1\nLDAP port: 389\nBind Path: dc=EXAMPLE,dc=COM\n'
[ "$2" != search ] || printf 'cn: svc\ndistinguishedName: CN=svc,DC=EXAMPLE\n\n'
"""
NULL = subprocess.DEVNULL
take_log = None  # takes the lines logged so far


def put_users(count, comment=""):
    write("/etc/passwd", "".join(f"CORP\\user{n}:x:{n}:{n}:{comment}:/:\n" for n in range(count)), 0o644)


def files():
    """What stands where the program could write: (mode, content) by path."""
    paths = [os.path.join(folder, name) for top in (ETC, "/tmp", "/usr/nubo/etc", PACKAGE + "/etc")
             for folder, _, names in os.walk(top) for name in names]
    return {path: (os.stat(path).st_mode & 0o7777, read(path)) for path in paths}


def lay_out(program, library):
    """Makes the appliance, with stand-ins for the programs that it runs."""
    global take_log
    os.umask(0o022)
    take_log = listen()
    for path, copy in ((program, PROGRAM), (library, LIBRARY)):
        os.makedirs(os.path.dirname(copy), exist_ok=True)
        shutil.copy(path, copy)
    cover()
    for path, text in (*INPUTS.items(), *((path, STAND_IN) for path in CHILDREN)):
        write(path, text, 0o600 if path in INPUTS else 0o755)
    put_users(20, "x" * 300)  # more than is read at once


def restore():
    for path in files().keys() - INPUTS.keys():
        os.unlink(path)
    for target in (*LINES, *WHOLE):
        write(ETC + target, OLD[1], OLD[0])


def run(case, fault="", *options):
    """Runs a command with a fault: its status, its trace and what it logged."""
    argv = [PROGRAM, case.split()[0]]
    if fault.startswith("size="):  # a write beyond it is cut short, then fails
        argv = ["sh", "-c", 'trap "" XFSZ; exec prlimit --fsize="$0" "$@"', fault[5:], *argv]
    else:
        inject = ("-e", "trace=" + fault.split(":")[0], "-e", "inject=" + fault) if fault else ()
        argv = ["strace", "-qq", "-s", "400", "-o", "/run/trace", *inject, *options, *argv]
    try:
        status = subprocess.run(argv, stdin=NULL, stdout=NULL, stderr=NULL, timeout=30).returncode
    except subprocess.TimeoutExpired:
        status = "does not end"
    return status, read("/run/trace") if argv[0] == "strace" else "", take_log()


def faults(trace):
    """All that can be made to fail in a run with this trace, from the end of the loader's own calls on."""
    count, loaded = collections.Counter(), False
    for line in trace.splitlines():
        name = line.split("(")[0]
        count[name] += 1
        loaded = loaded or '"/dev/null"' in line
        for names, errors in ERRORS.items() if loaded else ():
            if re.fullmatch(names, name):
                yield from (f"{name}:error={error}:when={count[name]}" for error in errors.split())
        if loaded and re.fullmatch(KILLED_AT, name):
            yield f"{name}:signal=KILL:when={count[name]}"
        if loaded and name == "write":
            yield f"{name}:error=ENOSPC:when={count[name]}+"  # and stays full
    yield from (f"size={size}" for size in SIZES)
    if "clone" in trace:
        yield "execve:error=ENOENT:when=1"


def merged(text):
    for key in OWN_KEYS:
        text, found = re.subn(rf"(?m)^{key} = .*\n?", f"{key} = own\n", text)
        text += "" if found else f"{key} = own\n" if text.endswith("\n") or not text else f"\n{key} = own\n"
    return text


def contents(target, text):
    """What a file of lines may hold when its whole, not merged, is `text`; the whole first. Lost is the
    template, or all lines from one that could not be written on."""
    texts = [text, *(text[:size] for size in SIZES)]
    above, template, below = text.partition(TEMPLATE)
    for head in {"", template}:
        lines = (above or below).splitlines(True)
        for some in ("".join(lines[:n]) for n in range(len(lines) + 1)):
            texts.append(some + head if target == "header_checks" else head + some)
    mergeable = target in ("main.cf", "MailScanner/MailScanner.conf", "dovecot/conf.d/10-mail.conf")
    return [merged(text) for text in texts if mergeable] + texts


def prepare(case):
    """What each target of the command may hold afterwards, the content after a run without faults first
    (None: not written then)."""
    allowed = {}
    write(PACKAGE + "/etc/settings/smtp.json", json.dumps(SMTP | {"account_type": case.split()[-1]}), 0o600)
    os.rename(PACKAGE + "/etc/customize", PACKAGE + "/off")
    for mode in (0o755, 0):  # without `net`, the machine counts as not joined to the domain
        os.chmod(NET, mode)
        restore()
        run(case)
        for target in (*LINES, *WHOLE):
            text = read(ETC + target)
            if text != OLD[1]:
                texts = contents(target, text) if target in LINES else [text]
                allowed.setdefault(target, [] if mode else [None]).extend(texts)
    os.chmod(NET, 0o755)
    os.rename(PACKAGE + "/off", PACKAGE + "/etc/customize")
    return allowed


def damage(case, allowed, fault, status, trace, log):
    """What is wrong after a run, as text."""
    now, new, killed, lossless = files(), set(), "KILL" in fault, re.search("^$|KILL|EINTR", fault)
    for path in now.keys() - INPUTS.keys():
        if any(secret in now[path][1] and not path.startswith(ETC + home) for secret, home in SECRETS.items()):
            yield f"a secret in {path}"
    for target in (*LINES, *WHOLE):
        mode, text = now.pop(ETC + target, (0, None))
        if (mode, text) != OLD:
            new.add(target)
            modes = (0o600, 0o644 if "open" in fault else 0o600) if target.startswith("opend") else (0o644,)
            texts = allowed.get(target, [])
            if mode not in modes or text not in texts[:1 if lossless else None]:
                yield f"{target} with mode {mode:o} holds {text!r}"
    kept = re.findall(r'unlink(?:at)?\(.*?"(.*)".*INJECTED', trace)
    for path in now.keys() - INPUTS.keys() - set(kept):
        name = path.removeprefix(ETC)
        failed = name[:-6] in (*LINES, *WHOLE[:2]) and name[:-6] not in new
        if not failed and not (killed and re.fullmatch(
                "/tmp/ad_info.{6}|sasl_passwd|(%s).{6}(.{6})?" % "|".join((*LINES, *WHOLE)), name)):
            yield f"{path} is left"
    smtp = case.startswith("smtp")
    if status not in ((-9,) if killed else (0,) if lossless else (0, 255)) or (
            status == 255 and (not log or smtp and new)):
        yield f"status {status} with new {new}, logged {log}"
    late = {target for target, texts in allowed.items() if texts[0]} - new
    if status == 0 and late and (lossless or not log and not smtp):
        yield f"status 0, but {late} is old"
    for line in log:
        if not re.match("<11>.{15} nubo_set_config: [ -~]", line) or any(map(line.count, SECRETS)):
            yield f"logged {line!r}"


def try_all(case, part, *options):
    """Runs a command with its faults, or a part of them: (fault, what is wrong) of each."""
    allowed = prepare(case)
    restore()
    for fault in ["", *faults(run(case, "", *options)[1])][part]:
        restore()
        result = run(case, fault, *options, *(["-f"] if "execve" in fault else []))
        yield fault, list(damage(case, allowed, fault, *result))


def fifty_at_once():
    for case in CASES:
        allowed = prepare(case)
        restore()
        runs = [subprocess.Popen([PROGRAM, case.split()[0]]) for _ in range(50)]
        yield from damage(case, allowed, "", max(run.wait() for run in runs), "", take_log())


def damage_is_seen():
    if not any(wrong for _, wrong in try_all("dovecot", slice(None), "-E", "LD_PRELOAD=" + LIBRARY)):
        yield "no damage without a rename"


def million_users():
    """Memory and time grow with the number of users, the memory by less than 200 bytes each."""
    prepare("domain_alias win")
    seconds = []
    for count in (100_000, 1_000_000):
        put_users(count)
        _, status, usage = os.wait4(os.posix_spawn(PROGRAM, [PROGRAM, "domain_alias"], os.environ), 0)
        seconds.append(usage.ru_utime + usage.ru_stime)
    if status or read(ETC + "domain-aliases").count("\n") != count:
        yield "users are missing"
    if usage.ru_maxrss * 1024 > 200 * count or seconds[1] > 15 * seconds[0]:
        yield f"{usage.ru_maxrss * 1024 // count} bytes a user, {seconds} seconds"
    put_users(20)


def children():
    """No program but those of the commands, no shell, no secret among the arguments, no descriptor more."""
    for path in CHILDREN:
        write(path, STAND_IN + "ls -1 /proc/self/fd >>/run/descriptors\n", 0o755)
    for case in CASES:
        prepare(case)
        trace = run(case, "", "-f", "-e", "trace=execve")[1]
        started = set(re.findall(r'execve\("(.*?)".* = 0', trace)) - {"/bin/ls", "/usr/bin/ls"}
        if not {PROGRAM} <= started <= {PROGRAM, *CHILDREN} or any(map(trace.count, SECRETS)):
            yield trace
        subprocess.run([PROGRAM, case.split()[0]], stdin=NULL, pass_fds=(1, 2, os.dup(0)), check=True)
    if set(read("/run/descriptors").split()) != {*"0123"}:  # 3: the folder that ls reads
        yield "descriptors reach a child"


def hardening():
    text = subprocess.run(["readelf", "-Whdl", "--dyn-syms", PROGRAM], capture_output=True, text=True).stdout
    for mark in ("DYN \\(Position", "GNU_RELRO", "FLAGS.*NOW", "__stack_chk_fail", "_chk@", "GNU_STACK.* RW "):
        if not re.search(mark, text):
            yield "missing: " + mark


def work(program, library, part):
    """Half of the checks: a line of JSON each, [name, fault, what is wrong]."""
    lay_out(program, library)
    for case in CASES:
        for fault, wrong in try_all(case, slice(part, None, 2)):
            print(json.dumps([case, fault, wrong]), flush=True)
    for check in (fifty_at_once, hardening) if part else (damage_is_seen, million_users, children):
        print(json.dumps([check.__name__, "", list(check())]), flush=True)


def main(program, library):
    top = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    argv = [top + "/lab/private_root", top, sys.executable, *map(os.path.abspath, sys.argv)]
    workers = [subprocess.Popen([*argv, part], stdout=subprocess.PIPE, text=True) for part in "01"]
    table = collections.defaultdict(lambda: [0, 0])
    for name, fault, wrong in (json.loads(line) for worker in workers for line in worker.stdout):
        table[name][bool(wrong)] += 1
        for text in wrong:
            print(f"{name} {fault}: {text}"[:1000])
    print(f"{'':20}{'faults':>8}{'survived':>10}{'damage':>8}")
    for name, (good, bad) in table.items():
        print(f"{name:20}{good + bad:8}{good:10}{bad:8}")
    good, bad = map(sum, zip(*table.values()))
    bad += sum(worker.wait() != 0 for worker in workers)
    print(f"{good} passed, {bad} failed")
    sys.exit(bad != 0)


if sys.argv[3:]:
    work(sys.argv[1], sys.argv[2], int(sys.argv[3]))
else:
    main(sys.argv[1], sys.argv[2])
