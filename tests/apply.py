#!/usr/bin/python3
"""apply.py STAGED-PACKAGE [TEST...]: nubo_config_apply with the real daemons, each of its ways back among them.
MOMENTS in the environment is how many moments of a change it is killed at, 4 by default."""

import contextlib
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import unittest

from appliance import ETC, HERE, PACKAGE, SBIN, command, daemon, generate, lay_out, read, run, settings, wait_for, write
from appliance_test import CUSTOM, FOLDERS, ApplianceTest, files

APPLY = PACKAGE + "/target/bin/nubo_config_apply"
STATES = PACKAGE + "/target/var/lib/apply/"
SETTINGS = PACKAGE + "/etc/settings"
SSL = PACKAGE + "/etc/ssl"
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
        for folder in (STATES, *FOLDERS):
            shutil.rmtree(folder)
        run("cp", "-a", "/run/good/.", "/", check=True)
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

    def assert_taken_back(self, reason, word, port=None, **new):
        """The change says the reason, all is as before, and the settings are kept. `port` is taken by another program
        from when the preview is over; it is bound, and refused to those who connect."""
        before = files()
        settings(**{**GOOD, **new})
        refused = files(SETTINGS)
        with self.running(word) as process, socket.socket() as other:
            if port:
                other.bind(("", port))
            process.wait()
        self.assertEqual(process.returncode, 3, process.printed)
        self.assertRegex(process.printed, reason)
        self.assert_same(before, files())
        self.apply("check")
        self.assertCountEqual(files(STATES + "refused/in" + SETTINGS).values(), refused.values())

    def test_port_is_taken(self):
        self.assert_taken_back("Postfix", "smtp", port=587, smtp={**SMTP, "smtp_tls_enabled": True})

    def test_daemon_does_not_start(self):
        self.assert_taken_back("Dovecot does not start", "dovecot", port=993, imap_pop3={"imaps_enabled": True})

    def test_local_delivery_is_dead(self):
        write("/home/bob/Maildir", "")
        self.assert_taken_back("from this machine: status=bounced", "alias", aliases={"postmaster": ["bob"]})

    def test_account_type_without_its_directory(self):
        self.assert_taken_back("from this machine", "smtp", smtp={**SMTP, "account_type": "ldap"})

    # Mail that is not well before.

    def test_preview_refuses(self):
        """Nothing is touched."""
        write(CUSTOM, "smtpd_helo_restrictions = hostname\n")
        before = files()
        self.apply("smtp", status=1)
        self.assert_same(before, files())
        self.assertFalse(is_pending())

    def test_mended_by_a_change(self):
        write(CUSTOM, "smtpd_helo_restrictions = hostname\n")
        command("smtp")
        run("postfix", "-c", ETC, "reload")
        os.unlink(CUSTOM)
        self.assertIn("not well", self.apply("smtp"))
        self.apply("check")

    # Confirming, and going back on purpose.

    def test_not_confirmed(self):
        """It outlives its session, nobody else changes anything, and it is taken back."""
        before = files()
        change(message_limit=22)
        asked = files(SETTINGS)
        with self.running("-t", "0.3", "smtp") as session:
            os.killpg(session.pid, signal.SIGHUP)
        self.assertEqual((session.returncode, limit()), (0, 22), session.printed)
        self.apply("smtp", status=1)
        wait_for(lambda: not is_pending(), "the old state")
        self.assert_same(before, files())
        self.assertEqual(limit(), 20)
        self.apply("check")
        self.assertCountEqual(files(STATES + "refused/in" + SETTINGS).values(), asked.values())

    def test_confirmed(self):
        change(message_limit=23)
        self.apply("-t", "5", "smtp")
        self.apply("confirm")
        self.assertEqual(limit(), 23)
        self.assertFalse(is_pending())

    def test_undo(self):
        """The settings are those of before, and the history shows what has changed."""
        before = files(SETTINGS)
        change(message_limit=23)
        self.apply("smtp")
        self.apply("undo")
        self.assert_same(before, files(SETTINGS))
        self.assertEqual(limit(), 20)
        self.assertIn("-message_size_limit = 24117248\n+message_size_limit = 20971520",
                      self.apply("history", str(last_state())))

    # A process or a machine that ends in the midst of a change.

    def test_killed(self):
        """After `recover` the files are the old or the new ones, as a whole, and mail is well."""
        moments = int(os.environ.get("MOMENTS", 4))
        for moment in range(moments):
            with self.subTest(seconds=4 * moment / moments):
                self.setUp()
                old = files(ETC)
                change(message_limit=21)
                with self.running("smtp") as process:
                    with contextlib.suppress(subprocess.TimeoutExpired):
                        process.wait(4 * moment / moments)
                    process.kill()
                result = run(APPLY, "recover")
                self.assertIn(result.returncode, (0, 3), result.stdout + result.stderr)
                kept = f"{STATES}{last_state()}/out"
                new = {path.removeprefix(kept): what for path, what in files(kept + ETC).items()}
                now = files(ETC)
                self.assert_same(old if last_state() == 2 else now | new, now)
                self.apply("check")

    def test_power_cut(self):
        """What must be on the disk is synced before it is renamed, in this order."""
        change(message_limit=21)
        self.run_program("timeout", "60", "strace", "-fqqy", "-s", "300", "-e", "trace=fsync,rename,renameat,renameat2",
                         "-e", "signal=none", "-o", "/run/trace", APPLY, "smtp")
        order = (f'renameat2\\(.*"{STATES}pending.new", ',
                 f"fsync\\(\\d+<{STATES[:-1]}>",
                 f'rename\\(".*", "{ETC}/main.cf"\\)',
                 f"fsync\\(\\d+<{ETC}/main.cf>",
                 f'rename\\("{STATES}pending/next", "{STATES}{last_state()}"')
        self.assertRegex(read("/run/trace"), "(?s)" + ".*?".join(order))

    # The other commands.

    def test_renew(self):
        made, key = certificate("new")
        self.apply("renew", made, certificate("other")[1], status=1)
        self.apply("renew", *certificate("old", "-1"), status=1)
        self.apply("renew", made, key)
        self.assertIn("CN = new", run("openssl", "s_client", "-connect", "localhost:465").stdout)

    def test_check(self):
        """For programs: mail is well while a file differs; then a listener shows another certificate than its file."""
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
        self.assertIn("BAD       Postfix, port 465, TLS, certificate: ", self.apply("check", "--no-message", status=1))

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
