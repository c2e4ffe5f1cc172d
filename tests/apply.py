#!/usr/bin/python3
"""apply.py STAGED-PACKAGE [TEST...]: nubo_config_apply with the real daemons, each of its ways back among them."""

import contextlib
import json
import os
import re
import shutil
import signal
import smtplib
import socket
import subprocess
import sys
import time
import unittest

from appliance import (DOVECOT, ETC, HERE, PACKAGE, SBIN, answers, command, daemon, generate, lay_out, read, run,
                       settings, wait_for, write)
from appliance_test import CUSTOM, FOLDERS, ApplianceTest, files

APPLY = PACKAGE + "/target/bin/nubo_config_apply"
STATES = PACKAGE + "/target/var/lib/apply/"
SETTINGS = PACKAGE + "/etc/settings"
SSL = PACKAGE + "/etc/ssl"
ACCESS = ETC + "/access/client_access"
SMTP = {"smtp_hostname": "mail.example.com", "smtp_ssl_enabled": True, "message_limit": 20}
GOOD = {"smtp": SMTP, "aliases": {"postmaster": ["alice"]}}
# Makes the daemons load the files.
LOAD = f"""exec >>/run/daemons.log 2>&1
{SBIN}/dovecot stop
{SBIN}/dovecot
postfix -c {ETC} reload || postfix -c {ETC} start"""
good = {}  # the files that hold GOOD


def setUpModule():
    lay_out(stage)
    run("ip", "addr", "add", HERE + "/32", "dev", "lo", check=True)
    write("/usr/nubo/etc/nslcd.conf", "uri ldap://127.0.0.1\nbase dc=example\nbinddn cn=mail\n")
    write("/usr/nubo/etc/ldap.secret", "secret\n", 0o600)
    generate(**GOOD)
    run("sh", "-c", LOAD, check=True)
    run(APPLY, check=True)
    os.mkdir("/run/good")
    run("cp", "-a", "--parents", STATES, *FOLDERS, "/run/good", check=True)
    good.update(files())


def change(**smtp):
    """Writes settings of the SMTP server that are not in force yet."""
    settings(**{**GOOD, "smtp": {**SMTP, **smtp}})


def is_pending():
    return os.path.exists(STATES + "pending")


def last_state():
    return max(int(name) for name in os.listdir(STATES) if name.isdigit())


def limit():
    """The size limit in megabytes, as the SMTP server tells it."""
    with socket.create_connection((HERE, 25), 60) as server:
        server.sendall(b"EHLO there\r\nQUIT\r\n")
        return int(re.search(rb"SIZE (\d+)", b"".join(iter(lambda: server.recv(999), b"")))[1]) // 2**20


def certificate(name, days="9"):
    """Makes a certificate and its key; returns their paths."""
    made, key = f"/run/{name}.crt", f"/run/{name}.key"
    subject = ("-subj", "/CN=" + name)
    run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", *subject, "-keyout", key, "-out", made, check=True)
    run("openssl", "x509", "-in", made, "-signkey", key, "-days", days, "-out", made, check=True)
    return made, key


class Apply(ApplianceTest):
    def setUp(self):
        """State 2 is in force, which was made from GOOD."""
        run("rm", "-rf", "/home/bob/Maildir")
        changed = files() != good
        for folder in (STATES.rstrip("/"), *(FOLDERS if changed else ())):
            # By renames: a process of Postfix that starts meanwhile and finds no main.cf would not start again for a
            # minute.
            run("cp", "-a", "/run/good" + folder, folder + ".new", check=True)
            os.rename(folder, folder + ".old")
            os.rename(folder + ".new", folder)
            shutil.rmtree(folder + ".old")
        if changed:
            run("sh", "-c", LOAD, check=True)

    def apply(self, *words, status=0):
        return self.run_program(APPLY, *words, status=status)

    @contextlib.contextmanager
    def running(self, *words):
        """A change that goes on while the body runs, once it can be taken back."""
        with subprocess.Popen((APPLY, *words), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              start_new_session=True) as process:
            wait_for(lambda: is_pending() or process.poll() is not None, "the way back")
            yield process
            process.printed = process.communicate()[0]

    def test_first_use(self):
        """On a machine that was set up by hand, the files as found become state 1, which root alone can read."""
        shutil.rmtree(STATES)
        change(message_limit=21)
        self.apply("-m", "larger\nmail")
        self.assertEqual(limit(), 21)
        self.assertRegex(self.apply("history"), r"^1  As found\n2  .* \+0000  root  nubo_config_apply: larger mail\n$")
        self.assertEqual(os.stat(STATES).st_mode & 0o777, 0o700)

    def test_two_at_once(self):
        """The second touches nothing."""
        change(message_limit=21)
        with self.running("smtp") as first:
            self.assertIn("another change is under way", self.apply("smtp", status=1))
        self.assertEqual((first.returncode, limit()), (0, 21), first.printed)

    # Changes that go wrong on the live machine only.

    def assert_taken_back(self, reason, word, breaks, **new):
        """The change says the reason, and all is as when the command began: the new settings, and an access table that
        was edited before. `breaks` is called once the preview is over."""
        settings(**{**GOOD, **new})
        write(ACCESS, "192.0.2.99 REJECT\n")
        before = files()
        with self.running(word) as process:
            breaks()
        self.assertEqual(process.returncode, 3, process.printed)
        self.assertRegex(process.printed, reason)
        self.assert_same(before, files())

    def take(self, port):
        """Another program has the port; it is bound, and refused to those who connect."""
        other = socket.socket()
        self.addCleanup(other.close)
        other.bind(("", port))

    def test_port_is_taken(self):
        self.assert_taken_back("Postfix", "smtp", lambda: self.take(587), smtp={**SMTP, "smtp_tls_enabled": True})

    def test_another_postfix(self):
        """It shares port 25, and is named: before a change, which then touches nothing, and after it."""
        write("/run/other/main.cf", "compatibility_level = 3.6\nqueue_directory = /run/other/queue\n"
              "data_directory = /run/other/data\n")
        shutil.copy("/usr/share/postfix/master.cf.dist", "/run/other/master.cf")
        os.makedirs("/run/other/queue")
        self.addCleanup(run, "postfix", "-c", "/run/other", "stop")
        named = "Port 25 is held by /usr/lib/postfix/sbin/master, process "
        self.assert_taken_back(named, "smtp", lambda: run("postfix", "-c", "/run/other", "start", check=True),
                               smtp={**SMTP, "message_limit": 21})
        before = files()
        self.assertIn(named, self.apply("smtp", status=1))
        self.assert_same(before, files())

    def test_local_delivery_is_dead(self):
        """Who does not read the changed file goes on: Dovecot, and somebody who is sending a message."""
        dovecot = run("pgrep", "-x", "dovecot").stdout
        client = smtplib.SMTP(HERE, 25, "client.far.example", timeout=60)
        self.addCleanup(client.close)
        client.mail("carol@far.example")
        client.rcpt("alice@mail.example.com")
        client.docmd("DATA")
        self.assert_taken_back("from this machine: status=bounced", "alias", lambda: write("/home/bob/Maildir", ""),
                               aliases={"postmaster": ["bob"]})
        client.send("Subject: long\r\n\r\n.\r\n")
        self.assertEqual(client.getreply()[0], 250)
        self.assertEqual(run("pgrep", "-x", "dovecot").stdout, dovecot)

    # What a command finds that fails, or others do meanwhile.

    def test_half_edited(self):
        """A daemon that runs is stopped only when its files are good, and goes on with those that it had loaded."""
        pair = certificate("new")
        master = read(ETC + "/master.cf")
        write(ETC + "/master.cf", master + "submission inet n")
        before = run("pgrep", "-x", "master|dovecot").stdout
        self.apply("renew", *pair, status=1)
        self.assertEqual(run("pgrep", "-x", "master|dovecot").stdout, before)
        write(ETC + "/master.cf", master)
        settings(**GOOD, imap_pop3={"imaps_enabled": True})
        self.take(993)
        command("dovecot")
        self.apply("renew", *pair, status=3)
        self.assertTrue(answers(143, "127.0.0.1", True))

    def test_failing_before(self):
        """It is not held against a change; a change mends it."""
        write(CUSTOM, "smtpd_helo_restrictions = hostname\n")
        before = files()
        self.apply("smtp", status=1)
        self.assert_same(before, files())
        command("smtp")
        run("postfix", "-c", ETC, "reload")
        os.unlink(CUSTOM)
        self.assertIn("as it is: fails: ", self.apply("smtp"))
        self.apply("check")

    def test_mail_of_others(self):
        """A copy for an archive that nobody takes, and a line in the log that anybody can write, decide nothing."""
        change(always_bcc="archive@[127.0.0.9]")
        with self.running("smtp") as process:
            while process.poll() is None:
                run("postlog", "-c", ETC, "-p", "fatal", "of somebody else")
        self.assertEqual(process.returncode, 0, process.printed)

    def test_another_process(self):
        """A user's process that looks like Dovecot is not Dovecot: it runs the program, and was started so."""
        run(SBIN + "/dovecot", "stop")
        self.addCleanup(run, "postfix", "-c", ETC, "stop")
        settings(**GOOD, imap_pop3={"pop3_enabled": True})
        other = subprocess.Popen(("setpriv", "--reuid=nobody", "--clear-groups", "strace", "-qqo", "/dev/null", "-e",
                                  "inject=openat:delay_enter=60s", "/usr/sbin/dovecot", "-F", "-c", DOVECOT))
        self.addCleanup(other.wait)
        self.addCleanup(other.kill)
        wait_for(lambda: run("pgrep", "-u", "nobody", "-x", "dovecot").stdout, "a process")
        self.assertIn("nothing to do", self.apply("dovecot"))

    def test_state_is_what_was_tried(self):
        """Settings that are saved while the daemons load are not in the state."""
        change(message_limit=21)
        tried = files(SETTINGS)
        with self.running("smtp") as process:
            wait_for(lambda: os.path.exists(STATES + "pending/touched"), "the daemons")
            change(message_limit=22)
        self.assertEqual(process.returncode, 0, process.printed)
        self.assertCountEqual(files(f"{STATES}{last_state()}/in" + SETTINGS).values(), tried.values())

    def test_full_disk(self):
        """Without room for going back nothing is touched."""
        change(message_limit=21)
        before = files()
        run("mount", "-t", "tmpfs", "-o", "size=300k", "tmpfs", STATES, check=True)
        self.assertIn("No space left", self.apply("smtp", status=1))
        run("umount", STATES, check=True)
        self.assert_same(before, files())

    # Confirming, and going back on purpose.

    def test_not_confirmed(self):
        """It outlives its session and its killed timer, nobody else changes anything, and it is taken back; files that
        others have written stay or are kept."""
        change(message_limit=22)
        before = files()
        with self.running("-t", "0.3", "smtp") as session:
            os.killpg(session.pid, signal.SIGHUP)
        self.assertEqual((session.returncode, limit()), (0, 22), session.printed)
        for process in run("pgrep", "-f", APPLY + " wait").stdout.split():
            os.kill(int(process), signal.SIGKILL)
            time.sleep(1.5)
        self.apply("smtp", status=1)
        write(ETC + "/mine", "")
        write(ETC + "/main.cf", read(ETC + "/main.cf") + "# mine\n")
        wait_for(lambda: not is_pending(), "the old state")
        self.assert_same({**before, ETC + "/mine": files()[ETC + "/mine"]}, files())
        self.assertEqual(limit(), 20)
        self.assertIn("# mine", "".join(files(STATES + "kept").values()))

    def test_confirm(self):
        """It takes a change that is in force as a whole, and none that going back has begun with."""
        change(message_limit=23)
        self.apply("-t", "5", "smtp")
        self.apply("confirm")
        self.assertEqual((limit(), is_pending()), (23, False))
        change(message_limit=24)
        self.apply("-t", "5", "smtp")
        os.unlink(ETC + "/main.cf")
        os.makedirs(ETC + "/main.cf/directory")
        self.apply("recover", status=4)
        self.apply("confirm", status=1)
        shutil.rmtree(ETC + "/main.cf")
        self.apply("recover", status=3)
        self.assertEqual(limit(), 23)

    def test_undo(self):
        """The settings are those of before, also where they are links, and what was not applied is kept."""
        change(message_limit=23)
        shutil.move(SETTINGS + "/smtp.json", "/srv/smtp.json")
        os.symlink("/srv/smtp.json", SETTINGS + "/smtp.json")
        self.apply("smtp")
        with open("/srv/smtp.json", "a", encoding="utf-8") as file:
            file.write("// not applied\n")
        kept = re.search("kept as (.*)", self.apply("undo"))[1]
        self.assertIn("not applied", read(kept))
        self.assertTrue(os.path.islink(SETTINGS + "/smtp.json"))
        self.assertEqual(read("/srv/smtp.json"), read(f"{STATES}2/in{SETTINGS}/smtp.json"))
        self.assertEqual(limit(), 20)
        self.assertIn("-message_size_limit = 24117248\n+message_size_limit = 20971520",
                      self.apply("history", str(last_state())))

    # A process or a machine that ends in the midst of a change.

    def test_killed(self):
        """After `recover` the files are the old or the new ones, as a whole, and mail works."""
        for seconds in range(4):
            with self.subTest(seconds=seconds):
                self.setUp()
                old = files(ETC)
                change(message_limit=21)
                with self.running("smtp") as process:
                    with contextlib.suppress(subprocess.TimeoutExpired):
                        process.wait(seconds)
                    process.kill()
                result = run(APPLY, "recover")
                self.assertIn(result.returncode, (0, 3), result.stdout + result.stderr)
                kept = f"{STATES}{last_state()}/out"
                new = {path.removeprefix(kept): what for path, what in files(kept + ETC).items()}
                now = files(ETC)
                self.assert_same(old if last_state() == 2 else now | new, now)
                self.apply("check", status=0 if last_state() == 3 else 5)

    def test_power_cut(self):
        """What must be on the disk is synced before it is renamed, in this order."""
        change(message_limit=21)
        self.run_program("timeout", "60", "strace", "-fqqy", "-s", "300", "-e", "trace=fsync,rename,renameat,renameat2",
                         "-e", "signal=none", "-o", "/run/trace", APPLY, "smtp")
        order = (f'renameat2\\(.*"{STATES}pending.new", ',
                 f"fsync\\(\\d+<{STATES[:-1]}>",
                 f'rename\\(".*", "{ETC}/main.cf"\\)',
                 f"fsync\\(\\d+<{ETC}/main.cf>",
                 f'rename\\("{STATES}pending/tried", "{STATES}{last_state()}"')
        self.assertRegex(read("/run/trace"), "(?s)" + ".*?".join(order))

    # The other commands.

    def test_renew(self):
        made, key = certificate("new")
        self.apply("renew", made, certificate("other")[1], status=1)
        self.apply("renew", *certificate("old", "-1"), status=1)
        shutil.move(SSL, "/srv/ssl")
        os.symlink("/srv/ssl", SSL)
        self.addCleanup(shutil.move, "/srv/ssl", SSL)
        self.addCleanup(os.unlink, SSL)
        self.apply("renew", made, key)
        self.assertEqual(read("/srv/ssl/server.crt"), read(made))
        self.assertIn("CN = new", run("openssl", "s_client", "-connect", "localhost:465").stdout)

    def test_check(self):
        """For programs: mail works while a file differs; then a listener shows another certificate than its file."""
        write(CUSTOM, "biff = no\n")
        run("sendmail", "-C", ETC, "carol@far.example", text="It waits: there is no network.\n", check=True)
        seen = json.loads(self.apply("check", "--json", "--no-message", status=5))
        self.assertEqual(seen["differing"], [CUSTOM])
        self.assertGreater(seen["queue"]["messages"], 0)
        self.assertNotIn("a message from this machine", [one["what"] for one in seen["mail"]])
        run("cp", "-a", SSL, "/run/ssl", check=True)
        self.addCleanup(run, "cp", "-a", "/run/ssl/.", SSL, check=True)
        for made, name in zip(certificate("unloaded"), ("server.crt", "server.key")):
            run("cp", made, f"{SSL}/{name}", check=True)
        self.assertIn("BAD       Dovecot, imap, certificate: ", self.apply("check", "--no-message", status=1))

    def test_dns(self):
        """The records hold the key, in pieces, and the relay. DNS has the key's, and another for mail."""
        change(enable_dkim=True, smtp_relay_enabled=True, smtp_relay_server="[2001:db8::7]")
        records = self.apply("dns")
        self.assertIn('"v=spf1 mx ip6:2001:db8::7 -all"', records)
        pieces = re.findall('"([^"]*)"', re.search(".*_domainkey.*", records)[0])
        self.assertEqual("".join(pieces) + "\n", read(PACKAGE + "/etc/dkim.key/dkim.txt"))
        self.assertEqual(max(map(len, pieces)), 255)
        write("/run/dns.conf", "no-resolv\nlocal=/com/\nmx-host=mail.example.com,other.example\n"
              f"txt-record=default._domainkey.mail.example.com,{','.join(pieces)}\n")
        server = daemon("dnsmasq", "--conf-file=/run/dns.conf", "--keep-in-foreground", port=53, host="127.0.0.53")
        self.addCleanup(server.wait)
        self.addCleanup(server.kill)
        self.assertEqual(re.findall(r"(?m)^(\w+) .* IN (\w+ \S+)", self.apply("dns", "check", status=1)),
                         [("DIFFERS", "MX 10"), ("MISSING", 'TXT "v=spf1'), ("good", 'TXT "v=DKIM1;'),
                          ("MISSING", 'TXT "v=DMARC1;'), ("MISSING", 'TXT "v=TLSRPTv1;'), ("MISSING", "SRV 0"),
                          ("MISSING", "SRV 0")])


if __name__ == "__main__":
    stage = sys.argv.pop(1)
    unittest.main(verbosity=2)
