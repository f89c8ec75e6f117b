# bash completion for vyqcr, qcrsh and qcrcp.
# Subcommands and their options; for value and file commands the names held by
# the repository, asked of a running server with a short time limit so that an
# unreachable repository never stalls the shell.

_vyqcr_subcommands="setup init auth refresh backup lsnodes chnodes lsdisks chdisks config
  vlist vput vget vdel flist fput fget fdel query show trace msglevel dump echo
  readpaxos patchpaxos netdown quit check"

# Options each subcommand uses (every option is accepted by every subcommand).
_vyqcr_options() {
  case "$1" in
    setup) echo "-c -p -F -R" ;;
    init) echo "-n -d -D -m -A -c -f" ;;
    auth|refresh|dump|echo|trace|msglevel|netdown|quit) echo "-n" ;;
    backup) echo "-A" ;;
    lsnodes|lsdisks|config) echo "-Y -y" ;;
    chnodes) echo "-n -F -W -Q" ;;
    chdisks) echo "-d -D -m -F" ;;
    vput|fput) echo "-c -v" ;;
    vget|vdel|fget|fdel) echo "-c" ;;
    check) echo "-e -Y -y" ;;
  esac
  echo "-P -V"
}

# Names in the repository: values (vlist) or files (flist), at most 2 seconds.
_vyqcr_names() {  # _vyqcr_names PROGRAM vlist|flist
  local out
  out=$(timeout 2 "$1" "$2" 2>/dev/null) || return 0
  # Both listings: two header lines, then the version and the name.
  printf '%s\n' "$out" | awk 'NR > 2 { print $2 }'
}

_vyqcr() {
  local cur prev words cword
  cur="${COMP_WORDS[COMP_CWORD]}"
  prev="${COMP_WORDS[COMP_CWORD-1]}"
  COMPREPLY=()
  if [ "$COMP_CWORD" -eq 1 ]; then
    mapfile -t COMPREPLY < <(compgen -W "$_vyqcr_subcommands" -- "$cur")
    return 0
  fi
  local sub="${COMP_WORDS[1]}"
  case "$prev" in
    -A|-c) [ "$sub" = setup ] || [ "$prev" = -A ] || return 0
           mapfile -t COMPREPLY < <(compgen -f -- "$cur"); return 0 ;;
    -D) mapfile -t COMPREPLY < <(compgen -d -- "$cur"); return 0 ;;
    -P|-p|-n|-d|-m|-v|-f|-a) return 0 ;;
  esac
  if [[ "$cur" == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(_vyqcr_options "$sub")" -- "$cur")
    return 0
  fi
  # The position among the positional arguments: options and their values skipped.
  local i=2 n=0
  while [ "$i" -lt "$COMP_CWORD" ]; do
    case "${COMP_WORDS[i]}" in
      -[PpnfdDcavmA]) i=$((i + 2)); continue ;;
      -*) ;;
      *) n=$((n + 1)) ;;
    esac
    i=$((i + 1))
  done
  case "$sub:$n" in
    vget:0|vput:0|vdel:0)
      mapfile -t COMPREPLY < <(compgen -W "$(_vyqcr_names "${COMP_WORDS[0]}" vlist)" -- "$cur") ;;
    fget:0|fput:0|fdel:0)
      mapfile -t COMPREPLY < <(compgen -W "$(_vyqcr_names "${COMP_WORDS[0]}" flist)" -- "$cur") ;;
    fget:1|fput:1|readpaxos:0|patchpaxos:*)
      mapfile -t COMPREPLY < <(compgen -f -- "$cur") ;;
  esac
  return 0
}

# qcrsh: a host, then a command; qcrcp: local paths (host:path is typed).
_qcrsh() {
  local cur="${COMP_WORDS[COMP_CWORD]}"
  COMPREPLY=()
  if [[ "$cur" == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "-V -l -n" -- "$cur")
  elif [ "$COMP_CWORD" -gt 1 ]; then
    mapfile -t COMPREPLY < <(compgen -c -- "$cur")
  fi
  return 0
}
_qcrcp() {
  local cur="${COMP_WORDS[COMP_CWORD]}"
  COMPREPLY=()
  if [[ "$cur" == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "-V -p" -- "$cur")
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$cur")
  fi
  return 0
}

complete -F _vyqcr vyqcr
complete -F _qcrsh qcrsh
complete -F _qcrcp qcrcp
