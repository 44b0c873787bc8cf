# What scripts that wait for something share; to be read with ".".

wait_for() { # SECONDS COMMAND...: until the command succeeds; false when it does not in time
    local tries=$(($1 * 10))
    shift
    until "$@"; do
        [ "$((tries -= 1))" -gt 0 ] || return 1
        sleep 0.1
    done
}
