#!/bin/bash
# includes.sh SRC: names each include that leads to a room which its own must not know.
cd "$1" || exit 2
status=0
# forbid ROOM OTHERS: OTHERS is a regular expression.
forbid() { ! grep -rnE "#include \"($2)/" "$1" || status=1; }
ours="system|mail|checks|preview|change|apply"
generators="smtp|imap|scan|alias"
for room in smtp imap scan alias core; do forbid $room "$generators|main|$ours"; done
forbid platform "[a-z_]+"
forbid ../local_platform "$generators|main|core|$ours"
for room in system mail checks preview change apply; do forbid $room "$generators|main"; done
forbid system "core|platform|mail|checks|preview|change|apply"
forbid mail "core|platform|checks|preview|change|apply"
forbid checks "core|platform|preview|change|apply"
forbid preview "change|apply"
forbid change "apply|preview|platform"
forbid apply "preview"
exit $status
