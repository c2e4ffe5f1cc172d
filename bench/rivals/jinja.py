# TEMPLATES TARGETS NAME...: renders each template into its target, from the values beside the templates.
import json
import os
import sys

from jinja2 import Environment, FileSystemLoader

templates, targets, *names = sys.argv[1:]
with open(templates + "/values", encoding="utf-8") as file:
    values = json.load(file)
environment = Environment(loader=FileSystemLoader(templates), keep_trailing_newline=True)
for name in names:
    with open(f"{targets}/{name}.new", "w", encoding="utf-8") as file:
        file.write(environment.get_template(name).render(values))
    os.rename(f"{targets}/{name}.new", f"{targets}/{name}")
