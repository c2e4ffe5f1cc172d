#!/bin/bash
# Functions that the bash scripts in this folder share.
set -uo pipefail
[ "$(id -u)" = 0 ] || { echo "Needs root: packages are installed, and daemons run." >&2; exit 1; }
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export PYTHONDONTWRITEBYTECODE=1
export PRIVATE_ROOT=${PRIVATE_ROOT:-$$}
passed=0 failed=0 skipped=0

build_packages=(g++ cmake make libboost-dev libjsoncpp-dev libidn2-dev libcurl4-openssl-dev libgtest-dev
  python3 python3-jsonschema util-linux iproute2)
check_packages=(clang-format clang-tidy strace mandoc xfsprogs)
# SpamAssassin's installation needs gpg's agent when gpg is there.
mail_packages=(postfix postfix-ldap postfix-policyd-spf-perl libsasl2-modules dovecot-core dovecot-imapd
  dovecot-pop3d opendkim opendmarc publicsuffix gpg-agent spamassassin memcached openssl)
network_packages=(slapd ldap-utils dnsmasq-base samba samba-ad-provision samba-dsdb-modules samba-vfs-modules
  samba-common-bin python3-samba winbind libnss-winbind libpam-winbind krb5-user python3-aiosmtpd)
cross_packages=(g++-aarch64-linux-gnu g++-arm-linux-gnueabihf qemu-user-static mmdebstrap dpkg-dev fakeroot lintian)

heading() { printf '\n== %s\n' "$*"; }

# quietly WHAT COMMAND...: shows the command's output only when it fails.
quietly() {
  local what=$1 log="$scratch/log" began=$SECONDS
  shift
  if "$@" </dev/null >"$log" 2>&1; then
    printf '%s (%d s)\n' "$what" $((SECONDS - began))
    return 0
  fi
  tail -n 200 "$log"
  printf '%s: FAILED\n' "$what"
  return 1
}

# install_packages PACKAGE...: installs the packages that are missing and starts no service.
install_packages() {
  local missing
  missing=$(comm -23 <(printf '%s\n' "$@" | sort -u) \
    <(dpkg-query -W -f '${db:Status-Status} ${Package}\n${db:Status-Status} ${Package}:${Architecture}\n' |
      sed -n 's/^installed //p' | sort -u))
  [ -n "$missing" ] || return 0
  # shellcheck disable=SC2086
  quietly "Installed $(wc -w <<<"$missing") packages" apt_install $missing
}

apt_install() (
  policy=/usr/sbin/policy-rc.d
  [ ! -e $policy ] || cp -p $policy "$scratch/policy-rc.d"
  restore() { rm -f $policy; [ ! -e "$scratch/policy-rc.d" ] || mv "$scratch/policy-rc.d" $policy; }
  trap restore EXIT
  rm -f $policy
  printf '#!/bin/sh\nexit 101\n' >$policy
  chmod 755 $policy
  export DEBIAN_FRONTEND=noninteractive
  apt-get -o DPkg::Lock::Timeout=300 update || true  # an old index may be good enough
  apt-get -o DPkg::Lock::Timeout=300 install -y --no-install-recommends "$@"
)

# build PRESET [TARGET...]: two scripts may do so at once.
build() {
  local preset=$1
  shift
  mkdir -p "$top/build/$preset"
  (
    flock 9
    cmake -S "$top" --preset "$preset" && cmake --build "$top/build/$preset" -j "$(nproc)" ${1:+--target "$@"}
  ) 9<"$top/build/$preset"
}

# stage: installs the build of the preset "release" below $scratch/stage.
stage() {
  build release &&
    DESTDIR=$scratch/stage cmake --install "$top/build/release"
}

# private_root COMMAND...: runs the command on a private machine, see lab/private_root.
private_root() {
  "$top/lab/private_root" "$top" "$@"
}

# suite NAME COMMAND...: runs a test suite. When its last line is 'N passed, N failed[, N skipped]', these figures are
# added up; otherwise it counts as one check.
suite() {
  local name=$1 began=$SECONDS status sums
  shift
  heading "$name"
  "$@" 2>&1 | tee "$scratch/suite"
  status=${PIPESTATUS[0]}
  sums=$(grep -E '^[0-9]+ passed, [0-9]+ failed(, [0-9]+ skipped)?$' "$scratch/suite" | tail -n 1)
  # shellcheck disable=SC2086
  set -- ${sums:-$((status == 0)) passed, $((status != 0)) failed}
  passed=$((passed + $1)) failed=$((failed + $3)) skipped=$((skipped + ${5:-0}))
  [ "$status" = 0 ] || [ "$3" != 0 ] || failed=$((failed + 1))
  printf '%s: %s, %d s\n' "$name" "$([ "$status" = 0 ] && echo good || echo FAILED)" $((SECONDS - began))
}

summary() {
  printf '\n%d passed, %d failed, %d skipped\n' $passed $failed $skipped
  [ $failed = 0 ]
}
