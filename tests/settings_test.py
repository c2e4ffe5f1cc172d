#!/usr/bin/env python3
# settings_test.py PROGRAM CHECKOUT: the program, the JSON Schemas and the manual page agree on type, range and default
# of every setting, and every fault in a settings file is found. Runs only on a private machine (lab/private_root).
import functools
import json
import os
import re
import shutil
import sys

import jsonschema

import run_cases
from appliance import PACKAGE, listen, read, write

READERS = {"smtp": "alias", "scanner": "alias", "imap_pop3": "alias", "aliases": "alias",
           "sender_quotas": "sender_quota_map", "attachment_filter": "smtp"}
WRITERS = {"smtp": "smtp", "scanner": "mailscanner", "imap_pop3": "dovecot"}
LISTS = ([], [""], ["x"], ["x", 1], ["x\n"], [{"zone": "", "kind": "x"}], [{"zone": "x"}], [{"kind": "x"}],
         [{"zone": "x", "kind": "\t"}], [{"zone": 1, "kind": "x"}], [{"zone": "x", "kind": "x", "other": "x"}])
VALUES = (True, None, 0.5, "", "é x", "x\n", "\x7f", {}, -2**31 - 1, -2**31, -1, 0, 1, 2047, 2048, 65535, 65536,
          2**31 - 1, 2**31, *LISTS)
NAMES = ("x", "é@example.com", "", "#x", "x#", "x y", "x\n", "\x1f")
PORT, TEXT = "expected an integer from 1 to 65535", "a string of UTF-8 without control characters"
# Faults that a schema cannot express: the text of smtp.json, and what is logged.
FAULTS = {
    "": ":1:1: syntax error", "[]": ":1:1: not an object", '{"smtp_port": 1,}': ":1:17: syntax error",
    '{\n"smtp_port": 1} {}': ":2:17: syntax error", "{}\0{}": ":1:3: syntax error",
    "[" * 2000: ":1:1: nested too deeply",
    '\ufeff{"smtp_port": 1,\n "smtp_port": 1}': ":2:2: duplicate key",
    '{"smtp_relay_password": s3cret}': ":1:25: syntax error",
    '{"smtp_relay_password": "se\\tcret"}': ": smtp_relay_password: expected " + TEXT,
    '// all\n{"message_limit": -0} /* that */': "",
    **{f'{{"smtp_port": {number}}}': ": smtp_port: " + PORT for number in (
        "25.0", "1e2", "4294967321", "36893488147419103257", "01", "-")},
    '{"x\\n\\u0000\x7f": 1}': ": x???: expected a known key", '{"Smtp_port": 25}': ": Smtp_port: expected a known key",
    '{"additional_domains": 1}': ": additional_domains: expected an array of strings",
    '{"dnsbl": 1}': ": dnsbl: expected an array of objects",
    '{"dnsbl": [{"zone": "", "kind": ""}, 1]}': ": dnsbl: expected item 2 to be an object",
    '{"dnsbl": [{"zone": "", "kind": "", "x": 1}]}': ": dnsbl: expected item 1 to have no member x",
    '{"dnsbl": [{"zone": ""}]}': ": dnsbl: expected item 1 to have as kind " + TEXT,
    **{f'{{"additional_domains": ["", "{text}"]}}': ": additional_domains: expected item 2 to be " + TEXT for text in (
        "\\u0000", "\x7f", "\\udc00", *(bytes.fromhex(code).decode(errors="surrogateescape") for code in (
            "eda080", "f4908080", "f5808080", "c1a1", "e09fbf", "f08fbfbf", "e282", "80")))}}
program, top = sys.argv[1:]
take_log, failures = listen(), []


@functools.lru_cache(None)
def run(command, name="smtp", text="{}"):
    """Runs a command with a settings file and returns all results."""
    run_cases.set_scene(["file $P/etc/brindlecot.conf domain_alias_map = yes", "remove $P/target/sbin/postalias",
                         "remove /usr/nubo/sbin"])
    write(f"{PACKAGE}/etc/settings/{name}.json", text)
    return run_cases.run(["/run/nubo_set_config"], command.split(), (), take_log)


def expect(claim, good):
    failures.extend([] if good else [claim])


def other(key, value):
    """A value other than the default."""
    if isinstance(value, (bool, int)):
        return not value if isinstance(value, bool) else value + 1
    return {"account_type": "ldap", "additional_domains": ["d"], "dnsbl": [{"zone": "d", "kind": ""}]}.get(key, "d")


os.chdir(top)
shutil.copy(program, "/run/nubo_set_config")
run_cases.cover()
page, entries = read("docs/man/brindlecot-settings.5"), []
on = {}
for name in READERS:
    schema = json.loads(read(f"data/schema/{name}.schema.json"))
    jsonschema.Draft7Validator.check_schema(schema)
    valid = jsonschema.Draft7Validator(schema).is_valid
    keys = [*schema["properties"], "unknown"] if "properties" in schema else NAMES
    for value in VALUES:
        log = run(READERS[name], name, json.dumps(dict.fromkeys(keys, value)))[""]
        for key in keys:
            refused = any(f"{name}.json: {re.sub('[^ -~é]', '?', key)}: " in line for line in log)
            expect(f"{name}: {json.dumps({key: value})}: refused {refused}", refused != valid({key: value}))
    for key, values in schema.get("properties", {}).items():
        kind, default = values["type"], values["default"]
        text = {"array": "list of " + values.get("items", {}).get("type", "") + "s"}.get(kind, kind)
        text += f", {values['minimum']} to {values['maximum']}" if kind == "integer" else ""
        shown = {"": "empty", "[]": "empty"}.get(str(default), str(default))
        entries.append(f".It Ic {key} Pq {text}; default {shown.lower() if kind == 'boolean' else shown}")
        on.setdefault(name, {})[key] = True if kind == "boolean" else default
expect("the manual page has other settings", sorted(entries) == sorted(re.findall(r"(?m)^\.It Ic .* Pq .*", page)))
on["smtp"] |= {"account_type": "win", "win_domain_short_name": "D", "dnsbl": [{"zone": "z", "kind": ""}]}
for name, command in WRITERS.items():
    for key, values in json.loads(read(f"data/schema/{name}.schema.json"))["properties"].items():
        left_out = {k: v for k, v in on[name].items() if k != key}
        results = [run(command, name, json.dumps({**left_out, **more}, sort_keys=True)) for more in (
            {}, {key: values["default"]}, {key: other(key, values["default"])})]
        expect(f"{key} has another default", results[0] == results[1])
        expect(f"{key} makes no difference", results[1] != results[2])
for text, fault in FAULTS.items():
    log = [line for line in run("alias", text=text)[""] if "smtp.json" in line]
    expect(f"{text!a}: {log}", log == [f"log $P/etc/settings/smtp.json{fault}"] * bool(fault))
usage = run("")[""][1].removeprefix("says ")
words = re.search("'(.*)'", read("data/completion/nubo_set_config"))[1]
expect("the shell completes other words", usage == f"nubo_set_config {{{words.replace(' ', '|')}}}")
print("\n".join(failures))
sys.exit(bool(failures))
