#!/usr/bin/python3
"""upgrade.py DEB-12 DEB-13 ROOT.tar [TEST...]: Debian 12 becomes Debian 13 while mail runs on our files, and an
administrator has changed them. The bare root has the daemons of 12, and the packages of 13 as files. Runs on a private
machine, from scripts/test."""

import contextlib
import glob
import imaplib
import os
import poplib
import signal
import sys
import unittest

import appliance
from appliance import CLIENT, COMMANDS, ETC, HERE, PACKAGE, SBIN, mailbox, run, send, trusting, write
from appliance_test import FOLDERS, ApplianceTest, files
from package import BARE, enter

LOGIN = "alice@mail.example.com"
SETTINGS = {
    "smtp": '{"smtp_hostname": "mail.example.com", "smtp_ssl_enabled": true, "smtp_tls_enabled": true, '
            '"enable_dkim": true}',
    "imap_pop3": '{"imap_enabled": false, "imaps_enabled": true, "pop3s_enabled": true}',
}
# Lines of the administrator, in the words of Dovecot 2.3.
CUSTOM = PACKAGE + "/etc/customize/dovecot/10-mail.conf"
OWN = "mail_location = maildir:~/Maildir:INDEX=/var/tmp/index/%u:LAYOUT=fs\nauth_username_format = %Ln\n"
DOVECOT = ETC + "/dovecot/dovecot.conf"
APT = "apt-get -y -o Dpkg::Options::=--force-confold "
OLD = "nubo-set-config is for Debian 12: install the one for Debian 13"


def setUpModule():
    run("sh", "-ec", f"""mkdir -p /run/lower /var/packages; tar xf {tar} -C /run/lower; cp {old} {new} /run/lower/tmp
        ip route add local 192.0.2.0/24 dev lo
        ip route change local 192.0.2.0/24 dev lo src {CLIENT}; ip addr add {HERE} dev lo""", check=True)
    appliance.take_log = appliance.listen()


class Upgrade(ApplianceTest):
    def setUp(self):
        """Mail runs on Debian 12, and alice has read some."""
        enter("/run/over", "/run/lower")
        run("sh", "-ec", f"""ln -sfn {BARE}{PACKAGE} {PACKAGE}; mount --bind {BARE}/home /home
            mount -t tmpfs tmpfs {BARE}/run""", check=True)
        write(BARE + "/etc/hosts", f"127.0.0.1 localhost\n{HERE} mail.example.com mail\n")
        self.inside(f"dpkg -i /tmp/{os.path.basename(old)}; useradd -m alice; echo alice:{LOGIN}-secret | chpasswd")
        for name, text in SETTINGS.items():
            write(f"{PACKAGE}/etc/settings/{name}.json", text, 0o600)
        write(CUSTOM, OWN)
        self.inside(f"cp -a {PACKAGE}/etc/ssl /etc/own; "
                    f"sed -i 's,{PACKAGE}/etc/ssl/,/etc/own/,; s/disable_.* = yes/& # mine/' {DOVECOT}")
        self.inside("; ".join(f"nubo_set_config {word}" for word in COMMANDS))
        self.inside(f"opendkim -x {ETC}/opendkim.conf && {SBIN}/dovecot && postfix -c {ETC} start")
        with self.imap() as server:
            server.create("Work/2025")
            server.append("Work/2025", None, None, b"Subject: kept\r\n\r\nGood night.\r\n")
        self.deliver()
        self.before = self.identifications(), self.files()

    def tearDown(self):
        for root in glob.glob("/proc/[0-9]*/root"):
            with contextlib.suppress(OSError):
                if os.readlink(root) == BARE:
                    os.kill(int(root.split("/")[2]), signal.SIGKILL)
        run("umount", "/home")

    def inside(self, command):
        """Runs a command in the root, by way of a file, since a daemon that it starts would keep a pipe open."""
        return self.run_program("chroot", BARE, "env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin",
                                "DEBIAN_FRONTEND=noninteractive", "sh", "-c",
                                f"(set -e; {command}) >/run/said 2>&1; status=$?; cat /run/said; exit $status")

    def files(self):
        """All but the templates, which are the package's own."""
        return {path: text for path, text in files(*FOLDERS, BARE + "/etc/own").items() if "/template/" not in path}

    def imap(self):
        server = imaplib.IMAP4_SSL(HERE, ssl_context=trusting())
        server.login(LOGIN, LOGIN + "-secret")
        return server

    def identifications(self):
        """What a mail program compares to find new mail."""
        server = poplib.POP3_SSL(HERE, context=trusting())
        with contextlib.closing(server):
            server.user(LOGIN)
            server.pass_(LOGIN + "-secret")
            return server.uidl()[1]

    def deliver(self):
        """A stranger's mail and alice's own, both encrypted."""
        for how in {"tls": "starttls"}, {"tls": "starttls", "port": 587, "login": LOGIN, "sender": LOGIN}:
            self.assertEqual(send(LOGIN, **how), "250")
            self.assertIn("Good morning", mailbox("alice"))

    def assert_as_before(self):
        """Mail is taken and read, old mail as ever; no file of the administrator's or of ours has changed."""
        self.deliver()
        old_mail, old_files = self.before
        self.assertEqual(self.identifications()[:len(old_mail)], old_mail)
        with self.imap() as server:
            server.select("Work/2025")
            self.assertIn("Good night.", str(server.fetch("1", "(BODY[])")))
        self.assert_same(old_files, self.files())
        self.assertNotIn("cleartext = yes", self.inside(f"{SBIN}/doveconf -n"))
        self.assertRegex(self.inside("nubo_config_preview --no-rehearsal dovecot"),
                         f"{CUSTOM}:1: .*mail_driver = maildir(?s:.*){DOVECOT}:\\d+: .*_cert_file = /etc/own/")

    def test_in_the_same_run(self):
        self.inside(f"{APT} dist-upgrade /tmp/{os.path.basename(new)}")
        self.assert_as_before()
        self.assertNotIn(OLD, self.inside("nubo_config_apply check"))

    def test_a_day_later(self):
        appliance.take_log()
        self.inside(f"{APT} dist-upgrade")
        self.assertIn("install the one", "\n".join(appliance.take_log()))
        self.assert_as_before()
        for told in "nubo_config_apply check", "nubo_config_preview --no-rehearsal alias":
            self.assertIn(OLD, self.inside(told))
        self.inside(f"{APT} install /tmp/{os.path.basename(new)}")
        self.assert_as_before()


if __name__ == "__main__":
    old, new, tar = sys.argv[1:4]
    del sys.argv[1:4]
    unittest.main(verbosity=2)
