#!/usr/bin/python3
"""package.py DEB ROOT.tar: the package as people get it, in a bare Debian root that has what it depends on, and the
packages that it recommends as files. It is installed in two orders, run, previewed, upgraded and removed. Runs on
a private machine, from scripts/test."""

import json
import os
import re
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../lab")
from appliance import COMMANDS, ETC, PACKAGE, read, run, write

BARE = "/run/bare"
# What package tools and daemons' own packages write anywhere.
OTHERS = re.compile("/(run|sys|tmp|root|var/cache|var/lib/dpkg|var/log)/")
OURS, DAEMONS, LATER = "/tmp/ours.deb", "/var/cache/apt/archives/*.deb", "/var/cache/apt/archives/opendkim_*.deb"
# As apt does it, with ours configured first, and one daemon a day later; ours last.
ORDERS = ((f"dpkg --no-triggers --unpack {OURS} $(ls {DAEMONS} | grep -vF $(ls {LATER}))",
           "dpkg --no-triggers --configure nubo-set-config && dpkg --no-triggers --configure --pending",
           "dpkg --configure --pending", f"dpkg -i {LATER}"), (f"dpkg -i {DAEMONS}", f"dpkg -i {OURS}"))
SETTINGS = {"smtp": '{"smtp_hostname": "mail.example.com", "enable_dkim": true, "enable_dmarc": true}',
            "scanner": '{"spam_enable": true}', "aliases": '{"sales": ["alice", "bob"]}'}
# MailScanner's names for what its template sets: those of a directory, or of a file in one, with the directory's owner
# (Postfix makes its queues when it starts), and the others. MailScanner sees letters and digits alone.
FOLDERS = {**dict.fromkeys(("pidfile", "lockfiledir", "spamassassinlocalrulesdir"), "root"), **dict.fromkeys((
    "incomingworkdir", "quarantinedir", "processingattemptsdatabase", "spamassassinuserstatedir",
    "spamassassintemporarydir", "spamassassincachedatabasefile"), "postfix")}
KNOWN = """archivesfilenamerules clamdsocket customfunctionsdir filenamerules incomingqueuedir incomingworkgroup
incomingworkuser languagestrings mailheader mta notifysenders outgoingqueuedir runasgroup runasuser sendmail
signcleanmessages silentviruses usespamassassin usewatermarking virusscanners webbugreplacement""".split()
counts = [0, 0]


def check(claim, good, detail=""):
    counts[not good] += 1
    print(f"{'ok' if good else 'WRONG'}: {claim}" + ("" if good else f"\n{detail}"), flush=True)


def inside(command):
    result = run("chroot", BARE, "env", "DEBIAN_FRONTEND=noninteractive", "sh", "-c", command)
    return result.returncode, result.stdout + result.stderr


def tree(top="/"):
    """Mode, owner and the content's checksum of everything in the root; the mode of a file begins with a dash."""
    found = {}
    for line in inside(f"find {top} -xdev -printf '%p\t%M %u\n'; find {top} -xdev -type f -exec sha256sum {{}} + |"
                       r"sed -E 's/^(\S+)  (.*)/\2\t \1/'")[1].splitlines():
        path, what = line.split("\t")
        if not OTHERS.match(path):
            found[path] = found.get(path, "") + what
    return found


def installed(deb, steps):
    """A fresh root, in which the steps are taken; its tree before the last one."""
    run("umount", "--recursive", BARE)
    run("sh", "-ec", f"""rm -rf /run/over; mkdir -p {BARE} /run/over/upper /run/over/work
        mount -t overlay -o lowerdir=/run/lower,upperdir=/run/over/upper,workdir=/run/over/work overlay {BARE}
        mount --rbind /dev {BARE}/dev; mount --rbind /proc {BARE}/proc; cp "$0" {BARE}{OURS}""", deb, check=True)
    write(BARE + "/usr/sbin/policy-rc.d", "#!/bin/sh\nexit 101\n", 0o755)  # nothing is started
    for step in steps:
        before = tree()
        status, shown = inside(step)
        check(step, status == 0, shown)
    return before


def complete():
    """What postinst makes for the daemons, and what it must not; all modes and owners."""
    owners = {path: value.split()[:2] for path, value in tree(PACKAGE).items()}
    check("the key is OpenDKIM's", owners[PACKAGE + "/etc/dkim.key/dkim.private"] == ["-rw-------", "opendkim"])
    linted = inside(f"spamassassin --lint --siteconfigpath={ETC}/spamassassin")
    check("SpamAssassin has its plugins", linted == (0, ""), linted)
    check("the SPF policy program is found", inside(f"test -x {ETC}/../sbin/postfix-policyd-spf-perl")[0] == 0)
    unsafe = [path for path in owners if owners.get(os.path.dirname(path), ["", "root"])[1] != "root"]
    check("nothing is in a daemon's directory, who could replace it by a link", not unsafe, unsafe)
    options = {re.sub(r"\W", "", key).lower(): value for key, value in re.findall(
        r"(?m)^(\w.*?) = (.*)$", read(f"{BARE}{ETC}/template/mailscanner.template"))}
    check("MailScanner knows every option", options.keys() == FOLDERS.keys() | set(KNOWN), options.keys())
    found = {key: owners.get(options[key] if key.endswith("dir") else os.path.dirname(options[key])) for key in FOLDERS}
    check("its directories are there", found == {key: ["drwxr-xr-x", FOLDERS[key]] for key in FOLDERS}, found)
    return owners


def previewed_is_applied():
    for name, text in SETTINGS.items():
        write(f"{BARE}{PACKAGE}/etc/settings/{name}.json", text, 0o600)
    before = tree()
    status, shown = inside("nubo_config_preview --no-rehearsal --json")
    check("a change is previewed, and changes nothing", status == 1 and tree() == before, shown)
    for word in COMMANDS:
        check(f"{word} is applied", inside(f"nubo_set_config {word}") == (0, ""))
    after = tree()
    changed = {path for path in after if after[path] != before.get(path) and after[path][0] == "-"}
    named = {file["path"] for file in json.loads(shown)["files"]}
    check("every file that changed was named", named <= changed and all(".db" in path for path in changed - named),
          changed ^ named)
    check("nothing more would change", inside("nubo_config_preview --no-rehearsal")[0] == 0)


def main(deb, tar):
    run("sh", "-ec", 'mkdir /run/lower; tar xf "$0" -C /run/lower', tar, check=True)
    trees = []
    for steps in ORDERS:
        before = installed(deb, steps)
        trees.append(complete())
    check("both orders end alike", trees[0] == trees[1], trees)
    previewed_is_applied()
    # The administrator's files outlive an upgrade and a removal.
    kept = [f"{ETC}/{name}" for name in "main.cf.local main.cfbackup spamassassin/init.pre login_map".split()]
    for path in kept + [PACKAGE + "/etc/customize/postfix/main.cf"]:
        write(BARE + path, "# mine\n")
    write(f"{BARE}{ETC}/main.cfAbC123", "what a killed run leaves\n")
    mine = {path: value for path, value in tree(PACKAGE).items()
            if path in kept or path.startswith(PACKAGE + "/etc/") and value[0] == "-"}
    run("dpkg-deb", "--raw-extract", deb, "/run/newer", check=True)
    for path, old, new in (("DEBIAN/control", "Version: ", "Version: 1:"),
                           (ETC[1:] + "/template/main.template", "biff = no", "biff = yes")):
        write("/run/newer/" + path, read("/run/newer/" + path).replace(old, new))
    run("dpkg-deb", "--build", "/run/newer", BARE + OURS, check=True)
    status, shown = inside(f"dpkg -i {OURS}")
    check("it upgrades", status == 0 and "biff = yes" in read(f"{BARE}{ETC}/template/main.template"), shown)
    check("what the administrator wrote stays", mine.items() <= tree(PACKAGE).items())
    status, shown = inside("dpkg --remove nubo-set-config")
    owned = set(mine) | set(run("dpkg-deb", "-I", deb, "conffiles").stdout.split())
    left = {path for path, value in tree().items() if path not in before and value[0] == "-"}
    check("removed, only the administrator's files are left", left == owned, (shown, left ^ owned))
    for path in kept[:2]:
        os.unlink(BARE + path)
    status, shown = inside("dpkg --purge nubo-set-config")
    check("purged, nothing is left", tree() == before, (shown, tree().items() ^ before.items()))
    print(f"{counts[0]} passed, {counts[1]} failed")
    return counts[1] != 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
