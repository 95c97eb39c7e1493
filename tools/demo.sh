#!/usr/bin/env bash
# Demonstration: installs what is missing, builds the wzrldap tool, starts a throwaway slapd
# holding the tests' sample directory (with 2,000 bulk entries, a size limit of 500, and a CA and
# a server certificate made by openssl), searches, adds and modifies through wzrldap, searches
# again over LDAPS and with StartTLS, binds with SASL (SCRAM-SHA-256 through the plug-in),
# meets a referral, lists the bulk entries page by page past the size limit, shows a sorted
# window, and stops the server by its pid.
# Usage: bash tools/demo.sh [BUILD_DIR]
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${1:-$ROOT/build}
SANDBOX="$ROOT/tools/slapd-sandbox.sh"

bash "$ROOT/tools/install-deps.sh"
echo "== building wzrldap"
mkdir -p "$BUILD"
cmake -S "$ROOT" -B "$BUILD" -G Ninja > "$BUILD/demo-build.log" 2>&1 &&
    cmake --build "$BUILD" --target wzrldap wzrkit_ssl wzrsasl -j "$(nproc)" \
        >> "$BUILD/demo-build.log" 2>&1 ||
    { cat "$BUILD/demo-build.log"; exit 1; }
WZRLDAP="$BUILD/tools/wzrldap"

DIR=$(mktemp -d /tmp/wzrdemo.XXXXXX)
cleanup() {
    bash "$SANDBOX" stop "$DIR" || true
    rm -rf "$DIR"
}
trap cleanup EXIT
bash "$SANDBOX" init "$DIR" --bulk 2000 --controls --tls
URI=$(bash "$SANDBOX" start "$DIR")
LDAPS_URI="ldaps://localhost:$(cat "$DIR/ldaps_port")"
echo "== slapd $(cat "$DIR/slapd.pid") serves dc=example,dc=com at $URI and $LDAPS_URI"
# The toolkit built here is found through the library search path in local install mode.
export WZRKIT_LOCAL_INSTALL_MODE=1 LD_LIBRARY_PATH="$BUILD/wzrkit${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"

BASE="ou=people,dc=example,dc=com"
ADMIN=(-D "cn=Manager,dc=example,dc=com" -w manager-secret)

# Shows each command as it would be typed (with its LDIF input, if any), then runs it.
quoted() {
    local a out=()
    for a in "$@"; do
        if [[ $a =~ ^[A-Za-z0-9_./:=,@-]+$ ]]; then out+=("$a"); else out+=("'$a'"); fi
    done
    echo "${out[*]}"
}
show() {
    echo
    echo "\$ wzrldap $(quoted "$@")"
    "$WZRLDAP" "$@"
}
show_with_ldif() {
    local ldif
    ldif=$(cat)
    echo
    echo "\$ wzrldap $(quoted "$@") <<EOF"
    echo "$ldif"
    echo "EOF"
    "$WZRLDAP" "$@" <<< "$ldif"
}

show search -H "$URI" -b "$BASE" "(|(uid=alice)(cn=Smith*))" cn mail title

show_with_ldif add -H "$URI" "${ADMIN[@]}" <<EOF
dn: uid=newcomer,$BASE
objectClass: inetOrgPerson
uid: newcomer
cn: New Comer
sn: Comer
mail: newcomer@example.com
EOF

show_with_ldif modify -H "$URI" "${ADMIN[@]}" <<EOF
dn: uid=alice,$BASE
changetype: modify
replace: title
title: Head of Directory Services
-
add: mail
mail: alice@wzrldap.example
EOF

show search -H "$LDAPS_URI" --keydb "$DIR/tls/ca.pem" -b "$BASE" "(|(uid=alice)(uid=newcomer))" \
    cn mail title

show search -H "$URI" -ZZ --keydb "$DIR/tls/ca.pem" -b "$BASE" -s one "(|(uid=user001)(uid=user002))" uid

# SASL: the library hands a SCRAM-SHA-256 bind to the plug-in that qrvldap.conf names for the
# mechanism. Bound as herself, alice may change her own entry; a wrong password is refused with
# the server's text.
printf 'plugin sasl SCRAM-SHA-256 %s\n' "$BUILD/saslplug/libwzrsasl.so" > "$DIR/qrvldap.conf"
export QRVLDAP_CONF="$DIR"
show_with_ldif modify -H "$URI" -Y SCRAM-SHA-256 -U alice -w alice-secret <<EOF
dn: uid=alice,$BASE
changetype: modify
replace: description
description: changed by alice herself, bound with SCRAM-SHA-256
EOF
SASL_ALICE=(-H "$URI" -Y SCRAM-SHA-256 -U alice -b "$BASE" "(uid=alice)" description)
show search -w alice-secret "${SASL_ALICE[@]}"
show search -w wrong "${SASL_ALICE[@]}" 2>&1 || echo "(exit status $?)"

# A referral to a server that does not answer: followed by default, and reported with its URL
# when it cannot be; with --no-referrals not followed but printed as an LDIF comment.
show_with_ldif add -H "$URI" "${ADMIN[@]}" <<EOF
dn: ou=elsewhere,dc=example,dc=com
objectClass: referral
objectClass: extensibleObject
ou: elsewhere
ref: ldap://127.0.0.1:1/ou=elsewhere,dc=example,dc=com
EOF
show search -H "$URI" -b dc=example,dc=com "(ou=elsewhere)" 2>&1 || echo "(exit status $?)"
show search --no-referrals -H "$URI" -b dc=example,dc=com "(ou=elsewhere)"

# Entries counted rather than printed: the listing is long.
count_dns() {
    echo
    echo "\$ wzrldap $(quoted "$@") | grep -c '^dn:'"
    local status=0
    "$WZRLDAP" "$@" > "$DIR/listing.ldif" || status=$?
    grep -c '^dn:' "$DIR/listing.ldif" || true
    echo "(exit status $status)"
}
BULK="ou=bulk,dc=example,dc=com"
count_dns search -H "$URI" -b "$BULK" -s one "(uid=*)" uid
count_dns search -H "$URI" -b "$BULK" -s one -E pr=500/noprompt "(uid=*)" uid
show search -H "$URI" -b "$BASE" -s one -E "sss=-uid:caseIgnoreOrderingMatch" \
    -E vlv=1/1:user0505 "(uid=user0*)" uid

echo
echo "== stopping slapd $(cat "$DIR/slapd.pid")"
