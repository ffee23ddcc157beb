# bash completion for ulmoctl

_ulmoctl()
{
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command='' words i

    # The value of an option, and the value in "--timeout=VALUE", is not for us to guess.
    [[ $previous == --timeout || $previous == '=' ]] && return

    for ((i = 1; i < COMP_CWORD; ++i)); do
        case ${COMP_WORDS[i]} in
        --timeout)
            [[ ${COMP_WORDS[i + 1]} == '=' ]] && ((++i))
            ((++i))
            ;;
        -*) ;;
        *)
            command=${COMP_WORDS[i]}
            break
            ;;
        esac
    done

    case $command in
    '') words='status on off pin volume mute unmute disconnect forget watch help
        --json --timeout --help --version' ;;
    on) words='--wait --json --timeout' ;;
    forget) words='--all --json --timeout' ;;
    watch) words='--json' ;;
    *) words='--json --timeout' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}

complete -F _ulmoctl ulmoctl
