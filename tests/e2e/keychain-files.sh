#!/usr/bin/env bash
# Keychain files the programs must not trust, as a user or an attacker would
# leave them: files and directories others could read or replace, a file
# another program keeps locked, a schema that is not ours, files that are not
# keychains given to delete-keychain, and what a killed create-keychain
# leaves behind.
set -euo pipefail
# shellcheck source=tests/e2e/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
e2e_init keychain-files "${1:-}"

keychain=$XDG_DATA_HOME/keychains/login.keychain-db
secret=$(e2e_random_secret)
e2e_store_internet_password "https://jo@git.example.com" "$secret"
prompt="Password for 'https://jo@git.example.com': "
answer() { "$E2E_RESPONDER" "$prompt"; }
e2e_expect_eq "$(e2e_sha256 "$(answer)")" "$(e2e_sha256 "$secret")" "the answer from a private keychain"

# tool_fails EXPECTED_STATUS ARGS...: runs zarvo-keychain, which must end
# with that status and exactly one line on standard error, left in $E2E_TMP/err.
tool_fails() {
  local expected=$1 status=0
  shift
  "$E2E_KEYCHAIN_TOOL" "$@" >/dev/null 2>"$E2E_TMP/err" </dev/null || status=$?
  ((status == expected)) || e2e_fail "zarvo-keychain $* ended with status $status, not $expected: $(cat "$E2E_TMP/err")"
  e2e_expect_eq "$(wc -l <"$E2E_TMP/err")" 1 "lines on standard error of zarvo-keychain $*"
}

# --- files and directories others could read or replace ----------------------
chmod 644 "$keychain"
e2e_expect_eq "$(answer)" "" "the answer from a keychain others can read"
tool_fails 1 find-internet-password -s git.example.com
grep -qF "$keychain: other users can read it (mode 0644)" "$E2E_TMP/err" ||
  e2e_fail "the refusal does not say why: $(cat "$E2E_TMP/err")"
e2e_expect_eq "$(e2e_sha256 "$(ZARVO_KEYCHAIN_ALLOW_READABLE=1 answer)")" "$(e2e_sha256 "$secret")" \
  "the answer from a readable keychain the user allowed"

chmod 666 "$keychain"
e2e_expect_eq "$(ZARVO_KEYCHAIN_ALLOW_READABLE=1 answer)" "" "the answer from a keychain others can change"
printf 'second' | "$E2E_KEYCHAIN_TOOL" add-generic-password -s mended 2>"$E2E_TMP/err" ||
  e2e_fail "a write to the user's own too-open keychain failed: $(cat "$E2E_TMP/err")"
e2e_expect_eq "$(stat -c %a "$keychain")" 600 "the mode after a write"
grep -qF "made the keychain $keychain private (mode 0600; it was 0666)" "$E2E_TMP/err" ||
  e2e_fail "the write did not say it made the keychain private: $(cat "$E2E_TMP/err")"

chmod 777 "$XDG_DATA_HOME/keychains"
e2e_expect_eq "$(answer)" "" "the answer from a keychain in a directory anyone can change"
tool_fails 1 find-internet-password -s git.example.com
grep -qF "its directory $XDG_DATA_HOME/keychains (mode 0777)" "$E2E_TMP/err" ||
  e2e_fail "the refusal does not name the directory: $(cat "$E2E_TMP/err")"
chmod 700 "$XDG_DATA_HOME/keychains"
e2e_say "ok: files and directories others could read or replace are refused, and a write mends the mode"

# --- delete-keychain deletes keychains only -------------------------------
: >"$E2E_TMP/empty-file"
"$E2E_PYTHON" - "$E2E_TMP" <<'EOF'
import sqlite3, sys
folder = sys.argv[1]
with sqlite3.connect(folder + "/no-tables.db") as database:
    database.execute("PRAGMA user_version=7")
with sqlite3.connect(folder + "/foreign.db") as database:
    database.execute("CREATE TABLE notes (text TEXT)")
EOF
for victim in empty-file no-tables.db foreign.db; do
  chmod 600 "$E2E_TMP/$victim"
  tool_fails 1 delete-keychain "$E2E_TMP/$victim"
  [[ -e $E2E_TMP/$victim ]] || e2e_fail "delete-keychain deleted $victim, which is not a keychain"
done
e2e_say "ok: delete-keychain leaves an empty file and databases without our tables alone"

# --- a killed create-keychain leaves nothing for long -------------------------
if command -v strace >/dev/null; then
  mkdir -m 700 "$E2E_TMP/made"
  (
    ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0 \
      strace -f -qqq -o /dev/null -e trace=pwrite64 -e inject=pwrite64:signal=KILL:when=2 \
      "$E2E_KEYCHAIN_TOOL" create-keychain --no-password "$E2E_TMP/made/killed.keychain"
    exit $?
  ) 2>/dev/null && e2e_fail "create-keychain was not killed"
  leftovers=$(find "$E2E_TMP/made" -name '.keychain-*' | wc -l)
  ((leftovers > 0)) || e2e_fail "the killed create-keychain left nothing to clean up; the test proves nothing"
  "$E2E_KEYCHAIN_TOOL" create-keychain --no-password "$E2E_TMP/made/next.keychain" ||
    e2e_fail "create-keychain after a killed one failed"
  e2e_expect_eq "$(find "$E2E_TMP/made" -name '.keychain-*' | wc -l)" 0 "files left by the killed create-keychain"
  e2e_say "ok: the next create-keychain removes the $leftovers files a killed one left"
else
  e2e_say "skipped the killed create-keychain: strace is not installed"
fi

# --- a keychain another program holds ------------------------------------------
release=$E2E_TMP/release-lock
mkfifo "$release"
e2e_spawn "$E2E_TMP/holder.log" "locked" "$E2E_PYTHON" -c '
import sqlite3, sys
database = sqlite3.connect(sys.argv[1], isolation_level=None)
database.execute("BEGIN EXCLUSIVE")
print("locked", flush=True)
open(sys.argv[2]).read()
database.execute("ROLLBACK")
' "$keychain" "$release" || e2e_fail "could not lock the keychain"
holder=$E2E_SPAWNED_PID
# The responder gives up after a second or two; the 30 s a writer may wait
# would stall git.
started=$SECONDS
e2e_expect_eq "$(answer)" "" "the answer from a keychain another program holds"
((SECONDS - started < 10)) || e2e_fail "the responder waited $((SECONDS - started)) s for a held keychain"
# The tool waits longer, and says so once.
e2e_spawn "$E2E_TMP/waiting.log" "*waiting for another program to finish with the keychain $keychain" \
  "$E2E_KEYCHAIN_TOOL" find-internet-password -s git.example.com || e2e_fail "zarvo-keychain did not say it waits"
waiting=$E2E_SPAWNED_PID
: >"$release"
wait "$holder"
status=0
wait "$waiting" || status=$?
((status == 0)) || e2e_fail "zarvo-keychain ended with status $status once the keychain was free"
e2e_say "ok: the responder gives up on a held keychain at once; the tool waits and says so"

# --- a schema that is not ours --------------------------------------------------
"$E2E_PYTHON" - "$keychain" <<'EOF'
import sqlite3, sys
with sqlite3.connect(sys.argv[1]) as database:
    database.executescript("""
        DROP TABLE items;
        CREATE VIEW items AS WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n)
        SELECT x AS id, 'none ' || x AS class, substr(x, 1, 0) AS "acct", substr(x, 1, 0) AS "sdmn", substr(x, 1, 0) AS "srvr", x * 0 AS "ptcl", x * 0 AS "atyp",
               x * 0 AS "port", substr(x, 1, 0) AS "path", substr(x, 1, 0) AS "svce", NULL AS "gena", NULL AS "labl", NULL AS "desc",
               NULL AS "icmt", NULL AS "crtr", NULL AS "type", NULL AS "invi", NULL AS "nega",
               0.0 AS "cdat", 0.0 AS "mdat", NULL AS secret FROM n;
    """)
EOF
status=0
output=$(timeout 20 "$E2E_RESPONDER" "$prompt") || status=$?
((status == 0)) || e2e_fail "the responder on an endless view ended with status $status"
e2e_expect_eq "$output" "" "the answer from a keychain whose items are an endless view"
status=0
timeout 20 "$E2E_KEYCHAIN_TOOL" find-internet-password -s git.example.com >/dev/null 2>"$E2E_TMP/err" || status=$?
((status == 1)) || e2e_fail "find-internet-password on an endless view ended with status $status"
grep -qF "not a keychain" "$E2E_TMP/err" || e2e_fail "the tool did not say the file is not a keychain: $(cat "$E2E_TMP/err")"
e2e_say "ok: a keychain whose items are an endless view is no keychain, at once"
