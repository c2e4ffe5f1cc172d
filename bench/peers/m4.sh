# TEMPLATES TARGETS NAME...: renders each template into its target, by way of TARGETS/new.
set -e
templates=$1 targets=$2
shift 2
for name; do m4 -P "$templates/values" "$templates/$name" >"$targets/new/$name"; done
mv "$targets/new/"* "$targets"
