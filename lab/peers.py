"""The other servers that a mail appliance meets, on its private machine: names, relay host, directory, domain."""

import base64
import os
import socketserver
import ssl
import threading

from appliance import CLIENT, HERE, PACKAGE, daemon, read, run, wait_for, write

RELAY_HOST = "192.0.2.25"
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
userPassword: b #$"p
"""


def name_server():
    """Knows far.example, relay.example, senders with SPF records and two blocklists; nothing else exists."""
    write("/run/names.conf", NAMES)
    daemon("dnsmasq", "--conf-file=/run/names.conf", "--keep-in-foreground")


class Relay(socketserver.StreamRequestHandler):
    """One connection to the relay host: it offers STARTTLS and AUTH, and keeps what it hears."""

    heard = []  # "open" or "encrypted" with name and password, then the message

    def handle(self):
        line, tls = "", "open"
        self.wfile.write(b"220 relay.example\r\n")
        while line[:4] != "QUIT":
            line = self.rfile.readline().decode() or "QUIT"
            answer = b"250 ok\r\n"
            if line[:4] == "EHLO":
                answer = b"250-relay.example\r\n250-STARTTLS\r\n250 AUTH PLAIN\r\n"
            elif line[:4] == "AUTH":
                self.heard.append(f"{tls} {base64.b64decode(line.split()[2]).decode()}".replace("\0", " "))
                answer = b"235 ok\r\n"
            elif line[:4] == "DATA":
                self.wfile.write(b"354 go on\r\n")
                self.heard.append("".join(iter(lambda: self.rfile.readline().decode(), ".\r\n")))
            self.wfile.write(answer)
            if line[:4] == "STAR":
                context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
                context.load_cert_chain(PACKAGE + "/etc/ssl/server.crt", PACKAGE + "/etc/ssl/server.key")
                self.request, tls = context.wrap_socket(self.request, server_side=True), "encrypted"
                self.setup()


def relay_host():
    """relay.example, port 2525."""
    server = socketserver.ThreadingTCPServer((RELAY_HOST, 2525), Relay)
    threading.Thread(target=server.serve_forever, daemon=True).start()


def directory():
    """An LDAP directory on this machine that knows frieda, and the account that nslcd uses; returns the server."""
    write("/run/slapd.conf", SLAPD)
    write("/run/slapd/entries.ldif", "dn: dc=example,dc=com\nobjectClass: dcObject\nobjectClass: organization\n"
          "dc: example\no: example\n"
          + ENTRY.format("nslcd") + ENTRY.format("frieda"))
    run("slapadd", "-f", "/run/slapd.conf", "-l", "/run/slapd/entries.ldif", check=True)
    write("/usr/nubo/etc/nslcd.conf",
          "uri ldap://localhost\nbase dc=example,dc=com\nbinddn cn=nslcd,dc=example,dc=com\n")
    write("/usr/nubo/etc/ldap.secret", 'b #$"p\n', 0o600)
    return daemon("slapd", "-f", "/run/slapd.conf", "-h", "ldap://localhost:389", "-d", "0", port=389)


def domain():
    """Makes this machine a controller of the Windows domain CORP, and so joined to it; erin is one of its users."""
    write("/etc/hosts", "127.0.0.1 dc1.example.com dc1\n" + read("/etc/hosts"))
    write("/etc/resolv.conf", "nameserver 127.0.0.1\nsearch example.com\n")
    os.unlink("/etc/samba/smb.conf")
    run("samba-tool", "domain", "provision", "--realm=EXAMPLE.COM", "--domain=CORP", "--server-role=dc",
        "--dns-backend=SAMBA_INTERNAL", "--adminpass=Passw0rd.Admin", "--host-name=dc1", "--host-ip=127.0.0.1",
        "--option=interfaces=lo", "--option=dns forwarder=127.0.0.53", check=True)
    # The map is read without TLS; getpwent lists the domain's users only when told to.
    write("/etc/samba/smb.conf", read("/etc/samba/smb.conf").replace(
        "[global]", "[global]\nldap server require strong auth = no\nwinbind enum users = yes", 1))
    daemon("samba", "--foreground", "--no-process-group")
    wait_for(lambda: run("net", "ads", "testjoin").returncode == 0, "the domain controller", 60)
    for user in ("svc-mail", "erin"):
        run("samba-tool", "user", "create", user, "Passw0rd.User", check=True)
    write("/usr/nubo/etc/wins.secret", "domain = CORP\nuser = svc-mail\npassword = Passw0rd.User\n", 0o600)
    wait_for(lambda: "CORP\\erin" in run("getent", "passwd").stdout, "the domain's users", 60)
    run("install", "-d", "-o", "CORP\\erin", "/home/CORP/erin", check=True)
