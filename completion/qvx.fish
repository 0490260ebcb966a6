# Completion for qvx(1) in fish: the commands, options and arguments that `qvx --help` prints, and the paths in an
# archive.

function __qvx_help
    type -q qvx; and qvx $argv --help 2>/dev/null </dev/null | string collect | string replace -ra '\n {20,}' '  ' | string split \n
end

function __qvx_command_is
    set -l words (commandline -poc)
    test "$words[2]" = $argv[1]
end

# The arguments before the cursor, without the options and their values.
function __qvx_arguments # OPTIONS-WITH-VALUE...
    set -l words (commandline -poc)
    set -l skipped 2
    for i in (seq (count $words))
        if test $i -le $skipped
            continue
        else if contains -- $words[$i] $argv
            set skipped (math $i + 1)
        else if not string match -q -- '-?*' $words[$i]
            echo $words[$i]
        end
    end
end

function __qvx_key # the value of --key, if it was given
    set -l words (commandline -poc)
    set -l at (contains -i -- --key $words; or contains -i -- -k $words)
    and echo $words[(math $at + 1)]
    or string match -r -- '(?<=^--key=).*' $words
end

# The paths in the archive that begin with the current word, up to the next slash. In a session without a terminal,
# qvx cannot ask for a passphrase.
function __qvx_paths # ARCHIVE
    set -lx QVX_KEY (__qvx_key; or echo $QVX_KEY)
    set -lx word (commandline -ct | string unescape)
    test -n "$QVX_KEY"; or return
    setsid -w timeout 3 qvx find -- '*' $argv[1] 2>/dev/null </dev/null |
        LC_ALL=C awk 'BEGIN { word = ENVIRON["word"] }
            index($0, word) == 1 {
                slash = index(substr($0, length(word) + 1), "/")
                found[slash ? substr($0, 1, length(word) + slash) : $0]
            }
            END { for (path in found) if (!(path "/" in found)) print path }'
end

function __qvx_value # OPTION, by its long name
    set -l word (commandline -ct | string replace -r '^--[a-z0-9-]+=' '')
    switch $argv[1]
        case key
            __fish_complete_suffix $word .pem
        case recipient
            __fish_complete_suffix $word .pub
        case directory
            __fish_complete_directories $word ''
        case output files0-from newer
            __fish_complete_path $word
        case type
            printf '%s\n' f d l
        case progress
            printf '%s\n' auto json
        case cache include limit size strip-components
    end
end

function __qvx_argument # NAMES OPTIONS-WITH-VALUE...
    set -l names (string split -n ' ' $argv[1])
    set -l given (__qvx_arguments $argv[2..])
    set -l at (math 1 + (count $given))
    set -l name $names[$at]
    test -z "$name"; and set name (string match -- '*...' $names[-1])
    switch $names[1]:(string replace ... '' -- $name)
        case '*:ARCHIVE' '*:BEFORE' '*:AFTER'
            __fish_complete_suffix .qvx
        case '*:FOLDER'
            __fish_complete_directories
        case ARCHIVE:PATH ARCHIVE:PATTERN
            __qvx_paths $given[1]
        case '*:EXPRESSION'
        case '*:PATH'
            __fish_complete_path (commandline -ct)
    end
end

# Declares the completion of a command from its help.
function __qvx_declare # COMMAND
    set -l names
    set -l valued
    for line in (__qvx_help $argv[1])
        if set -l found (string match -r '^Usage: qvx [a-z]+ \[OPTIONS\] ?(.*)$' -- $line)
            set names (string replace -ra '[][]' '' -- $found[2])
        else if set -l found (string match -r '^  ((?:-.,)?)--([a-z0-9-]+)((?: [A-Z]{2,})?)(?:.*  )?(.*)$' -- $line)
            set -l short (string match -r '[^,-]' -- $found[2])
            set -l -- option --long-option=$found[3] --description=$found[5] --short-option=$short
            if test -n "$found[4]"
                set -a valued --$found[3] -$short
                set -a -- option --exclusive --keep-order --arguments="(__qvx_value $found[3])"
            end
            complete -c qvx -n "__qvx_command_is $argv[1]" $option
        end
    end
    complete -c qvx -n "__qvx_command_is $argv[1]" -k -a "(__qvx_argument '$names' $valued)"
end

complete -c qvx -f
complete -c qvx -n 'test (count (commandline -poc)) -eq 1' -l help -d 'Print this help message and exit'
complete -c qvx -n 'test (count (commandline -poc)) -eq 1' -l version -d 'print the version and end'
for line in (__qvx_help | string match -r '^  [a-z].*')
    set -l row (string match -r '^  (\S+)\s+(.*)$' -- $line)
    complete -c qvx -n 'test (count (commandline -poc)) -eq 1' -a $row[2] -d $row[3]
    __qvx_declare $row[2]
end
