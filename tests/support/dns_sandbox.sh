#!/bin/sh
# Runs a test program in private user, mount and network namespaces: loopback is brought up,
# and /etc/resolv.conf there is tests/data/dns/resolv.conf, naming 127.0.0.1 port 53, which is
# this namespace's own (the program's DNS responder listens there). The machine's resolver
# configuration and its port 53 are never touched.
conf=$(dirname "$0")/../data/dns/resolv.conf
exec unshare -rmn sh -c 'ip link set lo up && mount --bind "$0" /etc/resolv.conf && exec "$@"' \
    "$conf" "$@"
