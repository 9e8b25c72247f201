#compdef docsource
# Completion of docsource for zsh. The program itself knows what can stand where.
local line
local -a candidates
for line in ${(f)"$(${words[1]} --complete "${(@)words[2,CURRENT]}" 2>/dev/null)"}; do
  case $line in
    /files) _files ;;
    /directories) _directories ;;
    *) candidates+=("${${line%%$'\t'*}//:/\\:}${${line#*$'\t'}:+:${line#*$'\t'}}") ;;
  esac
done
(( ${#candidates} )) && _describe docsource candidates
