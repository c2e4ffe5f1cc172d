"""What the administrator, mail users and strangers do with a mail appliance. Each function returns what is seen."""

import contextlib
import imaplib
import os
import poplib
import random
import re
import smtplib
import socket
import subprocess

import peers
from appliance import (DOVECOT, ETC, HERE, PACKAGE, PROGRAM, SBIN, command, complaints, contents, generate, mailbox,
                       message, read, run, send, settings, start, trusting, wait_for, write)

OURS, FAR = "alice@mail.example.com", "dave@far.example"
OWN_VALUES = """message_size_limit = 5000
mynetworks = 127.0.0.0/8,
  192.0.2.0/24
biff = yes
biff = no
smtpd_banner = $myhostname says = hello
"""  # replaced, continued, given twice, new
TEST_SPAM = "XJS*C4JDBQADN1.NSBN3*2IDNEN*GTUBE-STANDARD-ANTI-UBE-TEST-EMAIL*C.34X\n"


def accepted(**files):
    """What the daemons' checkers, and one here for MailScanner, complain about, except for what they cannot know."""
    generate(**files)
    # Only the appliance's own Postfix knows these parameters, Postfix 3.10 warns of what will be removed, and OpenDMARC
    # needs a host name.
    known = 'unused parameter: smtpd_sasl_sender_(quota|rate)_|parameter "smtpd?_use_tls" will be removed'
    if not files.get("smtp", {}).get("smtp_hostname"):
        known += "|^opendmarc: .*(required value missing|exit 78)"
    found = [line for line in complaints() if not re.search(known, line)]
    for path, sign in (("MailScanner/MailScanner.conf", " = "), ("spamassassin/local.cf", " "), ("opendkim.conf", " "),
                       ("opendmarc.conf", " ")):
        if os.path.exists(f"{ETC}/{path}"):
            lines = [line.partition(sign) for line in read(f"{ETC}/{path}").splitlines() if line[:1] not in ("", "#")]
            if not all(line[1] for line in lines) or len({line[0] for line in lines}) < len(lines):
                found.append(f"{path}: no value, or a key twice: {lines}")
    return "\n".join(found) or "accepted"


def customised():
    """What Postfix reads when the administrator has values of his own."""
    write(PACKAGE + "/etc/customize/postfix/main.cf", OWN_VALUES)
    found = accepted()
    os.unlink(PACKAGE + "/etc/customize/postfix/main.cf")
    keys = re.findall("^[a-z_]+(?= =)", read(ETC + "/main.cf"), re.M)
    values = run("postconf", "-c", ETC, "message_size_limit", "mynetworks", "biff", "smtpd_banner").stdout
    return f"customize/postfix/main.cf:\n{OWN_VALUES}\n{found}, {len(keys) - len(set(keys))} keys twice:\n{values}"


def previewed(**smtp):
    settings(smtp=smtp)
    result = run(PACKAGE + "/target/bin/nubo_config_preview", "smtp")
    return f"{result.stdout}{result.stderr}exit {result.returncode}"


def refused(text):
    """What one run does with a settings file, or with a directory in its place."""
    settings()
    before, path = contents(ETC), PACKAGE + "/etc/settings/smtp.json"
    write(path, text) if text else os.mkdir(path)
    status, lines = command("smtp")
    if not text:
        os.rmdir(path)
    return "\n".join([f"exit {status}", f"files unchanged: {contents(ETC) == before}", *sorted(lines)])


def awkward_aliases():
    """How many of 1,000 aliases the mail system finds, each as exactly its recipients."""
    dice = random.Random(7)
    signs = " \"'#:;\\,<>()[]{}!$%&*+-=?^_`|~.é漢ß"
    table, found = {}, {}
    for number in range(1000):
        name, other = ("".join(dice.choices(some, k=6)) + str(number) for some in (signs + "@", signs))
        table[name] = [f"u{number}", f"o{other}@example.net"][:number % 2 + 1]
    generate(aliases=table)
    for line in run("postmap", "-q", "-", f"hash:{ETC}/aliases", text="\n".join(table)).stdout.splitlines():
        name, recipients = line.split("\t", 1)
        # Reads an address as the mail system does: with quoted parts, and a backslash before a character.
        found[name] = [re.sub(r'\\(.)|"', r"\1", item) for item in
                       re.findall(r'((?:"(?:\\.|[^"\\])*"|\\.|[^,"\\])+)(?:, |$)', recipients)]
    some = "\n".join(read(ETC + "/aliases").splitlines()[500:504])
    return f"{sum(found.get(name) == wanted for name, wanted in table.items())} found, such as\n{some}"


def killed_runs(files):
    """How many files are not whole after 50 runs at once, every second of which is killed."""
    generate(**files)
    before = contents(ETC)
    runs = [subprocess.Popen((PROGRAM, "smtp"), stderr=subprocess.DEVNULL) for _ in range(50)]
    for number, process in enumerate(runs):
        if number % 2:
            process.kill()
        process.wait()
    after = contents(ETC)
    return f"{sum(after.get(path) != text for path, text in before.items() if path[-3:] != '.db')} damaged"


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
    peers.Relay.heard.clear()
    send(FAR, sender=OURS, client="127.0.0.1")
    wait_for(lambda: len(peers.Relay.heard) > 1, "mail at the relay host")
    return " ".join(peers.Relay.heard)


def signed(**how):
    """What a verifier with our published key says about a message."""
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
    found = run(SBIN + "/doveconf", "-n").stderr.split()
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
    write(DOVECOT, read(DOVECOT).replace("args = dovecot.local", "args = dovecot.domain"))
    start("dovecot")
    with imaplib.IMAP4_SSL(HERE, ssl_context=trusting()) as server:
        server.login("erin", peers.DOMAIN_PASSWORD)
        server.select()
        return str(server.fetch("1", "(RFC822)"))


def looked_up(table, *keys):
    results = [run("postmap", "-c", ETC, "-q", key, table) for key in keys]
    return ", ".join((result.stdout + result.stderr).strip() or "-" for result in results)


def cached(key, value):
    """What Postfix finds in the cache of sender quotas after somebody has stored a value there."""
    start("memcached")
    with socket.create_connection(("127.0.0.1", 11211)) as cache:
        cache.sendall(f"set {key} 0 0 {len(value)}\r\n{value}\r\n".encode())
        cache.recv(99)
    return looked_up(f"memcache:/{ETC}/quota_memcache.cf", key)


def judged(body):
    return run("spamassassin", "-L", "-t", f"--siteconfigpath={ETC}/spamassassin",
               text=message("x@far.example", OURS, "Subject: x\n\n" + body)).stdout
