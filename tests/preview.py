#!/usr/bin/python3
"""preview.py STAGED-PACKAGE: nubo_config_preview beside the running daemons of a machine, as its administrator would
use it: faults that only a rehearsal finds, settings that are good, and what it leaves behind. Runs on a private
machine, from scripts/test."""

import concurrent.futures
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../lab")
from appliance import COMMANDS, ETC, PACKAGE, command, contents, generate, lay_out, read, run, send, settings, start, \
    wait_for, write

PREVIEW = PACKAGE + "/target/bin/nubo_config_preview"
HOST = {"smtp_hostname": "mail.example.com"}
TLS = {**HOST, "smtp_ssl_enabled": True, "smtp_tls_enabled": True}
SECRETS = ("s3cret: #1", "s3cret", "b\udce9nd-it", "w1n-it")
RELAY = {"smtp_relay_enabled": True, "smtp_relay_server": "relay.example", "smtp_relay_account": "company",
         "smtp_relay_auth_enabled": True, "smtp_relay_password": SECRETS[0]}
FILTERS = {**TLS, **RELAY, "enable_dkim": True, "enable_dmarc": True, "enable_spf_check": True,
           "restrict_sender": True, "spam_dnsbl_enable": True, "dnsbl": [{"zone": "bl.example", "kind": "RBL"}],
           "reject_unknown_sender_domain": True, "always_bcc": "archive@elsewhere.example"}
SCAN = {"spam_enable": True, "anti_virus_enable": True, "enable_dangerous_content_scan": True}
CUSTOM, MAIL = PACKAGE + "/etc/customize/postfix/main.cf", PACKAGE + "/etc/customize/dovecot/10-mail.conf"
# What is wrong: settings; a file and its text (None: it is gone; a function: of its text); what is said.
FAULTS = (
    ({**HOST, "smtp_tls_enabled": True, "smtp_tls_port": 143}, None, None, "fatal: bind .* port 143"),
    (HOST, CUSTOM, "smtpd_helo_restrictions = hostname\n", "451 4.3.5 Server configuration error"),
    (HOST, CUSTOM, "service_throttle_time = abc\n", "fatal: .*service_throttle_time"),
    (HOST, ETC + "/access/client_access.db", None, "error: open database .*client_access.db"),
    (HOST, CUSTOM, "transport_maps = hash:/etc/none\n", "error: open database /etc/none.db"),
    (HOST, CUSTOM, "canonical_maps = nosuch:/etc/none\n", "unsupported dictionary type: nosuch"),
    ({"reject_sasl_sender_rate_exceed": True}, None, None, "451 4.3.5 Server configuration error"),
    (TLS, PACKAGE + "/etc/ssl/server.crt", "no certificate\n", "port 587, STARTTLS: refused"),
    ({**TLS, "smtps_port": 25}, None, None, "port 25: refused"),
    ({"enable_dmarc": True}, None, None, "opendmarc starts: refused"),
    ({**HOST, "smtp_relay_enabled": True}, None, None, "missing host information"),
    (HOST, MAIL, "mail_locatoin = maildir:~/M\n", "Unknown setting: mail_locatoin"),
    ({**HOST, "enable_dkim": True}, ETC + "/template/opendkim.template", lambda text: text.replace("8891", "8899"),
     "opendkim starts: refused"),
    ({**HOST, "enable_dkim": True}, PACKAGE + "/etc/dkim.key/dkim.private", None, "a message from this machine: ref"),
    (HOST, CUSTOM, "mailbox_size_limit = 1000\n", "mailbox_size_limit is smaller"),
    (HOST, CUSTOM, "mailbox_transport = lmtp:unix:private/none\n", "status=deferred .*private/none"),
    (HOST, CUSTOM, "smtpd_relay_restrictions = check_client_access static:OK, reject\n"
     "smtpd_recipient_restrictions = permit\n", "no mail of a stranger to other domains: refused"),
    (HOST, CUSTOM, "inet_interfaces = 203.0.113.5\n", "no local interface found for 203.0.113.5"),
    (HOST, CUSTOM, "mail_owner = nobody_here\n", "unknown user name value: nobody_here"),
    (HOST, ETC + "/template/master.template", lambda text: text[:text.index("local ")], "postlog|local"),
    ({"smtp_port": 0}, None, None, "log: .*smtp_port: expected an integer"))
GOOD = (({}, {}), ({"smtp_auth_enabled": False}, {}), (TLS, {}), (FILTERS, {}), ({**FILTERS, **HOST}, SCAN),
        ({**HOST, "account_type": "ldap"}, {}), ({**HOST, "account_type": "win", "win_domain_short_name": "CORP"}, {}),
        ({"message_limit": 0}, {}), ({**HOST, "smtp_ignore_lan_auth": True}, {}),
        ({"smtp_port": 2525, "always_bcc": "a@elsewhere.example"}, {}))
counts = [0, 0]
printed = []


def check(claim, good, detail=""):
    counts[not good] += 1
    print(f"{'ok' if good else 'WRONG'}: {claim}" + ("" if good else f"\n{detail}"), flush=True)


def preview(*arguments, place=()):
    result = run(*place, "env", "-i", PREVIEW, *arguments)
    printed.append(result.stdout + result.stderr)
    return result.returncode, printed[-1]


def apart(smtp, scanner, path, text, *words):
    """The preview on a copy of the package that nobody else sees, so that several can run at a time. Its status, what
    it printed, and whether the generated files stayed as they were."""
    copy = tempfile.mkdtemp(dir="/run")
    run("cp", "-aT", PACKAGE, copy, check=True)
    write(copy + "/etc/settings/smtp.json", json.dumps(smtp))
    write(copy + "/etc/settings/scanner.json", json.dumps(scanner))
    place = path.replace(PACKAGE, copy)
    if path and text is None:
        os.unlink(place)
    elif path:
        write(place, text(read(place)) if callable(text) else text)
    before = contents(copy + "/target/etc")
    seen = preview(*words, place=("unshare", "--mount", "sh", "-c", f'mount --bind {copy} {PACKAGE}; exec "$@"', "sh"))
    return *seen, before == contents(copy + "/target/etc")


def applied():
    """What is printed is, as a patch, what the commands then do."""
    settings(smtp={**TLS, **RELAY}, aliases={"sales": ["alice"]}, imap_pop3={"imaps_enabled": True})
    os.chmod(ETC + "/dovecot/conf.d/10-master.conf", 0o600)
    status, shown = preview("--no-rehearsal")
    check("a change", status == 1 and "master.conf: 600 root:root becomes 644 root:root\n" in shown and
          "+relay.example:25 ********\n" in shown, shown)
    shutil.copytree(ETC, "/run/patched" + ETC)
    text = re.sub(r"(?ms)^--- \S+(\.db|\.json)\t.*?(?=^\n|\Z)", "", shown)
    check("... is a patch", run("patch", "--directory=/run/patched", "-p1", text=text).returncode == 0, shown)
    check("... that is applied", all(command(word) == (0, []) for word in COMMANDS))
    differing = run("diff", "-rq", "/run/patched" + ETC, ETC).stdout.splitlines()
    check("... byte by byte", all(re.search(r"\.db\b", line) for line in differing), differing)
    status, shown = preview("--json", "--no-rehearsal")
    check("... and leaves none", (status, json.loads(shown)["files"]) == (0, []), shown)


def killed():
    """Killed at twenty moments, it leaves nothing, and the daemons go on."""
    begin = time.time()
    preview("smtp")
    length = time.time() - begin
    before = contents(PACKAGE)
    around = read("/proc/mounts"), os.listdir("/run/private_root/tmp/upper"), run("lsns", "-no", "NS").stdout
    refused = []
    for moment in range(20):
        process = subprocess.Popen([PREVIEW, "smtp"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(length * moment / 20)
        reply = send("nobody@elsewhere.example")
        refused += [reply] if not reply.startswith("554 5.7.1") else []
        process.kill()
        process.wait()
    wait_for(lambda: run("lsns", "-no", "NS").stdout == around[2], "the end of all processes")
    after = contents(PACKAGE)
    changed = [path for path in before.keys() | after.keys() if before.get(path) != after.get(path) and
               "/var/log/" not in path and "/var/lib/postfix/" not in path]
    left = read("/proc/mounts"), os.listdir("/run/private_root/tmp/upper"), changed
    check("killed, it leaves nothing", left == (*around[:2], []), left)
    check("... and the daemons go on", not refused, refused)


def main(stage):
    lay_out(stage)
    write("/usr/nubo/etc/nslcd.conf", "uri ldap://ldap.example\nbase dc=example\nbinddn cn=mail\n")
    write("/usr/nubo/etc/ldap.secret", SECRETS[2] + "\n", 0o600)
    write("/usr/nubo/etc/wins.secret", f"domain = CORP\nuser = mail\npassword = {SECRETS[3]}\n", 0o600)
    write("/usr/bin/net", "#!/bin/sh\nprintf 'LDAP server: h\\nLDAP port: 1\\nBind Path: b\\n"
          "distinguishedName: CN=a\\n'\n", 0o755)
    generate(smtp=HOST)
    for name in ("dovecot", "postfix"):
        start(name)
    with concurrent.futures.ThreadPoolExecutor(3) as several:
        seen = several.map(lambda fault: apart(fault[0], {}, fault[1] or "", fault[2],
                                               "dovecot" if fault[1] == MAIL else "smtp"), FAULTS)
        for said, (status, shown, kept) in zip((fault[3] for fault in FAULTS), seen):
            check(said, status == 2 and re.search(said, shown) and kept, shown)
        seen = several.map(lambda good: apart(*good, "", None, *(() if good[1] else ("smtp",))), GOOD)
        for (smtp, _), (status, shown, _) in zip(GOOD, seen):
            check(f"good: {', '.join(smtp)}", status < 2, shown)
    settings(smtp={**RELAY, "smtp_relay_server": " relay.example"})
    check("postmap quotes", "sasl_passwd" in preview("smtp")[1])
    check("a word too many", preview("smtp", "alias")[0] == 2)
    applied()
    killed()
    check("no secret is printed", not [text for text in printed for secret in SECRETS if secret in text])
    print(f"{counts[0]} passed, {counts[1]} failed")
    return counts[1] != 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
