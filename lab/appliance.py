"""A mail appliance on a private machine (lab/private_root): its settings, its commands, its daemons."""

import contextlib
import functools
import glob
import json
import os
import queue
import signal
import smtplib
import socket
import ssl
import subprocess
import threading
import time

PACKAGE = "/var/packages/Brindlecot"
ETC = PACKAGE + "/target/etc"
PROGRAM = PACKAGE + "/target/bin/nubo_set_config"
POSTMAP = PACKAGE + "/target/sbin/postmap"
COMMANDS = ("smtp", "dovecot", "mailscanner", "alias", "domain_alias", "sender_quota_map")
SBIN = PACKAGE + "/target/sbin"
DOVECOT = ETC + "/dovecot/dovecot.conf"
HERE = "192.0.2.1"  # the appliance's address for other machines
CLIENT = "192.0.2.10"  # another machine
# The daemons that start() knows: their commands, and the port that answers once they run.
DAEMONS = {
    # "postfix start" would check everything each time, and take longer than most rows of scenarios.py.
    "postfix": (("sh", "-c", f"[ -d {PACKAGE}/target/var/spool/postfix/active ] || postfix -c {ETC} check; "
                 f"exec /usr/lib/postfix/sbin/master -d -c {ETC}"), 25),
    "dovecot": ((SBIN + "/dovecot", "-F"), 143),
    "opendkim": (("opendkim", "-f", "-x", ETC + "/opendkim.conf"), 8891),
    "opendmarc": (("opendmarc", "-f", "-c", ETC + "/opendmarc.conf"), 8893),
    "memcached": (("memcached", "-u", "memcache", "-l", "127.0.0.1"), 11211),
}
running = {}
take_log = None  # returns the lines logged since its last call
message_id = ["0"]


def run(*command, text=None, check=False):
    """Runs a program to its end. The result has its stdout and stderr."""
    result = subprocess.run(command, input=text or "", capture_output=True, text=True, errors="surrogateescape",
                            check=False)
    if check and result.returncode:
        raise RuntimeError(f"{' '.join(command)}: exit {result.returncode}, {result.stderr}")
    return result


def write(path, text, mode=0o644):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    if os.path.lexists(path):
        os.unlink(path)  # it may be another program's
    with open(path, "w", encoding="utf-8", errors="surrogateescape", newline="",
              opener=lambda p, flags: os.open(p, flags, mode)) as file:
        file.write(text)


def read(path):
    with open(path, encoding="utf-8", errors="surrogateescape", newline="") as file:
        return file.read()


def listen():
    """Receives what is sent to the system log. Returns a function that gives the lines since its last call."""
    log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    log.bind("/dev/log")
    os.chmod("/dev/log", 0o666)
    lines = queue.SimpleQueue()

    def receive():
        while True:
            lines.put(log.recv(65536).decode(errors="surrogateescape"))

    def take():
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as end:
            end.sendto(b"", "/dev/log")  # marks the end of what was sent before
        return list(iter(lines.get, ""))

    threading.Thread(target=receive, daemon=True).start()
    return take


def lay_out(stage, users=("alice", "bob")):
    """Installs the staged package, and gives the machine a network, a system log and users."""
    run("sh", "-c", 'cp -a "$0"/* /', stage, check=True)
    run(os.path.dirname(os.path.abspath(__file__)) + "/../packaging/postinst", check=True)
    write("/etc/hosts", f"127.0.0.1 localhost\n::1 localhost\n{HERE} mail.example.com mail\n")
    write("/etc/resolv.conf", "nameserver 127.0.0.53\n")
    # All addresses of this network are this machine's. A client that does not choose one comes from CLIENT.
    run("ip", "route", "add", "local", "192.0.2.0/24", "dev", "lo", check=True)
    run("ip", "route", "change", "local", "192.0.2.0/24", "dev", "lo", "src", CLIENT, check=True)
    for user in users:
        run("useradd", "--create-home", user, check=True)
        run("chpasswd", text=f"{user}:{user}-secret", check=True)
    global take_log
    take_log = listen()


def settings(**files):
    """Replaces the settings. Each argument is a file's object as a dict; files that are not named are removed."""
    for path in glob.glob(PACKAGE + "/etc/settings/*.json"):
        os.unlink(path)
    for name, values in files.items():
        lines = [json.dumps({key: value}, ensure_ascii=False)[1:-1] for key, value in values.items()]
        write(f"{PACKAGE}/etc/settings/{name}.json", "{\n" + ",\n".join(lines) + "\n}\n", 0o600)


def command(word):
    """Runs one command and returns its exit status and the lines that it logged."""
    take_log()
    status = run(PROGRAM, word).returncode
    lines = [line.split(" nubo_set_config: ", 1)[1] for line in take_log() if " nubo_set_config: " in line]
    # Postfix's programs wait until a changed file is two seconds old.
    for path in glob.glob(ETC + "/*.cf"):
        os.utime(path, (time.time() - 10,) * 2)
    return status, lines


def generate(**files):
    """Replaces the settings and runs every command; raises an error unless each ends with 0 and logs nothing."""
    settings(**files)
    for path in glob.glob(ETC + "/opend*.conf"):  # which stay when a filter is switched off
        os.unlink(path)
    for word in COMMANDS:
        status, lines = command(word)
        if status or lines:
            raise RuntimeError(f"nubo_set_config {word}: exit {status}, {lines}")


def contents(folder):
    """The bytes of each file below a folder, by path."""
    return {path: read(path) for path in glob.glob(folder + "/**", recursive=True) if os.path.isfile(path)}


@functools.lru_cache(None)
def lint(check, _local_cf):
    return run(*check)


def complaints():
    """What the daemons' own checkers complain about, one line each."""
    found = []
    for check in (("postconf", "-n", "-c", ETC), ("postfix", "-c", ETC, "check"), (SBIN + "/doveconf", "-n"),
                  ("spamassassin", "--lint", "--siteconfigpath", ETC + "/spamassassin"),
                  ("opendkim", "-n", "-x", ETC + "/opendkim.conf"), ("opendmarc", "-n", "-c", ETC + "/opendmarc.conf")):
        if check[0].startswith("opend") and not os.path.exists(check[-1]):
            continue
        begin = len(mail_log())
        result = lint(check, read(ETC + "/spamassassin/local.cf")) if check[1] == "--lint" else run(*check)
        # Without a terminal the tools write to the log, as running daemons may too.
        logged = [line for line in mail_log()[begin:].splitlines() if " postfix/post" in line]
        found += [f"{check[0]}: {line}" for line in result.stderr.splitlines() + logged]
        if result.returncode:
            found.append(f"{check[0]}: exit {result.returncode}")
    return found


def mail_log():
    with contextlib.suppress(FileNotFoundError):
        return read(PACKAGE + "/target/var/log/mail.log")
    return ""


def start(name):
    """Starts or restarts one of DAEMONS, so that it reads its files. Postfix needs Dovecot."""
    stop(name)
    argv, port = DAEMONS[name]
    running[name] = daemon(*argv, port=port, greets=name in ("postfix", "dovecot"))


def stop(name):
    """Kills a daemon and all its processes, so that none accepts another connection."""
    process = running.pop(name, None)
    if process:
        with contextlib.suppress(ProcessLookupError):
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
            wait_for(lambda: os.killpg(process.pid, signal.SIGKILL), f"the end of {name}")


def daemon(*argv, port, host="127.0.0.1", greets=False):
    """Starts a program that stays in the foreground and waits until its port answers; one that greets its clients
    has opened all its ports by then."""
    with open("/run/daemons.log", "a", encoding="utf-8") as log:
        process = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True)
    wait_for(lambda: answers(port, host, greets), f"{argv[0]} on port {port}")
    return process


def answers(port, host, greets=False):
    with contextlib.suppress(OSError), socket.create_connection((host, port), 5) as peer:
        return not greets or peer.recv(1) != b""
    return False


def wait_for(condition, what):
    end = time.time() + 60
    while not (result := condition()):
        if time.time() > end:
            raise TimeoutError(what)
        time.sleep(0.02)
    return result


def trusting():
    """A client's TLS context that trusts the appliance's certificate for any address."""
    context = ssl.create_default_context(cafile=PACKAGE + "/etc/ssl/server.crt")
    context.check_hostname = False
    return context


def message(sender, to, text):
    """A message with an identification of its own. mailbox() looks for the last message made here."""
    message_id[0] = f"<{int(time.time() * 1e6)}@far.example>"
    return f"From: {sender}\nTo: {to}\nDate: Thu, 1 Jan 2026 12:00:00 +0000\nMessage-ID: {message_id[0]}\n{text}"


def send(to, sender="carol@far.example", port=25, client=CLIENT, helo="client.far.example", tls=None, login=None,
         text="Subject: hello\n\nGood morning.\n"):
    """Hands a message over by SMTP; returns the reply that refused it, or "250"."""
    where = {"host": "localhost" if client.startswith("127.") else HERE, "port": port, "local_hostname": helo,
             "timeout": 60, "source_address": (client, 0)}
    try:
        with smtplib.SMTP_SSL(context=trusting(), **where) if tls == "implicit" else smtplib.SMTP(**where) as server:
            if tls == "starttls":
                server.starttls(context=trusting())
            if login:
                server.login(login, login + "-secret")
            server.sendmail(sender, to, message(sender, to, text))
            return "250"
    except smtplib.SMTPRecipientsRefused as error:
        code, reply = error.recipients[to]
    except smtplib.SMTPResponseException as error:
        code, reply = error.smtp_code, error.smtp_error
    return f"{code} {reply.decode()}"


def mailbox(user):
    """The message sent last, once it has arrived in this user's mailbox."""
    def arrived():
        return [text for text in map(read, glob.glob(f"/home/{user}/Maildir/new/*")) if message_id[0] in text]

    return wait_for(arrived, f"mail for {user}")[0]
