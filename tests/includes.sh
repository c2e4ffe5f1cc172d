#!/bin/bash
# includes.sh SRC: names each include that leads to a room which its own must not know.
cd "$1" || exit 2
status=0
# forbid ROOM OTHERS: OTHERS is a regular expression.
forbid() { ! grep -rnE "#include \"($2)/" "$1" || status=1; }
for room in smtp imap scan alias; do
  forbid $room "(smtp|imap|scan|alias|main|system|mail_check|preview|apply)"
done
forbid core "(smtp|imap|scan|alias|main|system|mail_check|preview|apply)"
forbid platform "[a-z_]+"
forbid system "(smtp|imap|scan|alias|main|core|platform|mail_check|preview|apply)"
forbid mail_check "(smtp|imap|scan|alias|main|preview|apply)"
forbid preview "(smtp|imap|scan|alias|main|apply)"
forbid apply "(smtp|imap|scan|alias|main|preview)"
forbid ../local_platform "(smtp|imap|scan|alias|main|core|system|mail_check|preview|apply)"
exit $status
