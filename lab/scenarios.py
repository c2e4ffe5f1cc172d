#!/usr/bin/python3
"""scenarios.py {show|check} STAGED-PACKAGE: what the real daemons of a mail appliance do with its settings.

One table, which scripts/demo shows and scripts/test checks. "check" takes all of it and prints a line for each row,
"show" leaves out what only repeats a row with other values, and prints what a row changes in the settings and in the
generated files since the last row without settings of its own, and what is seen. Runs as root of a private machine
only."""

import difflib
import glob
import itertools
import json
import os
import random
import re
import sys

import peers
from actions import (FAR, OURS, TEST_SPAM, accepted, arrives, awkward_aliases, cached, customised, extensions,
                     first_mail, held, judged, killed_runs, logins, looked_up, pipelined, previewed, refused, relayed,
                     signed)
from appliance import (ETC, PACKAGE, contents, generate, lay_out, mail_log, mailbox, read, run, send, start, stop,
                       write)

TOP = os.path.dirname(os.path.abspath(__file__)) + "/.."
SHOWN = (ETC, PACKAGE + "/etc/settings", "/usr/nubo/etc/pam-config")
BLOCKLISTS = [{"zone": "bl.example", "kind": "RBL"}, {"zone": "dbl.example", "kind": "RHSBL"}]
BASE = {"smtp_hostname": "mail.example.com", "additional_domains": ["two.example"], "dnsbl": BLOCKLISTS,
        "smtp_ssl_enabled": True, "smtp_tls_enabled": True}
RELAYING = {"smtp_relay_server": "relay.example", "smtp_relay_server_port": 2525, "smtp_relay_account": "company",
            "smtp_relay_password": "re:lay #p w", "smtp_relay_enabled": True, "smtp_relay_auth_enabled": True}
LDAP, WINDOWS = {"account_type": "ldap"}, {"account_type": "win", "win_domain_short_name": "CORP"}
LEARNING = {"spam_auto_learn": True, "spam_auto_whitelist": True}
COMPANY = {
    "smtp": {**BASE, **RELAYING, "message_limit": 25, "always_bcc": "archive@mail.example.com",
             "smtp_relay_secure_conn": True, "enable_dkim": True, "enable_dmarc": True, "enable_spf_check": True,
             "reject_spf_soft_fail": True, "reject_unknown_sender_domain": True, "reject_unknown_helo_hostname": True,
             "spam_dnsbl_enable": True, "restrict_sender": True, "reject_sasl_sender_rate_exceed": True,
             "smtpd_sasl_sender_rate_limit": 50},
    "scanner": {"spam_enable": True, "spam_enable_rewrite": True, "anti_virus_enable": True, **LEARNING,
                "enable_dangerous_content_scan": True, "spam_report_machanism": 1},
    "imap_pop3": {"imap_enabled": False, "imaps_enabled": True, "pop3s_enabled": True},
    "aliases": {"postmaster": ["root"], "sales": ["alice", "bob@example.net"]},
    "sender_quotas": {OURS: 200},
    "attachment_filter": {"deny_extensions": ["exe", "scr"]}}
SECRETS = (RELAYING["smtp_relay_password"], peers.PASSWORD, peers.DOMAIN_PASSWORD)
# The keys of each settings file, with their schemas.
KEYS = {name: json.loads(read(f"{TOP}/data/schema/{name}.schema.json"))["properties"]
        for name in ("smtp", "scanner", "imap_pop3")}
ALL = {key: what for keys in KEYS.values() for key, what in keys.items()}
SWITCHES = {
    **{key: (False, True) for key, what in ALL.items() if what["type"] == "boolean"},
    **{key: ("yes", "no", "disarm") for key in ALL if key.startswith("allow_")},
    "account_type": ("local", "ldap", "win"), "smtp_hostname": ("mail.example.com", ""), "message_limit": (10, 0, 2047),
    "always_bcc": ("", OURS), "additional_domains": ([], ["two.example"]), "dnsbl": ([], BLOCKLISTS),
    "spam_report_machanism": (0, 1, 2)}


def files(switches):
    """The settings files that hold these switches."""
    found = {"aliases": {"sales team": ["alice"]}, "sender_quotas": {OURS: 7}, **{name: {} for name in KEYS}}
    for key, value in switches.items():
        found[next(name for name, keys in KEYS.items() if key in keys)][key] = value
    return found


def covering():
    """Settings in which any two switches have each pair of values at least once. Each is the best of some random
    settings that have one of the missing pairs."""
    dice = random.Random(1)
    places = {key: range(len(values)) for key, values in SWITCHES.items()}
    missing = dict.fromkeys(frozenset(((a, x), (b, y))) for a, b in itertools.combinations(places, 2)
                            for x in places[a] for y in places[b])
    while missing:
        def gain(run_):
            return [pair for pair in map(frozenset, itertools.combinations(run_.items(), 2)) if pair in missing]

        best = max(({**{key: dice.choice(place) for key, place in places.items()}, **dict(next(iter(missing)))}
                    for _ in range(40)), key=lambda run_: len(gain(run_)))
        for pair in gain(best):
            del missing[pair]
        yield files({**RELAYING, "win_domain_short_name": "CORP",
                     **{key: SWITCHES[key][place] for key, place in best.items()}})


def scenarios(everything):
    """The table. A heading, or a row: title; switches beside BASE (None: the row makes its own settings); what is done,
    or the message that is sent; what is then seen, as a regular expression. Rows with the same switches follow one
    another, so that the daemons start once for them."""
    domain = peers.make_domain()
    yield "The administrator presses Apply"
    yield "a fresh machine without settings", None, accepted, "^accepted$"
    yield "the settings of a company", None, lambda: accepted(**COMPANY), "^accepted$"
    yield ("... as Postfix reads its tables", None, lambda: ", ".join(looked_up(f"{table}:{ETC}/{name}", key) for
           table, name, key in (("hash", "sasl_passwd", "relay.example:2525"), ("hash", "aliases", "sales"),
                                ("hash", "sender_quota_map", OURS), ("regexp", "header_checks", "Received: from x"),
                                ("regexp", "header_checks", "Received-SPF: softfail (x)"))),
           "^company:re:lay #p w, alice, bob@example.net, 200, HOLD, REJECT$")
    yield ("... of the relay's password only the compiled map is left", None, lambda: " ".join(os.listdir(ETC)),
           r"^(?!.*sasl_passwd(?!\.db)).*sasl_passwd\.db")
    yield "50 runs at once, every second one killed", None, lambda: killed_runs(COMPANY), "^0 damaged$"
    yield "1,000 aliases with awkward names", None, awkward_aliases, "^1000 found"
    yield ("the administrator's own values for Postfix", None, customised, "\naccepted, 0 keys twice:\n"
           "message_size_limit = 5000\nmynetworks = 127.0.0.0/8, 192.0.2.0/24\nbiff = no\nsmtpd_banner = .* = hello$")

    yield "The preview: what would a run change, and would the daemons accept it?"
    relay = {"smtp_relay_enabled": True, "smtp_relay_account": "company", "smtp_relay_password": "s3cret"}
    yield "a fresh machine again", None, accepted, "^accepted$"
    yield "... nothing would change", None, previewed, "^Good: nothing would change.*exit 0$"
    yield ("a relay host", None, lambda: previewed(smtp_relay_server="relay.example", **relay),
           r"^(?!.*s3cret)Good: 2 files would change.*\+relayhost = relay.example:25.*exit 1$")
    yield "a relay without a name", None, lambda: previewed(**relay), "^(?!.*s3cret).*missing host information.*exit 2$"

    yield "Bad input: every fault is named, nothing is changed"
    for text, wanted in (  # the settings, and what the lines of the log hold
            ('{"smtp_port": 25,\n "message_limit": }', ["smtp.json:2:19: "]),
            ('{"smtp_prot": 25}', ["smtp_prot: expected"]),
            ('{"smtp_port": "25", "message_limit": 4096, "enable_dkim": 1}',
             ["enable_dkim: expected", "message_limit: expected", "smtp_port: expected"]),
            ('{"smtp_hostname": "a\\nb"}', ["smtp_hostname: expected"]),
            ('{"smtp_hostname": "\udcff"}', ["smtp_hostname: expected"]),
            ('{"smtp_relay_password": 12345678}', ["smtp_relay_password: expected"]),
            (None, ["smtp.json: expected a readable file"])):
        yield (ascii(text) if text else "a directory in place of the file", None, lambda text=text: refused(text),
               r"^(?!.*1234)exit 255\nfiles unchanged: True\n"
               + r"\n".join(rf"[^\n]*{part}[^\n]*" for part in wanted) + "$")

    yield "Mail comes in"
    yield ("mail reaches a mailbox through an alias", {}, {"to": '"sales team"@mail.example.com'},
           '^250.*X-Original-To: "sales team"@.*Good morning')
    yield "so does mail for an additional domain", {}, {"user": "bob", "to": "bob@two.example"}, "^250.*Good morning"
    yield "client that does not wait for its turn", {}, pipelined, "5.5.0 .*(pipelining|synchronization)"
    yield "sender without a domain", {}, {"sender": "carol"}, "^504 5.5.2"
    yield "... is taken when that is off", {"reject_non_fqdn_sender": False}, {"sender": "carol"}, "^250"
    yield ("sender of an unknown domain", {"reject_unknown_sender_domain": True},
           {"sender": "carol@no.example"}, "^450 4.1.8")
    yield "HELO with a bare name", {"reject_non_fqdn_helo_hostname": True}, {"helo": "pc"}, "^504 5.5.2"
    yield "HELO with an unknown name", {"reject_unknown_helo_hostname": True}, {"helo": "no.example"}, "^450 4.7.1"
    yield "client without a name", {"reject_unknown_client_hostname": True}, {"client": "192.0.2.66"}, "^450 4.7.25"
    yield "client on a blocklist", {"spam_dnsbl_enable": True}, {"client": "192.0.2.66"}, "^554 5.7.1 .* bl.example"
    yield "... by its name", {"spam_dnsbl_enable": True}, {"client": "192.0.2.77"}, "^554 .*dbl.example"
    yield "SPF: a forged sender", {"enable_spf_check": True}, {"sender": "x@hard.example"}, "^550 5.7.1"
    yield ("SPF: a doubtful one is marked", {"enable_spf_check": True}, {"sender": "x@soft.example"},
           "^250.*Received-SPF: softfail")
    yield ("... or refused", {"enable_spf_check": True, "reject_spf_soft_fail": True},
           {"sender": "x@soft.example"}, "^550 5.7.1 .*content rejected")
    yield ("DMARC: the verdict carries our name", {"enable_dmarc": True}, {},
           r"^250.*Authentication-Results: mail\.example\.com; dmarc=pass \(p=none")
    yield "a message over the size limit", {"message_limit": 1}, {"text": "\n" * 2**20}, "^552 5.3.4"
    yield "a limit above the default of mailboxes", {"message_limit": 2047}, {}, "^250"
    yield "always_bcc copies", {"always_bcc": "bob@mail.example.com"}, lambda: send(OURS) + mailbox("bob"), "^250.*mor"
    yield "spam scanning puts mail on hold", {"spam_enable": True}, held, "[0-9A-F]+!.*Good morning"
    yield "virus scanning does", {"anti_virus_enable": True}, held, "[0-9A-F]+!.*Good morning"
    yield "content scanning does", {"enable_dangerous_content_scan": True}, held, "[0-9A-F]+!.*Good morning"
    yield ("SpamAssassin flags the test message", LEARNING,
           lambda: judged(TEST_SPAM), "X-Spam-Flag: YES")
    yield "... and no other", LEARNING, lambda: judged("Hello.\n"), "^(?!.*X-Spam-Flag: YES).*X-Spam-Status: No"

    yield "Users send mail"
    login = {"port": 587, "tls": "starttls", "login": "alice", "sender": OURS}
    yield "passwords are asked for under TLS only", {}, extensions, "^(?!.*AUTH.*TLS).* TLS .*AUTH PLAIN LOGIN"
    yield "nobody may relay without one", {}, {"to": FAR}, "^554 5.7.1 .*Relay access denied"
    yield "STARTTLS listener: no mail without TLS", {}, {"to": FAR, "port": 587}, "^530 5.7.0 Must issue a STARTTLS"
    yield "... no mail without login", {}, {"port": 587, "tls": "starttls"}, "^554 .*Client host rejected"
    yield "... mail after login", {}, login, "^250.*ESMTPSA"
    yield "TLS listener: no mail without login", {}, {"port": 465, "tls": "implicit"}, "^554 .*rejected"
    yield "... mail after login", {}, {**login, "port": 465, "tls": "implicit"}, "^250.*ESMTPSA"
    yield "logins switched off", {"smtp_auth_enabled": False}, extensions, "^(?!.*AUTH)"
    yield ("the local network may not relay either", {"smtp_ignore_lan_auth": True},
           {"to": FAR, "client": "192.0.2.7"}, "^554")
    yield ("a user under the address of another", {"restrict_sender": True},
           {**login, "sender": "bob@mail.example.com"}, "^553 5.7.1 .*not owned by user alice")
    yield "... and under the own one", {"restrict_sender": True}, login, "^250"
    for name, (who, how) in itertools.product(("mail.example.com", "two.example"),
                                              (("a user", login), ("this machine", {"client": "127.0.0.1"}))):
        yield (f"DKIM: mail of {who} is signed for {name}", {"enable_dkim": True},
               lambda name=name, how=how: signed(**{**how, "sender": "alice@" + name}),
               rf"verification \(s=default, d={name}, 2048-bit key\) succeeded")
    yield "... that of others is not", {"enable_dkim": True}, {"sender": OURS}, "^250(?!.*DKIM-Signature)"
    yield "the relay host gets mail and password", RELAYING, relayed, "^open company re:lay #p w .*Good morning"
    yield "... encrypted where it offers that", {**RELAYING, "smtp_relay_secure_conn": True}, relayed, "^encrypted com"
    quota = {"reject_sasl_sender_rate_exceed": True}
    yield "sender quotas need the appliance's own Postfix", quota, {}, "^451 4.3.5"
    yield "... their cache is found", quota, lambda: cached(OURS, "3"), "^3$"

    yield "Users read mail"
    names = ("imap", "pop3", "imaps", "pop3s")
    for on in (on for size in range(5) for on in itertools.combinations(names, size)):
        if everything or len(on) == 2:
            yield ("logins with " + (" and ".join(on) or "nothing") + " on",
                   {f"{name}_enabled": name in on for name in names}, logins, "^" + " ".join([*on, "here"]) + "$")
    yield "a password without TLS is not taken", {}, lambda: logins(encrypted=False), "(?i)(plain|clear)text"

    yield "Accounts of an LDAP directory"
    peers.directory()
    yield ("the directory's names, and no other", LDAP,
           lambda: looked_up(f"ldap:{ETC}/ldap-aliases.cf", "frieda", "nobody", "fr*"), "^frieda, -, -$")
    yield "mail is taken", LDAP, {}, "^250"
    if everything:
        yield "Settings that hold every pair of values of any two of them"
        runs = list(covering())
        for number, settings in enumerate(runs, 1):
            yield f"{number} of {len(runs)}", None, lambda settings=settings: accepted(**settings), "^accepted$"
    stop("slapd")

    yield "Accounts of a Windows domain"
    yield "this machine joins it", None, lambda: peers.domain(domain), "^Join is OK$"
    yield ("looked up in the domain", WINDOWS,
           lambda: looked_up(f"ldap:{ETC}/domain-aliases.cf", "erin", "nobody"), "^erin, -$")
    write(PACKAGE + "/etc/brindlecot.conf", "domain_alias_map = yes\n")
    yield ("listed by this machine: mail for the bare name", {**WINDOWS, "imaps_enabled": True},
           {"user": "CORP/erin", "to": "erin@mail.example.com"}, "^250.*Good morning")
    yield "... which is read after a login", {**WINDOWS, "imaps_enabled": True}, first_mail, "OK.*Good morning"

    yield "All told"
    yield ("no daemon complained", None, lambda: "\n".join(re.findall(".*(?:fatal|panic|overriding).*", mail_log())),
           "^$")


def apply(switches):
    """Generates everything from BASE and these switches, and makes the daemons load it."""
    generate(**files({**BASE, **switches}))
    for name in ("opendkim", "opendmarc"):
        if switches.get(f"enable_{name[4:]}"):
            start(name)
    start("dovecot")
    start("postfix")  # not reloaded: an old process may take the next connection after that


def shown_lines(templates):
    """Settings and generated files, without comments and what stands in the template, a list in pieces."""
    found = {}
    for path, text in (item for folder in SHOWN for item in contents(folder).items()):
        text = text[max((len(head) for head in templates if text.startswith(head)), default=0):]
        lines = [line for line in text.splitlines() if line[:1] != "#"]
        if path.endswith(".json"):
            found[path] = [line.removesuffix(",") for line in lines if line]
        elif not path.endswith((".db", ".template")):
            found[path] = "\n".join(lines).replace(", ", "\n    ").splitlines()
    return found


def main(mode, stage):
    lay_out(stage)
    peers.name_server()
    peers.relay_host()
    write(ETC + "/login_map", OURS + " alice\n")
    run("postmap", ETC + "/login_map", check=True)
    templates = [read(path) for path in glob.glob(ETC + "/template/*")]
    base, current, counts = shown_lines(templates), None, [0, 0]
    for row in scenarios(mode == "check"):
        if isinstance(row, str):
            print(f"\n== {row}\n")
            continue
        title, switches, what, wanted = row
        changed = switches is None or switches != current
        try:
            current = None
            if changed and switches is not None:
                apply(switches)
            seen = arrives(**what) if isinstance(what, dict) else what()
            current = switches
        except Exception as error:  # pylint: disable=broad-except
            seen = f"{type(error).__name__}: {error}"
        good = re.search(wanted, seen, re.S)
        counts[not good] += 1
        print(f"ok   {title}" if good else f"FAIL {title}, wanted: {wanted}", flush=True)
        lines = shown_lines(templates)
        if mode == "show" or not good:
            for path in sorted({*base, *lines}) if changed or not good else ():
                difference = difflib.unified_diff(base.get(path, []), lines.get(path, []), n=0, lineterm="")
                show(path, [line for line in difference if not re.match(r"---|\+\+\+|@@", line)])
            show("what is seen", seen.splitlines())
        if not switches:
            base = lines
    print("skip MailScanner is not in Debian: no daemon read MailScanner.conf, its lines were checked in its place")
    print(f"\n{counts[0]} passed, {counts[1]} failed, 1 skipped")
    return counts[1] > 0


def show(title, lines):
    """Some of the lines, without passwords."""
    if lines:
        text = "".join(f"     |  {line}\n" for line in [*lines[:40], *["..."] * (len(lines) > 40)])
        for secret in SECRETS:
            text = text.replace(secret, "*" * 8)
        print(f"     {title}\n{text}")


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
