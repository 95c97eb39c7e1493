#!/usr/bin/env bash
# Installs the Debian packages that building and testing wzrldap needs, only those missing.
# `install-deps.sh` covers the test suite and the demonstration; `--ci` adds the clang
# toolchain used for the sanitizer and fuzzing builds. Uses sudo when not run as root.
set -euo pipefail

pkgs=(g++ cmake ninja-build pkg-config binutils perl libgtest-dev libgmock-dev
      libbenchmark-dev libldap-dev ldap-utils slapd iproute2 util-linux libssl-dev openssl
      libsasl2-dev libsasl2-modules libsasl2-modules-gssapi-mit krb5-kdc krb5-admin-server
      krb5-user libp11-dev softhsm2)
if [ "${1:-}" = --ci ]; then
    pkgs+=(clang libclang-rt-14-dev gcovr)
fi

missing=()
for p in "${pkgs[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q ' ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
if [ "$(id -u)" != 0 ]; then
    command -v sudo > /dev/null || {
        echo "install-deps: missing ${missing[*]}; run as root or install sudo" >&2
        exit 1
    }
    as_root=(sudo)
fi

echo "install-deps: installing ${missing[*]}"
"${as_root[@]}" apt-get update
# The tests run their own throwaway servers: the package must not create or start one.
echo "slapd slapd/no_configuration boolean true" | "${as_root[@]}" debconf-set-selections
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y --no-install-recommends "${missing[@]}" < /dev/null

# Should the package have started a system slapd anyway, stop it through its own service.
if grep -qE ':0185 [0-9A-F]+:0000 0A' /proc/net/tcp /proc/net/tcp6 2>/dev/null; then
    "${as_root[@]}" service slapd stop || true
fi
