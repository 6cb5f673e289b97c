#!/usr/bin/env bash
# kroenhance: help, version and command-line errors.
set -u
tool=$1
fail() { echo "FAIL: $*" >&2; exit 1; }

out=$("$tool" --help) || fail "--help exited with $?"
grep -q "Usage: kroenhance COMMAND" <<<"$out" || fail "--help does not show the usage: $out"

out=$("$tool" --version) || fail "--version exited with $?"
[[ "$out" =~ ^kroenhance\ [0-9]+\.[0-9]+\.[0-9]+$ ]] || fail "--version printed '$out'"

"$tool" >/dev/null 2>&1; status=$?
[ $status -eq 2 ] || fail "no arguments exited with $status, expected 2"

err=$("$tool" frobnicate 2>&1 >/dev/null); status=$?
[ $status -eq 2 ] || fail "an unknown command exited with $status, expected 2"
grep -q 'unknown command "frobnicate"' <<<"$err" || fail "unknown command message: $err"
echo "ok"
