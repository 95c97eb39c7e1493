#!/usr/bin/env bash
# A throwaway slapd in a directory of its own: writes its configuration and the sample
# directory (tests/data plus generated people and bulk entries), loads it, starts and stops
# the server. The C++ test fixture and the demonstration both drive it, so they see one tree.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
DATA=$(cd "$HERE/../tests/data" && pwd)
SBIN=${WZR_SLAPD_SBIN:-/usr/sbin}

SUFFIX="dc=example,dc=com"
ROOTDN="cn=Manager,$SUFFIX"
ROOTPW="manager-secret"
USER_DN="uid=alice,ou=people,$SUFFIX"
USER_PW="alice-secret"
EXTERNAL_DN="uid=operator,ou=people,$SUFFIX"
KEYDB_PW="keydb-secret"
PEOPLE=300

usage() {
    cat <<EOF
usage: slapd-sandbox.sh COMMAND ...
  init DIR [--bulk N] [--extra FILE] [--controls] [--tls [--verify-client try|demand]]
                                       write slapd.conf and the sample tree into DIR, load it;
                                       --controls adds the overlays that serve sorting, virtual
                                       list views and password policy, proxied authorisation,
                                       and a size limit of 500 that paged searches may pass;
                                       --tls makes a CA, server and client certificates (DIR/tls)
  ldif [--bulk N]                      print the sample tree as LDIF
  run DIR PORT [LDAPS_PORT]            run slapd in the foreground (for a supervising process)
  start DIR [PORT [LDAPS_PORT]]        start slapd as a daemon; prints its ldap:// URL
  stop DIR                             stop the slapd of DIR by its pid and wait until it is gone
  free-port                            print a free loopback TCP port
DIR should be short: the ldapi socket path DIR/ldapi must fit in 108 bytes.
EOF
}

die() { echo "slapd-sandbox: $*" >&2; exit 1; }

# The people: varied attributes, some multi-valued, some values that an LDIF writer must
# encode (leading blank, leading colon), every 50th with a photo.
gen_people() {
    local photo
    photo=$(perl -e 'print map chr, 0..255' | base64 -w0)
    awk -v n="$PEOPLE" -v suffix="$SUFFIX" -v photo="$photo" 'BEGIN {
        split("Ada Ben Cleo Dov Eva Finn Gia Hal Ines Jon Kai Lea Max Nia Oto Pia Quin Rex Sia Tom",
              given, " ");
        split("Abbott Baker Chen Diaz Evans Fox Garcia Hughes Ito Jones Khan Lopez Moreau Novak " \
              "Ortiz Patel", family, " ");
        split("Engineer Manager Analyst Designer Operator Technician", titles, " ");
        for (i = 1; i <= n; i++) {
            uid = sprintf("user%03d", i);
            g = given[(i - 1) % 20 + 1]; f = family[(i * 7 - 1) % 16 + 1];
            printf "dn: uid=%s,ou=people,%s\n", uid, suffix;
            printf "objectClass: inetOrgPerson\nuid: %s\n", uid;
            printf "cn: %s %s\nsn: %s\ngivenName: %s\n", g, f, f, g;
            printf "mail: %s@example.com\n", uid;
            if (i % 3 == 0) printf "mail: %s.%s@example.org\n", tolower(g), tolower(f);
            printf "telephoneNumber: +1 555 %04d\n", i;
            printf "employeeNumber: %d\n", 1000 + i;
            printf "departmentNumber: %d\n", i % 7;
            printf "title: %s\n", titles[i % 6 + 1];
            if (i % 10 == 0) printf "description:: IGxlYWRpbmcgYmxhbmsgYW5kOiBjb2xvbg==\n";
            else if (i % 10 == 5) printf "description: Works on floor %d; room %d\n", i % 9, i;
            if (i % 50 == 0) printf "jpegPhoto:: %s\n", photo;
            printf "\n";
        }
        printf "dn: cn=staff,ou=groups,%s\nobjectClass: groupOfNames\ncn: staff\n", suffix;
        for (i = 1; i <= 20; i++) printf "member: uid=user%03d,ou=people,%s\n", i, suffix;
        printf "\n";
    }'
}

# Bulk entries for volume tests: about ten attributes each.
gen_bulk() {
    awk -v n="$1" -v suffix="$SUFFIX" 'BEGIN {
        for (i = 1; i <= n; i++) {
            printf "dn: uid=bulk%06d,ou=bulk,%s\n", i, suffix;
            printf "objectClass: inetOrgPerson\nuid: bulk%06d\n", i;
            printf "cn: Bulk Entry %d\nsn: Entry%d\ngivenName: Bulk\n", i, i;
            printf "mail: bulk%06d@example.com\ntelephoneNumber: +1 555 %07d\n", i, i;
            printf "employeeNumber: %d\ndepartmentNumber: %d\ntitle: Generated\n", i, i % 100;
            printf "l: Rack %d\n", i % 40;
            printf "description: Generated entry number %d for volume tests\n\n", i;
        }
    }'
}

write_ldif() {
    local bulk=$1 extra=$2
    cat "$DATA/sample.ldif"
    printf '\n'
    gen_people
    [ "$bulk" -gt 0 ] && gen_bulk "$bulk"
    [ "$CONTROLS" = 1 ] && { printf '\n'; cat "$DATA/controls.ldif"; }
    if [ -n "$extra" ]; then printf '\n'; cat "$extra"; printf '\n'; fi
    return 0
}

# ldapi:// takes the socket path percent-encoded in the host part.
ldapi_url() {
    local path=$1 out="" c i
    for ((i = 0; i < ${#path}; i++)); do
        c=${path:i:1}
        case $c in
            [A-Za-z0-9._~-]) out+=$c ;;
            *) out+=$(printf '%%%02X' "'$c") ;;
        esac
    done
    printf 'ldapi://%s' "$out"
}

free_port() {
    perl -MIO::Socket::INET -e '
        my $s = IO::Socket::INET->new(LocalAddr => "127.0.0.1", LocalPort => 0, Listen => 1)
            or die "no free port: $!\n";
        print $s->sockport, "\n";'
}

parse_gen_opts() {
    BULK=0 EXTRA="" CONTROLS=0 TLS="" VERIFY=try
    while [ $# -gt 0 ]; do
        case $1 in
            --controls) CONTROLS=1; shift ;;
            --tls) TLS=1; shift ;;
            --verify-client) VERIFY=${2:?--verify-client needs try or demand}; shift 2 ;;
            --bulk) BULK=${2:?--bulk needs a number}; shift 2 ;;
            --extra) EXTRA=${2:?--extra needs a file}; shift 2 ;;
            *) die "unknown option $1" ;;
        esac
    done
    [[ $BULK =~ ^[0-9]+$ ]] || die "--bulk takes a number"
    [[ $VERIFY =~ ^(try|demand)$ ]] || die "--verify-client takes try or demand"
}

# One EC key and a certificate signed by CA (self-signed when CA is empty), with extensions.
make_cert() {
    local dir=$1 name=$2 subj=$3 ca=$4 ext=$5
    openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes \
        -keyout "$dir/$name.key" -out "$dir/$name.csr" -subj "$subj" 2>/dev/null
    printf '%b\n' "$ext" > "$dir/$name.ext"
    if [ -z "$ca" ]; then
        openssl x509 -req -in "$dir/$name.csr" -signkey "$dir/$name.key" -days 3 \
            -extfile "$dir/$name.ext" -out "$dir/$name.pem" 2>/dev/null
    else
        openssl x509 -req -in "$dir/$name.csr" -CA "$dir/$ca.pem" -CAkey "$dir/$ca.key" \
            -CAcreateserial -days 3 -extfile "$dir/$name.ext" -out "$dir/$name.pem" 2>/dev/null
    fi
}

# The sandbox CA, the server's certificate (localhost and 127.0.0.1), another CA the server
# does not use, and a client certificate for the EXTERNAL identity in a PKCS#12 key database
# labelled "operator" with its stash file (the password, read when none is given).
make_tls() {
    local dir=$1/tls ca_ext='basicConstraints=critical,CA:TRUE\nkeyUsage=critical,keyCertSign,cRLSign'
    mkdir -p "$dir"
    make_cert "$dir" ca "/CN=wzrldap sandbox CA" "" "$ca_ext"
    make_cert "$dir" other-ca "/CN=wzrldap other CA" "" "$ca_ext"
    make_cert "$dir" server "/CN=localhost" ca \
        'subjectAltName=DNS:localhost,IP:127.0.0.1\nextendedKeyUsage=serverAuth'
    make_cert "$dir" client "/DC=com/DC=example/OU=people/UID=operator" ca \
        'extendedKeyUsage=clientAuth'
    printf '%s\n' "$KEYDB_PW" > "$dir/client.sth"
    chmod 600 "$dir"/*.key "$dir/client.sth"
    openssl pkcs12 -export -in "$dir/client.pem" -inkey "$dir/client.key" -certfile "$dir/ca.pem" \
        -name operator -passout "pass:$KEYDB_PW" -out "$dir/client.p12"
    rm -f "$dir"/*.csr "$dir"/*.ext "$dir"/*.srl
}

tls_conf() {
    printf 'TLSCACertificateFile %s\nTLSCertificateFile %s\nTLSCertificateKeyFile %s\n' \
        "$1/tls/ca.pem" "$1/tls/server.pem" "$1/tls/server.key"
    printf 'TLSVerifyClient %s\n' "$2"
}

cmd_init() {
    local dir=${1:?init needs a directory}; shift
    parse_gen_opts "$@"
    [ -x "$SBIN/slapadd" ] || die "$SBIN/slapadd not found (install slapd)"
    mkdir -p "$dir/db"
    dir=$(cd "$dir" && pwd)
    local sock="$dir/ldapi"
    [ ${#sock} -lt 108 ] || die "socket path $sock is longer than 107 bytes"
    sed -e "s|@DIR@|$dir|g" -e "s|@SUFFIX@|$SUFFIX|g" -e "s|@ROOTDN@|$ROOTDN|g" \
        -e "s|@ROOTPW@|$ROOTPW|g" -e "s|@EXTERNAL_DN@|$EXTERNAL_DN|g" \
        -e "s|@UID@|$(id -u)|g" -e "s|@GID@|$(id -g)|g" \
        "$DATA/slapd.conf.in" > "$dir/slapd.conf"
    : > "$dir/global-extra.conf"
    : > "$dir/db-extra.conf"
    if [ "$CONTROLS" = 1 ]; then
        sed -e "s|@SUFFIX@|$SUFFIX|g" "$DATA/controls-global.conf" > "$dir/global-extra.conf"
        sed -e "s|@SUFFIX@|$SUFFIX|g" "$DATA/controls-db.conf" > "$dir/db-extra.conf"
    fi
    if [ -n "$TLS" ]; then
        make_tls "$dir"
        # Global directives: they must come before the first database section.
        { tls_conf "$dir" "$VERIFY"; cat "$dir/slapd.conf"; } > "$dir/slapd.conf.tls"
        mv "$dir/slapd.conf.tls" "$dir/slapd.conf"
    fi
    write_ldif "$BULK" "$EXTRA" > "$dir/data.ldif"
    "$SBIN/slapadd" -q -f "$dir/slapd.conf" -l "$dir/data.ldif" > "$dir/slapadd.log" 2>&1 ||
        { cat "$dir/slapadd.log" >&2; die "slapadd failed"; }
    cat > "$dir/sandbox.env" <<EOF
BASE=$SUFFIX
MANAGER_DN=$ROOTDN
MANAGER_PW=$ROOTPW
USER_DN=$USER_DN
USER_PW=$USER_PW
EXTERNAL_DN=$EXTERNAL_DN
LDAPI_PATH=$sock
LDAPI_URI=$(ldapi_url "$sock")
TLS_DIR=${TLS:+$dir/tls}
KEYDB_PW=${TLS:+$KEYDB_PW}
EOF
}

listen_urls() {
    printf 'ldap://127.0.0.1:%s/ %s' "$2" "$(ldapi_url "$1/ldapi")"
    [ -z "${3:-}" ] || printf ' ldaps://127.0.0.1:%s/' "$3"
}

cmd_run() {
    local dir=${1:?run needs a directory} port=${2:?run needs a port} ldaps=${3:-}
    rm -f "$dir/ldapi"
    exec "$SBIN/slapd" -d 0 -f "$dir/slapd.conf" -h "$(listen_urls "$dir" "$port" "$ldaps")"
}

wait_listening() {
    local i
    for ((i = 0; i < 1000; i++)); do
        if [ -S "$1/ldapi" ] && (exec 3<> "/dev/tcp/127.0.0.1/$2") 2> /dev/null; then
            return 0
        fi
        sleep 0.01
    done
    return 1
}

cmd_start() {
    local dir=${1:?start needs a directory} port=${2:-} tries=5 p lp=""
    dir=$(cd "$dir" && pwd)
    [ -f "$dir/slapd.conf" ] || die "$dir is not initialised (run init first)"
    while [ $tries -gt 0 ]; do
        p=${port:-$(free_port)}
        # A sandbox made with --tls listens for LDAPS too (its port in DIR/ldaps_port).
        [ -d "$dir/tls" ] && lp=${3:-$(free_port)}
        rm -f "$dir/ldapi"
        # The daemon may return a moment before its listeners accept: wait for them.
        if "$SBIN/slapd" -f "$dir/slapd.conf" -h "$(listen_urls "$dir" "$p" "$lp")" \
            > "$dir/slapd.log" 2>&1 && wait_listening "$dir" "$p"; then
            echo "$p" > "$dir/port"
            [ -z "$lp" ] || echo "$lp" > "$dir/ldaps_port"
            echo "ldap://127.0.0.1:$p"
            return 0
        fi
        cmd_stop "$dir"
        [ -n "$port" ] && break
        tries=$((tries - 1))
    done
    cat "$dir/slapd.log" >&2
    die "slapd did not start"
}

# Gone means no /proc entry or a zombie: a killed daemon may linger unreaped for a moment.
pid_alive() {
    local stat
    stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
    stat=${stat##*) }
    [ "${stat%% *}" != Z ]
}

cmd_stop() {
    local dir=${1:?stop needs a directory} pid i
    [ -f "$dir/slapd.pid" ] || return 0
    pid=$(cat "$dir/slapd.pid")
    kill -TERM "$pid" 2>/dev/null || true
    for ((i = 0; i < 200; i++)); do
        pid_alive "$pid" || break
        sleep 0.05
    done
    if pid_alive "$pid"; then
        kill -KILL "$pid" 2>/dev/null || true
        for ((i = 0; i < 100; i++)); do pid_alive "$pid" || break; sleep 0.05; done
    fi
    pid_alive "$pid" && die "slapd $pid did not stop"
    rm -f "$dir/slapd.pid" "$dir/port"
}

case ${1:-} in
    init) shift; cmd_init "$@" ;;
    ldif) shift; parse_gen_opts "$@"; write_ldif "$BULK" "$EXTRA" ;;
    run) shift; cmd_run "$@" ;;
    start) shift; cmd_start "$@" ;;
    stop) shift; cmd_stop "$@" ;;
    free-port) free_port ;;
    -h | --help | help) usage ;;
    *) usage >&2; exit 2 ;;
esac
