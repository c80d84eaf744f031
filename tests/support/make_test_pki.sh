#!/bin/sh
# make_test_pki.sh DIR: makes the test PKI that test_pki.hpp describes in DIR, as
# NAME.key.pem and NAME.cert.pem, and marks it DIR/complete. It is made aside and renamed into
# place, so test processes that start at once share one result.
set -eu
dir=$1
work=$dir.tmp.$$
trap 'rm -rf "$work"' EXIT
rm -rf "$work"
mkdir -p "$work/db"
cd "$work"
: >db/index
echo 01 >db/serial
cat >db/openssl.cnf <<'EOF'
[ca]
default_ca = test
[test]
database = db/index
serial = db/serial
new_certs_dir = db
default_md = sha256
policy = any
preserve = yes
unique_subject = no
[any]
C = optional
O = optional
CN = optional
[req]
distinguished_name = none
[none]
EOF

# The usages and policies of test_pki.hpp.
oid=2.25.291234647299006649337646853579173005266
developer=$oid.1.1 client=$oid.1.2
regular=$oid.2.1 extended=$oid.2.2 system=$oid.2.3

ca='subjectKeyIdentifier = hash
authorityKeyIdentifier = none
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign'

# signer USAGE [POLICY [KEY-USAGE]]: the extensions of a signing certificate.
signer() {
    printf '%s\n' 'subjectKeyIdentifier = hash' 'authorityKeyIdentifier = keyid:always' \
        'basicConstraints = critical,CA:FALSE' "keyUsage = critical,${3:-digitalSignature}" \
        "extendedKeyUsage = $1"
    [ -z "${2:-}" ] || echo "certificatePolicies = $2"
}

# certify NAME ISSUER SUBJECT EXTENSIONS [KEY [FROM UNTIL]]: ISSUER "self" signs itself; KEY is
# ec (P-256, the default), rsa or the name of a certificate whose key it shares.
certify() {
    name=$1 issuer=$2 key=${5:-ec} from=${6:-20000101000000Z} until=${7:-21000101000000Z}
    case $key in
    ec) openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$name.key.pem" ;;
    rsa) openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out "$name.key.pem" ;;
    *) cp "$key.key.pem" "$name.key.pem" ;;
    esac
    openssl req -config db/openssl.cnf -new -utf8 -key "$name.key.pem" -subj "$3" -out db/csr
    printf '%s\n' "$4" >db/extensions
    signing="-cert $issuer.cert.pem -keyfile $issuer.key.pem"
    [ "$issuer" != self ] || signing="-selfsign -keyfile $name.key.pem"
    openssl ca -config db/openssl.cnf -batch -notext -utf8 -in db/csr -extfile db/extensions \
        -startdate "$from" -enddate "$until" -out "$name.cert.pem" $signing
}

certify ca self '/O=Tolva Test/CN=Package CA' "$ca"
certify ca2 self '/O=Elsewhere/CN=Other Package CA' "$ca"
dn='/C=FI/O=Example Apps/CN'
certify developer ca "$dn=Regular Developer" "$(signer $developer $regular)"
certify developer-extended ca "$dn=Extended Developer" "$(signer $developer $extended)"
certify developer-system ca "$dn=System Developer" "$(signer $developer $system)"
certify developer-expired ca "$dn=Expired Developer" "$(signer $developer $regular)" ec \
    20200101000000Z 20210101000000Z
certify developer-rsa ca "$dn=RSA Developer" "$(signer $developer $regular)" rsa
certify developer-other-ca ca2 "$dn=Foreign Developer" "$(signer $developer $regular)"
certify developer-no-signing ca "$dn=Encipher-only Developer" \
    "$(signer $developer $regular keyEncipherment)"
certify developer-no-key-id ca '/CN=Keyless Developer' "subjectKeyIdentifier = none
authorityKeyIdentifier = none
basicConstraints = critical,CA:FALSE
extendedKeyUsage = $developer" developer
certify client ca '/C=FI/O=株式会社サンプル/CN=Läntinen Sovellustalo Oy' "$(signer $client)"
certify server ca '/CN=pkg.example.org' "$(signer serverAuth)"

rm -rf db
: >complete
mv -T "$work" "$dir" 2>/dev/null || true
