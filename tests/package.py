#!/usr/bin/python3
"""package.py DEB ROOT.tar: the package as people get it, in a bare Debian root, which has what the package depends on
and recommends. It is installed, run, previewed, upgraded and removed. Runs on a private machine, from scripts/test."""

import hashlib
import os
import re
import shutil
import stat
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../lab")
from appliance import COMMANDS, ETC, PACKAGE, read, run, write

BARE = "/run/bare"
# What package tools and daemons' own packages write anywhere.
OTHERS = re.compile("/(dev|proc|run|sys|tmp|var/cache|var/lib/dpkg|var/log)/")
SECRET = "s3cret: #1"
SMTP = ('{"smtp_hostname": "mail.example.com", "enable_dkim": true, "enable_dmarc": true, "smtp_ssl_enabled": true,'
        ' "smtp_relay_enabled": true, "smtp_relay_server": "relay.example", "smtp_relay_account": "company",'
        f' "smtp_relay_password": "{SECRET}"}}')
counts = [0, 0]


def check(claim, good, detail=""):
    counts[not good] += 1
    if not good:
        print(f"WRONG: {claim}\n{detail}")


def inside(*command):
    result = run("chroot", BARE, *command)
    return result.returncode, result.stdout + result.stderr


def preview(*word):
    return inside("nubo_config_preview", *word)


def tree(moments=False):
    """Mode, owner and content of everything in the root, and when it was last changed if that is asked for."""
    found = {}
    for folder, folders, names in os.walk(BARE):
        folders[:] = [name for name in folders if not OTHERS.match(f"{folder}/{name}/".removeprefix(BARE))]
        for path in (os.path.join(folder, name) for name in folders + names):
            status = os.lstat(path)
            content = ""
            if stat.S_ISREG(status.st_mode):
                with open(path, "rb") as file:
                    content = hashlib.sha256(file.read()).hexdigest()
            when = moments and status.st_mtime_ns
            found[path.removeprefix(BARE)] = (f"{status.st_mode:o} {status.st_uid}", content, when)
    return found


def settings(name, text):
    write(f"{BARE}{PACKAGE}/etc/settings/{name}.json", text, 0o600)


def install(deb):
    shutil.copy(deb, BARE + "/tmp/new.deb")
    return inside("dpkg", "--install", "/tmp/new.deb")


def previewed_is_applied():
    """Settings are changed; what the preview prints is, as a patch, what the run then does."""
    settings("smtp", SMTP)
    settings("aliases", '{"postmaster": ["root"], "sales": ["alice", "bob"]}')
    settings("imap_pop3", '{"imaps_enabled": true}')
    os.chmod(BARE + ETC + "/dovecot/conf.d/10-master.conf", 0o600)
    before = tree(moments=True)
    status, shown = preview()
    check("a change is previewed with status 1", status == 1, shown)
    check("the preview shows no secret", SECRET not in shown and "s3cret" not in shown, shown)
    check("the preview changes nothing", tree(moments=True) == before)
    names = re.findall(r"(?m)^(/\S+?)(?::.*)?$\n(?=--- |\n|\Z)", shown)
    shutil.copytree(BARE + ETC, "/run/patched" + ETC)
    shutil.copytree(BARE + "/usr/nubo/etc", "/run/patched/usr/nubo/etc")
    text = re.sub(r"(?ms)^--- \S+\.db\t.*?(?=^\n|\Z)", "", shown)  # compiled tables are shown as text
    patched = run("patch", "--directory=/run/patched", "--strip=1", "--force", text=text)
    check("the preview is a patch", patched.returncode == 0, patched.stdout)
    for word in COMMANDS:
        check(f"{word} is applied", inside("nubo_set_config", word) == (0, ""))
    after = tree()
    wrong = [path for path in after if path.startswith(ETC) and not path.endswith(".db") and
             os.path.isfile(BARE + path) and read(BARE + path) != read("/run/patched" + path)]
    check("the run writes what was previewed", not wrong, wrong)
    changed = {path for path in before.keys() | after.keys() if os.path.isfile(BARE + path) and
               (path not in before or before[path][:2] != after[path][:2])}
    compiled = {path for path in changed if path.endswith(".db")}
    check("every file that changes was named", changed - compiled <= set(names) <= changed, (names, changed))
    check("the password map is shown masked", "+relay.example:25 ********\n" in shown, shown)
    check("the alias is shown in its table", "+sales\talice, bob\n" in shown, shown)
    check("a change of mode is shown", "10-master.conf: 600 root:root becomes 644 root:root\n" in shown, shown)
    status, shown = preview()
    check("nothing more would change", (status, "\n0 files would change." in shown) == (0, True), shown)
    settings("smtp", SMTP.replace(SECRET, "another"))
    status, shown = preview("smtp")
    check("a new secret is a change that is not shown", status == 1 and "(another secret)" in shown, shown)
    check("a table that only held its place is no change", "1 file would change" in shown, shown)


def customised(text):
    write(f"{BARE}{PACKAGE}/etc/customize/postfix/main.cf", text)


def masked():
    """What no pattern for text matches is masked too, and what postmap quotes."""
    settings("smtp", '{"account_type": "ldap"}')
    write(BARE + "/usr/nubo/etc/nslcd.conf", "uri ldap://ldap.example\nbase dc=example\nbinddn cn=mail\n")
    write(BARE + "/usr/nubo/etc/ldap.secret", "one\udce9t-w-o\n", 0o600)
    status, shown = inside("env", "LC_ALL=C.UTF-8", "nubo_config_preview", "smtp")
    check("a secret that is no UTF-8 is masked", status == 1 and "+bind_pw=********\n" in shown and
          "t-w-o" not in shown, shown)
    os.unlink(BARE + "/usr/nubo/etc/nslcd.conf")
    os.unlink(BARE + "/usr/nubo/etc/ldap.secret")
    settings("smtp", SMTP.replace("relay.example", " relay.example"))
    status, shown = preview("smtp")
    check("postmap quotes no secret", "sasl_passwd: logical line" in shown and "s3c" not in shown, shown)


def protected():
    """A checker that writes wherever it can changes nothing."""
    disk, lint = BARE + "/mnt/a disk", BARE + "/usr/bin/spamassassin"
    os.mkdir(disk)
    run("mount", "-t", "tmpfs", "tmpfs", disk, check=True)
    os.rename(lint, lint + ".real")
    write(lint, f"#!/bin/sh\ntouch '/mnt/a disk/x' /etc/x /var/x {PACKAGE}/etc/x {ETC}/x /tmp/x\n", 0o755)
    before = tree(moments=True)
    preview("mailscanner")
    check("no file system can be written to", tree(moments=True) == before, tree().keys() - before.keys())
    os.rename(lint + ".real", lint)
    run("umount", disk, check=True)
    os.rmdir(disk)


def stumbling():
    """What the daemons would not accept, or mail would stumble over: preview ends with 2 and says it."""
    rows = (
        ("smtp", '{"enable_dmarc": true}', "smtp_hostname is empty"),
        ("smtp", '{"smtp_relay_enabled": true, "smtp_relay_server": " "}', "smtp_relay_server is empty"),
        ("smtp", '{"reject_sasl_sender_rate_exceed": true}', "reject_sasl_sender_rate_exceed: this Postfix does not"),
        ("smtp", '{"account_type": "ldap"}', "ldap-aliases.cf is missing"),
        ("smtp", '{"smtp_port": 0}', "log: " + PACKAGE + "/etc/settings/smtp.json: smtp_port: expected an integer"),
        ("aliases", '{"a": []}', "log: " + PACKAGE + "/etc/settings/aliases.json: a: expected at least one"))
    for name, text, said in rows:
        settings(name, text)
        status, shown = preview("smtp" if name == "smtp" else "alias")
        check(said, status == 2 and said in shown, shown)
        os.unlink(f"{BARE}{PACKAGE}/etc/settings/{name}.json")
    os.rename(f"{BARE}{ETC}/access/client_access.db", BARE + "/tmp/client_access.db")
    status, shown = preview("smtp")
    check("a table that is not compiled", status == 2 and "access/client_access.db is missing" in shown, shown)
    os.rename(BARE + "/tmp/client_access.db", f"{BARE}{ETC}/access/client_access.db")
    for text, said in (
            ("smtpd_restriction_classes = a,b\na = b, reject_all_evil\nb = permit\n", "reject_all_evil: this"),
            ("smtpd_helo_restrictions = check_policy_service { inet:[::1]:9, timeout = 9s }, reject_evil\n",
             "reject_evil: this"),
            ("mail_owner = nobody_here\n", "unknown user name value: nobody_here")):
        customised(text)
        status, shown = preview("smtp")
        check(said, (status, shown.count("this Postfix")) == (2, said.count("this")) and said in shown, shown)
    os.unlink(f"{BARE}{PACKAGE}/etc/customize/postfix/main.cf")
    write(f"{BARE}{PACKAGE}/etc/customize/dovecot/10-mail.conf", "mail_locatoin = maildir:~/M\n")
    status, shown = preview("dovecot")
    check("a daemon's own checker refuses", status == 2 and "Unknown setting: mail_locatoin" in shown, shown)
    os.unlink(f"{BARE}{PACKAGE}/etc/customize/dovecot/10-mail.conf")
    check("an unknown word", preview("postfix")[0] == 2)


def newer(deb):
    """The same package with a later version and another template."""
    run("dpkg-deb", "--raw-extract", deb, "/run/newer", check=True)
    for path, old, new in (("DEBIAN/control", "Version: ", "Version: 1:"),
                           (ETC[1:] + "/template/main.template", "biff = no", "biff = yes")):
        write("/run/newer/" + path, read("/run/newer/" + path).replace(old, new))
    run("dpkg-deb", "--build", "/run/newer", "/run/newer.deb", check=True)
    return "/run/newer.deb"


def main(deb, tar):
    os.mkdir(BARE)
    run("mount", "-t", "tmpfs", "tmpfs", BARE, check=True)
    run("tar", "xf", tar, "-C", BARE, check=True)
    for source in ("/dev", "/proc"):
        run("mount", "--rbind", source, BARE + source, check=True)
    before = tree()
    status, shown = install(deb)
    check("it installs", status == 0, shown)
    unsafe = [path for path in tree() if path.startswith(PACKAGE) and os.lstat(BARE + os.path.dirname(path)).st_uid]
    check("nothing of the package is in a daemon's directory, who could replace it by a link", not unsafe, unsafe)
    status, shown = preview()
    check("the first run is previewed", status == 1 and "main.cf: new, 644 root:root" in shown, shown)
    for word in COMMANDS:
        check(f"{word} on default settings", inside("nubo_set_config", word) == (0, ""))
    check("main.cf is there", "\nmyhostname = localhost\n" in read(f"{BARE}{ETC}/main.cf"))
    check("the words complete", inside("bash", "-c", "source /usr/share/bash-completion/completions/nubo_set_config;"
                                       "complete -p nubo_set_config nubo_config_preview")[0] == 0)
    previewed_is_applied()
    masked()
    protected()
    stumbling()
    # The administrator's files outlive an upgrade and a removal.
    kept = ("main.cf.local", "main.cfbackup", "spamassassin/init.pre", "spamassassin/mine.pre")
    write(f"{BARE}{ETC}/login_map", "alice@mail.example.com alice\n")
    write(f"{BARE}{PACKAGE}/etc/customize/postfix/main.cf", "biff = maybe\n")
    for path in kept:
        write(f"{BARE}{ETC}/{path}", "# mine\n")
    write(f"{BARE}{ETC}/main.cfAbC123", "what a killed run leaves\n")
    mine = {path: value for path, value in tree().items() if os.path.isfile(BARE + path) and
            (path.startswith(PACKAGE + "/etc/") or path.removeprefix(ETC + "/") in ("login_map", *kept))}
    status, shown = install(newer(deb))
    check("it upgrades", status == 0, shown)
    check("the upgrade brings its template", "biff = yes" in read(f"{BARE}{ETC}/template/main.template"))
    check("what the administrator wrote stays", mine.items() <= tree().items())
    status, shown = inside("dpkg", "--remove", "nubo-set-config")
    left = {path for path in tree().keys() - before.keys() if os.path.isfile(BARE + path)}
    conffiles = set(run("dpkg-deb", "-I", deb, "conffiles").stdout.split())
    check("removed, only the administrator's files are left", (status, left) == (0, set(mine) | conffiles),
          (shown, left ^ (set(mine) | conffiles)))
    for name in ("main.cf.local", "main.cfbackup"):
        os.unlink(f"{BARE}{ETC}/{name}")
    status, shown = inside("dpkg", "--purge", "nubo-set-config")
    left = tree()
    check("purged, nothing is left", (status, left) == (0, before), (shown, left.items() ^ before.items()))
    print(f"{counts[0]} passed, {counts[1]} failed")
    return counts[1] != 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
