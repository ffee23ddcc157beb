# bash completion for ulmoctl

_ulmoctl()
{
    local words i

    # The value of an option, and the value in "--timeout=VALUE", is not for us to guess.
    [[ ${COMP_WORDS[COMP_CWORD - 1]} == @(--timeout|=) ]] && return

    words="$(ulmoctl help | sed -n 's/^  \([a-z]*\) .*/\1/p') --json --timeout --help --version"
    for ((i = 1; i < COMP_CWORD; ++i)); do
        case ${COMP_WORDS[i]} in
        on) words='--wait --json --timeout' ;;
        forget) words='--all --json --timeout' ;;
        watch) words='--json' ;;
        [a-z]*) words='--json --timeout' ;;
        esac
    done
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "${COMP_WORDS[COMP_CWORD]}")
}

complete -F _ulmoctl ulmoctl
