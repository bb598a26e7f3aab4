#!/usr/bin/env bash
# Runs the probe as a user's program would be run: in a working directory full
# of the user's own .txt files, with HOME unset, empty or naming a missing
# directory, and with or without a home in the password database. Nothing in
# the working directory or at "/" may change and nothing may reach standard
# error; the log and the settings go under the database's home, or nowhere.
# Then three probes started at once must each get a log file of their own.
set -euo pipefail
probe=$1 work=$2
rm -rf "$work" && mkdir -p "$work"
export ZOR_SIM="pro@382/alias=probe"
fail() { echo "FAIL [$case]: $*" >&2; exit 1; }
log_dir() { echo "$1/Library/Application Support/zor_sdk"; }

# What the library would make at "/" for an empty HOME.
at_root() { ls -A / | grep -E '^(Library|\.KVO)$' || true; }
root_before=$(at_root)
for home_var in unset empty missing; do
  for passwd in home none; do
    case=$home_var-$passwd dir=$work/$home_var-$passwd
    mkdir -p "$dir/cwd" "$dir/home"
    for i in $(seq -w 1 22); do echo "chapter $i" >"$dir/cwd/chapter$i.txt"; done
    env_args=(-u HOME -u ZOR_TEST_PASSWD_HOME)
    case $home_var in
      empty) env_args+=(HOME=) ;;
      missing) env_args+=(HOME="$dir/missing") ;;
    esac
    [ "$passwd" = home ] && env_args+=(ZOR_TEST_PASSWD_HOME="$dir/home")

    (cd "$dir/cwd" && env "${env_args[@]}" "$probe" 2>"$dir/stderr") || fail "the probe failed: $(cat "$dir/stderr")"
    [ -s "$dir/stderr" ] && fail "standard error: $(cat "$dir/stderr")"
    [ "$(ls -A "$dir/cwd" | wc -l)" -eq 22 ] || fail "working directory changed: $(ls -A "$dir/cwd")"
    for i in $(seq -w 1 22); do
      [ "$(cat "$dir/cwd/chapter$i.txt")" = "chapter $i" ] || fail "chapter$i.txt lost"
    done
    [ "$(at_root)" = "$root_before" ] || fail "the library wrote at /"
    [ ! -e "$dir/missing" ] || fail "the missing home was created"

    if [ "$home_var" != missing ] && [ "$passwd" = home ]; then
      logs=("$(log_dir "$dir/home")"/log_*.txt)
      [ "${#logs[@]}" -eq 1 ] || fail "expected one log file, found ${logs[*]}"
      grep -Eq '\] \[info\] \[ZOR_focuser:[0-9]+ ZOROpen\] ID0: .+' "${logs[0]}" || fail "no open line"
      grep -Eq '\[ZOR_focuser:[0-9]+ ZORGetProperty\] Alias Name: ZOR\(probe\)' "${logs[0]}" ||
        fail "no alias line"
      [ "$(stat -c %a "$dir/home/.KVO")" = 700 ] || fail ".KVO is not private"
      [ -f "$dir/home/.KVO/ZORconfig.xml" ] || fail "no settings file"
    else
      [ -z "$(ls -A "$dir/home")" ] || fail "the database's home was used: $(ls -A "$dir/home")"
    fi
  done
done

case=same-second dir=$work/same-second
mkdir -p "$dir"
for i in 1 2 3; do HOME="$dir" "$probe" & done
wait
logs=("$(log_dir "$dir")"/log_*.txt)
[ "${#logs[@]}" -eq 3 ] || fail "expected three log files, found ${logs[*]}"
for log in "${logs[@]}"; do
  [ "$(grep -c 'ZOROpen\] ID0:' "$log")" -eq 1 ] || fail "$log holds $(grep -c 'ZOROpen' "$log") open lines"
done
echo "home fallback check passed"
