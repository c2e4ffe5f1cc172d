#!/usr/bin/python3
"""package.py DEB ROOT.tar: the package as people get it, in a bare Debian root that has what it depends on, and the
packages that it recommends as files. It is installed in several orders, run, previewed, upgraded and removed. Runs on
a private machine, from scripts/test."""

import hashlib
import json
import os
import re
import shutil
import stat
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../lab")
from appliance import COMMANDS, ETC, PACKAGE, read, run, write

BARE = "/run/bare"
# What package tools and daemons' own packages write anywhere.
OTHERS = re.compile("/(dev|proc|run|sys|tmp|root|var/cache|var/lib/dpkg|var/log)/")
OURS, DAEMONS = "/tmp/ours.deb", "/var/cache/apt/archives/*.deb"
ORDERS = ((f"dpkg -i {OURS}", f"dpkg -i {DAEMONS}"),
          (f"dpkg --unpack {OURS} {DAEMONS}", "dpkg --configure nubo-set-config", "dpkg --configure --pending"),
          (f"dpkg -i {DAEMONS}", f"dpkg -i {OURS}"))
SETTINGS = {"smtp": {"smtp_hostname": "mail.example.com", "enable_dkim": True, "enable_dmarc": True},
            "scanner": {"spam_enable": True, "spam_enable_rewrite": True, "enable_dangerous_content_scan": True},
            "aliases": {"postmaster": ["alice"], "sales": ["alice", "bob"]}}
# Whose the directories are that MailScanner's template names, or that hold a file that it names. (Postfix makes its
# queues when it starts.) And the options that MailScanner 5.5.3 knows, of those that we write.
FOLDERS = {"incomingworkdir": "postfix", "quarantinedir": "postfix", "processingattemptsdatabase": "postfix",
           "pidfile": "root", "lockfiledir": "root", "spamassassinlocalrulesdir": "root",
           "spamassassinuserstatedir": "postfix", "spamassassintemporarydir": "postfix",
           "spamassassincachedatabasefile": "postfix"}
KNOWN = """allowexternalmessagebodies allowformtags allowiframetags allowobjectcodebasetags allowpartialmessages
allowscripttags allowwebbugs alsofindnumericphishing archivesfilenamerules clamdsocket converthtmltotext
customfunctionsdir dangerouscontentscanning filenamerules findphishingfraud highscoringspamactions
highscoringspammodifysubject highscoringspamsubjecttext highspamassassinscore incomingqueuedir incomingworkdir
incomingworkgroup incomingworkuser languagestrings lockfiledir mailheader mta notifysenders outgoingqueuedir pidfile
processingattemptsdatabase quarantinedir requiredspamassassinscore runasgroup runasuser sendmail signcleanmessages
silentviruses spamactions spamassassinautowhitelist spamassassincachedatabasefile spamassassinlocalrulesdir
spamassassintemporarydir spamassassinuserstatedir spamchecks spammodifysubject spamsubjecttext usespamassassin
usestricterphishingnet usewatermarking virusscanners virusscanning webbugreplacement""".split()
counts = [0, 0]


def check(claim, good, detail=""):
    counts[not good] += 1
    print(f"{'ok' if good else 'WRONG'}: {claim}" + ("" if good else f"\n{detail}"), flush=True)


def inside(command):
    result = run("chroot", BARE, "env", "DEBIAN_FRONTEND=noninteractive", "sh", "-c", command)
    return result.returncode, result.stdout + result.stderr


def tree(top="/"):
    """Mode and owner, and content, of everything in the root."""
    users = {line.split(":")[2]: line.split(":")[0] for line in read(BARE + "/etc/passwd").splitlines()}
    found = {}
    for folder, folders, names in os.walk(BARE + top):
        folders[:] = [name for name in folders if not OTHERS.match(f"{folder}/{name}/".removeprefix(BARE))]
        for path in (os.path.join(folder, name) for name in folders + names):
            status, content = os.lstat(path), ""
            if stat.S_ISREG(status.st_mode):
                with open(path, "rb") as file:
                    content = hashlib.sha256(file.read()).hexdigest()
            found[path.removeprefix(BARE)] = (f"{status.st_mode:o} {users[str(status.st_uid)]}", content)
    return found


def files(paths):
    return {path for path in paths if os.path.isfile(BARE + path)}


def installed(deb, steps):
    """A fresh root, in which the steps are taken; what it was before the last one."""
    if os.path.ismount(BARE):
        run("umount", "--recursive", BARE, check=True)
    layers = tempfile.mkdtemp(dir="/run")
    run("mkdir", f"{layers}/upper", f"{layers}/work", check=True)
    run("mount", "-t", "overlay", "-o", f"lowerdir=/run/lower,upperdir={layers}/upper,workdir={layers}/work",
        "overlay", BARE, check=True)
    for source in ("/dev", "/proc"):
        run("mount", "--rbind", source, BARE + source, check=True)
    write(BARE + "/usr/sbin/policy-rc.d", "#!/bin/sh\nexit 101\n", 0o755)  # nothing is started
    shutil.copy(deb, BARE + OURS)
    for step in steps:
        before = tree()
        status, shown = inside(step)
        check(step, status == 0, shown)
    return before


def complete():
    """What postinst makes for the daemons, and what it must not; all modes and owners."""
    owners = {path: value[0] for path, value in tree(PACKAGE).items()}
    check("the key is OpenDKIM's", owners[PACKAGE + "/etc/dkim.key/dkim.private"] == "100600 opendkim", owners)
    linted = inside(f"spamassassin --lint --siteconfigpath={ETC}/spamassassin")
    check("SpamAssassin has its plugins", linted == (0, ""), linted)
    check("the SPF policy program is found", inside(f"test -x {ETC}/../sbin/postfix-policyd-spf-perl")[0] == 0)
    unsafe = [path for path in owners if not owners.get(os.path.dirname(path), "root").endswith("root")]
    check("nothing is in a daemon's directory, who could replace it by a link", not unsafe, unsafe)
    return owners


def scanner():
    options = {re.sub(r"\W", "", key).lower(): value for key, value in re.findall(
        r"(?m)^(\w.*?) = (.*)$", read(f"{BARE}{ETC}/MailScanner/MailScanner.conf"))}
    check("MailScanner knows every option", options.keys() <= set(KNOWN), options.keys() - set(KNOWN))
    owners = tree(PACKAGE)
    folders = {key: value if key.endswith("dir") else os.path.dirname(value) for key, value in options.items()
               if value.startswith(PACKAGE) and not key.endswith("queuedir")}
    found = {key: owners.get(path, ("none ", ""))[0].split()[1:] for key, path in folders.items()}
    check("its directories are there", found == {key: [owner] for key, owner in FOLDERS.items()}, found)


def previewed_is_applied():
    for name, values in SETTINGS.items():
        write(f"{BARE}{PACKAGE}/etc/settings/{name}.json", json.dumps(values), 0o600)
    before = tree()
    status, shown = inside("nubo_config_preview --no-rehearsal --json")
    check("a change is previewed, and changes nothing", status == 1 and tree() == before, shown)
    for word in COMMANDS:
        check(f"{word} is applied", inside(f"nubo_set_config {word}") == (0, ""))
    after = tree()
    changed = files(path for path in after if after[path] != before.get(path) and not path.endswith(".db"))
    named = {file["path"] for file in json.loads(shown)["files"] if not file["path"].endswith(".db")}
    check("every file that changed was named", changed == named, (changed, named))
    check("nothing more would change", inside("nubo_config_preview --no-rehearsal")[0] == 0)


def newer(deb):
    """The same package with a later version and another template."""
    run("dpkg-deb", "--raw-extract", deb, "/run/newer", check=True)
    for path, old, new in (("DEBIAN/control", "Version: ", "Version: 1:"),
                           (ETC[1:] + "/template/main.template", "biff = no", "biff = yes")):
        write("/run/newer/" + path, read("/run/newer/" + path).replace(old, new))
    run("dpkg-deb", "--build", "/run/newer", BARE + OURS, check=True)


def main(deb, tar):
    for folder in (BARE, "/run/lower"):
        os.mkdir(folder)
    run("tar", "xf", tar, "-C", "/run/lower", check=True)
    trees = []
    for steps in ORDERS:
        before = installed(deb, steps)
        trees.append(complete())
    check("all orders end alike", trees[0] == trees[1] == trees[2],
          [first.items() ^ trees[2].items() for first in trees[:2]])
    previewed_is_applied()
    scanner()
    # The administrator's files outlive an upgrade and a removal.
    kept = [f"{ETC}/{name}" for name in ("main.cf.local", "main.cfbackup", "spamassassin/init.pre", "spamassassin/mine.pre")]
    for path in kept + [ETC + "/login_map", PACKAGE + "/etc/customize/postfix/main.cf"]:
        write(BARE + path, "# mine\n")
    write(f"{BARE}{ETC}/main.cfAbC123", "what a killed run leaves\n")
    mine = {path: value for path, value in tree(PACKAGE).items() if path in files([*kept, ETC + "/login_map"]) or
            path in files([path]) and path.startswith(PACKAGE + "/etc/")}
    newer(deb)
    status, shown = inside(f"dpkg -i {OURS}")
    check("it upgrades", status == 0 and "biff = yes" in read(f"{BARE}{ETC}/template/main.template"), shown)
    check("what the administrator wrote stays", mine.items() <= tree(PACKAGE).items())
    status, shown = inside("dpkg --remove nubo-set-config")
    conffiles = set(run("dpkg-deb", "-I", deb, "conffiles").stdout.split())
    left = files(tree().keys() - before.keys())
    check("removed, only the administrator's files are left", left == set(mine) | conffiles,
          (shown, left ^ (set(mine) | conffiles)))
    for path in kept[:2]:
        os.unlink(BARE + path)
    status, shown = inside("dpkg --purge nubo-set-config")
    left = tree()
    check("purged, nothing is left", left == before, (shown, left.items() ^ before.items()))
    print(f"{counts[0]} passed, {counts[1]} failed")
    return counts[1] != 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
