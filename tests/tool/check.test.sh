#!/usr/bin/env bash
# loader-tool check: accepts the demo configuration and shows its tree;
# refuses broken ones with the loader's own report and a non-zero status.
set -u
tool=${LOADER_TOOL:?}
src=${SOURCE_DIR:?}
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
fail=0
check() { if ! eval "$2"; then echo "FAIL: $1"; fail=1; fi; }

out=$("$tool" check "$src/demo/demo.xml"); rc=$?
check "demo accepted" '[ $rc -eq 0 ]'
check "nested menu shown" 'grep -q "Menu \"Nested menu\"" <<<"$out"'
check "default entry marked" 'grep -q "\[.1.\] default" <<<"$out"'

printf '<C><Menu><Topic Delay="3"/><Entry Key="a"><Chainload/></Entry></Menu></C>' >"$tmp/nodefault.xml"
err=$("$tool" check "$tmp/nodefault.xml" 2>&1); rc=$?
check "delay without default refused" '[ $rc -ne 0 ]'
check "format error text" 'grep -q "^Error 0x1480009: The configuration file has an incorrect format.$" <<<"$err"'

err=$("$tool" check "$tmp/missing.xml" 2>&1); rc=$?
check "missing file refused" '[ $rc -ne 0 ] && grep -q "^Error 0x40007\|^Error 0x40011" <<<"$err"'

printf '<C><Chainload Executable="\\EFI\\x.efi"/><Jobs><Rename FileNameSource="a" FileNameTarget="b"/></Jobs></C>' >"$tmp/jobs.xml"
out=$("$tool" check "$tmp/jobs.xml"); rc=$?
check "jobs shown" '[ $rc -eq 0 ] && grep -q "FileNameSource: a" <<<"$out" && grep -q "Chainload \"\\\\EFI\\\\x.efi\"" <<<"$out"'

[ $fail -eq 0 ] && echo "check: all cases passed"
exit $fail
