#!/usr/bin/env bash
# Runs the probe as a user's program runs: in a working directory of the
# user's own .txt files, with HOME unset, empty or naming a missing directory,
# with or without a home in the password database. The working directory, "/"
# and standard error stay untouched; the log and the settings go under the
# database's home, or nowhere. Three probes started at once log apart.
set -euo pipefail
probe=$1 work=$2
rm -rf "$work" && mkdir -p "$work/chapters"
for i in $(seq -w 1 22); do echo "chapter $i" >"$work/chapters/chapter$i.txt"; done
export ZOR_SIM="pro@382/alias=probe"
fail() { echo "FAIL [$case]: $*" >&2; exit 1; }
log_dir() { echo "$1/Library/Application Support/zor_sdk"; }
at_root() { ls -A / | grep -E '^(Library|\.KVO)$' || true; } # what an empty HOME once made there
root_before=$(at_root)

for home_var in unset empty missing; do
  for passwd in home none; do
    case=$home_var-$passwd dir=$work/$home_var-$passwd
    mkdir -p "$dir/home" && cp -r "$work/chapters" "$dir/cwd"
    env_args=(-u HOME -u ZOR_TEST_PASSWD_HOME)
    [ "$home_var" = empty ] && env_args+=(HOME=)
    [ "$home_var" = missing ] && env_args+=(HOME="$dir/missing")
    [ "$passwd" = home ] && env_args+=(ZOR_TEST_PASSWD_HOME="$dir/home")

    (cd "$dir/cwd" && env "${env_args[@]}" "$probe" 2>"$dir/stderr") || fail "the probe failed: $(cat "$dir/stderr")"
    [ ! -s "$dir/stderr" ] || fail "standard error: $(cat "$dir/stderr")"
    diff -r "$work/chapters" "$dir/cwd" >&2 || fail "the working directory changed"
    [ "$(at_root)" = "$root_before" ] || fail "the library wrote at /"
    [ ! -e "$dir/missing" ] || fail "the missing home was created"
    if [ "$home_var" = missing ] || [ "$passwd" = none ]; then
      [ -z "$(ls -A "$dir/home")" ] || fail "the database's home was used"
      continue
    fi
    log=$(echo "$(log_dir "$dir/home")"/log_*.txt)
    grep -Eq '\] \[info\] \[ZOR_focuser:[0-9]+ ZOROpen\] ID0: .+' "$log" || fail "no open line in $log"
    grep -Eq '\[ZOR_focuser:[0-9]+ ZORGetProperty\] Alias Name: ZOR\(probe\)' "$log" || fail "no alias line"
    [ "$(stat -c %a "$dir/home/.KVO")" = 700 ] && [ -f "$dir/home/.KVO/ZORconfig.xml" ] || fail "settings"
  done
done

case=same-second dir=$work/same-second
mkdir -p "$dir"
for i in 1 2 3; do HOME="$dir" "$probe" & done
wait
logs=("$(log_dir "$dir")"/log_*.txt)
[ "${#logs[@]}" -eq 3 ] || fail "expected three log files, found ${logs[*]}"
for log in "${logs[@]}"; do
  [ "$(grep -c 'ZOROpen\] ID0:' "$log")" -eq 1 ] || fail "$log holds other than one open line"
done
echo "home fallback check passed"
