#!/usr/bin/env bash
# A generic password answered through ZARVO_ASKPASS_SERVICE_NAME and
# ZARVO_ASKPASS_SERVICE_ACCOUNT, with real git over HTTP as the asker.
set -euo pipefail
# shellcheck source=tests/e2e/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
e2e_init generic-password "${1:-}"

marker="generic password clone $(e2e_random_secret)"
e2e_make_bare_repo "$E2E_TMP/served/repo.git" README "$marker"
frank_secret=$(e2e_random_secret)
e2e_start_git_server "$E2E_TMP/served" "frank:$frank_secret"
host=127.0.0.1:$E2E_GIT_PORT

service="Zarvo e2e hosting (generic)"
e2e_store_generic_password frank-account "$service" "$frank_secret"
# An internet password for the very URL git quotes, but a stale one: only the
# generic entry may answer while the service variables are set.
e2e_store_internet_password "http://frank@$host" "stale-$frank_secret"

export ZARVO_ASKPASS_SERVICE_NAME=$service ZARVO_ASKPASS_SERVICE_ACCOUNT=frank-account

# The user is part of the clone URL, so git asks for the password only.
e2e_record_start generic
e2e_git_clone "http://frank@$host/repo.git" "$E2E_TMP/clone" ||
  e2e_fail "git clone with the generic password failed: $(cat "$E2E_TMP/git.stderr")"
e2e_expect_eq "$(cat "$E2E_TMP/clone/README")" "$marker" "README of the clone"
e2e_expect_calls 1
e2e_expect_answer 1 "Password for 'http://frank@$host': " "$frank_secret"
e2e_say "ok: git clones with the generic password of (frank-account, $service)"

# The service account is deliberately not offered as a user name, so a URL
# without a user cannot be cloned this way: git is left with an empty name.
e2e_record_start no-user
status=0
e2e_git_clone "http://$host/repo.git" "$E2E_TMP/clone-without-user" || status=$?
((status != 0 && status != 124)) || e2e_fail "git clone without a user name ended with status $status"
[[ ! -e $E2E_TMP/clone-without-user ]] || e2e_fail "a failed clone left its folder behind"
e2e_expect_calls 2
e2e_expect_answer 1 "Username for 'http://$host': " ""
e2e_expect_answer 2 "Password for 'http://$host': " "$frank_secret"
e2e_say "ok: the username prompt gets no answer from the service variables (git status $status)"
