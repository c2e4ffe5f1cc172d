#!/usr/bin/python3
"""Mail through real daemons that run on what nubo_set_config generated, one line a scenario.

Runs as root of a private machine only: private_root real_daemons.py STAGED-PACKAGE."""

import contextlib
import imaplib
import itertools
import json
import os
import poplib
import random
import re
import smtplib
import socket
import sys

TOP = os.path.dirname(os.path.abspath(__file__)) + "/.."
sys.path.insert(0, TOP + "/lab")
from appliance import (COMMANDS, DOVECOT, ETC, HERE, PACKAGE, answers, command, complaints, daemon, lay_out, mail_log,
                       mailbox, message, read, run, send, settings, trusting, wait_for, write)
from peers import Relay, directory, domain, name_server, relay_host

OURS, FAR = "alice@mail.example.com", "dave@far.example"
BLOCKLISTS = [{"zone": "bl.example", "kind": "RBL"}, {"zone": "dbl.example", "kind": "RHSBL"}]
BASE = {"smtp_hostname": "mail.example.com", "additional_domains": ["two.example"], "dnsbl": BLOCKLISTS,
        "smtp_ssl_enabled": True, "smtp_tls_enabled": True}
RELAYING = {"smtp_relay_server": "relay.example", "smtp_relay_server_port": 2525, "smtp_relay_account": "relayuser",
            "smtp_relay_password": "re:lay #p w", "smtp_relay_enabled": True, "smtp_relay_auth_enabled": True}
WINDOWS = {"account_type": "win", "win_domain_short_name": "CORP"}
# The keys of each settings file, with what its schema says of them.
KEYS = {name: json.loads(read(f"{TOP}/data/schema/{name}.schema.json"))["properties"]
        for name in ("smtp", "scanner", "imap_pop3")}
ALL = {key: what for keys in KEYS.values() for key, what in keys.items()}
SWITCHES = {
    **{key: (False, True) for key, what in ALL.items() if what["type"] == "boolean"},
    **{key: ("yes", "no", "disarm") for key in ALL if key.startswith("allow_")},
    "account_type": ("local", "ldap", "win"), "smtp_hostname": ("mail.example.com", ""), "message_limit": (10, 0, 2047),
    "always_bcc": ("", OURS), "additional_domains": ([], ["two.example"]), "dnsbl": ([], BLOCKLISTS),
    "spam_report_machanism": (0, 1, 2)}
running, counts, current = {}, {"ok": 0, "FAIL": 0}, []


def restart(name, *argv, port=None):
    if name in running:
        running[name].terminate()
        running[name].wait()
    running[name] = daemon(name, *argv, port=port)


def generate(switches):
    files = {"aliases": {"sales": ["alice"]}, "sender_quotas": {OURS: 7}, "smtp": {}, "scanner": {}, "imap_pop3": {}}
    for key, value in switches.items():
        files[next(name for name, keys in KEYS.items() if key in keys)][key] = value
    settings(**files)
    for word in COMMANDS:
        status, log = command(word)
        if status or log:
            raise RuntimeError(f"{word}: exit {status}, {log}")


def apply(switches):
    """Generates everything from the base settings and these switches; the daemons follow."""
    generate({**BASE, **switches})
    if switches.get("enable_dkim"):
        restart("opendkim", "-f", "-x", ETC + "/opendkim.conf", port=8891)
    if switches.get("enable_dmarc"):
        restart("opendmarc", "-f", "-c", ETC + "/opendmarc.conf", port=8893)
    # Restarted, not reloaded: an old process may take the next connection after a reload.
    listeners = read(ETC + "/dovecot/conf.d/10-master.conf")
    if running:
        run("postfix", "-c", ETC, "stop")
    if running.get("listeners") != listeners:
        restart("dovecot", "-c", DOVECOT, "-F", port=143)
        running["listeners"] = listeners
    run("sh", "-c", 'postfix -c "$0" start >/run/postfix.log 2>&1', ETC, check=True)
    wait_for(lambda: answers(25), "Postfix")


def scenario(title, switches, what, wanted):
    """Applies the switches where they differ from the last scenario's; what() then tells what is seen."""
    try:
        if current != [switches]:
            current.clear()
            apply(switches)
            current.append(switches)
        got = what()
    except Exception as error:  # pylint: disable=broad-except
        got = f"{type(error).__name__}: {error}"
    good = re.search(wanted, got, re.S)
    counts["ok" if good else "FAIL"] += 1
    print(f"ok   {title}" if good else f"FAIL {title}\n     got    {got.strip()}\n     wanted {wanted}", flush=True)


def arrives(user="alice", to=None, **how):
    """What a message looks like in the mailbox, or why it was refused."""
    answer = send(to or f"{user}@mail.example.com", **how)
    return answer + "\n" + mailbox(user) if answer[0] == "2" else answer


def held():
    send(OURS)
    queue = run("postqueue", "-c", ETC, "-p").stdout
    run("postsuper", "-c", ETC, "-H", "ALL")
    run("postqueue", "-c", ETC, "-f")
    return queue + mailbox("alice")


def relayed():
    Relay.heard.clear()
    send(FAR, sender=OURS, client="127.0.0.1")
    wait_for(lambda: len(Relay.heard) > 1, "mail at the relay host")
    return " ".join(Relay.heard)


def signed(**how):
    """What a verifier that has our published key says of a message."""
    key = read(PACKAGE + "/etc/dkim.key/dkim.txt").strip()
    write("/run/keys", "".join(f"default._domainkey.{name} {key}\n" for name in ("mail.example.com", "two.example")))
    write("/run/verify.conf", "Mode v\nTestPublicKeys /run/keys\n")
    write("/run/message", arrives("bob", **how).split("\n", 1)[1])
    return run("opendkim", "-x", "/run/verify.conf", "-t", "/run/message").stdout


def pipelined():
    with socket.create_connection((HERE, 25), 10) as peer:
        peer.sendall(f"HELO far.example\r\nMAIL FROM:<carol@far.example>\r\nRCPT TO:<{OURS}>\r\nQUIT\r\n".encode())
        return "".join(iter(lambda: peer.recv(9999).decode(), ""))


def extensions():
    with smtplib.SMTP(HERE) as server:
        before = server.ehlo()[1]
        server.starttls(context=trusting())
        return (before + b" TLS " + server.ehlo()[1]).decode().replace("\n", " ")


SERVICES = {"imap": lambda: imaplib.IMAP4(HERE), "pop3": lambda: poplib.POP3(HERE),
            "imaps": lambda: imaplib.IMAP4_SSL(HERE, ssl_context=trusting()),
            "pop3s": lambda: poplib.POP3_SSL(HERE, context=trusting()), "here": lambda: imaplib.IMAP4("localhost")}


def logins(encrypted=True):
    """The services at which alice can log in from another machine, and IMAP on this one."""
    found = run("doveconf", "-c", DOVECOT, "-n").stderr.split()
    for name, connect in SERVICES.items():
        with contextlib.suppress(ConnectionRefusedError):
            server = connect()
            if name in ("imap", "pop3") and encrypted:
                getattr(server, "starttls" if name == "imap" else "stls")(trusting())
            if name.startswith("pop3"):
                server.user("alice")
                server.pass_("alice-secret")
            else:
                server.login("alice", "alice-secret")
            found.append(name)
    return " ".join(found)


def first_mail():
    with imaplib.IMAP4_SSL(HERE, ssl_context=trusting()) as server:
        server.login("erin", "Passw0rd.User")
        server.select()
        return str(server.fetch("1", "(RFC822)"))


def looked_up(table, *keys):
    results = [run("postmap", "-c", ETC, "-q", key, table) for key in keys]
    return ", ".join((result.stdout + result.stderr).strip() or "-" for result in results)


def cached(key, value):
    """What Postfix finds in the cache of sender quotas after somebody has stored a value there."""
    restart("memcached", "-u", "memcache", "-l", "127.0.0.1", port=11211)
    with socket.create_connection(("127.0.0.1", 11211)) as cache:
        cache.sendall(f"set {key} 0 0 {len(value)}\r\n{value}\r\n".encode())
        cache.recv(99)
    return looked_up(f"memcache:/{ETC}/quota_memcache.cf", key)


def judged(body):
    return run("spamassassin", "-L", "-t", f"--siteconfigpath={ETC}/spamassassin",
               text=message("x@far.example", OURS, "Subject: x\n\n" + body)).stdout


def covering():
    """Runs until every two switches have had every pair of their values: the best of some random runs, each of
    which has one of the missing pairs."""
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
        yield {key: SWITCHES[key][place] for key, place in best.items()}


def accepted(switches):
    """What the daemons' checkers, and we for them, have against the files, but for what they must have."""
    for name in ("opendkim.conf", "opendmarc.conf"):
        with contextlib.suppress(FileNotFoundError):
            os.unlink(f"{ETC}/{name}")
    generate({**RELAYING, "win_domain_short_name": "CORP", **switches})
    found = complaints()
    if switches["reject_sasl_sender_rate_exceed"]:  # parameters of the appliance's own Postfix
        found = [line for line in found if not re.search("unused parameter: smtpd_sasl_sender_(quota|rate)_", line)]
    if switches["enable_dmarc"] and not switches["smtp_hostname"]:  # OpenDMARC wants a name
        found = [line for line in found if not re.match("opendmarc: .*(required value missing|exit 78)", line)]
    for path, sign in (("MailScanner/MailScanner.conf", " = "), ("spamassassin/local.cf", " "), ("opendkim.conf", " "),
                       ("opendmarc.conf", " ")):
        if os.path.exists(f"{ETC}/{path}"):
            lines = [line.partition(sign) for line in read(f"{ETC}/{path}").splitlines() if line[:1] not in ("", "#")]
            if not all(line[1] for line in lines) or len({line[0] for line in lines}) < len(lines):
                found.append(f"{path}: no value, or a key twice: {lines}")
    return "\n".join(found)


def main():
    lay_out(sys.argv[1])
    name_server()
    relay_host()
    write(ETC + "/login_map", OURS + " alice\n")
    run("postmap", ETC + "/login_map", check=True)
    login = {"port": 587, "tls": "starttls", "login": "alice", "sender": OURS}
    for row in [  # title, switches, what a mail user does, what is then seen
        ("mail reaches a mailbox through an alias", {},
         lambda: arrives(to="sales@mail.example.com"), "^250.*X-Original-To: sales@.*Good morning"),
        ("so does mail for an additional domain", {}, lambda: arrives("bob", "bob@two.example"), "^250.*Good morning"),
        ("nobody else may relay", {}, lambda: send(FAR), "^554 5.7.1 .*Relay access denied"),
        ("... nor the local network", {"smtp_ignore_lan_auth": True}, lambda: send(FAR, client="192.0.2.7"), "^554"),
        ("passwords are asked for under TLS only", {}, extensions, "^(?!.*AUTH.*TLS).* TLS .*AUTH PLAIN LOGIN"),
        ("... and by nobody when that is off", {"smtp_auth_enabled": False}, extensions, "^(?!.*AUTH)"),
        ("STARTTLS listener: no mail without TLS", {}, lambda: send(FAR, port=587), "^530 5.7.0 Must issue a STARTTLS"),
        ("... no mail without login", {}, lambda: send(OURS, port=587, tls="starttls"), "^554 .*Client host rejected"),
        ("... mail after login", {}, lambda: arrives(**login), "^250.*ESMTPSA"),
        ("TLS listener: no mail without login", {}, lambda: send(OURS, port=465, tls="implicit"), "^554 .*rejected"),
        ("... mail after login", {}, lambda: arrives(**{**login, "port": 465, "tls": "implicit"}), "^250.*ESMTPSA"),
        ("a message over the size limit", {"message_limit": 1}, lambda: send(OURS, text="\n" * 2**20), "^552 5.3.4"),
        ("a limit above the default of mailboxes", {"message_limit": 2047}, arrives, "^250"),
        ("always_bcc copies", {"always_bcc": "bob@mail.example.com"}, lambda: send(OURS) + mailbox("bob"), "^250.*mor"),
        ("spam scanning puts mail on hold", {"spam_enable": True}, held, "[0-9A-F]+!.*Good morning"),
        ("virus scanning does", {"anti_virus_enable": True}, held, "[0-9A-F]+!.*Good morning"),
        ("content scanning does", {"enable_dangerous_content_scan": True}, held, "[0-9A-F]+!.*Good morning"),
        ("HELO with a bare name", {"reject_non_fqdn_helo_hostname": True}, lambda: send(OURS, helo="pc"), "^504 5.5.2"),
        ("HELO with an unknown name", {"reject_unknown_helo_hostname": True}, lambda: send(OURS, helo="no.example"),
         "^450 4.7.1"),
        ("sender without a domain", {}, lambda: send(OURS, sender="carol"), "^504 5.5.2"),
        ("... is taken when that is off", {"reject_non_fqdn_sender": False}, lambda: arrives(sender="carol"), "^250"),
        ("sender of an unknown domain", {"reject_unknown_sender_domain": True},
         lambda: send(OURS, sender="carol@no.example"), "^450 4.1.8"),
        ("client without a name", {"reject_unknown_client_hostname": True}, lambda: send(OURS, client="192.0.2.66"),
         "^450 4.7.25"),
        ("client that does not wait for its turn", {}, pipelined, "503 5.5.0 .*pipelining"),
        ("client on a blocklist", {"spam_dnsbl_enable": True}, lambda: send(OURS, client="192.0.2.66"),
         "^554 5.7.1 .* bl.example"),
        ("... by its name", {"spam_dnsbl_enable": True}, lambda: send(OURS, client="192.0.2.77"), "^554 .*dbl.example"),
        ("a user under the address of another", {"restrict_sender": True},
         lambda: send(OURS, **{**login, "sender": "bob@mail.example.com"}), "^553 5.7.1 .*not owned by user alice"),
        ("... and under the own one", {"restrict_sender": True}, lambda: arrives(**login), "^250"),
        ("SPF: a forged sender", {"enable_spf_check": True}, lambda: send(OURS, sender="x@hard.example"), "^550 5.7.1"),
        ("SPF: a doubtful one is marked", {"enable_spf_check": True}, lambda: arrives(sender="x@soft.example"),
         "^250.*Received-SPF: softfail"),
        ("... or refused", {"enable_spf_check": True, "reject_spf_soft_fail": True},
         lambda: send(OURS, sender="x@soft.example"), "^550 5.7.1 .*content rejected"),
        ("sender quotas need the appliance's own Postfix", {"reject_sasl_sender_rate_exceed": True}, lambda: send(OURS),
         "^451 4.3.5"),
        ("... their cache is found", {"reject_sasl_sender_rate_exceed": True}, lambda: cached(OURS, "3"), "^3$"),
        ("the relay host gets mail and password", RELAYING, relayed, "^open  relayuser re:lay #p w .*Good morning"),
        ("... encrypted where it offers that", {**RELAYING, "smtp_relay_secure_conn": True}, relayed, "^encrypted  re"),
        *[(f"DKIM: mail of {who} is signed for {name}", {"enable_dkim": True},
           lambda how=how, name=name: signed(**{**how, "sender": "alice@" + name}),
           rf"verification \(s=default, d={name}, 2048-bit key\) succeeded")
          for name in ("mail.example.com", "two.example")
          for who, how in (("a user", login), ("this machine", {"client": "127.0.0.1"}))],
        ("... that of others is not", {"enable_dkim": True}, lambda: arrives(sender=OURS), "^250(?!.*DKIM-Signature)"),
        ("DMARC: the verdict carries our name", {"enable_dmarc": True}, arrives,
         r"^250.*Authentication-Results: mail\.example\.com; dmarc=pass \(p=none"),
        *[("logins with " + (" and ".join(on) or "nothing") + " on", {f"{name}_enabled": name in on for name in names},
           logins, "^" + " ".join([*on, "here"]) + "$")
          for names in [tuple(SERVICES)[:4]] for size in range(5) for on in itertools.combinations(names, size)],
        ("a password without TLS is not taken", {}, lambda: logins(encrypted=False), "(?i)plaintext"),
        ("SpamAssassin flags the test message", {"spam_auto_learn": True, "spam_auto_whitelist": True},
         lambda: judged("XJS*C4JDBQADN1.NSBN3*2IDNEN*GTUBE-STANDARD-ANTI-UBE-TEST-EMAIL*C.34X\n"), "X-Spam-Flag: YES"),
        ("... and no other", {"spam_auto_learn": True, "spam_auto_whitelist": True}, lambda: judged("Hello.\n"),
         "^(?!.*X-Spam-Flag: YES).*X-Spam-Status: No"),
    ]:
        scenario(*row)
    slapd = directory()
    scenario("LDAP: the directory's names, and no other", {"account_type": "ldap"},
             lambda: looked_up(f"ldap:{ETC}/ldap-aliases.cf", "frieda", "nobody", "fr*"), "^frieda, -, -$")
    scenario("LDAP: mail is taken", {"account_type": "ldap"}, arrives, "^250")
    runs = list(covering())
    for number, switches in enumerate(runs, 1):
        scenario(f"covering settings, {number} of {len(runs)}, are accepted", {}, lambda s=switches: accepted(s), "^$")
    slapd.terminate()
    domain()
    scenario("Windows: looked up in the domain", WINDOWS,
             lambda: looked_up(f"ldap:{ETC}/domain-aliases.cf", "erin", "nobody"), "^erin, -$")
    write(PACKAGE + "/etc/brindlecot.conf", "domain_alias_map = yes\n")
    scenario("Windows: mail for the bare name", {**WINDOWS, "message_limit": 20},
             lambda: arrives("CORP/erin", "erin@mail.example.com"), "^250.*Good morning")
    write(DOVECOT, read(DOVECOT).replace("args = dovecot.local", "args = dovecot.domain"))
    scenario("... which is read after a login", {**WINDOWS, "imaps_enabled": True}, first_mail, "OK.*Good morning")
    scenario("no daemon complained", WINDOWS, lambda: "\n".join(
        re.findall(".*(?:fatal|panic|overriding).*", mail_log())), "^$")
    print("skip MailScanner is not in Debian: no daemon read MailScanner.conf, its lines were checked in its place")
    print(f"\n{counts['ok']} passed, {counts['FAIL']} failed, 1 skipped")
    return counts["FAIL"] > 0


if __name__ == "__main__":
    sys.exit(main())
