#!/usr/bin/env bash
# A throwaway MIT Kerberos KDC in a directory of its own, for the GSSAPI tests: its own realm,
# configuration, database, a service key for slapd (ldap/localhost) and a user principal whose
# password is kept in a file for kinit. Never reads or writes the machine's Kerberos files.
set -euo pipefail

REALM=WZR.TEST
USER=alice
SERVICE=ldap/localhost
SBIN=${WZR_KRB5_SBIN:-/usr/sbin}

die() { echo "kdc-sandbox: $*" >&2; exit 1; }

# The variables every Kerberos program of the sandbox needs.
env_of() {
    local dir=$1
    printf 'KRB5_CONFIG=%s\nKRB5_KDC_PROFILE=%s\nKRB5_KTNAME=FILE:%s\nKRB5CCNAME=FILE:%s\n' \
        "$dir/krb5.conf" "$dir/kdc.conf" "$dir/ldap.keytab" "$dir/ccache"
}

cmd_init() {
    local dir=${1:?init needs a directory} port=${2:?init needs a port}
    [ -x "$SBIN/krb5kdc" ] && [ -x "$SBIN/kdb5_util" ] || die "krb5-kdc is not installed"
    mkdir -p "$dir"
    dir=$(cd "$dir" && pwd)
    cat > "$dir/krb5.conf" <<EOC
[libdefaults]
    default_realm = $REALM
    dns_lookup_kdc = false
    dns_lookup_realm = false
    dns_canonicalize_hostname = false
    rdns = false
    udp_preference_limit = 1
[realms]
    $REALM = {
        kdc = 127.0.0.1:$port
    }
EOC
    cat > "$dir/kdc.conf" <<EOC
[kdcdefaults]
    kdc_ports = $port
    kdc_tcp_ports = $port
[realms]
    $REALM = {
        database_name = $dir/principal
        key_stash_file = $dir/stash
        acl_file = $dir/kadm5.acl
        max_life = 1h
    }
[logging]
    kdc = FILE:$dir/kdc.log
EOC
    : > "$dir/kadm5.acl"
    printf '%s\n' "$USER-krb-secret" > "$dir/user.password"
    env_of "$dir" > "$dir/kdc.env"
    set -a; . "$dir/kdc.env"; set +a
    "$SBIN/kdb5_util" -r "$REALM" -P "master-$RANDOM$RANDOM" create -s > "$dir/init.log" 2>&1 ||
        { cat "$dir/init.log" >&2; die "kdb5_util create failed"; }
    "$SBIN/kadmin.local" -r "$REALM" -q "addprinc -pw $USER-krb-secret $USER" >> "$dir/init.log" 2>&1
    "$SBIN/kadmin.local" -r "$REALM" -q "addprinc -randkey $SERVICE" >> "$dir/init.log" 2>&1
    "$SBIN/kadmin.local" -r "$REALM" -q "ktadd -k $dir/ldap.keytab $SERVICE" >> "$dir/init.log" 2>&1
    [ -s "$dir/ldap.keytab" ] || { cat "$dir/init.log" >&2; die "no service key"; }
    printf 'REALM=%s\nUSER=%s\n' "$REALM" "$USER" >> "$dir/kdc.env"
}

# Starts the KDC as a daemon on a free loopback port and takes the user's ticket.
cmd_start() {
    local dir=${1:?start needs a directory} port i
    port=$(bash "$(dirname "${BASH_SOURCE[0]}")/slapd-sandbox.sh" free-port)
    cmd_init "$dir" "$port"
    dir=$(cd "$dir" && pwd)
    set -a; . "$dir/kdc.env"; set +a
    "$SBIN/krb5kdc" -r "$REALM" -P "$dir/kdc.pid" > "$dir/run.log" 2>&1 ||
        { cat "$dir/run.log" >&2; die "krb5kdc did not start"; }
    for ((i = 0; i < 1000; i++)); do
        (exec 3<> "/dev/tcp/127.0.0.1/$port") 2> /dev/null && break
        sleep 0.01
    done
    cmd_kinit "$dir"
}

# Stops the KDC of DIR by its pid and waits until it is gone.
cmd_stop() {
    local dir=${1:?stop needs a directory} pid i
    [ -f "$dir/kdc.pid" ] || return 0
    pid=$(cat "$dir/kdc.pid")
    kill -TERM "$pid" 2> /dev/null || true
    for ((i = 0; i < 500; i++)); do
        kill -0 "$pid" 2> /dev/null || break
        sleep 0.01
    done
    rm -f "$dir/kdc.pid"
}

# kinit reads the password from its standard input when that is not a terminal.
cmd_kinit() {
    local dir=${1:?kinit needs a directory}
    set -a; . "$dir/kdc.env"; set +a
    kinit "$USER@$REALM" < "$dir/user.password" > "$dir/kinit.log" 2>&1 ||
        { cat "$dir/kinit.log" >&2; die "kinit failed"; }
}

case ${1:-} in
    init) shift; cmd_init "$@" ;;
    start) shift; cmd_start "$@" ;;
    stop) shift; cmd_stop "$@" ;;
    kinit) shift; cmd_kinit "$@" ;;
    *) echo "usage: kdc-sandbox.sh init DIR PORT | start DIR | stop DIR | kinit DIR" >&2
       exit 2 ;;
esac
