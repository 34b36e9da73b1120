# bash completion for skerrowctl(1).
# Installed as /usr/share/bash-completion/completions/skerrowctl.
#
# Completes the global options, the commands, each command's own options,
# category names and on/off for "set", the uids of your backups (asked of
# the engine with "skerrowctl list") and paths where a command takes one.

_skerrowctl_commands="list manage adopt forget pause activate backup count cancel set filter heartbeat conversion versions restore mount umount agent"
_skerrowctl_global_options="--json --session --user --max-errors --help --version"

# The options of one command (--help is every command's).
_skerrowctl_command_options() {
  case "$1" in
    manage) echo "--keep --depth --period --categories" ;;
    activate) echo "--now" ;;
    backup) echo "--no-follow --tally" ;;
    count) echo "--no-follow" ;;
    filter) echo "--clear" ;;
    versions) echo "--backup" ;;
    restore) echo "--at --version --to --overwrite --backup" ;;
    mount) echo "--at --backup --foreground" ;;
    conversion) echo "--wait" ;;
  esac
  echo "--help"
}

# The uids of the caller's backups, first column of "skerrowctl list".
_skerrowctl_uids() {
  skerrowctl "$@" list 2>/dev/null | awk 'NR > 1 && $1 ~ /^[0-9A-F-]+$/ { print $1 }'
}

_skerrowctl() {
  local cur prev
  cur="${COMP_WORDS[COMP_CWORD]}"
  prev="${COMP_WORDS[COMP_CWORD - 1]}"
  COMPREPLY=()

  # Find the command: the first word that is neither a global option nor its value.
  local i=1 command="" command_at=0 bus=()
  while [ "$i" -lt "$COMP_CWORD" ]; do
    case "${COMP_WORDS[i]}" in
      --user | --max-errors) i=$((i + 1)) ;;
      --session) bus=(--session) ;;
      -*) ;;
      *) command="${COMP_WORDS[i]}"; command_at=$i; break ;;
    esac
    i=$((i + 1))
  done

  if [ -z "$command" ]; then
    case "$prev" in
      --user) COMPREPLY=($(compgen -u -- "$cur")); return ;;
      --max-errors) return ;;
    esac
    if [[ "$cur" == -* ]]; then
      COMPREPLY=($(compgen -W "$_skerrowctl_global_options" -- "$cur"))
    else
      COMPREPLY=($(compgen -W "$_skerrowctl_commands" -- "$cur"))
    fi
    return
  fi

  # The values of a command's options.
  case "$prev" in
    --to) COMPREPLY=($(compgen -f -- "$cur")); return ;;
    --backup) COMPREPLY=($(compgen -W "$(_skerrowctl_uids "${bus[@]}")" -- "$cur")); return ;;
    --categories) COMPREPLY=($(compgen -W "Pictures Music Movies Mail Documents Other" -- "$cur")); return ;;
    --depth | --keep | --period | --version | --at | --wait) return ;;
  esac
  if [[ "$cur" == -* ]]; then
    COMPREPLY=($(compgen -W "$(_skerrowctl_command_options "$command")" -- "$cur"))
    return
  fi

  # Arguments: count the words after the command that are not options or their values.
  local argument=0 j=$((command_at + 1))
  while [ "$j" -lt "$COMP_CWORD" ]; do
    case "${COMP_WORDS[j]}" in
      --depth | --keep | --period | --categories | --version | --at | --to | --backup | --wait) j=$((j + 1)) ;;
      -*) ;;
      *) argument=$((argument + 1)) ;;
    esac
    j=$((j + 1))
  done

  case "$command" in
    manage | conversion | mount | umount)
      [ "$argument" -eq 0 ] && COMPREPLY=($(compgen -d -- "$cur")) ;;
    versions | restore)
      [ "$argument" -eq 0 ] && COMPREPLY=($(compgen -f -- "$cur")) ;;
    adopt | forget | activate | backup | count | cancel)
      [ "$argument" -eq 0 ] && COMPREPLY=($(compgen -W "$(_skerrowctl_uids "${bus[@]}")" -- "$cur")) ;;
    set)
      case "$argument" in
        0) COMPREPLY=($(compgen -W "$(_skerrowctl_uids "${bus[@]}")" -- "$cur")) ;;
        1) COMPREPLY=($(compgen -W "period keep depth scheduled category" -- "$cur")) ;;
        2)
          case "$prev" in
            scheduled) COMPREPLY=($(compgen -W "on off" -- "$cur")) ;;
            category) COMPREPLY=($(compgen -W "Pictures Music Movies Mail Documents Other" -- "$cur")) ;;
          esac ;;
        3) COMPREPLY=($(compgen -W "on off" -- "$cur")) ;;
      esac ;;
  esac
}
complete -F _skerrowctl skerrowctl
