#!/usr/bin/env bash
# loader-tool xml and bxml: show trees of text and binary files, convert
# text to both binary versions and back, and refuse broken files with the
# position and a non-zero status.
set -u
tool=${LOADER_TOOL:?}
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
fail=0
check() { if ! eval "$2"; then echo "FAIL: $1"; fail=1; fi; }

printf '<?xml version="1.0"?>\r\n<Config Name="a &amp; b">\r\n  <Menu Key="F1">Start\tnow &#1;</Menu>\r\n  tail<!-- c --><![CDATA[x\r\ny]]>\r\n  <Jobs/>\r\n</Config>\r\n' >"$tmp/c.xml"
expected='element Config
  attribute Name = "a & b"
  element Menu
    attribute Key = "F1"
    text "Start now \u0001"
  text " tailx\ny "
  element Jobs'
out=$("$tool" xml "$tmp/c.xml"); rc=$?
check "text file shown" '[ $rc -eq 0 ] && [ "$out" = "$expected" ]'

"$tool" bxml "$tmp/c.xml" "$tmp/c.bxml"; rc=$?
check "bxml succeeds" '[ $rc -eq 0 ]'
check "bxml writes version 2" '[ "$(head -c 5 "$tmp/c.bxml" | od -An -c | tr -d " ")" = "BXML002" ]'
out=$("$tool" xml "$tmp/c.bxml"); rc=$?
check "version 2 reads back the same tree" '[ $rc -eq 0 ] && [ "$out" = "$expected" ]'

"$tool" bxml --version 1 "$tmp/c.xml" "$tmp/c1.bxml"; rc=$?
check "version 1 written" '[ $rc -eq 0 ] && [ "$(head -c 5 "$tmp/c1.bxml" | od -An -c | tr -d " ")" = "BXML001" ]'
out=$("$tool" xml "$tmp/c1.bxml"); rc=$?
check "version 1 reads back the same tree" '[ $rc -eq 0 ] && [ "$out" = "$expected" ]'

"$tool" bxml "$tmp/c1.bxml" "$tmp/c2.bxml"; rc=$?
check "binary input converts too" '[ $rc -eq 0 ] && cmp -s "$tmp/c.bxml" "$tmp/c2.bxml"'

printf '<a>\n  <b></c></a>\n' >"$tmp/bad.xml"
err=$("$tool" xml "$tmp/bad.xml" 2>&1 >/dev/null); rc=$?
check "mismatched tag refused" '[ $rc -eq 1 ]'
check "message names line and column" '[ "$err" = "loader-tool: $tmp/bad.xml: malformed XML at line 2, column 6" ]'
"$tool" bxml "$tmp/bad.xml" "$tmp/bad.bxml" 2>/dev/null; rc=$?
check "bxml refuses malformed input and writes nothing" '[ $rc -eq 1 ] && [ ! -e "$tmp/bad.bxml" ]'

head -c 20 "$tmp/c.bxml" >"$tmp/cut.bxml"
err=$("$tool" xml "$tmp/cut.bxml" 2>&1 >/dev/null); rc=$?
check "truncated binary refused" '[ $rc -eq 1 ] && grep -q "malformed XML at line 1, column 1: The end of the file has been reached" <<<"$err"'

printf 'BXML\003\000' >"$tmp/v3.bxml"
"$tool" xml "$tmp/v3.bxml" >/dev/null 2>&1; rc=$?
check "version 3 refused" '[ $rc -eq 1 ]'

printf '<a>&#0;</a>' >"$tmp/nul.xml"
out=$("$tool" xml "$tmp/nul.xml"); rc=$?
check "zero character shown escaped" '[ $rc -eq 0 ] && [ "$out" = "$(printf "element a\n  text \"\\\\u0000\"")" ]'
err=$("$tool" bxml "$tmp/nul.xml" "$tmp/nul.bxml" 2>&1); rc=$?
check "bxml refuses what cannot come back" '[ $rc -eq 1 ] && grep -q "cannot be written as binary XML" <<<"$err"'

"$tool" xml "$tmp/missing.xml" >/dev/null 2>&1; rc=$?
check "missing file refused" '[ $rc -eq 1 ]'
"$tool" xml >/dev/null 2>&1; rc=$?
check "usage error" '[ $rc -eq 2 ]'
"$tool" bxml --version 3 "$tmp/c.xml" "$tmp/x.bxml" >/dev/null 2>&1; rc=$?
check "unknown version is a usage error" '[ $rc -eq 2 ]'

[ $fail -eq 0 ] && echo "xml: all cases passed"
exit $fail
