# Completion for notifymon, mfpsim, tracedeck and notifyhub, installed under the name of each. The options are those that the
# program's own --help lists, so that this file knows none that could change.

_qoma()
{
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} under=
    [[ ${COMP_WORDS[1]} == @(doctor|events|replay) ]] && under=${COMP_WORDS[1]}
    COMPREPLY=()
    case $before in
    --registry | --discover | --script | --print-path | --out | --junit | --control | --record | --replay | --settings | check)
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        return
        ;;
    --on)
        local list=
        [[ $word == *,* ]] && list=${word%,*},
        mapfile -t COMPREPLY < <(compgen -P "$list" -W "select adf button fax" -- "${word##*,}")
        return
        ;;
    --address)
        mapfile -t COMPREPLY < <(compgen -A hostname -- "$word")
        return
        ;;
    esac
    if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$("$1" $under --help 2>/dev/null | grep -oE '^ +(-[a-z],)?--[a-z-]+' |
            grep -oE -- '--[a-z-]+')" -- "$word")
    elif [[ $COMP_CWORD == 1 && ${1##*/} == notifymon ]]; then
        mapfile -t COMPREPLY < <(compgen -W doctor -- "$word")
    elif [[ $COMP_CWORD == 1 && ${1##*/} == notifyhub ]]; then
        mapfile -t COMPREPLY < <(compgen -W "run check events replay" -- "$word")
    fi
}

complete -o filenames -F _qoma notifymon mfpsim tracedeck notifyhub
