#!/usr/bin/env bash
# One keychain, many processes: writers and readers of zarvo-keychain running
# at the same time lose nothing and never see a locked database; writers
# killed with SIGKILL at points spread over an add leave every committed item
# readable and the file intact.
set -euo pipefail
# shellcheck source=tests/e2e/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
e2e_init keychain-concurrency "${1:-}"
e2e_require_programs

writers=4
items_per_writer=12
readers=2
reads_per_reader=24
seeds=6
salt=$(e2e_random_secret)
keychain_file=$XDG_DATA_HOME/keychains/login.keychain-db

secret_for() { printf 'secret-%s-%s-%s' "$1" "$2" "$salt"; }  # SERVICE ACCOUNT

add_item() {  # SERVICE ACCOUNT
  secret_for "$1" "$2" | e2e_keychain add-generic-password -a "$2" -s "$1"
}

read_item() {  # SERVICE ACCOUNT
  e2e_keychain find-generic-password -a "$2" -s "$1" -w
}

# check_item SERVICE ACCOUNT: the item reads back with its own secret.
check_item() {
  local got
  got=$(read_item "$1" "$2" 2>&1) || { printf 'reading %s/%s failed: %s\n' "$1" "$2" "$got"; return 1; }
  [[ $got == "$(secret_for "$1" "$2")" ]] || { printf '%s/%s read back something else\n' "$1" "$2"; return 1; }
}

# --- writers and readers at once -------------------------------------------------
for ((seed = 1; seed <= seeds; seed++)); do
  add_item e2e-seed "seed-$seed" || e2e_fail "could not add the seed item $seed"
done

writer() {  # NUMBER
  local item output
  for ((item = 1; item <= items_per_writer; item++)); do
    output=$(add_item "e2e-writer-$1" "item-$item" 2>&1) ||
      printf 'writer %s: adding item-%s failed: %s\n' "$1" "$item" "$output"
    check_item "e2e-writer-$1" "item-$item" || true
  done
}

reader() {  # NUMBER
  local read
  for ((read = 0; read < reads_per_reader; read++)); do
    check_item e2e-seed "seed-$(((read + $1) % seeds + 1))" || true
  done
}

workers=()
for ((number = 1; number <= writers; number++)); do
  writer "$number" >"$E2E_TMP/writer-$number.problems" &
  workers+=($!)
done
for ((number = 1; number <= readers; number++)); do
  reader "$number" >"$E2E_TMP/reader-$number.problems" &
  workers+=($!)
done
for pid in "${workers[@]}"; do
  wait "$pid"
done
problems=$(cat "$E2E_TMP"/writer-*.problems "$E2E_TMP"/reader-*.problems)
[[ -z $problems ]] || e2e_fail "concurrent writers and readers ran into trouble:
$problems"

for ((number = 1; number <= writers; number++)); do
  for ((item = 1; item <= items_per_writer; item++)); do
    problem=$(check_item "e2e-writer-$number" "item-$item") || e2e_fail "after the run: $problem"
  done
done
e2e_say "ok: $writers writers added $((writers * items_per_writer)) items while $readers readers read; all present"

# --- writers killed with SIGKILL ---------------------------------------------------
# A large secret makes the write itself a good part of an add's run time, so
# that kills spread over that time land inside it as well as around it.
big_secret() { printf 'big-%s-' "$1"; head -c 393216 /dev/zero | tr '\0' 'k'; printf '%s' "$salt"; }

start=$(date +%s%N)
big_secret timing | e2e_keychain add-generic-password -a timing -s e2e-killed ||
  e2e_fail "could not add a large item"
add_nanoseconds=$(($(date +%s%N) - start))

steady() {  # a writer that is never killed, so kills happen amid other writes
  local item output
  for ((item = 1; item <= items_per_writer; item++)); do
    output=$(add_item e2e-steady "item-$item" 2>&1) ||
      printf 'steady writer: adding item-%s failed: %s\n' "$item" "$output"
  done
}
steady >"$E2E_TMP/steady.problems" &
steady_pid=$!

rounds=12
killed=0
for ((round = 1; round <= rounds; round++)); do
  delay=$(awk -v ns="$add_nanoseconds" -v k="$round" -v n="$rounds" 'BEGIN { printf "%.4f", ns * k / (n + 1) / 1e9 }')
  big_secret "$round" >"$E2E_TMP/victim-secret"
  status=0
  # --foreground: signal the tool alone, not timeout's own process group.
  timeout --foreground -s KILL "$delay" "$E2E_KEYCHAIN_TOOL" add-generic-password -a "victim-$round" \
    -s e2e-killed <"$E2E_TMP/victim-secret" 2>/dev/null || status=$?
  case $status in
    0) committed[round]=yes ;;
    137) committed[round]=no; killed=$((killed + 1)) ;;
    124) committed[round]=no ;;  # ended by itself just as the signal went out
    *) e2e_fail "adding victim-$round ended with status $status" ;;
  esac
done
wait "$steady_pid"
problems=$(cat "$E2E_TMP/steady.problems")
[[ -z $problems ]] || e2e_fail "the writer beside the killed ones failed: $problems"
((killed > 0)) || e2e_fail "no add was killed (one add took ${add_nanoseconds}ns)"

# A killed add is all or nothing: absent, or present with its whole secret.
for ((round = 1; round <= rounds; round++)); do
  if got=$(read_item e2e-killed "victim-$round" 2>/dev/null); then
    [[ $got == "$(big_secret "$round")" ]] || e2e_fail "victim-$round reads back a damaged secret (${#got} bytes)"
  elif [[ ${committed[round]} == yes ]]; then
    e2e_fail "victim-$round was committed but cannot be read"
  fi
done
for ((item = 1; item <= items_per_writer; item++)); do
  problem=$(check_item e2e-steady "item-$item") || e2e_fail "after the kills: $problem"
done
for ((seed = 1; seed <= seeds; seed++)); do
  problem=$(check_item e2e-seed "seed-$seed") || e2e_fail "after the kills: $problem"
done
add_item e2e-after "after-kills" || e2e_fail "the keychain takes no new item after the kills"
problem=$(check_item e2e-after "after-kills") || e2e_fail "after the kills: $problem"

# The file underneath is an SQLite database; it must have survived intact.
if [[ -f $keychain_file ]]; then
  integrity=$("$E2E_PYTHON" -c 'import sqlite3, sys
print(sqlite3.connect(sys.argv[1]).execute("PRAGMA integrity_check").fetchone()[0])' "$keychain_file")
  e2e_expect_eq "$integrity" ok "integrity of $keychain_file"
else
  e2e_fail "the default keychain is not at $keychain_file"
fi
e2e_say "ok: $killed of $rounds adds killed with SIGKILL over ${add_nanoseconds}ns; every committed item intact"
