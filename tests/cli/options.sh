#!/usr/bin/env bash
# The programs' command lines, and the texts that describe them: the manual pages and the
# package's version must follow the programs, or the package ships a page that lies.
# usage: options.sh TAVROTEST TAVROSIM VERSION SOURCE_DIR
set -uo pipefail
TAVROTEST=$1 TAVROSIM=$2 VERSION=$3 SRC=$4
failures=0 checks=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# Runs a program with a time limit (a tool that takes an argument for a run would not end);
# sets OUT, ERR and STATUS.
run() {
  local err
  err=$(mktemp)
  OUT=$(timeout 10 "$@" 2>"$err")
  STATUS=$?
  ERR=$(<"$err")
  rm -f "$err"
  checks=$((checks + 1))
}

for program in "$TAVROTEST" "$TAVROSIM"; do
  name=$(basename "$program")
  run "$program" --version
  [[ $STATUS == 0 && $OUT == "$name $VERSION" && -z $ERR ]] ||
    fail "$name --version: status $STATUS, out '$OUT', err '$ERR'"
  run "$program" --help
  [[ $STATUS == 0 && $OUT == "usage: $name "* && -z $ERR ]] ||
    fail "$name --help: status $STATUS, err '$ERR'"
  help=$OUT

  # Every option the program names is described in its manual page (roff escapes removed), and
  # the page is of this version.
  page="$SRC/packaging/man/$name.1"
  text=$(sed -e 's/\\-/-/g' -e 's/\\f[BIRP]//g' "$page")
  for option in $(grep -o -- '--[a-z][a-z-]*' <<<"$help" | sort -u); do
    grep -q -- "$option" <<<"$text" || fail "$page does not describe $option"
  done
  grep -q "^\.TH [A-Z]* 1 \"[^\"]*\" \"TavroTest $VERSION\"" "$page" ||
    fail "$page is not marked as version $VERSION"
done

# What each program refuses: a usage text on stderr, nothing on stdout, status 2, and no run.
refused=(
  "$TAVROTEST|-h"
  "$TAVROTEST|--Version"
  "$TAVROTEST|--version=1"
  "$TAVROTEST|"
  "$TAVROTEST|--version --help"
  "$TAVROTEST|--help extra"
  "$TAVROTEST|extra --version"
  "$TAVROSIM|--bogus"
  "$TAVROSIM|--profile servo --version"
)
for row in "${refused[@]}"; do
  program=${row%%|*}
  read -r -a args <<<"${row#*|}"
  [[ ${row#*|} == "" ]] && args=("")
  run "$program" "${args[@]}"
  [[ $STATUS == 2 && -z $OUT && $ERR == *"usage: $(basename "$program")"* ]] ||
    fail "$(basename "$program") '${row#*|}': status $STATUS, out '$OUT', err '$ERR'"
done

# The package carries the version of the programs in it.
changelog=$(sed -n '1s/^tavrotest (\([^)]*\)).*/\1/p' "$SRC/debian/changelog")
checks=$((checks + 1))
[[ $changelog == "$VERSION" ]] ||
  fail "debian/changelog is at '$changelog', the programs at $VERSION"

echo "$((checks - failures)) passed, $failures failed"
((failures == 0))
