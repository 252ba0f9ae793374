#!/usr/bin/env bash
# Real git with `credential.helper=zarvo` against the Basic-auth git server:
# a password typed once is stored and then answered by the helper and by
# zarvo-askpass alike; a password the server stops accepting is erased and
# the next one typed replaces it; credential.useHttpPath keeps one item per
# repository; user names with "@" on a server with a port; and twenty clones
# at once storing and reading the same keychain.
set -euo pipefail
# shellcheck source=tests/e2e/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
e2e_init git-credential-helper "${1:-}"
[[ -x $E2E_BIN/git-credential-zarvo ]] || e2e_fail "git-credential-zarvo is missing (build it)"
# git finds the helper named "zarvo" as git-credential-zarvo on the PATH.
export PATH=$E2E_BIN:$PATH

marker="cloned through the credential helper $(e2e_random_secret)"
for repo in repo a b; do
  e2e_make_bare_repo "$E2E_TMP/served/team/$repo.git" README "$marker"
done

# The throwaway askpass: a user "typing" TYPED_SECRET, each call noted.
typist=$E2E_TMP/typist
cat >"$typist" <<'EOF'
#!/bin/sh
printf '%s\n' "$1" >>"$TYPIST_LOG"
printf '%s' "$TYPED_SECRET"
EOF
chmod +x "$typist"
export TYPIST_LOG=$E2E_TMP/typist.log
: >"$TYPIST_LOG"

jo_secret=$(e2e_random_secret)
pat_secret=$(e2e_random_secret)
corp_secret=$(e2e_random_secret)
credentials=()
for index in $(seq 1 20); do
  printf -v "crowd_secret_$index" '%s' "$(e2e_random_secret)"
  secret_name=crowd_secret_$index
  credentials+=("crowd$index:${!secret_name}")
done
e2e_start_git_server "$E2E_TMP/served" "jo:$jo_secret" "pat:$pat_secret" "jo@corp:$corp_secret" "${credentials[@]}"
host=127.0.0.1:$E2E_GIT_PORT
server_credentials=$E2E_TMP/git-server-credentials

# helper_git ASKPASS ARGS...: git with only the zarvo helper; ASKPASS "" for
# none. Standard error goes to $E2E_TMP/git.stderr.
helper_git() {
  local askpass=$1
  shift
  if [[ -n $askpass ]]; then
    GIT_ASKPASS=$askpass timeout "$E2E_PEER_SECONDS" git -c credential.helper= -c credential.helper=zarvo "$@" \
      </dev/null 2>"$E2E_TMP/git.stderr"
  else
    env -u GIT_ASKPASS -u SSH_ASKPASS timeout "$E2E_PEER_SECONDS" git -c credential.helper= \
      -c credential.helper=zarvo "$@" </dev/null 2>"$E2E_TMP/git.stderr"
  fi
}

expect_clone() {  # DEST
  [[ -f $1/README ]] || e2e_fail "clone into $1 has no README: $(cat "$E2E_TMP/git.stderr")"
  e2e_expect_eq "$(cat "$1/README")" "$marker" "README of the clone in $1"
}

typed_count() { wc -l <"$TYPIST_LOG"; }

stored_password() {  # URL: what the keychain holds for exactly that URL
  e2e_keychain find-internet-password --url "$1" -w 2>/dev/null
}

# --- (a) typed once, then answered ------------------------------------------------
TYPED_SECRET=$jo_secret helper_git "$typist" clone -q "http://jo@$host/team/repo.git" "$E2E_TMP/a1" ||
  e2e_fail "the first clone failed: $(cat "$E2E_TMP/git.stderr")"
expect_clone "$E2E_TMP/a1"
e2e_expect_eq "$(typed_count)" 1 "prompts typed at the first clone"
[[ $(stored_password "http://jo@$host") == "$jo_secret" ]] || e2e_fail "the typed password was not stored"

e2e_record_start responder
e2e_git_clone "http://jo@$host/team/repo.git" "$E2E_TMP/a2" ||
  e2e_fail "zarvo-askpass did not answer with the stored password: $(cat "$E2E_TMP/git.stderr")"
expect_clone "$E2E_TMP/a2"
e2e_expect_answer 1 "Password for 'http://jo@$host': " "$jo_secret"

helper_git "" clone -q "http://jo@$host/team/repo.git" "$E2E_TMP/a3" ||
  e2e_fail "the helper alone did not answer: $(cat "$E2E_TMP/git.stderr")"
expect_clone "$E2E_TMP/a3"
e2e_expect_eq "$(typed_count)" 1 "prompts typed after the first clone"
e2e_say "ok: a password typed once is stored, then answered by zarvo-askpass and by the helper"

# --- (b) the server's password changes ----------------------------------------------
new_jo_secret=$(e2e_random_secret)
sed "s/^jo:.*/jo:$new_jo_secret/" "$server_credentials" >"$server_credentials.new"
mv "$server_credentials.new" "$server_credentials"
status=0
helper_git "" -C "$E2E_TMP/a3" fetch -q || status=$?
((status != 0)) || e2e_fail "a fetch with the stale password succeeded"
grep -q "Authentication failed" "$E2E_TMP/git.stderr" || e2e_fail "git did not fail on authentication"
if stored_password "http://jo@$host" >/dev/null; then
  e2e_fail "the rejected password is still stored"
fi
TYPED_SECRET=$new_jo_secret helper_git "$typist" -C "$E2E_TMP/a3" fetch -q ||
  e2e_fail "the fetch with the new password failed: $(cat "$E2E_TMP/git.stderr")"
e2e_expect_eq "$(typed_count)" 2 "prompts typed after the password changed"
[[ $(stored_password "http://jo@$host") == "$new_jo_secret" ]] || e2e_fail "the new password was not stored"
e2e_say "ok: a rejected password is erased and the next one typed is stored"

# --- (c) one item per repository --------------------------------------------------------
TYPED_SECRET=$pat_secret helper_git "$typist" -c credential.useHttpPath=true clone -q \
  "http://pat@$host/team/a.git" "$E2E_TMP/c1" || e2e_fail "the clone of a.git failed: $(cat "$E2E_TMP/git.stderr")"
[[ $(stored_password "http://pat@$host/team/a.git") == "$pat_secret" ]] ||
  e2e_fail "no item for the repository's path"
if e2e_keychain find-internet-password -a pat -s 127.0.0.1 -P "$E2E_GIT_PORT" -p "" >/dev/null 2>&1; then
  e2e_fail "an item without a path was stored too"
fi
status=0
helper_git "" -c credential.useHttpPath=true clone -q "http://pat@$host/team/b.git" "$E2E_TMP/c2" || status=$?
((status != 0)) || e2e_fail "a.git's password answered for b.git"
helper_git "" -c credential.useHttpPath=true clone -q "http://pat@$host/team/a.git" "$E2E_TMP/c3" ||
  e2e_fail "a.git's item did not answer for a.git: $(cat "$E2E_TMP/git.stderr")"
expect_clone "$E2E_TMP/c3"
e2e_say "ok: with credential.useHttpPath each repository has an item of its own"

# --- (d) a user name with "@" on a server with a port ---------------------------------------
TYPED_SECRET=$corp_secret helper_git "$typist" clone -q "http://jo%40corp@$host/team/repo.git" "$E2E_TMP/d1" ||
  e2e_fail "the clone as jo@corp failed: $(cat "$E2E_TMP/git.stderr")"
e2e_expect_eq "$(e2e_keychain find-internet-password -a jo@corp -s 127.0.0.1 -r http -P "$E2E_GIT_PORT" -w)" \
  "$corp_secret" "the password stored for jo@corp with the server's port"
helper_git "" clone -q "http://jo%40corp@$host/team/repo.git" "$E2E_TMP/d2" ||
  e2e_fail "the helper did not answer for jo@corp: $(cat "$E2E_TMP/git.stderr")"
expect_clone "$E2E_TMP/d2"
e2e_say "ok: a user name with @ and a port are stored and found"

# --- (e) twenty clones at once ---------------------------------------------------------------
# The odd ones type their password (the helper stores it); the even ones have
# theirs stored beforehand (the helper reads it).
for index in $(seq 2 2 20); do
  secret_name=crowd_secret_$index
  e2e_store_internet_password "http://crowd$index@$host" "${!secret_name}"
done
pids=()
for index in $(seq 1 20); do
  secret_name=crowd_secret_$index
  askpass=
  ((index % 2 == 1)) && askpass=$typist
  (
    if [[ -n $askpass ]]; then
      GIT_ASKPASS=$askpass TYPED_SECRET=${!secret_name} timeout "$E2E_PEER_SECONDS" \
        git -c credential.helper= -c credential.helper=zarvo clone -q "http://crowd$index@$host/team/repo.git" \
        "$E2E_TMP/e$index" </dev/null 2>"$E2E_TMP/e$index.stderr"
    else
      env -u GIT_ASKPASS timeout "$E2E_PEER_SECONDS" \
        git -c credential.helper= -c credential.helper=zarvo clone -q "http://crowd$index@$host/team/repo.git" \
        "$E2E_TMP/e$index" </dev/null 2>"$E2E_TMP/e$index.stderr"
    fi
  ) &
  pids+=("$!")
done
failed=0
for pid in "${pids[@]}"; do
  wait "$pid" || failed=$((failed + 1))
done
if grep -l "database is locked" "$E2E_TMP"/e*.stderr >/dev/null 2>&1; then
  e2e_fail "a helper met a locked database"
fi
((failed == 0)) || e2e_fail "$failed of 20 parallel clones failed: $(cat "$E2E_TMP"/e*.stderr | head -5)"
for index in $(seq 1 20); do
  secret_name=crowd_secret_$index
  [[ -f $E2E_TMP/e$index/README ]] || e2e_fail "clone $index has no README"
  [[ $(stored_password "http://crowd$index@$host") == "${!secret_name}" ]] ||
    e2e_fail "the keychain lost crowd$index's password"
done
e2e_say "ok: twenty parallel clones stored and read their passwords, none lost"
