#!/usr/bin/env bash
# Real OpenSSH: an sshd of our own on a loopback port with password
# authentication for a throwaway account, and ssh logging in with the password
# that zarvo-askpass finds for ssh://account@127.0.0.1. Needs root (the account
# and sshd's privilege separation); skips cleanly otherwise.
set -euo pipefail
# shellcheck source=tests/e2e/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
e2e_init ssh-password "${1:-}"

((EUID == 0)) || e2e_skip "needs root to create a test account and run sshd"
[[ -x /usr/sbin/sshd ]] || e2e_skip "sshd is not installed (openssh-server)"
for program in ssh ssh-keygen useradd userdel chpasswd; do
  command -v "$program" >/dev/null || e2e_skip "$program is not installed"
done

# --- the account ---------------------------------------------------------------
account=ze2e$$x$RANDOM
account_secret=$(e2e_random_secret)
account_home=$E2E_TMP/account-home
useradd --no-create-home --home-dir "$account_home" --shell /bin/sh \
  --comment "zarvo end-to-end test account" "$account" ||
  e2e_fail "useradd could not create $account"
e2e_on_exit "userdel --force '$account'"
mkdir -p "$account_home"
chown "$account" "$account_home"
chmod 711 "$E2E_TMP"   # the account reaches its home; nothing else here is readable
printf '%s:%s\n' "$account" "$account_secret" | chpasswd ||
  e2e_fail "chpasswd could not set the password of $account"

# --- sshd ------------------------------------------------------------------------
sshd_dir=$E2E_TMP/sshd
mkdir -p "$sshd_dir"
ssh-keygen -q -t ed25519 -N '' -C zarvo-e2e-host -f "$sshd_dir/host_ed25519"
cat >"$sshd_dir/sshd_config" <<EOF
ListenAddress 127.0.0.1
HostKey $sshd_dir/host_ed25519
PidFile none
# Passwords are checked against the shadow file; the container's PAM stack is
# not needed for that and some of its session modules fail without a login
# service.
UsePAM no
PasswordAuthentication yes
PermitEmptyPasswords no
KbdInteractiveAuthentication no
PubkeyAuthentication no
AuthorizedKeysFile none
PermitRootLogin no
AllowUsers $account
MaxAuthTries 2
PrintMotd no
PrintLastLog no
UseDNS no
Subsystem sftp internal-sftp
LogLevel VERBOSE
EOF
# sshd refuses to start without its privilege separation folder; a container
# that never ran the ssh service lacks it. It stays: another sshd (another run
# of this test) may be using it by the time this one ends.
[[ -d /run/sshd ]] || mkdir -p /run/sshd
/usr/sbin/sshd -t -f "$sshd_dir/sshd_config" || e2e_fail "sshd rejects the test configuration"
e2e_start_sshd "$sshd_dir/sshd_config"

# OpenSSH asks about an unknown host key with "(yes/no/[fingerprint])", which
# the responder deliberately does not take for a host-authenticity question;
# the key is therefore known in advance.
known_hosts=$E2E_TMP/known_hosts
read -r key_type key_data _ <"$sshd_dir/host_ed25519.pub"
printf '[127.0.0.1]:%s %s %s\n' "$E2E_SSH_PORT" "$key_type" "$key_data" >"$known_hosts"

# e2e_ssh KNOWN_HOSTS COMMAND: ssh's output in $E2E_TMP/ssh.out and .err.
e2e_ssh() {
  SSH_ASKPASS=$E2E_DIR/askpass-recorder SSH_ASKPASS_REQUIRE=force DISPLAY=:0 \
    ZARVO_E2E_RESPONDER=$E2E_RESPONDER \
    timeout "$E2E_PEER_SECONDS" ssh -F /dev/null -p "$E2E_SSH_PORT" \
    -o UserKnownHostsFile="$1" -o GlobalKnownHostsFile=/dev/null \
    -o StrictHostKeyChecking=ask -o BatchMode=no -o IdentityAgent=none \
    -o PreferredAuthentications=password -o PubkeyAuthentication=no \
    -o NumberOfPasswordPrompts=1 -o ConnectTimeout=20 \
    "$account@127.0.0.1" "$2" </dev/null >"$E2E_TMP/ssh.out" 2>"$E2E_TMP/ssh.err"
}

# expect_ssh_failure KNOWN_HOSTS MESSAGE: ssh gives up (status 255) saying MESSAGE.
expect_ssh_failure() {
  local status=0
  e2e_ssh "$1" true || status=$?
  e2e_expect_eq "$status" 255 "exit status of ssh that should stop with '$2'"
  grep -q "$2" "$E2E_TMP/ssh.err" || e2e_fail "ssh did not say '$2': $(cat "$E2E_TMP/ssh.err")"
}

e2e_store_internet_password "ssh://$account@127.0.0.1" "$account_secret"

# --- logging in with the stored password ---------------------------------------
e2e_record_start login
proof=$(e2e_random_secret)
e2e_ssh "$known_hosts" "printf '%s\n' '$proof'; id -un" ||
  e2e_fail "ssh login failed (status $?): $(cat "$E2E_TMP/ssh.err")"
e2e_expect_eq "$(sed -n 1p "$E2E_TMP/ssh.out")" "$proof" "first line printed by the remote command"
e2e_expect_eq "$(sed -n 2p "$E2E_TMP/ssh.out")" "$account" "remote user name"
e2e_expect_calls 1
e2e_expect_answer 1 "$account@127.0.0.1's password: " "$account_secret"
e2e_say "ok: ssh logs in as $account with the password stored for ssh://$account@127.0.0.1"

# --- a wrong stored password -------------------------------------------------------
e2e_store_internet_password "ssh://$account@127.0.0.1" "stale-$account_secret" -U
e2e_record_start wrong-password
expect_ssh_failure "$known_hosts" "Permission denied"
e2e_expect_calls 1
e2e_expect_answer 1 "$account@127.0.0.1's password: " "stale-$account_secret"
e2e_say "ok: a wrong stored password is refused cleanly"

# --- an unknown host key --------------------------------------------------------------
# Not answered, so ssh gives up before any password is asked.
e2e_record_start unknown-host
: >"$E2E_TMP/empty_known_hosts"
expect_ssh_failure "$E2E_TMP/empty_known_hosts" "Host key verification failed"
e2e_expect_calls 1
e2e_expect_answer 1 "*(yes/no/\[fingerprint\])*" ""
[[ ! -s $E2E_TMP/empty_known_hosts ]] || e2e_fail "the unknown host key was written to known_hosts"
e2e_say "ok: OpenSSH's host-key question gets no answer"
