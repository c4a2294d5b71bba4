#!/bin/sh
# make_certs.sh DIR: a test CA and server certificates made afresh by the
# openssl command, so no key is kept in the tree and none expires on us.
#   ca.pem           the test CA, which the tests trust (--ca-file, RelayCAFile)
#   good.pem         localhost and 127.0.0.1, signed by the CA; key.pem its key
#   expired.pem      the same, its validity over (notAfter a day before notBefore)
#   stranger.pem     the same, signed by a CA that nobody trusts
set -eu
cd "$1"
openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -subj /CN=qbsmtp-test-ca -days 2 2>/dev/null
openssl req -x509 -newkey rsa:2048 -nodes -keyout other.key -out other.pem -subj /CN=stranger-ca -days 2 2>/dev/null
openssl req -newkey rsa:2048 -nodes -keyout key.pem -out server.csr -subj /CN=localhost 2>/dev/null
printf 'subjectAltName=DNS:localhost,IP:127.0.0.1\n' > san.ext
sign() { openssl x509 -req -in server.csr -CA "$1" -CAkey "$2" -days "$3" -extfile san.ext -out "$4" 2>/dev/null; }
sign ca.pem ca.key 1 good.pem
sign ca.pem ca.key -1 expired.pem
sign other.pem other.key 1 stranger.pem
