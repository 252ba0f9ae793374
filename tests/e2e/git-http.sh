#!/usr/bin/env bash
# Real git cloning over HTTP with Basic authentication, every credential
# answered by zarvo-askpass: prompt-parsing mode (user name from USER, password
# from the keychain entry for the URL git quotes), environment-credential mode
# (ZARVO_ASKPASS_REMOTE_URL), and a wrong or missing password, which must make
# git fail cleanly while the responder stays quiet.
set -euo pipefail
# shellcheck source=tests/e2e/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
e2e_init git-http "${1:-}"

marker="cloned through zarvo-askpass $(e2e_random_secret)"
e2e_make_bare_repo "$E2E_TMP/served/team/repo.git" README "$marker"

local_secret=$(e2e_random_secret)
carol_secret=$(e2e_random_secret)
dave_secret=$(e2e_random_secret)
erin_secret=$(e2e_random_secret)
e2e_start_git_server "$E2E_TMP/served" "zarvo-e2e:$local_secret" "carol:$carol_secret" "dave:$dave_secret" \
  "erin:$erin_secret"
host=127.0.0.1:$E2E_GIT_PORT
repo=http://$host/team/repo.git

# git quotes scheme, user, host and port in its password prompt, never the
# path, so entries without a path answer it. dave's entry holds a stale
# password; erin has none at all.
e2e_store_internet_password "http://zarvo-e2e@$host" "$local_secret"
e2e_store_internet_password "http://carol@$host" "$carol_secret"
e2e_store_internet_password "http://dave@$host" "stale-$dave_secret"

expect_clone() {  # DEST
  [[ -f $1/README ]] || e2e_fail "clone into $1 has no README"
  e2e_expect_eq "$(cat "$1/README")" "$marker" "README of the clone in $1"
}

expect_authentication_failure() {  # DEST STATUS
  ((${2} != 0)) || e2e_fail "git clone succeeded with a wrong password"
  ((${2} != 124)) || e2e_fail "git clone hung (killed after ${E2E_PEER_SECONDS}s)"
  grep -q "Authentication failed" "$E2E_TMP/git.stderr" ||
    e2e_fail "git did not report an authentication failure: $(cat "$E2E_TMP/git.stderr")"
  [[ ! -e $1 ]] || e2e_fail "a failed clone left $1 behind"
}

# --- prompt-parsing mode ---------------------------------------------------
e2e_record_start prompt-parsing
USER=zarvo-e2e e2e_git_clone "$repo" "$E2E_TMP/clone-prompt" ||
  e2e_fail "git clone in prompt-parsing mode failed: $(cat "$E2E_TMP/git.stderr")"
expect_clone "$E2E_TMP/clone-prompt"
e2e_expect_calls 2
e2e_expect_answer 1 "Username for 'http://$host': " zarvo-e2e
e2e_expect_answer 2 "Password for 'http://zarvo-e2e@$host': " "$local_secret"
e2e_say "ok: prompt-parsing mode clones with USER and the keychain password"

# --- environment-credential mode ---------------------------------------------
# USER names somebody without an entry, so only the environment's URL can
# supply carol's name; its repository path must not reach the keychain query.
e2e_record_start environment
USER=nobody-with-an-entry ZARVO_ASKPASS_REMOTE_URL="http://carol@$host/team/repo.git" \
  e2e_git_clone "$repo" "$E2E_TMP/clone-environment" ||
  e2e_fail "git clone in environment-credential mode failed: $(cat "$E2E_TMP/git.stderr")"
expect_clone "$E2E_TMP/clone-environment"
e2e_expect_calls 2
e2e_expect_answer 1 "Username for 'http://$host': " carol
e2e_expect_answer 2 "Password for 'http://carol@$host': " "$carol_secret"
grep -q "authenticated user 'carol'" "$E2E_GIT_SERVER_LOG" ||
  e2e_fail "the server never saw carol log in"
e2e_say "ok: environment-credential mode clones with the remote URL's user and password"

# --- a wrong password --------------------------------------------------------
e2e_record_start wrong-password
status=0
USER=dave e2e_git_clone "$repo" "$E2E_TMP/clone-wrong" || status=$?
expect_authentication_failure "$E2E_TMP/clone-wrong" "$status"
e2e_expect_calls 2
e2e_expect_answer 1 "Username for 'http://$host': " dave
e2e_expect_answer 2 "Password for 'http://dave@$host': " "stale-$dave_secret"
e2e_say "ok: a wrong stored password fails the clone cleanly (git status $status)"

# --- no password at all --------------------------------------------------------
for mode in prompt-parsing environment; do
  e2e_record_start "missing-$mode"
  status=0
  if [[ $mode == environment ]]; then
    ZARVO_ASKPASS_REMOTE_URL="http://erin@$host/team/repo.git" \
      e2e_git_clone "$repo" "$E2E_TMP/clone-missing-$mode" || status=$?
  else
    USER=erin e2e_git_clone "$repo" "$E2E_TMP/clone-missing-$mode" || status=$?
  fi
  expect_authentication_failure "$E2E_TMP/clone-missing-$mode" "$status"
  e2e_expect_calls 2
  e2e_expect_answer 1 "Username for 'http://$host': " erin
  e2e_expect_answer 2 "Password for 'http://erin@$host': " ""
  e2e_say "ok: without a stored password ($mode) the responder answers nothing and git fails (status $status)"
done
