# Completion of vmescape-agent for bash.
_vmescape_agent() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
    local verb=${COMP_WORDS[1]}
    if [ "$COMP_CWORD" -eq 1 ]; then
        mapfile -t COMPREPLY < <(compgen -W 'run check status metrics selftest version --help --version' -- "$word")
        return
    fi
    case $before in
        --config | --socket) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
        --policies | --modules) mapfile -t COMPREPLY < <(compgen -d -- "$word") ;;
        --format) mapfile -t COMPREPLY < <(compgen -W 'auto text json' -- "$word") ;;
        --output) mapfile -t COMPREPLY < <(compgen -W 'stdout file: json:stdout text:stdout json:file: text:file: syslog syslog:unix: syslog:tcp: webhook' -- "$word") ;;
        --log-level)
            mapfile -t COMPREPLY < <(compgen -W 'fatal critical error warning notice information debug trace' -- "$word") ;;
        *)
            if [ "$verb" = check ]; then
                mapfile -t COMPREPLY < <(compgen -f -X '!*.json' -- "$word")
            elif [ "$verb" = status ]; then
                mapfile -t COMPREPLY < <(compgen -W '--json --config --socket --help' -- "$word")
            elif [ "$verb" = metrics ]; then
                mapfile -t COMPREPLY < <(compgen -W '--listen --config --socket --help' -- "$word")
            elif [ "$verb" = selftest ]; then
                mapfile -t COMPREPLY < <(compgen -W '--json --modules --help' -- "$word")
            else
                mapfile -t COMPREPLY < <(compgen -W '--config --policies --modules --format --output --log-level -o --help' -- "$word")
            fi ;;
    esac
}
complete -o filenames -F _vmescape_agent vmescape-agent
