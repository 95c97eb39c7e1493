#!/bin/sh
# Runs a test program in private user, mount and network namespaces where /etc/resolv.conf is
# tests/data/dns/resolv.conf (127.0.0.1 port 53: this namespace's own, where the program's DNS
# responder listens); the machine's resolver configuration and port 53 are never touched.
conf=$(dirname "$0")/../data/dns/resolv.conf
unshare -rmn true 2> /dev/null || exec "$@" # no namespaces here: the tests that need them skip
exec unshare -rmn sh -c 'ip link set lo up && mount --bind "$0" /etc/resolv.conf &&
    WZR_DNS_SANDBOX=1 exec "$@"' "$conf" "$@"
