#!/usr/bin/python3
"""What "Apply" does, shown step by step; every claim is checked. Runs on a private machine, from scripts/demo."""

import glob
import hashlib
import json
import os
import random
import re
import subprocess
import sys
import time

from appliance import (COMMANDS, DOVECOT, ETC, PACKAGE, POSTMAP, PROGRAM, answers, command, complaints, daemon,
                       generated, lay_out, mailbox, read, run, send, settings, wait_for, write)
from peers import directory, domain, name_server

SHOWN = (("main.cf", "main"), ("master.cf", "master"), ("header_checks", None), ("opendkim.conf", "opendkim"),
         ("opendkim/KeyTable", None), ("opendkim/SigningTable", None), ("opendkim/TrustedHosts", None),
         ("opendmarc.conf", "opendmarc"), ("quota_memcache.cf", None), ("dovecot/conf.d/10-master.conf", None),
         ("dovecot/conf.d/10-mail.conf", None), ("MailScanner/MailScanner.conf", "mailscanner"),
         ("MailScanner/filename.rules.conf", None), ("spamassassin/local.cf", "spamassassin"), ("aliases", None),
         ("sender_quota_map", None))
COMPANY = {
    "smtp": {"smtp_hostname": "mail.example.com", "additional_domains": ["two.example"], "message_limit": 25,
             "always_bcc": "archive@mail.example.com", "smtp_ssl_enabled": True, "smtp_tls_enabled": True,
             "smtp_relay_enabled": True, "smtp_relay_server": "relay.example", "smtp_relay_server_port": 587,
             "smtp_relay_secure_conn": True, "smtp_relay_auth_enabled": True, "smtp_relay_account": "company",
             "smtp_relay_password": "s3cret: #1", "enable_dkim": True, "enable_dmarc": True, "enable_spf_check": True,
             "reject_spf_soft_fail": True, "reject_unknown_sender_domain": True, "reject_unknown_helo_hostname": True,
             "spam_dnsbl_enable": True, "dnsbl": [{"zone": "bl.example", "kind": "RBL"}], "restrict_sender": True,
             "reject_sasl_sender_rate_exceed": True, "smtpd_sasl_sender_rate_limit": 50},
    "scanner": {"spam_enable": True, "spam_enable_rewrite": True, "anti_virus_enable": True, "spam_auto_learn": True,
                "enable_dangerous_content_scan": True, "spam_auto_whitelist": True, "spam_report_machanism": 1},
    "imap_pop3": {"imap_enabled": False, "imaps_enabled": True, "pop3s_enabled": True},
    "aliases": {"postmaster": ["root"], "sales": ["alice", "bob@example.net"]},
    "sender_quotas": {"alice@mail.example.com": 200},
    "attachment_filter": {"deny_extensions": ["exe", "scr"]}}
SECRETS = ("s3cret: #1", 'b #$"p', "Passw0rd.User")
counts = [0, 0]


def heading(text):
    print(f"\n\n=== {text}\n")


def check(claim, good, detail=""):
    counts[not good] += 1
    print(f"  [{'ok' if good else 'WRONG'}] {claim}" + ("" if good else f"\n          {detail}"))


def show(title, text):
    for secret in SECRETS:
        text = text.replace(secret, "*" * 8)
    print(f"  {title}")
    print("".join(f"  |  {line}\n" for line in text.splitlines()))


def show_file(name, template=None):
    """A file below ETC: what stands behind its template, or all of it, without comments."""
    text = generated(f"{ETC}/{name}", template) if template else read(f"{ETC}/{name}")
    text = "".join(line + "\n" for line in text.splitlines() if line[:1] != "#")
    show(name + (f"  (behind {template}.template)" if template else ""), text)


def show_files():
    for name, template in SHOWN:
        if os.path.exists(f"{ETC}/{name}"):
            show_file(name, template)


def run_all():
    for word in COMMANDS:
        status, log = command(word)
        check(f"nubo_set_config {word}: exit {status}", status == 0 and not log, log)


def accepted(but=r"$^"):
    """What the checkers say; what matches is not counted."""
    bad = [line for line in complaints() if not re.search(but, line)]
    check("accepted by postconf, postfix check, doveconf, spamassassin --lint, opendkim -n, opendmarc -n", not bad, bad)


def look_up(kind, name, key, wanted, shown=None):
    got = run(POSTMAP, "-q", key, f"{kind}:{ETC}/{name}").stdout.rstrip("\n")
    check(f"postmap -q '{key}' {kind}:{name}: {shown or got or 'nothing'}", got == wanted, got)


def defaults():
    heading("A fresh machine: no settings at all")
    settings()
    run_all()
    show_files()
    accepted()


def preview():
    heading("What would a run change, and would the daemons accept it?")
    relay = {"smtp_relay_enabled": True, "smtp_relay_account": "company", "smtp_relay_password": "s3cret: #1"}
    for values, wanted in (({}, 0), ({"smtp_relay_server": "relay.example", **relay}, 1), (relay, 2)):
        settings(smtp=values)
        result = run(PACKAGE + "/target/bin/nubo_config_preview", "smtp")
        show(f"nubo_config_preview smtp, with {len(values)} settings", result.stdout)
        check(f"exit {result.returncode}", result.returncode == wanted, result.stderr)
        check("no secret is shown", "s3cret" not in result.stdout)


def company():
    heading("The settings of a company")
    settings(**COMPANY)
    for name, values in COMPANY.items():
        show(f"settings/{name}.json", "\n".join(f'"{key}": {json.dumps(value)}' for key, value in values.items()))
    run_all()
    show_files()
    print("  (Only the appliance's own Postfix knows the three smtpd_sasl_sender_ parameters; others warn of them.)")
    accepted("unused parameter: smtpd_sasl_sender_(quota_maps|rate_limit|quota_cache)=")
    look_up("hash", "sasl_passwd", "relay.example:587", "company:s3cret: #1", "company:********")
    check("of the relay password only the compiled map is left", not os.path.exists(ETC + "/sasl_passwd"))
    look_up("hash", "aliases", "sales", "alice, bob@example.net")
    look_up("hash", "sender_quota_map", "alice@mail.example.com", "200")
    look_up("regexp", "header_checks", "Received-SPF: softfail (x)", "REJECT")
    look_up("regexp", "header_checks", "Received: from x", "HOLD")


def accounts():
    pam = "/usr/nubo/etc/pam-config/Brindlecot.json"
    heading("Accounts of an LDAP directory")
    slapd = directory()
    settings(smtp={"account_type": "ldap"})
    check("nubo_set_config smtp: exit 0", command("smtp") == (0, []))
    show_file("ldap-aliases.cf")
    show(pam, read(pam))
    look_up("ldap", "ldap-aliases.cf", "frieda", "frieda")
    slapd.terminate()
    heading("Accounts of a Windows domain, which this machine has joined")
    domain()
    settings(smtp={"account_type": "win", "win_domain_short_name": "CORP"})
    check("nubo_set_config smtp: exit 0", command("smtp") == (0, []))
    show_file("domain-aliases.cf")
    show(pam, read(pam))
    look_up("ldap", "domain-aliases.cf", "erin", "erin")
    check("nubo_set_config domain_alias: exit 0", command("domain_alias") == (0, []))
    show_file("domain-aliases")
    look_up("hash", "domain-aliases", "erin", '"CORP\\\\erin"')


def aliases():
    heading("1,000 aliases with awkward names")
    dice = random.Random(7)
    signs = " \"'#:;\\,<>()[]{}!$%&*+-=?^_`|~.é漢ß"
    table = {}
    for number in range(1000):
        name, other = ("".join(dice.choices(some, k=6)) + str(number) for some in (signs + "@", signs))
        table[name] = [f"u{number}", f"o{other}@example.net"][:number % 2 + 1]
    settings(aliases=table)
    check("nubo_set_config alias: exit 0", command("alias") == (0, []))
    show("some of them", "\n".join(read(ETC + "/aliases").splitlines()[500:504]))
    names = "".join(name + "\n" for name in table)
    found = {}
    for line in run(POSTMAP, "-q", "-", f"hash:{ETC}/aliases", text=names).stdout.splitlines():
        name, recipients = line.split("\t", 1)
        # As the mail system reads an address: quoted pieces, and a backslash before a sign.
        found[name] = [re.sub(r'\\(.)|"', r"\1", item) for item in
                       re.findall(r'((?:"(?:\\.|[^"\\])*"|\\.|[^,"\\])+)(?:, |$)', recipients)]
    wrong = [(name, table[name], found.get(name)) for name in table if table[name] != found.get(name)]
    check(f"postmap -q finds {len(table) - len(wrong)} of {len(table)}, each as exactly its recipients",
          not wrong, wrong[:3])


def delivery():
    heading("A message through an alias")
    settings(smtp={"smtp_hostname": "mail.example.com"}, aliases={"sales team": ["alice"]})
    run_all()
    run("postfix", "-c", ETC, "check")
    daemon("dovecot", "-c", DOVECOT, "-F", port=143)
    run("sh", "-c", 'postfix -c "$0" start >/run/postfix.log 2>&1', ETC)
    wait_for(lambda: answers(25), "Postfix")
    answer = send('"sales team"@mail.example.com', client="127.0.0.1")
    check(f"Postfix on the loopback port 25 takes it: {answer}", answer.startswith("250"))
    text = mailbox("alice")
    show("alice's mailbox", text)
    check("it arrives in the mailbox of alice", 'X-Original-To: "sales team"@' in text and "Good morning" in text)
    answer = send("someone@far.example")
    check(f"from elsewhere to elsewhere: {answer}", answer.startswith("554 5.7.1"), answer)


def customisation():
    heading("The administrator's own values")
    custom = PACKAGE + "/etc/customize/postfix/main.cf"
    write(custom, "# replaced, continued, given twice, and new\nmessage_size_limit = 5000\nmynetworks = 127.0.0.0/8,\n"
          "  192.0.2.0/24\nbiff = yes\nbiff = no\nsmtpd_banner = $myhostname says = hello\n")
    settings()
    check("nubo_set_config smtp: exit 0", command("smtp") == (0, []))
    show("customize/postfix/main.cf", read(custom))
    for key, value in (("message_size_limit", "5000"), ("mynetworks", "127.0.0.0/8, 192.0.2.0/24"), ("biff", "no"),
                       ("smtpd_banner", "$myhostname says = hello")):
        got = run("postconf", "-c", ETC, "-h", key).stdout.strip()
        times = len(re.findall(rf"^{key} =", read(ETC + "/main.cf"), re.M))
        check(f"postconf {key}: {got}", got == value and times == 1, f"{times} times")
    accepted()
    os.unlink(custom)


def tree():
    return {path: hashlib.sha256(open(path, "rb").read()).hexdigest()
            for path in glob.glob(ETC + "/**", recursive=True) if os.path.isfile(path)}


BAD = (  # a settings file, and what the lines of the log hold
    ('{"smtp_port": 25,\n "message_limit": }', ["smtp.json:2:19: "]),
    ('{"smtp_prot": 25}', ["smtp_prot: expected"]),
    ('{"smtp_port": "25", "message_limit": 4096, "enable_dkim": 1}',
     ["enable_dkim: expected", "message_limit: expected", "smtp_port: expected"]),
    ('{"smtp_hostname": "a\\nb"}', ["smtp_hostname: expected"]),
    ('{"smtp_hostname": "\udcff"}', ["smtp_hostname: expected"]),
    ('{"smtp_relay_password": 12345678}', ["smtp_relay_password: expected"]))


def bad_input():
    heading("Bad input: every fault is named, nothing is changed")
    path = PACKAGE + "/etc/settings/smtp.json"
    for text, wanted in BAD:
        before = tree()
        with open(path, "w", encoding="utf-8", errors="surrogateescape") as file:
            file.write(text)
        status, log = command("smtp")
        show(text.replace("\n", " ").encode("ascii", "backslashreplace").decode(), "\n".join(log))
        named = len(log) == len(wanted) and all(part in line for part, line in zip(wanted, sorted(log)))
        check(f"exit {status}, nothing changed, no secret told",
              status == 255 and named and tree() == before and "12345678" not in str(log), log)
    os.unlink(path)
    os.mkdir(path)
    status, log = command("smtp")
    show("a directory in the file's place", "\n".join(log))
    check(f"exit {status}", status == 255 and len(log) == 1 and path in log[0], log)
    os.rmdir(path)


def together():
    heading("50 runs at once, every second of them killed")
    settings(**COMPANY)
    command("smtp")
    before = {path: digest for path, digest in tree().items() if path[-3:] != ".db"}
    damaged = set()
    for number in range(25):
        whole, killed = (subprocess.Popen((PROGRAM, "smtp"), stdout=subprocess.DEVNULL) for _ in "12")
        time.sleep(number / 1000)
        killed.kill()
        killed.wait()
        damaged |= before.items() - tree().items()
        whole.wait()
    check(f"after each of them, all {len(before)} files are whole", not damaged, damaged)


def main():
    lay_out(sys.argv[1])
    name_server()
    print(f"\nFiles are below {ETC}.")
    for step in (defaults, preview, company, aliases, customisation, bad_input, together, delivery, accounts):
        try:
            step()
        except Exception as error:  # pylint: disable=broad-except
            check(step.__name__, False, f"{type(error).__name__}: {error}")
    print(f"\n{counts[0]} passed, {counts[1]} failed")
    return counts[1] > 0


if __name__ == "__main__":
    sys.exit(main())
