#!/usr/bin/env bash
# ksxctl.exe and Windows' own `reg` on one registry, under Wine: what ksxctl writes is where
# hosts read it, and what a host writes with the platform's tools ksxctl reads, with the
# registry's value types and the odd cases read as the SQLite store reads them.
#   ksxctl_registry_test.sh <wine-run> <ksxctl.exe>
set -euo pipefail
run=$1
ksxctl=$2
# Wine turns the command line into UTF-16 by the locale: non-ASCII arguments need a UTF-8 one.
export LC_ALL=C.UTF-8
status='HKCU\Software\VB and VBA Program Settings\KSX\Status'
failures=0

# Programs of Windows end their lines with CR LF.
ksx() { "$run" "$ksxctl" "$@" | tr -d '\r'; }
reg() { "$run" reg "$@" | tr -d '\r'; }
expect() {  # what, expected, actual
    if [ "$2" != "$3" ]; then
        echo "FAIL: $1: expected [$2], got [$3]" >&2
        failures=$((failures + 1))
    fi
}

reg delete "$status" /f >/dev/null 2>&1 || true

# ksxctl writes a string value at the hosts' path.
ksx set Status Due 12.5
expect "reg query after ksxctl set" "Due REG_SZ 12.5" \
    "$(reg query "$status" /v Due | awk '$1 == "Due" {print $1, $2, $3}')"

# A host's values, each of the registry's own types, as ksxctl reads them.
reg add "$status" /v Credit /t REG_SZ /d 7.25 /f >/dev/null
reg add "$status" /v Tubes /t REG_DWORD /d 12 /f >/dev/null
reg add "$status" /v BDCassette /t REG_QWORD /d 5000000000 /f >/dev/null
reg add "$status" /v Path /t REG_EXPAND_SZ /d '%TEMP%\ksx' /f >/dev/null
reg add "$status" /v Blob /t REG_BINARY /d 0102ff /f >/dev/null
reg add "$status" /v Lines /t REG_MULTI_SZ /d 'a\0b' /f >/dev/null
reg add "$status" /v Cancel /t REG_SZ /d '' /f >/dev/null
reg add "$status" /v Text /t REG_SZ /d 'Código ERROR DE COMUNICACIÓN €' /f >/dev/null
expect "REG_SZ" "7.25" "$(ksx get Status Credit)"
expect "REG_DWORD, as its decimal text" "12" "$(ksx get Status Tubes)"
expect "REG_QWORD, as its decimal text" "5000000000" "$(ksx get Status BDCassette)"
expect "REG_EXPAND_SZ, unexpanded" '%TEMP%\ksx' "$(ksx get Status Path)"
expect "REG_BINARY, no text: missing" "" "$(ksx get Status Blob)"
expect "missing key" "" "$(ksx get Status Nothing)"
expect "non-ASCII" "Código ERROR DE COMUNICACIÓN €" "$(ksx get Status Text)"
expect "dump: texts and numbers, an empty value, no binary or multi-string" \
    "$(printf '%s\n' 'Status/BDCassette=5000000000' 'Status/Cancel=' 'Status/Credit=7.25' \
        'Status/Due=12.5' 'Status/Path=%TEMP%\ksx' 'Status/Text=Código ERROR DE COMUNICACIÓN €' \
        'Status/Tubes=12')" \
    "$(ksx dump Status)"

# ksxctl writes non-ASCII text as the host reads it, and replaces a host's number with a string.
# (reg query prints in the console's code page; an export is UTF-16 whatever the locale.)
ksx set Status Text 'Año €'
exported=$(mktemp -d)
trap 'rm -rf "$exported"' EXIT
reg export "$status" "$("$run" winepath -w "$exported/status.reg" 2>/dev/null)" /y >/dev/null
expect "reg export of non-ASCII" '"Text"="Año €"' \
    "$(iconv -f UTF-16 -t UTF-8 "$exported/status.reg" | tr -d '\r' | grep '^"Text"=')"
ksx set Status Tubes 13
expect "ksxctl set over a REG_DWORD" "Tubes REG_SZ 13" \
    "$(reg query "$status" /v Tubes | awk '$1 == "Tubes" {print $1, $2, $3}')"

reg delete "$status" /f >/dev/null
if [ "$failures" -ne 0 ]; then
    exit 1
fi
echo "ksxctl.exe and reg agree"
