# Completion of docsource for fish. The program itself knows what can stand where.
function __docsource_complete
    set -l words (commandline --tokenize --current-process --cut-at-cursor)
    set -l current (commandline --current-token --cut-at-cursor)
    for line in ($words[1] --complete $words[2..] "$current" 2>/dev/null)
        switch $line
            case /files
                __fish_complete_path "$current"
            case /directories
                __fish_complete_directories "$current"
            case '*'
                echo $line
        end
    end
end
complete --command docsource --no-files --arguments '(__docsource_complete)'
