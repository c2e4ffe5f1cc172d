#!/usr/bin/python3
"""apply.py STAGED-PACKAGE [MOMENTS]: nubo_config_apply with the real daemons, each of its ways back among them. It is
killed at so many moments (4). Runs as root of a private machine only."""

import contextlib
import os
import re
import signal
import socket
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../lab")
from appliance import ETC, HERE, PACKAGE, SBIN, command, generate, lay_out, read, run, settings, wait_for, write

APPLY, STATES = PACKAGE + "/target/bin/nubo_config_apply", PACKAGE + "/target/var/lib/apply/"
CUSTOM = PACKAGE + "/etc/customize/postfix/main.cf"
GOOD = {"smtp": {"smtp_hostname": "mail.example.com", "smtp_ssl_enabled": True}, "aliases": {"postmaster": ["alice"]}}
counts = [0, 0]


def check(claim, good, detail=""):
    counts[not good] += 1
    print(f"ok   {claim}" if good else f"FAIL {claim}\n{detail}", flush=True)


def apply(*words):
    result = run(APPLY, *words)
    return result.returncode, result.stdout + result.stderr


def changed(**smtp):
    settings(**{**GOOD, "smtp": {**GOOD["smtp"], **smtp}})


def files(*tops):
    """Mode, owner and bytes of all that a change may touch."""
    found = {}
    for top in tops or (ETC, PACKAGE + "/etc/settings", PACKAGE + "/etc/customize", "/usr/nubo/etc/pam-config"):
        for folder, _, names in os.walk(top):
            for path in (os.path.join(folder, name) for name in names):
                status = os.lstat(path)
                with open(path, "rb") as file:
                    found[path] = status.st_mode, status.st_uid, status.st_gid, file.read()
    return found


def answers():
    """What a check of mail sees, without what differs each time."""
    return re.findall("(?m)^(?:good|BAD) .*$", apply("check")[1])


def taken_back(claim, reason, word, port=None, **new):
    """A change that goes wrong on the live machine only, where another program may have a port: all is as before."""
    before, mail = files(), answers()
    settings(**{**GOOD, **new})
    refused = files(PACKAGE + "/etc/settings")
    with contextlib.ExitStack() as taken, subprocess.Popen(
            (APPLY, word), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True) as process:
        if port:  # only now, since the rehearsal would see it; bound, and refused to those who connect
            wait_for(lambda: os.path.exists(STATES + "pending"), "the way back")
            taken.enter_context(socket.socket()).bind(("", port))
        said = process.communicate()[0]
    status, after = process.returncode, files()
    wrong = [path for path in before.keys() | after.keys() if before.get(path) != after.get(path)]
    check(claim, (status, wrong, answers()) == (3, [], mail) and re.search(reason, said), f"{status} {wrong}\n{said}")
    kept = files(STATES + "refused/in" + PACKAGE + "/etc/settings")
    check("... what was refused is kept", sorted(kept.values()) == sorted(refused.values()))


def last_state():
    return max(int(name) for name in os.listdir(STATES) if name.isdigit())


def killed(moment):
    """SIGKILL so long after the way back is there, then recover: the old files or the new ones, and mail."""
    old, state = files(ETC), last_state()
    changed(message_limit=30 + state % 2)
    process = subprocess.Popen((APPLY, "smtp"), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    wait_for(lambda: os.path.exists(STATES + "pending"), "the way back")
    with contextlib.suppress(subprocess.TimeoutExpired):
        process.wait(moment)
    process.kill()
    process.wait()
    status, said = apply("recover")
    now, kept = files(ETC), f"{STATES}{last_state()}/out"
    new = {path.removeprefix(kept): what for path, what in files(kept + ETC).items()}
    whole = now == old if last_state() == state else new.items() <= now.items()
    check(f"killed after {moment:.1f} s: old or new as a whole, and mail is well", whole and status in (0, 3) and
          apply("check")[0] == 0, said)


def limit():
    """As the SMTP server tells it."""
    with socket.create_connection((HERE, 25), 60) as server:
        server.sendall(b"EHLO there\r\nQUIT\r\n")
        return int(re.search(rb"SIZE (\d+)", b"".join(iter(lambda: server.recv(999), b"")))[1]) // 2**20


def pair(name, days="9"):
    """A new certificate and its key."""
    certificate, key = f"/run/{name}.crt", f"/run/{name}.key"
    run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=" + name, "-keyout", key, "-out",
        certificate, check=True)
    run("openssl", "x509", "-in", certificate, "-signkey", key, "-days", days, "-out", certificate, check=True)
    return certificate, key


def main(stage, moments="4"):
    lay_out(stage)
    run("ip", "addr", "add", HERE + "/32", "dev", "lo", check=True)
    generate(**GOOD)
    run("sh", "-c", f"{{ {SBIN}/dovecot; postfix -c {ETC} start; }} >/run/daemons.log 2>&1", check=True)
    changed(message_limit=20)
    status, said = apply()
    check("first use on a machine set up by hand", (status, limit()) == (0, 20) and
          re.search("^1  As found\n2  .* nubo_config_apply\n$", apply("history")[1]), said)
    check("states are for root alone", os.stat(STATES).st_mode & 0o777 == 0o700)
    changed(message_limit=21)
    with subprocess.Popen((APPLY, "smtp"), stdout=subprocess.DEVNULL) as first:
        wait_for(lambda: os.path.exists(STATES + "pending"), "the way back")
        status, said = apply("smtp")
    check("two at once: the second touches nothing", status == 1 and "another change is under way" in said and
          (first.returncode, limit()) == (0, 21), said)
    smtp = GOOD["smtp"]
    taken_back("a port is taken", "Postfix", "smtp", 587, smtp={**smtp, "smtp_tls_enabled": True})
    taken_back("a daemon does not start", "Dovecot does not start", "dovecot", 993, imap_pop3={"imaps_enabled": True})
    write("/home/bob/Maildir", "")
    taken_back("local delivery is dead", "from this machine: status=bounced", "alias", aliases={"postmaster": ["bob"]})
    write("/usr/nubo/etc/nslcd.conf", "uri ldap://127.0.0.1\nbase dc=example\nbinddn cn=mail\n")
    write("/usr/nubo/etc/ldap.secret", "secret\n", 0o600)
    taken_back("another account type", "from this machine", "smtp", smtp={**smtp, "account_type": "ldap"})

    write(CUSTOM, "smtpd_helo_restrictions = hostname\n")
    command("smtp")
    run("postfix", "-c", ETC, "reload")
    status, said = apply("smtp")
    check("the preview refuses, and nothing is touched", status == 1 and not os.path.exists(STATES + "pending"), said)
    os.unlink(CUSTOM)
    status, said = apply("smtp")
    check("broken before, and mended by a change", status == 0 and "not well" in said and apply("check")[0] == 0, said)

    before = files()
    changed(message_limit=22)
    with subprocess.Popen((APPLY, "-t", "0.3", "smtp"), stdout=subprocess.DEVNULL, start_new_session=True) as session:
        wait_for(lambda: os.path.exists(STATES + "pending"), "the way back")
        os.killpg(session.pid, signal.SIGHUP)
    check("it outlives its session, and nobody else changes anything",
          (session.returncode, limit(), apply("smtp")[0]) == (0, 22, 1))
    wait_for(lambda: not os.path.exists(STATES + "pending"), "the old state")
    check("not confirmed, it is taken back", files() == before and limit() == 21 and apply("check")[0] == 0)

    changed(message_limit=23)
    check("confirmed, it stays", (apply("-t", "5", "smtp")[0], apply("confirm")[0], limit()) == (0, 0, 23))
    status, said = apply("undo")
    check("undone, the settings are those of before", (status, files(PACKAGE + "/etc/settings"), limit()) ==
          (0, {path: what for path, what in before.items() if "/settings/" in path}, 21), said)
    shown = apply("history", str(last_state()))[1]
    check("history shows what that changed", "-message_size_limit = 24117248\n+message_size_limit = 22020096" in shown)

    for part in range(int(moments)):
        killed(4 * part / int(moments))

    changed(message_limit=24)
    run("strace", "-f", "-qq", "-y", "-s", "300", "-o", "/run/trace", "-e", "trace=fsync,rename,renameat,renameat2",
        "-e", "signal=none", APPLY, "smtp")
    order = (f'renameat2\\(.*"{STATES}pending.new", ', f"fsync\\(\\d+<{STATES[:-1]}>", f'rename\\(".*", "{ETC}/main.cf"\\)',
             f"fsync\\(\\d+<{ETC}/main.cf>", f'rename\\("{STATES}pending/next", "{STATES}{last_state()}"')
    check("a power cut meets old or new: written, synced and renamed in this order",
          re.search("(?s)" + ".*?".join(order), read("/run/trace")))

    certificate, key = pair("new")
    check("a pair that does not match, or has expired, is refused",
          (apply("renew", certificate, pair("other")[1])[0], apply("renew", *pair("old", "-1"))[0]) == (1, 1))
    status, said = apply("renew", certificate, key)
    served = run("openssl", "s_client", "-connect", "localhost:465").stdout
    check("a new certificate is served", status == 0 and "CN = new" in served, said + served)
    records = apply("dns")[1]
    key = "".join(re.findall('"([^"]*)"', re.search(".*_domainkey.*", records)[0]))
    check("the records hold the key, in pieces", key + "\n" == read(PACKAGE + "/etc/dkim.key/dkim.txt") and
          max(map(len, re.findall('"([^"]*)"', records))) == 255, records)
    print(f"{counts[0]} passed, {counts[1]} failed")
    return counts[1] != 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
