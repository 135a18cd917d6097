#!/bin/sh
# Makes a certificate authority and, for each name, the three PEM files that
# tarnwick looks for in its key directory ("keydir"):
#
#   NAME.key     the private key
#   NAME.cert    the certificate, signed by the authority
#   NAME.cacert  the authority's certificate
#
# Usage: make_certs.sh DIR [--foreign] NAME [[--foreign] NAME]...
#
# The authority is DIR/ca.key and DIR/ca.cert; it is made on the first call
# and used again by later calls on the same DIR. "--foreign" gives the name
# that follows a certificate signed by another authority (DIR/foreign-ca.*)
# instead, while its NAME.cacert is still the first authority's: a peer that
# verifies certificates against DIR/ca.cert refuses it. Keys are EC P-256;
# certificates hold 127.0.0.1 and localhost and serve both ends of a
# connection. Needs the openssl command.
set -eu

usage() {
    echo "usage: $0 DIR [--foreign] NAME [[--foreign] NAME]..." >&2
    exit 2
}

[ $# -ge 2 ] || usage
dir=$1
shift
mkdir -p "$dir"
umask 077

days=365

# make_authority BASE SUBJECT: BASE.key and BASE.cert, unless they exist.
make_authority() {
    [ -s "$1.cert" ] && [ -s "$1.key" ] && return 0
    openssl req -x509 -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes \
        -keyout "$1.key" -out "$1.cert" -days "$days" -subj "$2" \
        -addext "basicConstraints=critical,CA:TRUE" \
        -addext "keyUsage=critical,keyCertSign,cRLSign" 2>/dev/null
}

# make_leaf NAME AUTHORITY: NAME.key and NAME.cert signed by AUTHORITY.
make_leaf() {
    ext="$dir/.$1.ext"
    cat >"$ext" <<EOF
basicConstraints=critical,CA:FALSE
keyUsage=critical,digitalSignature,keyAgreement
extendedKeyUsage=serverAuth,clientAuth
subjectAltName=IP:127.0.0.1,DNS:localhost
EOF
    openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes \
        -keyout "$dir/$1.key" -out "$dir/.$1.csr" -subj "/O=tarnwick/CN=$1" 2>/dev/null
    openssl x509 -req -in "$dir/.$1.csr" -CA "$2.cert" -CAkey "$2.key" \
        -set_serial "0x$(openssl rand -hex 8)" -days "$days" -extfile "$ext" \
        -out "$dir/$1.cert" 2>/dev/null
    rm -f "$ext" "$dir/.$1.csr"
}

make_authority "$dir/ca" "/O=tarnwick/CN=tarnwick test authority"

foreign=0
named=0
for arg in "$@"; do
    if [ "$arg" = "--foreign" ]; then
        foreign=1
        continue
    fi
    case $arg in
        "" | */* | -*) usage ;;
    esac
    if [ $foreign -eq 1 ]; then
        make_authority "$dir/foreign-ca" "/O=elsewhere/CN=another authority"
        make_leaf "$arg" "$dir/foreign-ca"
    else
        make_leaf "$arg" "$dir/ca"
    fi
    cp "$dir/ca.cert" "$dir/$arg.cacert"
    foreign=0
    named=$((named + 1))
done
[ $named -ge 1 ] || usage
chmod 644 "$dir"/*.cert "$dir"/*.cacert
