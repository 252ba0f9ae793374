# bash completion for zarvo-keychain: its commands, then each command's options.
_zarvo_keychain() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]} options
  local commands="add-internet-password find-internet-password delete-internet-password
    add-generic-password find-generic-password delete-generic-password
    create-keychain delete-keychain unlock-keychain dump-keychain import-git-credentials help"
  if ((COMP_CWORD == 1)); then
    mapfile -t COMPREPLY < <(compgen -W "$commands --help" -- "$current")
    return
  fi
  case $previous in
    -k|create-keychain|delete-keychain|unlock-keychain)
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      return ;;
    -r)
      mapfile -t COMPREPLY < <(compgen -W "ftp ftps http https ssh" -- "$current")
      return ;;
  esac
  case ${COMP_WORDS[1]} in
    add-internet-password) options="-a -s --url -r -P -p -l -k -U" ;;
    find-internet-password) options="-a -s --url -r -P -p -l -k -w" ;;
    delete-internet-password) options="-a -s --url -r -P -p -l -k" ;;
    add-generic-password) options="-a -s -l -k -U" ;;
    find-generic-password) options="-a -s -l -k -w" ;;
    delete-generic-password) options="-a -s -l -k" ;;
    create-keychain) options="--no-password" ;;
    unlock-keychain) options="-k" ;;
    dump-keychain) options="-k -d" ;;
    import-git-credentials)
      mapfile -t COMPREPLY < <(compgen -f -W "-k --remove --help" -- "$current")
      return ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$options --help" -- "$current")
}
complete -F _zarvo_keychain zarvo-keychain
