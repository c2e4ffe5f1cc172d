# ENGINE TEMPLATES TARGETS NAME...: renders each template into its target, by way of TARGETS/new.
set -e
engine=$1 templates=$2 targets=$3
shift 3
values=$templates/values
[ "$engine" != envsubst ] || . "$values"
for name; do
  case $engine in
    sed) sed -f "$values" "$templates/$name" ;;
    m4) m4 -P "$values" "$templates/$name" ;;
    envsubst) envsubst "$names" <"$templates/$name" ;;
  esac >"$targets/new/$name"
done
mv "$targets/new/"* "$targets"
