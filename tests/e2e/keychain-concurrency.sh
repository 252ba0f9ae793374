#!/usr/bin/env bash
# One keychain, many processes: writers and readers of zarvo-keychain running
# at the same time lose nothing and never see a locked database; writers
# killed with SIGKILL in the middle of writing leave every committed item
# readable and the file intact.
set -euo pipefail
# shellcheck source=tests/e2e/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
e2e_init keychain-concurrency "${1:-}"

writers=4
items_per_writer=8
readers=2
reads_per_reader=16
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

# --- writers killed with SIGKILL in the middle of a write -----------------------------
# strace kills the tool at its Nth pwrite64, for N spread over the writes of a
# reference add: while the pages it replaces go into the journal, and while
# its own pages go into the file. A large secret makes the item span many
# pages, so most kills land mid-write.
command -v strace >/dev/null || e2e_fail "strace is not installed (scripts/install-deps)"
big_secret() { printf 'big-%s-' "$1"; head -c 393216 /dev/zero | tr '\0' 'k'; printf '%s' "$salt"; }

# traced_add ACCOUNT LOG [N]: adds big_secret ACCOUNT under strace, killed at
# the Nth pwrite64 when N is given; returns the add's exit status.
traced_add() {
  big_secret "$1" >"$E2E_TMP/victim-secret"
  # LeakSanitizer cannot run under a tracer; leaks are not what is tested here.
  # The subshell keeps bash's "Killed" notice out of the test's output.
  (
    ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0 \
      strace -f -qqq -y -o "$2" -e trace=pwrite64,fdatasync,fsync,unlink \
      ${3:+-e inject=pwrite64:signal=KILL:when=$3} \
      "$E2E_KEYCHAIN_TOOL" add-generic-password -a "$1" -s e2e-killed <"$E2E_TMP/victim-secret"
    exit $?
  ) 2>/dev/null
}

# kill_phase LOG: where in the write the traced add was when it stopped. The
# write is committed the moment its journal is removed; until then the next
# opener puts the old pages back from the journal.
kill_phase() {
  awk -v journal="\"$keychain_file-journal\"" '
    / pwrite64\(/ { wrote = 1 }
    /unlink\(/ && index($0, journal) && / = 0$/ && wrote { committed = 1 }
    END { print (!wrote ? "before-writing" : committed ? "after-commit" : "mid-write") }' "$1"
}

traced_add reference "$E2E_TMP/reference.strace" || e2e_fail "a traced add of a large item failed"
writes=$(grep -c ' pwrite64(' "$E2E_TMP/reference.strace" || true)
((writes >= 20)) || e2e_fail "a large add made only $writes writes; cannot spread kills over it"

steady() {  # a writer that is never killed, so kills happen amid other writes
  local item output
  for ((item = 1; item <= items_per_writer; item++)); do
    output=$(add_item e2e-steady "item-$item" 2>&1) ||
      printf 'steady writer: adding item-%s failed: %s\n' "$item" "$output"
  done
}
steady >"$E2E_TMP/steady.problems" &
steady_pid=$!

rounds=10
declare -A phases=([before-writing]=0 [mid-write]=0 [after-commit]=0 [completed]=0)
for ((round = 1; round <= rounds; round++)); do
  victim=victim-$round
  log=$E2E_TMP/$victim.strace
  status=0
  traced_add "$victim" "$log" $((writes * round / (rounds + 1) + 1)) || status=$?
  case $status in
    0) phase=completed ;;
    137) phase=$(kill_phase "$log") ;;
    *) e2e_fail "adding $victim under strace ended with status $status" ;;
  esac
  phases[$phase]=$((phases[$phase] + 1))
  # A killed add is all or nothing: absent, or present with its whole secret;
  # one that got its commit onto the disk must be there.
  if got=$(read_item e2e-killed "$victim" 2>"$E2E_TMP/read.stderr"); then
    [[ $got == "$(big_secret "$victim")" ]] ||
      e2e_fail "$victim (killed $phase) reads back a damaged secret (${#got} bytes)"
  elif [[ $phase == completed || $phase == after-commit ]]; then
    e2e_fail "$victim ($phase) cannot be read: $(cat "$E2E_TMP/read.stderr")"
  fi
done
wait "$steady_pid"
problems=$(cat "$E2E_TMP/steady.problems")
[[ -z $problems ]] || e2e_fail "the writer beside the killed ones failed: $problems"
((phases[mid-write] > 0)) ||
  e2e_fail "no kill landed mid-write (${phases[*]} for ${!phases[*]}; $writes writes per add)"

for ((item = 1; item <= items_per_writer; item++)); do
  problem=$(check_item e2e-steady "item-$item") || e2e_fail "after the kills: $problem"
done
for ((seed = 1; seed <= seeds; seed++)); do
  problem=$(check_item e2e-seed "seed-$seed") || e2e_fail "after the kills: $problem"
done
add_item e2e-after "after-kills" || e2e_fail "the keychain takes no new item after the kills"
problem=$(check_item e2e-after "after-kills") || e2e_fail "after the kills: $problem"

# The file underneath is an SQLite database; it must have survived intact.
[[ -f $keychain_file ]] || e2e_fail "the default keychain is not at $keychain_file"
integrity=$("$E2E_PYTHON" -c 'import sqlite3, sys
print(sqlite3.connect(sys.argv[1]).execute("PRAGMA integrity_check").fetchone()[0])' "$keychain_file")
e2e_expect_eq "$integrity" ok "integrity of $keychain_file"
e2e_say "ok: $rounds adds killed at spread writes (${phases[mid-write]} mid-write, ${phases[after-commit]} after the commit, ${phases[before-writing]} before writing, ${phases[completed]} completed); every committed item intact"
