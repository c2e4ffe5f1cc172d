#!/bin/bash
# Functions that the bash scripts in this folder share.
set -uo pipefail
[ "$(id -u)" = 0 ] || { echo "Needs root: packages are installed, and daemons run." >&2; exit 1; }
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$top/lab/private_root" "$top" || exit 1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export PYTHONDONTWRITEBYTECODE=1
export PRIVATE_ROOT=${PRIVATE_ROOT:-$$}
passed=0 failed=0 skipped=0

# Debian packages, for 12 and 13.
build=(g++ cmake make libboost-dev libjsoncpp-dev libidn2-dev libcurl4-openssl-dev libssl-dev libgtest-dev
  python3 python3-jsonschema util-linux iproute2)
# SpamAssassin's installation needs gpg's agent when gpg is there.
mail=(postfix postfix-ldap postfix-policyd-spf-perl libsasl2-modules dovecot-core dovecot-imapd dovecot-pop3d opendkim
  opendmarc publicsuffix gpg-agent spamassassin memcached openssl)
network=(slapd ldap-utils dnsmasq-base samba samba-ad-dc samba-ad-provision samba-dsdb-modules samba-vfs-modules
  samba-common-bin python3-samba winbind libnss-winbind libpam-winbind krb5-user python3-aiosmtpd)
measure=(postfix postfix-ldap dovecot-core openssl python3-aiosmtpd gcc libc6-dev strace python3-matplotlib
  python3-jinja2 libtext-template-perl m4 gettext-base)
checks=(clang-format clang-tidy shellcheck pyflakes3 strace mandoc e2fsprogs xfsprogs reuse)
pack=(mmdebstrap dpkg-dev fakeroot lintian)
cross=(g++-aarch64-linux-gnu g++-arm-linux-gnueabihf qemu-user)
presets=(release arm64 armhf)  # of packages
# shellcheck disable=SC2034 # scripts/package reads the presets
if [ -n "${NATIVE-}" ]; then  # on another Debian release, this machine's processor is enough, and no look at the text
  checks=() cross=() measure=() presets=(release)
fi
# Which script needs which. scripts/test calls all the others.
case ${0##*/} in
  demo) needed=("${build[@]}" "${mail[@]}" "${network[@]}") ;;
  bench) needed=("${build[@]}" "${measure[@]}") ;;
  package) needed=("${build[@]}" "${pack[@]}" "${cross[@]}") ;;
  test)
    needed=("${build[@]}" "${mail[@]}" "${network[@]}" "${measure[@]}" "${checks[@]}" "${pack[@]}" "${cross[@]}")
    ;;
esac

heading() { printf '\n== %s\n' "$*"; }

# quietly WHAT COMMAND...: shows of the command's output only what matters of a failure. A failure's whole output stays
# in build/log.
quietly() {
  local what=$1 began=$SECONDS log
  shift
  echo "$what ..."
  mkdir -p "$top/build/log"
  log=$(mktemp "$top/build/log/${what//[ \/]/_}.XXXXXX")
  if "$@" </dev/null >"$log" 2>&1; then
    rm "$log"
    printf '%s: good, %d s\n' "$what" $((SECONDS - began))
    return 0
  fi
  failure "$log"
  printf '%s: FAILED, %d s. The whole output is in %s\n' "$what" $((SECONDS - began)) "$log"
  return 1
}

# failure LOG: the last ten lines that name an error, or else the last ten, without those that only show progress.
failure() {
  local lines
  lines=$(grep -vE '^(\[ *[0-9]+%\]|make(\[[0-9]+\])?: |g?make\[|-- |(Get|Hit|Ign):[0-9]|Selecting |Preparing |Unpacking )|^ *$' \
    "$1")
  grep -iE '\b(error|failed|failure|fatal|cannot|unable|not found|undefined)\b|no such|^E: ' <<<"$lines" | tail -n 10 |
    grep . || tail -n 10 <<<"$lines"
}

# install_packages: installs the packages that this script needs and that are missing. Starts no service.
install_packages() {
  local missing
  missing=$(comm -23 <(printf '%s\n' "${needed[@]}" | sort -u) \
    <(dpkg-query -W -f '${db:Status-Status} ${Package}\n${db:Status-Status} ${Package}:${Architecture}\n' |
      sed -n 's/^installed //p' | sort -u))
  [ -n "$missing" ] || return 0
  # shellcheck disable=SC2086
  quietly "Installation of $(wc -w <<<"$missing") packages" apt_install $missing
}

apt_install() (
  policy=/usr/sbin/policy-rc.d
  [ ! -e "$policy" ] || cp -p "$policy" "$scratch/policy-rc.d"
  trap 'rm -f "$policy"; [ ! -e "$scratch/policy-rc.d" ] || mv "$scratch/policy-rc.d" "$policy"' EXIT
  rm -f "$policy"
  printf '#!/bin/sh\nexit 101\n' >"$policy"
  chmod 755 "$policy"
  export DEBIAN_FRONTEND=noninteractive
  apt-get -o DPkg::Lock::Timeout=300 update || true  # an old index may be good enough
  apt-get -o DPkg::Lock::Timeout=300 install -y --no-install-recommends "$@"
)

# build PRESET [TARGET...]: builds the targets, or else all and the tests. Two scripts may do so at once.
build() {
  local preset=$1 directory=$top/build/$1
  shift
  mkdir -p "$directory"
  (
    exec 9<"$directory"
    flock 9
    cd "$top" && cmake --preset "$preset" && cmake --build --preset "$preset" -j "$(nproc)" ${1:+--target "$@"}
  )
}

# stage: installs below $scratch/stage, with the preset "release", which builds all that is installed, and no test.
stage() { DESTDIR=$scratch/stage build release install; }

# private_root COMMAND...: runs the command on a private machine, see lab/private_root.
private_root() {
  "$top/lab/private_root" "$top" "$@"
}

# suite NAME COMMAND...: runs a test suite, and adds up what it counts.
suite() {
  local name=$1 began=$SECONDS status counts
  shift
  heading "$name"
  "$@" 2>&1 | tee "$scratch/suite"
  status=${PIPESTATUS[0]}
  read -ra counts < <(tally "$status" <"$scratch/suite")
  passed=$((passed + counts[0])) failed=$((failed + counts[1])) skipped=$((skipped + counts[2]))
  printf '%s: %s, %d s\n' "$name" "$([ "$status" = 0 ] && echo good || echo FAILED)" $((SECONDS - began))
}

# tally STATUS: reads what a suite has printed, and prints how many checks passed, failed and were skipped. They stand in
# its last line, 'N passed, N failed[, N skipped]', or else in the lines of ctest, or else in those of each run of
# unittest. A suite without any of these is one check, and one more for each of its lines 'skip WHAT'.
tally() {
  awk -v status="$1" '
    function number(name) { return match($0, name "[0-9]+") ? substr($0, RSTART + length(name)) + 0 : 0 }
    { last = $0 }
    /^skip / { named++ }
    /^[0-9]+% tests passed, [0-9]+ tests failed out of [0-9]+$/ { all = $NF; bad = $4 }
    /^\t *[0-9]+ - .* \(Skipped\)$/ { out++ }
    /^Ran [0-9]+ tests? in / { ran += $2 }
    /^(OK|FAILED)( \(.*\))?$/ {
      sub(/expected failures/, "expected")
      wrong += number("failures=") + number("errors=")
      left += number("skipped=")
    }
    END {
      if (last ~ /^[0-9]+ passed, [0-9]+ failed(, [0-9]+ skipped)?$/) {
        split(last, word, " ")
        good = word[1]; failed = word[3]; skipped = word[5]
      } else if (all != "") {
        good = all - bad - out; failed = bad; skipped = out
      } else if (ran != "") {
        good = ran - wrong - left; failed = wrong; skipped = left
      } else {
        good = status == 0; skipped = named
      }
      if (good < 0) good = 0
      if (failed == 0 && (status != 0 || good + skipped == 0)) failed = 1
      print good + 0, failed + 0, skipped + 0
    }'
}

summary() {
  printf '\n%d passed, %d failed, %d skipped\n' $passed $failed $skipped
  [ $failed = 0 ]
}
