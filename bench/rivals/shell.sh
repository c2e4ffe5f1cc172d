#!/bin/sh
# ENGINE TEMPLATES TARGETS NAME...: renders each template into its target, by way of the directories TARGETS/new/.../files.
set -e
engine=$1 templates=$2 targets=$3
shift 3
values=$templates/values
# shellcheck source=/dev/null # it sets "names" and what these name
[ "$engine" != envsubst ] || . "$values"
parts=
for name; do
  case $name in
    */*) part=${name%/*} ;;
    *) part=. ;;
  esac
  case "$parts " in
    *" $part "*) ;;
    *) parts="$parts $part" ;;
  esac
  case $engine in
    sed) sed -f "$values" "$templates/$name" ;;
    m4) m4 -P "$values" "$templates/$name" ;;
    envsubst) envsubst "${names:?}" <"$templates/$name" ;;
  esac >"$targets/new/$part/files/${name##*/}"
done
for part in $parts; do
  mv "$targets/new/$part/files"/* "$targets/$part"
done
