#!/usr/bin/python3
"""package.py DEB ROOT.tar [TEST...]: the package as people get it, in a bare Debian root that has what it depends on,
and the packages that it recommends as files. Runs on a private machine, from scripts/test."""

import os
import re
import sys
import unittest

from appliance import COMMANDS, ETC, PACKAGE, read, run, write
from appliance_test import ApplianceTest

BARE = "/run/bare"
# What package tools and daemons' own packages write anywhere.
OTHERS = re.compile("/(run|sys|tmp|root|var/cache|var/lib/dpkg|var/log)/")
OURS, DAEMONS, LATER = "/tmp/ours.deb", "/var/cache/apt/archives/*.deb", "/var/cache/apt/archives/opendkim_*.deb"
ORDERS = {
    # As apt does it, with ours configured first, and one daemon a day later.
    "ours first": (
        f"dpkg --no-triggers --unpack {OURS} $(ls {DAEMONS} | grep -vF $(ls {LATER}))",
        "dpkg --no-triggers --configure nubo-set-config && dpkg --no-triggers --configure --pending",
        "dpkg --configure --pending",
        f"dpkg -i {LATER}"),
    "ours last": (f"dpkg -i {DAEMONS}", f"dpkg -i {OURS}"),
}
SETTINGS = {
    "smtp": '{"smtp_hostname": "mail.example.com", "enable_dkim": true, "enable_dmarc": true}',
    "scanner": '{"spam_enable": true}',
    "aliases": '{"sales": ["alice", "bob"]}',
}
EDITED = [f"{ETC}/{name}" for name in ("main.cf.local", "main.cfbackup", "spamassassin/init.pre", "login_map")]
ends = {}  # for each order, what the package has left of itself; "before": all without it


def enter(upper, lower):
    """Mounts a root: what is written goes to `upper`, the other files come from `lower`."""
    run("umount", "--recursive", BARE)
    run("sh", "-ec", f"""rm -rf {upper} /run/work; mkdir -p {BARE} {upper} /run/work
        mount -t overlay -o lowerdir={lower},upperdir={upper},workdir=/run/work overlay {BARE}
        mount --rbind /dev {BARE}/dev; mount --rbind /proc {BARE}/proc""", check=True)


def inside(command, check=False):
    return run("chroot", BARE, "env", "DEBIAN_FRONTEND=noninteractive", "sh", "-c", command, check=check)


def tree(top="/"):
    """Mode, owner and the content's checksum of everything in the root; the mode of a file begins with a dash."""
    found = {}
    for line in inside(f"find {top} -xdev -printf '%p\t%M %u\n'; find {top} -xdev -type f -exec sha256sum {{}} + |"
                       r"sed -E 's/^(\S+)  (.*)/\2\t \1/'").stdout.splitlines():
        path, what = line.split("\t")
        if not OTHERS.match(path):
            found[path] = found.get(path, "") + what
    return found


def setUpModule():
    run("sh", "-ec", 'mkdir /run/lower; tar xf "$0" -C /run/lower; cp "$1" /run/lower' + OURS, tar, deb, check=True)
    write("/run/lower/usr/sbin/policy-rc.d", "#!/bin/sh\nexit 101\n", 0o755)  # nothing is started
    for order, steps in ORDERS.items():
        enter("/run/installed", "/run/lower")
        for step in steps:
            ends["before"] = tree()
            inside(step, check=True)
        ends[order] = {path: " ".join(what.split()[:2]) for path, what in tree(PACKAGE).items()}


class Package(ApplianceTest):
    def setUp(self):
        """The package is installed, after what it recommends."""
        enter("/run/over", "/run/installed:/run/lower")
        self.owners = ends["ours last"]

    def inside(self, command, status=0):
        return self.run_program("chroot", BARE, "env", "DEBIAN_FRONTEND=noninteractive", "sh", "-c", command,
                                status=status)

    def test_both_orders_end_alike(self):
        self.assert_same(ends["ours first"], ends["ours last"])

    def test_key_is_opendkims(self):
        self.assertEqual(self.owners[PACKAGE + "/etc/dkim.key/dkim.private"], "-rw------- opendkim")

    def test_spamassassin_has_its_plugins(self):
        self.assertEqual(self.inside(f"spamassassin --lint --siteconfigpath={ETC}/spamassassin"), "")

    def test_spf_policy_program_is_found(self):
        self.inside(f"test -x {PACKAGE}/target/sbin/postfix-policyd-spf-perl")

    def test_manual_pages_name_what_is_there(self):
        pages = self.inside("cd /usr/share/man && zcat man5/brindlecot* man8/nubo_*")
        for path in set(re.findall(r"/usr/share/doc/nubo-set-config/[a-zA-Z_.]+", pages)):
            self.inside("test -s " + path)

    def test_nothing_is_in_a_daemons_directory(self):
        """The daemon could replace it by a link."""
        unsafe = [path for path in self.owners if not self.owners.get(os.path.dirname(path), "root").endswith("root")]
        self.assertEqual(unsafe, [])

    def test_mailscanner_has_its_directories(self):
        """All but those of Postfix, which makes them when it starts."""
        for path in re.findall(r" = (/var/packages/\S+)", read(f"{BARE}{ETC}/template/mailscanner.template")):
            if "/postfix/" not in path:
                self.assertTrue({path, os.path.dirname(path)} & self.owners.keys(), path)
        self.assertEqual(self.owners[PACKAGE + "/target/var/spool/MailScanner/incoming"], "drwxr-xr-x postfix")

    def test_commands_run(self):
        for name, text in SETTINGS.items():
            write(f"{BARE}{PACKAGE}/etc/settings/{name}.json", text, 0o600)
        before = tree()
        self.inside("nubo_config_preview --no-rehearsal", status=1)
        self.assert_same(before, tree())
        for word in COMMANDS:
            self.assertEqual(self.inside(f"nubo_set_config {word}"), "")
        self.inside("nubo_config_preview --no-rehearsal")

    def test_upgraded_and_removed(self):
        """What the administrator wrote outlives both; nothing else outlives the removal."""
        for path in [*EDITED, PACKAGE + "/etc/customize/postfix/main.cf"]:
            write(BARE + path, "# mine\n")
        write(f"{BARE}{ETC}/main.cfAbC123", "what a killed run leaves\n")
        mine = {path: what for path, what in tree(PACKAGE).items()
                if path in EDITED or path.startswith(PACKAGE + "/etc/") and what[0] == "-"}
        self.upgrade()
        self.assertIn("biff = yes", read(f"{BARE}{ETC}/template/main.template"))
        self.assert_same(mine, {path: what for path, what in tree(PACKAGE).items() if path in mine})
        self.inside("dpkg --remove nubo-set-config")
        left = {path for path, what in tree().items() if path not in ends["before"] and what[0] == "-"}
        self.assertEqual(left, set(mine) | set(run("dpkg-deb", "-I", deb, "conffiles").stdout.split()))
        for path in EDITED[:2]:
            os.unlink(BARE + path)
        self.inside("dpkg --purge nubo-set-config")
        self.assert_same(ends["before"], tree())

    def upgrade(self):
        """Installs a newer version, with a template that differs."""
        run("dpkg-deb", "--raw-extract", deb, "/run/newer", check=True)
        for path, old, new in (("DEBIAN/control", "Version: ", "Version: 1:"),
                               (ETC[1:] + "/template/main.template", "biff = no", "biff = yes")):
            write("/run/newer/" + path, read("/run/newer/" + path).replace(old, new))
        run("dpkg-deb", "--build", "/run/newer", BARE + OURS, check=True)
        self.inside(f"dpkg -i {OURS}")


if __name__ == "__main__":
    deb, tar = sys.argv[1:3]
    del sys.argv[1:3]
    unittest.main(verbosity=2)
