# Completion of docsource for bash. The program itself knows what can stand where.
_docsource() {
  local word=${COMP_WORDS[COMP_CWORD]} line
  COMPREPLY=()
  while IFS= read -r line; do
    line=${line%%$'\t'*}
    case $line in
      /files) compopt -o filenames && mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$word") ;;
      /directories) compopt -o filenames && mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -d -- "$word") ;;
      "$word"*) COMPREPLY+=("$(printf %q "$line")") ;;
    esac
  done < <("${COMP_WORDS[0]}" --complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}
complete -F _docsource docsource
