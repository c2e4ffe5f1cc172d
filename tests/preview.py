#!/usr/bin/python3
"""preview.py STAGED-PACKAGE [TEST...]: nubo_config_preview beside the running daemons of a machine, as its
administrator would use it: faults that only a rehearsal finds, settings that are good, and what it leaves behind."""

import concurrent.futures
import json
import os
import re
import shutil
import socketserver
import subprocess
import sys
import tempfile
import threading
import time
import typing
import unittest

from appliance import (COMMANDS, ETC, PACKAGE, command, contents, generate, lay_out, read, run, send, settings, start,
                       wait_for, write)
from appliance_test import CUSTOM, ApplianceTest

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
DOVECOT = ETC + "/dovecot/dovecot.conf"
DOVECOT_CUSTOM = PACKAGE + "/etc/customize/dovecot/10-mail.conf"


class Case(typing.NamedTuple):
    """What a preview is made of, and what it says. A file is given by its text, by a function of its text, or None
    when it is missing."""
    smtp: dict = {}
    scanner: dict = {}
    files: dict = {}
    word: tuple = ("smtp",)
    says: str = "."


def main_cf(says, text):
    """A customisation of Postfix that is at fault."""
    return Case(HOST, files={CUSTOM: text}, says=says)


FAULTS = {
    "Dovecot's port": Case({**HOST, "smtp_tls_enabled": True, "smtp_tls_port": 143}, says="fatal: bind .* port 143"),
    "a setting out of its range": Case({"smtp_port": 0}, says="log: .*smtp_port: expected an integer"),
    "DMARC without a host name": Case({"enable_dmarc": True}, says="opendmarc starts: refused"),
    "a restriction that is unknown": main_cf("451 4.3.5 Server config", "smtpd_helo_restrictions = hostname\n"),
    "a table that is missing": main_cf("error: open database /etc/none.db", "transport_maps = hash:/etc/none\n"),
    "a transport that is dead": main_cf(
        "status=deferred .*private/none", "mailbox_transport = lmtp:unix:private/none\n"),
    "an open relay": main_cf("Open relay: any host on 0.0.0.0/0", "mynetworks = 0.0.0.0/0\n"),
    "a local sender may send anywhere": main_cf(
        "a stranger with a local sender to other domains: refused",
        "smtpd_relay_restrictions = check_sender_access inline:{mail.example.com=OK}, reject_unauth_destination\n"
        "smtpd_recipient_restrictions = permit\n"),
    "no stranger is let in": main_cf("stranger's mail to postmaster: refused", "smtpd_client_restrictions = reject\n"),
    "mail beside the INBOX": main_cf("Dovecot does not find it in the INBOX", "home_mailbox = mbox\n"),
    "a relay host that is this machine": Case(
        {**HOST, "smtp_relay_enabled": True, "smtp_relay_server": "mail.example.com"}, says="is this machine"),
    "nobody checks passwords": Case(
        TLS, says="fatal: no SASL authentication mechanisms",
        files={DOVECOT: lambda text: text.replace("private/auth ", "private/other ")}),
    "a filter that does not run": main_cf("from this machine: refused", "content_filter = smtp:[127.0.0.1]:10026\n"),
    "another machine's address": main_cf("no local interface found for 203.0.113.5", "inet_interfaces = 203.0.113.5\n"),
    "a misspelt setting of Dovecot": Case(
        HOST, files={DOVECOT_CUSTOM: "mail_locatoin = maildir:~/M\n"}, word=("dovecot",),
        says="Unknown setting: mail_locatoin"),
    "a certificate that is none": Case(
        TLS, files={PACKAGE + "/etc/ssl/server.crt": "no certificate\n"}, says="port 587, STARTTLS: refused"),
    "OpenDKIM's other port": Case(
        {**HOST, "enable_dkim": True}, says="opendkim starts: refused",
        files={ETC + "/template/opendkim.template": lambda text: text.replace("8891", "8899")}),
    "OpenDKIM's key is missing": Case(
        {**HOST, "enable_dkim": True}, says="a message from this machine: ref",
        files={PACKAGE + "/etc/dkim.key/dkim.private": None}),
    "half of master.cf": Case(
        HOST, says="postlog|local",
        files={ETC + "/template/master.template": lambda text: text[:text.index("local ")]}),
}
GOOD = {
    "the defaults": Case(),
    "no logins": Case({"smtp_auth_enabled": False}),
    "all filters": Case(FILTERS),
    "all filters and scanning, all commands": Case({**FILTERS, **HOST}, SCAN, word=()),
    "accounts of a directory": Case({**HOST, "account_type": "ldap"}),
    "accounts of a Windows domain": Case({**HOST, "account_type": "win", "win_domain_short_name": "CORP"}),
    "messages of any size": Case({"message_limit": 0}),
    "no relaying for the network": Case({**HOST, "smtp_ignore_lan_auth": True}),
    "the network is trusted": main_cf(".", "mynetworks = 127.0.0.0/8, [::1]/128, 192.168.0.0/16\n"),
    "addresses in brackets are refused": main_cf(".", "smtpd_helo_restrictions = check_helo_access regexp:/etc/helo\n"),
    "mail for postmaster is thrown away": main_cf(
        "log: warning\n  Mail is taken, and thrown away",
        "smtpd_recipient_restrictions = check_recipient_access inline:{postmaster@mail.example.com=DISCARD}\n"),
    "a policy service": main_cf(".", "smtpd_client_restrictions = check_policy_service unix:/run/policy/socket\n"),
    "another milter": main_cf(".", "smtpd_milters = inet:localhost:8899\nnon_smtpd_milters = inet:localhost:8899\n"),
    "a filter": main_cf("message from this machine: not asked", "content_filter = smtp:[127.0.0.1]:8899\n"),
    "a log elsewhere": main_cf(".", "maillog_file = /srv/log/mail\nmaillog_file_prefixes = /srv\n"),
    "mail elsewhere": Case(
        HOST, word=(), files={CUSTOM: "home_mailbox =\nmail_spool_directory = /srv/mail/\n",
                              DOVECOT_CUSTOM: "mail_location = maildir:/srv/mail/%u\n"}),
    "an access table that was missing before": Case(
        HOST, files={ETC + "/access/client_access.db": None}, says="It was so before .*\n.*client_access.db"),
    "TLS that is promised to nobody": Case(TLS, files={CUSTOM: "smtpd_tls_security_level = none\n"}),
    "a port for the network alone": Case(TLS, files={ETC + "/template/master.template": lambda text: text +
        "26 inet n - n - - smtpd\n -o {smtpd_client_restrictions=permit_mynetworks, reject}\n"}),
    "logins that nobody checked before": Case(
        TLS, says="login: warning\n.*\n.*It was so before", files={DOVECOT: lambda text: text.replace(
            "driver = pam", "driver = static").replace("dovecot.local", "nopassword=y")}),
    "another port, an archive elsewhere": Case({"smtp_port": 2525, "always_bcc": "a@elsewhere.example"}),
}
printed = []  # all that previews have said


def setUpModule():
    lay_out(stage)
    write("/usr/nubo/etc/nslcd.conf", "uri ldap://ldap.example\nbase dc=example\nbinddn cn=mail\n")
    write("/usr/nubo/etc/ldap.secret", SECRETS[2] + "\n", 0o600)
    write("/usr/nubo/etc/wins.secret", f"domain = CORP\nuser = mail\npassword = {SECRETS[3]}\n", 0o600)
    write("/usr/bin/net", "#!/bin/sh\nprintf 'LDAP server: h\\nLDAP port: 1\\nBind Path: b\\n"
          "distinguishedName: CN=a\\n'\n", 0o755)
    generate(smtp=HOST)
    serve_others()
    start("dovecot")
    start("postfix")


class Policy(socketserver.StreamRequestHandler):
    """Has no opinion: Postfix's SMTPD_POLICY_README."""

    def handle(self):
        for line in self.rfile:
            if line == b"\n":
                self.wfile.write(b"action=DUNNO\n\n")


def serve_others():
    """What an administrator has beside the package: a milter, a policy service, folders."""
    write("/run/milter.conf", "Mode v\nSocket inet:8899@127.0.0.1\nUserID opendkim\nPidFile /run/milter.pid\n")
    run("opendkim", "-x", "/run/milter.conf", check=True)
    os.makedirs("/run/policy")
    policy = socketserver.ThreadingUnixStreamServer("/run/policy/socket", Policy)
    os.chmod("/run/policy/socket", 0o666)
    threading.Thread(target=policy.serve_forever, daemon=True).start()
    write("/etc/helo", "/^\\[/ REJECT\n")
    write("/srv/log/mail", "")
    os.makedirs("/srv/mail")
    os.chmod("/srv/mail", 0o1777)


def tearDownModule():
    if any(secret in text for text in printed for secret in SECRETS):
        raise AssertionError("a secret was printed")


def preview(*arguments, place=()):
    """Its exit status, and all that it printed."""
    result = run(*place, "env", "-i", PREVIEW, *arguments)
    printed.append(result.stdout + result.stderr)
    return result.returncode, printed[-1]


def preview_apart(case):
    """A preview on a copy of the package that nobody else sees, so that several can run at a time. Also returns whether
    the generated files stayed as they were."""
    copy = tempfile.mkdtemp(dir="/run")
    run("cp", "-aT", PACKAGE, copy, check=True)
    os.symlink("/", copy + "/target/var/lib/postfix/link")  # which any user of that folder may make
    write(copy + "/etc/settings/smtp.json", json.dumps(case.smtp))
    write(copy + "/etc/settings/scanner.json", json.dumps(case.scanner))
    for path, text in case.files.items():
        path = path.replace(PACKAGE, copy)
        if text is None:
            os.unlink(path)
        else:
            write(path, text(read(path)) if callable(text) else text)
    before = contents(copy + "/target/etc")
    place = ("unshare", "--mount", "sh", "-c", f'mount --bind {copy} {PACKAGE}; exec "$@"', "sh")
    status, said = preview(*case.word, place=place)
    return status, said, before == contents(copy + "/target/etc")


def preview_all(cases):
    """Title, case and what preview_apart() returns, for each case of a table; three run at a time."""
    with concurrent.futures.ThreadPoolExecutor(3) as several:
        yield from zip(cases, cases.values(), several.map(preview_apart, cases.values()))


class Preview(ApplianceTest):
    def test_faults(self):
        for title, case, (status, said, unchanged) in preview_all(FAULTS):
            with self.subTest(title):
                self.assertRegex(said, case.says)
                self.assertEqual((status, unchanged), (2, True), said)

    def test_good(self):
        for title, case, (status, said, unchanged) in preview_all(GOOD):
            with self.subTest(title):
                self.assertIn(status, (0, 1), said)
                self.assertRegex(said, case.says)
                self.assertTrue(unchanged)

    def test_patch(self):
        """The differences, as a patch, are what the commands then do, byte by byte."""
        settings(smtp={**TLS, **RELAY}, aliases={"sales": ["alice"]}, imap_pop3={"imaps_enabled": True})
        os.chmod(ETC + "/dovecot/conf.d/10-master.conf", 0o600)
        status, said = preview("--no-rehearsal")
        self.assertEqual(status, 1, said)
        self.assertIn("master.conf: 600 root:root becomes 644 root:root\n", said)
        self.assertIn("+relay.example:25\t********\n", said)
        shutil.copytree(ETC, "/run/patched" + ETC)
        text = re.sub(r"(?ms)^--- \S+(\.db|\.json)\t.*?(?=^\n|\Z)", "", said)
        run("patch", "--directory=/run/patched", "-p1", text=text, check=True)
        for word in COMMANDS:
            self.assertEqual(command(word), (0, []), word)
        differing = run("diff", "-rq", "/run/patched" + ETC, ETC).stdout.splitlines()
        self.assertEqual([line for line in differing if not re.search(r"\.db\b", line)], [])
        status, said = preview("--json", "--no-rehearsal")
        self.assertEqual((status, json.loads(said)["files"]), (0, []), said)

    def test_killed(self):
        """Killed at twenty moments, it leaves nothing, and the daemons go on."""
        begin = time.time()
        preview("smtp")
        length = time.time() - begin
        before = contents(PACKAGE)
        around = left_over()
        for moment in range(20):
            process = subprocess.Popen([PREVIEW, "smtp"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            time.sleep(length * moment / 20)
            self.assertRegex(send("nobody@elsewhere.example"), "^554 5.7.1")
            process.kill()
            process.wait()
        wait_for(lambda: left_over() == around, "the end of all processes, and of their mounts and files")
        self.assert_same(without_logs(before), without_logs(contents(PACKAGE)))


def left_over():
    """What a preview that is killed might leave: mounts, files in /tmp, namespaces."""
    return read("/proc/mounts"), os.listdir("/run/private_root/tmp/upper"), run("lsns", "-no", "NS").stdout


def without_logs(found):
    return {path: text for path, text in found.items() if not re.search("/var/(log|lib/postfix)/", path)}


if __name__ == "__main__":
    stage = sys.argv.pop(1)
    unittest.main(verbosity=2)
