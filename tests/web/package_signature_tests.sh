#!/bin/bash
# package_signature_tests.sh <package.msi> <publisher.crt> <foreign.crt> <report.xml>: what
# Wine's WinVerifyTrust does not check of a package's signature (its digest and its signer),
# checked natively with osslsigncode. The report counts like the test executables' reports.
set -u
package=$1 publisher=$2 foreign=$3 report=$4
changed=$(mktemp --suffix=.msi)
trap 'rm -f "$changed"' EXIT
# The middle of the package lies in its cabinet, which the signature covers.
/usr/bin/python3 -c 'import sys; b = bytearray(open(sys.argv[1], "rb").read()); b[len(b) // 2] ^= 1
open(sys.argv[2], "wb").write(b)' "$package" "$changed"

tests=0 failures=0
expect() {  # expect <ok|fail> <what> <package> <certificate>
  local got=fail
  tests=$((tests + 1))
  osslsigncode verify -in "$3" -CAfile "$4" >/dev/null 2>&1 && got=ok
  [[ $got == "$1" ]] || { failures=$((failures + 1)); echo "FAILED: $2 (the verification ended $got)"; }
}
expect ok "the package verifies against the publisher's certificate" "$package" "$publisher"
expect fail "the package does not verify against another signer's certificate" "$package" "$foreign"
expect fail "a copy with one changed byte does not verify" "$changed" "$publisher"

mkdir -p "$(dirname "$report")"
printf '<?xml version="1.0" encoding="UTF-8"?>\n<testsuites name="package_signature_tests" tests="%d" failures="%d" errors="0"/>\n' \
  "$tests" "$failures" >"$report"
echo "package_signature_tests: $tests checks, $failures failed"
((failures == 0))
