# Completion of vmescape-agent for bash. Only where paths are offered bash is told so: it puts a backslash
# before each colon of a file's name.

# Where alarms may go. $1: what is typed of it, which may begin with a format
_vmescape_agent_output() {
    local typed=$1 format='' formats='json: text: ocsf: ecs:'
    case $typed in
        json:* | text:* | ocsf:* | ecs:*) format=${typed%%:*}: typed=${typed#*:} formats= ;;
    esac
    case $typed in
        file:* | syslog:local:* | syslog:unix:*)
            compgen -f -P "$format${typed%"${typed##*:}"}" -- "${typed##*:}" ;;
        *)
            compgen -P "$format" -W "$formats stdout file: journald syslog syslog:local: syslog:unix: syslog:tcp: webhook kafka" \
                -- "$typed" ;;
    esac
}

_vmescape_agent() {
    # Bash ends a word at a colon, if there is no backslash before it; the words of the line end at blanks.
    local line=${COMP_LINE:0:COMP_POINT} word words options=--help kept paths=''
    word=${line##*[[:space:]]}
    read -ra words <<<"${line%"$word"}"
    kept=${word//\\:/.}
    kept=${kept%"${kept##*:}"}
    word=${word//\\:/:}
    local verb=${words[1]-} before=${words[-1]}
    case $verb in
        '') options='run check status list metrics schema selftest learn replay version --help --version' ;;
        run) options='--config --policies --modules --format --output --log-level --record -o --help' ;;
        check) options='--json --help' ;;
        status | list) options='--json --config --socket --help' ;;
        metrics) options='--listen --config --socket --help' ;;
        replay) options='--config --policies --modules --format --output --log-level --json --help' ;;
        schema) options='--json --help qemu_cmd_detect_feature qemu_file_detect_feature qemu_port_detect_feature agent alarm' ;;
        selftest) options='--json --modules --help' ;;
        version) options='--json --help' ;;
        learn) options='--for --into --config --policies --modules --json --help' ;;
    esac
    case $before in
        --config | --socket | --record) paths=yes; mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
        --policies | --modules | --into) paths=yes; mapfile -t COMPREPLY < <(compgen -d -- "$word") ;;
        --format) mapfile -t COMPREPLY < <(compgen -W 'auto text json ocsf ecs' -- "$word") ;;
        --output)
            case $word in file:* | *:file:* | *syslog:local:* | *syslog:unix:*) paths=yes ;; esac
            mapfile -t COMPREPLY < <(_vmescape_agent_output "$word") ;;
        --log-level)
            mapfile -t COMPREPLY < <(compgen -W 'fatal critical error warning notice information debug trace' -- "$word") ;;
        --listen) mapfile -t COMPREPLY < <(compgen -W '127.0.0.1: unix:/' -- "$word") ;;
        -o | --for) COMPREPLY=() ;;
        *)
            mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
            if [ "$verb" = check ] && [ "${word#-}" = "$word" ]; then
                paths=yes
                mapfile -t COMPREPLY < <(compgen -d -- "$word"; compgen -f -X '!*.json' -- "$word")
            elif [ "$verb" = replay ] && [ "${word#-}" = "$word" ]; then
                paths=yes
                mapfile -t COMPREPLY < <(compgen -f -- "$word")
            fi ;;
    esac
    [ -z "$paths" ] || compopt -o filenames 2>/dev/null
    # Something follows a colon.
    case ${COMPREPLY[0]-} in *: | *:/) compopt -o nospace 2>/dev/null ;; esac
    # Of a word with colons bash replaces what stands behind the last one.
    if [[ $COMP_WORDBREAKS == *:* ]]; then
        COMPREPLY=("${COMPREPLY[@]#"${word:0:${#kept}}"}")
    fi
}
complete -F _vmescape_agent vmescape-agent
