# shellcheck shell=bash disable=SC2034  # its globals are for the scripts that source it
# Shared by the end-to-end tests and scripts/demo: a private scratch world
# (HOME, XDG folders, git configuration), peers started on 127.0.0.1 and
# stopped again, the askpass recorder, and checks that fail loudly.
#
# Usage: source this file, then `e2e_init NAME [BIN_DIR]`. Everything a test
# starts or creates is undone by the EXIT trap that e2e_init installs.

E2E_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
E2E_SKIP_STATUS=77          # ctest's SKIP_RETURN_CODE for these tests
E2E_STARTUP_SECONDS=30      # how long a peer may take to say it is ready
E2E_PEER_SECONDS=60         # how long one git or ssh run may take

e2e_say() { printf '%s: %s\n' "$E2E_NAME" "$*"; }

e2e_fail() {
  printf '%s: FAIL: %s\n' "$E2E_NAME" "$*" >&2
  local log
  if [[ -s ${ZARVO_E2E_RECORD:-} ]]; then
    printf -- '--- questions put to the responder (status, answer bytes, prompt)\n' >&2
    cut -f1,4,6 "$ZARVO_E2E_RECORD" >&2
  fi
  for log in "${E2E_LOGS[@]}"; do
    if [[ -s $log ]]; then
      printf -- '--- last lines of %s\n' "${log#"$E2E_TMP"/}" >&2
      tail -n 15 "$log" >&2
    fi
  done
  exit 1
}

e2e_skip() {
  printf '%s: SKIP: %s\n' "$E2E_NAME" "$*"
  exit "$E2E_SKIP_STATUS"
}

# Runs at exit: registered undo commands last-in first-out, then the peers,
# then the scratch folder.
e2e_cleanup() {
  local status=$? index pid
  trap - EXIT
  set +e
  for ((index = ${#E2E_UNDO[@]} - 1; index >= 0; index--)); do
    eval "${E2E_UNDO[index]}" >/dev/null 2>&1
  done
  for pid in "${E2E_PIDS[@]}"; do
    kill -TERM "$pid" 2>/dev/null
  done
  for pid in "${E2E_PIDS[@]}"; do
    wait "$pid" 2>/dev/null
  done
  if [[ -n ${E2E_TMP:-} && -d $E2E_TMP ]]; then
    if [[ ${ZARVO_E2E_KEEP:-} == 1 ]]; then
      printf '%s: kept %s\n' "$E2E_NAME" "$E2E_TMP" >&2
    else
      rm -rf "$E2E_TMP"
    fi
  fi
  exit "$status"
}

# e2e_on_exit COMMAND: a shell command to run when the script ends.
e2e_on_exit() { E2E_UNDO+=("$1"); }

# e2e_init NAME [BIN_DIR]: the folder of the built programs comes from the
# argument or from ZARVO_BINARY_DIR (which ctest sets); fails unless they
# and the peers every test needs are there.
e2e_init() {
  E2E_NAME=$1
  local bin=${2:-${ZARVO_BINARY_DIR:-}}
  E2E_UNDO=()
  E2E_PIDS=()
  E2E_LOGS=()
  E2E_TMP=
  [[ -n $bin ]] || e2e_fail "no program folder: pass it as the first argument or set ZARVO_BINARY_DIR"
  [[ -d $bin ]] || e2e_fail "program folder $bin does not exist (build first)"
  E2E_BIN=$(cd "$bin" && pwd)
  E2E_RESPONDER=$E2E_BIN/zarvo-askpass
  E2E_KEYCHAIN_TOOL=$E2E_BIN/zarvo-keychain
  # The distribution's interpreter first: it starts at once, unlike a shim.
  E2E_PYTHON=$(command -v /usr/bin/python3 || command -v python3 || true)

  E2E_TMP=$(mktemp -d "${TMPDIR:-/tmp}/zarvo-$E2E_NAME.XXXXXX")
  trap e2e_cleanup EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM

  # Nothing of the real user is read or written: no keychain, no git or ssh
  # configuration, no credential helper, no terminal to fall back on.
  export HOME=$E2E_TMP/home
  export XDG_DATA_HOME=$E2E_TMP/data XDG_CONFIG_HOME=$E2E_TMP/config XDG_CACHE_HOME=$E2E_TMP/cache
  mkdir -p "$HOME" "$XDG_CONFIG_HOME" "$XDG_CACHE_HOME"
  unset ZARVO_ASKPASS_REMOTE_URL ZARVO_ASKPASS_SERVICE_NAME ZARVO_ASKPASS_SERVICE_ACCOUNT
  unset GIT_ASKPASS SSH_ASKPASS SSH_ASKPASS_REQUIRE DISPLAY SSH_AUTH_SOCK GIT_DIR GIT_WORK_TREE
  export GIT_CONFIG_NOSYSTEM=1 GIT_CONFIG_GLOBAL=/dev/null GIT_TERMINAL_PROMPT=0
  export LC_ALL=C
  export GIT_AUTHOR_NAME="Zarvo E2E" GIT_AUTHOR_EMAIL=e2e@zarvo.invalid
  export GIT_COMMITTER_NAME="Zarvo E2E" GIT_COMMITTER_EMAIL=e2e@zarvo.invalid
  e2e_require_programs
}

e2e_require_programs() {
  local program
  for program in "$E2E_RESPONDER" "$E2E_KEYCHAIN_TOOL"; do
    [[ -x $program ]] || e2e_fail "$program is missing (build the targets zarvo-askpass and zarvo-keychain)"
  done
  command -v git >/dev/null || e2e_fail "git is not installed (scripts/install-deps)"
  [[ -n $E2E_PYTHON ]] || e2e_fail "python3 is not installed (scripts/install-deps)"
}

# A random printable secret, different on every run.
e2e_random_secret() { head -c 18 /dev/urandom | base64 | tr '+/' '._'; }

e2e_sha256() {
  local digest
  digest=$(printf '%s' "$1" | sha256sum)
  printf '%s' "${digest%% *}"
}

e2e_expect_eq() {  # ACTUAL EXPECTED WHAT
  [[ $1 == "$2" ]] || e2e_fail "$3: expected '$2', got '$1'"
}

# --- peers ---------------------------------------------------------------

# e2e_spawn LOG READY_GLOB COMMAND...: starts COMMAND in the background with
# its output going to LOG and waits until it prints a line matching READY_GLOB.
# Sets E2E_SPAWNED_PID and E2E_SPAWNED_LINE. Returns 1 when the command ends
# or stays silent for E2E_STARTUP_SECONDS first (it is then stopped).
e2e_spawn() {
  local log=$1 ready=$2 fifo line fd
  shift 2
  fifo=$(mktemp -u "$E2E_TMP/spawn.XXXXXX")
  mkfifo "$fifo"
  "$@" >"$fifo" 2>&1 </dev/null &
  E2E_SPAWNED_PID=$!
  E2E_SPAWNED_LINE=
  exec {fd}<"$fifo"
  rm -f "$fifo"
  while IFS= read -r -t "$E2E_STARTUP_SECONDS" -u "$fd" line; do
    printf '%s\n' "$line" >>"$log"
    # shellcheck disable=SC2053  # READY_GLOB is a pattern on purpose
    if [[ $line == $ready ]]; then
      E2E_SPAWNED_LINE=$line
      E2E_PIDS+=("$E2E_SPAWNED_PID")
      # Keep draining so that the peer never blocks on a full pipe.
      cat <&"$fd" >>"$log" &
      exec {fd}<&-
      return 0
    fi
  done
  exec {fd}<&-
  kill -TERM "$E2E_SPAWNED_PID" 2>/dev/null || true
  wait "$E2E_SPAWNED_PID" 2>/dev/null || true
  return 1
}

# e2e_start_git_server ROOT USER:SECRET...: serves the repositories below ROOT
# to those users only. Sets E2E_GIT_PORT.
e2e_start_git_server() {
  local root=$1 log=$E2E_TMP/git-server.log credentials=$E2E_TMP/git-server-credentials
  shift
  printf '%s\n' "$@" >"$credentials"
  E2E_LOGS+=("$log")
  e2e_spawn "$log" "git server listening on 127.0.0.1 port *" \
    "$E2E_PYTHON" "$E2E_DIR/git_http_server.py" --root "$root" --credentials "$credentials" ||
    e2e_fail "the git server did not start"
  E2E_GIT_PORT=${E2E_SPAWNED_LINE##* }
  E2E_GIT_SERVER_LOG=$log
}

# e2e_free_port: a port on 127.0.0.1 that nobody listens on right now. Another
# process may take it before we do, so callers retry on a failed bind.
e2e_free_port() {
  "$E2E_PYTHON" -c 'import socket
s = socket.socket()
s.bind(("127.0.0.1", 0))
print(s.getsockname()[1])'
}

# e2e_start_sshd CONFIG: sshd in the foreground on a free loopback port,
# retried on a port taken in the meantime. Sets E2E_SSH_PORT.
e2e_start_sshd() {
  local config=$1 attempt port log=$E2E_TMP/sshd.log
  E2E_LOGS+=("$log")
  for attempt in 1 2 3 4 5; do
    port=$(e2e_free_port)
    # sshd re-executes itself and therefore wants its absolute path.
    if e2e_spawn "$log" "Server listening on 127.0.0.1 port $port*" \
        /usr/sbin/sshd -D -e -f "$config" -p "$port"; then
      E2E_SSH_PORT=$port
      return 0
    fi
    grep -q "Address already in use" "$log" || break
  done
  e2e_fail "sshd did not start (attempt $attempt)"
}

# --- git -------------------------------------------------------------------

# e2e_make_bare_repo BARE FILE TEXT: a bare repository whose one commit holds
# FILE with TEXT.
e2e_make_bare_repo() {
  local bare=$1 work
  work=$(mktemp -d "$E2E_TMP/work.XXXXXX")
  git init -q -b main --bare "$bare"
  git init -q -b main "$work"
  printf '%s\n' "$3" >"$work/$2"
  git -C "$work" add "$2"
  git -C "$work" commit -q -m "Add $2"
  git -C "$work" push -q "$bare" main
  rm -rf "$work"
}

# e2e_git_clone URL DEST: clones through the recorder in front of the
# responder; git's standard error goes to $E2E_TMP/git.stderr.
e2e_git_clone() {
  GIT_ASKPASS=$E2E_DIR/askpass-recorder ZARVO_E2E_RESPONDER=$E2E_RESPONDER \
    timeout "$E2E_PEER_SECONDS" git -c credential.helper= clone -q "$1" "$2" \
    </dev/null 2>"$E2E_TMP/git.stderr"
}

# --- the responder's record (see askpass-recorder) ----------------------------

# e2e_record_start NAME: later responder runs append to a fresh record.
e2e_record_start() {
  export ZARVO_E2E_RECORD=$E2E_TMP/record.$1
  : >"$ZARVO_E2E_RECORD"
}

e2e_record_count() { wc -l <"$ZARVO_E2E_RECORD"; }

# e2e_record_line N: the Nth record (from 1) in the E2E_REC_* variables; the
# recorder keeps its standard error in $ZARVO_E2E_RECORD.stderr.<N-1>.
e2e_record_line() {
  local line
  line=$(sed -n "${1}p" "$ZARVO_E2E_RECORD")
  [[ -n $line ]] || e2e_fail "the responder was asked fewer than $1 questions ($(e2e_record_count) asked)"
  IFS=$'\t' read -r E2E_REC_STATUS E2E_REC_STDERR E2E_REC_DIGEST E2E_REC_BYTES E2E_REC_NEWLINE \
    E2E_REC_PROMPT <<<"$line"
}

# e2e_expect_calls N: the responder was run exactly N times.
e2e_expect_calls() {
  local count
  count=$(e2e_record_count)
  ((count == $1)) || e2e_fail "the responder was run $count times, expected $1; prompts: $(cut -f6 "$ZARVO_E2E_RECORD" | paste -sd '|')"
}

# e2e_expect_answer N PROMPT_GLOB EXPECTED: the Nth prompt matched PROMPT_GLOB
# and the responder answered EXPECTED ("" for no answer) quietly: status 0,
# nothing on standard error, no trailing newline.
e2e_expect_answer() {
  local number=$1 prompt=$2 expected=$3
  e2e_record_line "$number"
  # shellcheck disable=SC2053
  [[ $E2E_REC_PROMPT == $prompt ]] || e2e_fail "prompt $number was '$E2E_REC_PROMPT', expected '$prompt'"
  e2e_expect_eq "$E2E_REC_STATUS" 0 "exit status of the responder for '$E2E_REC_PROMPT'"
  if ((E2E_REC_STDERR > 0)); then
    e2e_fail "the responder wrote on standard error for '$E2E_REC_PROMPT': $(cat "$ZARVO_E2E_RECORD.stderr.$((number - 1))")"
  fi
  e2e_expect_eq "$E2E_REC_NEWLINE" no "answer to '$E2E_REC_PROMPT' ends in a newline"
  if [[ $E2E_REC_DIGEST != "$(e2e_sha256 "$expected")" ]]; then
    if [[ -z $expected ]]; then
      e2e_fail "'$E2E_REC_PROMPT' should get no answer, got $E2E_REC_BYTES bytes"
    fi
    e2e_fail "'$E2E_REC_PROMPT' got a different answer ($E2E_REC_BYTES bytes, expected ${#expected})"
  fi
}

# --- keychain --------------------------------------------------------------

# e2e_keychain ARGS...: the keychain tool on the scratch default keychain.
e2e_keychain() { "$E2E_KEYCHAIN_TOOL" "$@"; }

# e2e_store_internet_password URL SECRET [OPTIONS...]: the secret goes in on
# standard input, never on the command line.
e2e_store_internet_password() {
  local url=$1 secret=$2
  shift 2
  printf '%s' "$secret" | e2e_keychain add-internet-password --url "$url" "$@" ||
    e2e_fail "zarvo-keychain could not store the password for $url"
}

# e2e_store_generic_password ACCOUNT SERVICE SECRET [OPTIONS...]
e2e_store_generic_password() {
  local account=$1 service=$2 secret=$3
  shift 3
  printf '%s' "$secret" | e2e_keychain add-generic-password -a "$account" -s "$service" "$@" ||
    e2e_fail "zarvo-keychain could not store the password for $account/$service"
}
