#!/usr/bin/env python3
# schemas_test.py PROGRAM SCHEMAS: the JSON Schemas and the program refuse the same values, key by key. Left out
# is what no schema can say: 25.0 is no integer, a string is UTF-8, names differ in more than case. Runs on a
# private machine only (lab/private_root).
import json
import os
import re
import subprocess
import sys

import jsonschema

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)) + "/../lab")
from appliance import PACKAGE, listen, read, write

READERS = {"smtp": "alias", "scanner": "alias", "imap_pop3": "alias", "aliases": "alias",
           "sender_quotas": "sender_quota_map", "attachment_filter": "smtp"}
ENDS = (0, 1, 2047, 65535, 2**31 - 1, -2**31)
LISTS = ([], [""], ["x"], ["x", 1], ["x\n"], [{"zone": "", "kind": "x"}], [{"zone": "x"}], [{"kind": "x"}],
         [{"zone": "x", "kind": "\t"}], [{"zone": 1, "kind": "x"}], [{"zone": "x", "kind": "x", "other": "x"}])
VALUES = (True, None, 0.5, "", "é x", "x\n", "\x7f", {}, *LISTS, *(end + step for end in ENDS for step in (-1, 0, 1)))
NAMES = ("x", "é@example.com", "", "#x", "x#", "x y", "x\n", "\x1f")

program, schemas = sys.argv[1:]
take_log, failed = listen(), 0
for name, command in READERS.items():
    path = f"{PACKAGE}/etc/settings/{name}.json"
    schema = json.loads(read(f"{schemas}/{name}.schema.json"))
    jsonschema.Draft7Validator.check_schema(schema)
    valid = jsonschema.Draft7Validator(schema).is_valid
    keys = [*schema["properties"], "unknown"] if "properties" in schema else NAMES
    for value in VALUES:
        write(path, json.dumps(dict.fromkeys(keys, value)))
        subprocess.run([program, command], check=False)
        log = "\n".join(take_log())
        for key in keys:
            refused = f"{path}: {re.sub('[^ -~é]', '?', key)}: " in log
            if refused == valid({key: value}):
                failed += 1
                print(f"{name}: {json.dumps({key: value})}: {'refused' if refused else 'taken'} by the program only")
    os.unlink(path)
sys.exit(failed != 0)
