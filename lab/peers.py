"""The other servers that a mail appliance meets, on its private machine: names, relay host, directory, domain."""

import ssl
import subprocess

from aiosmtpd.controller import Controller
from aiosmtpd.smtp import AuthResult

from appliance import CLIENT, HERE, PACKAGE, answers, daemon, read, run, running, wait_for, write

RELAY_HOST = "192.0.2.25"
PASSWORD = 'b #$"p'  # of the accounts in the directory
DOMAIN_PASSWORD = "Passw0rd.User"
NAMES = f"""no-resolv
no-hosts
listen-address=127.0.0.53
bind-interfaces
local=/#/
host-record=mail.example.com,{HERE}
host-record=far.example,client.far.example,{CLIENT}
txt-record=far.example,"v=spf1 ip4:{CLIENT} -all"
txt-record=_dmarc.far.example,"v=DMARC1; p=none"
txt-record=hard.example,"v=spf1 -all"
txt-record=soft.example,"v=spf1 ~all"
host-record=relay.example,{RELAY_HOST}
mx-host=relay.example,relay.example
host-record=listed.example,192.0.2.77
address=/66.2.0.192.bl.example/127.0.0.2
address=/listed.example.dbl.example/127.0.0.2
"""
SLAPD = """include /etc/ldap/schema/core.schema
modulepath /usr/lib/ldap
moduleload back_mdb
database mdb
suffix "dc=example,dc=com"
directory /run/slapd
"""
ENTRY = """
dn: cn={0},dc=example,dc=com
objectClass: person
cn: {0}
sn: {0}
userPassword: {1}
"""

DOMAIN = f"""set -e
samba-tool domain provision --targetdir=/run/domain --realm=EXAMPLE.COM --domain=CORP --server-role=dc \\
  --dns-backend=SAMBA_INTERNAL --adminpass=Passw0rd.Admin --host-name=dc1 --host-ip=127.0.0.1 \\
  --option=interfaces=lo --option='bind interfaces only=yes' --option='dns forwarder=127.0.0.53'
for user in svc-mail erin; do
  samba-tool user create --configfile=/run/domain/etc/smb.conf $user {DOMAIN_PASSWORD}
done
"""


def name_server():
    """A name server. It knows far.example, relay.example, senders with SPF records and two blocklists."""
    write("/run/names.conf", NAMES)
    daemon("dnsmasq", "--conf-file=/run/names.conf", "--keep-in-foreground", port=53, host="127.0.0.53")


class Relay:
    """A relay host. It offers STARTTLS and AUTH and keeps what it receives."""

    heard = []  # "open" or "encrypted" with name and password, then the message

    async def handle_DATA(self, _server, _session, envelope):
        self.heard.append(envelope.content.decode())
        return "250 ok"

    def authenticate(self, _server, session, _envelope, _mechanism, login):
        self.heard.append(f"{'encrypted' if session.ssl else 'open'} {login.login.decode()} {login.password.decode()}")
        return AuthResult(success=True)


def relay_host():
    """relay.example, port 2525."""
    context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
    context.load_cert_chain(PACKAGE + "/etc/ssl/server.crt", PACKAGE + "/etc/ssl/server.key")
    relay = Relay()
    Controller(relay, RELAY_HOST, 2525, tls_context=context, authenticator=relay.authenticate,
               auth_require_tls=False).start()


def directory():
    """An LDAP directory on this machine that knows frieda, and the account that nslcd uses."""
    write("/run/slapd.conf", SLAPD)
    write("/run/slapd/entries.ldif", "dn: dc=example,dc=com\nobjectClass: dcObject\nobjectClass: organization\n"
          "dc: example\no: example\n"
          + ENTRY.format("nslcd", PASSWORD) + ENTRY.format("frieda", PASSWORD))
    run("slapadd", "-f", "/run/slapd.conf", "-l", "/run/slapd/entries.ldif", check=True)
    write("/usr/nubo/etc/nslcd.conf",
          "uri ldap://localhost\nbase dc=example,dc=com\nbinddn cn=nslcd,dc=example,dc=com\n")
    write("/usr/nubo/etc/ldap.secret", PASSWORD + "\n", 0o600)
    running["slapd"] = daemon("slapd", "-f", "/run/slapd.conf", "-h", "ldap://localhost:389", "-d", "0", port=389)


def make_domain():
    """Starts making the Windows domain CORP with the users svc-mail and erin. It takes seconds, in the background."""
    return subprocess.Popen(["sh", "-c", DOMAIN], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def domain(made):
    """Makes this machine the controller of that domain, and so a member of it."""
    if made.wait():
        raise RuntimeError("samba-tool failed")
    write("/etc/hosts", "127.0.0.1 dc1.example.com dc1\n" + read("/etc/hosts"))
    write("/etc/resolv.conf", "nameserver 127.0.0.1\nsearch example.com\n")
    # The map binds without TLS, and getpwent has to list the domain's users.
    write("/etc/samba/smb.conf", read("/run/domain/etc/smb.conf").replace(
        "[global]", "[global]\nldap server require strong auth = no\nwinbind enum users = yes", 1))
    write("/usr/nubo/etc/wins.secret", f"domain = CORP\nuser = svc-mail\npassword = {DOMAIN_PASSWORD}\n", 0o600)
    daemon("samba", "--foreground", "--no-process-group", port=53)
    # net may wait for more than a minute if it asks before they answer.
    wait_for(lambda: answers(88, "127.0.0.1") and answers(389, "127.0.0.1"), "Kerberos and LDAP")
    wait_for(lambda: "CORP\\erin" in run("getent", "passwd").stdout, "the domain's users")
    run("install", "-d", "-o", "CORP\\erin", "/home/CORP/erin", check=True)
    # The controller answers other machines before it finds itself.
    return wait_for(lambda: run("net", "ads", "testjoin").stdout, "net ads testjoin")
