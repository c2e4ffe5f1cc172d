#!/usr/bin/env python3
"""settings_test.py PROGRAM CHECKOUT: the program, the JSON Schemas and the manual page agree on type, range and default
of every setting, and every fault in a settings file is found. Runs only on a private machine (lab/private_root)."""

import functools
import json
import os
import re
import shutil
import sys
import unittest

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

def setUpModule():
    os.chdir(top)
    shutil.copy(program, "/run/nubo_set_config")
    run_cases.cover()
    global take_log
    take_log = listen()


def schema(name):
    return json.loads(read(f"data/schema/{name}.schema.json"))


def properties(name):
    return schema(name).get("properties", {})


@functools.lru_cache(None)
def run(command, name="smtp", text="{}"):
    """Runs a command with a settings file and returns all results."""
    run_cases.set_scene(["file $P/etc/brindlecot.conf domain_alias_map = yes",
                         "remove $P/target/sbin/postalias",
                         "remove /usr/nubo/sbin"])
    write(f"{PACKAGE}/etc/settings/{name}.json", text)
    return run_cases.run(["/run/nubo_set_config"], command.split(), (), take_log)


def on(name):
    """Settings in which every feature is on, so that each setting makes a difference."""
    values = {key: True if setting["type"] == "boolean" else setting["default"]
              for key, setting in properties(name).items()}
    if name == "smtp":
        values |= {"account_type": "win", "win_domain_short_name": "D", "dnsbl": [{"zone": "z", "kind": ""}]}
    return values


def other(key, value):
    """A value other than the default."""
    if isinstance(value, bool):
        return not value
    if isinstance(value, int):
        return value + 1
    return {"account_type": "ldap", "additional_domains": ["d"], "dnsbl": [{"zone": "d", "kind": ""}]}.get(key, "d")


def manual_entry(key, setting):
    """The line of the manual page that the schema of a setting stands for."""
    kind, default = setting["type"], setting["default"]
    text = {"array": "list of " + setting.get("items", {}).get("type", "") + "s"}.get(kind, kind)
    if kind == "integer":
        text += f", {setting['minimum']} to {setting['maximum']}"
    shown = {"": "empty", "[]": "empty"}.get(str(default), str(default))
    return f".It Ic {key} Pq {text}; default {shown.lower() if kind == 'boolean' else shown}"


class Settings(unittest.TestCase):
    def test_the_schemas_and_the_program_refuse_the_same(self):
        for name, command in READERS.items():
            jsonschema.Draft7Validator.check_schema(schema(name))
            is_valid = jsonschema.Draft7Validator(schema(name)).is_valid
            keys = [*properties(name), "unknown"] if properties(name) else NAMES
            for value in VALUES:
                log = run(command, name, json.dumps(dict.fromkeys(keys, value)))[""]
                for key in keys:
                    with self.subTest(name, key=key, value=value):
                        shown = f"{name}.json: {re.sub('[^ -~é]', '?', key)}: "
                        self.assertEqual(any(shown in line for line in log), not is_valid({key: value}))

    def test_the_manual_page_has_each_setting(self):
        entries = [manual_entry(*setting) for name in READERS for setting in properties(name).items()]
        page = read("docs/man/brindlecot-settings.5")
        self.assertCountEqual(entries, re.findall(r"(?m)^\.It Ic .* Pq .*", page))

    def test_each_setting_has_its_default_and_makes_a_difference(self):
        for name, command in WRITERS.items():
            for key, setting in properties(name).items():
                left_out = {other_key: value for other_key, value in on(name).items() if other_key != key}
                absent, default, changed = (
                    run(command, name, json.dumps({**left_out, **more}, sort_keys=True))
                    for more in ({}, {key: setting["default"]}, {key: other(key, setting["default"])}))
                with self.subTest(key):
                    self.assertEqual(absent, default)
                    self.assertNotEqual(default, changed)

    def test_faults_that_a_schema_cannot_express(self):
        for text, fault in FAULTS.items():
            with self.subTest(text):
                log = [line for line in run("alias", text=text)[""] if "smtp.json" in line]
                self.assertEqual(log, [f"log $P/etc/settings/smtp.json{fault}"] if fault else [])

    def test_the_shell_completes_the_commands(self):
        words = re.search("'(.*)'", read("data/completion/nubo_set_config"))[1]
        self.assertEqual(run("")[""][1], f"says nubo_set_config {{{words.replace(' ', '|')}}}")


if __name__ == "__main__":
    program, top = sys.argv[1:]
    unittest.main(argv=sys.argv[:1])
