# TEMPLATES TARGETS NAME...: renders each template into its target, by way of TARGETS/new.
set -e
templates=$1 targets=$2
shift 2
. "$templates/values"
for name; do envsubst "$names" <"$templates/$name" >"$targets/new/$name"; done
mv "$targets/new/"* "$targets"
