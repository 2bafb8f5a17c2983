# bash completion for fcadmin: subcommands, their options and actions, files where a file goes.
_fcadmin() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}
    local commands='b64decode bits copy crc16 digest endian errmsg export fetch run shm trace'
    # The subcommand is the first word after fcadmin, or after "fcadmin trace" / "fcadmin help".
    local i=1
    while [[ $i -lt $COMP_CWORD && ( ${COMP_WORDS[i]} == trace || ${COMP_WORDS[i]} == help ) ]]; do
        i=$((i + 1))
    done
    if [[ $i -eq $COMP_CWORD ]]; then
        if [[ $cur == -* ]]; then
            COMPREPLY=($(compgen -W "--help $([[ $i -eq 1 ]] && echo --version -V)" -- "$cur"))
        else
            COMPREPLY=($(compgen -W "$commands" -- "$cur"))
        fi
        return
    fi
    local command=${COMP_WORDS[i]} options='' words=''
    case $command in
    fetch) options='--platform-runner --password-file --quiet' ;;
    export) options='--all --item --dir --platform-shell --password-file --quiet' ;;
    shm)
        options='--hold'
        [[ $((i + 1)) -eq $COMP_CWORD ]] && words='create destroy info init read write'
        ;;
    crc16) options='-s' ;;
    b64decode) options='-f' ;;
    endian) [[ $((i + 1)) -eq $COMP_CWORD ]] && words='swap16 swap32' ;;
    esac
    case $prev in
    --password-file | -f) COMPREPLY=($(compgen -f -- "$cur")); return ;;
    --item | --dir | --hold | -s) return ;;
    esac
    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$options --help" -- "$cur"))
    elif [[ -n $words ]]; then
        COMPREPLY=($(compgen -W "$words" -- "$cur"))
    else
        COMPREPLY=($(compgen -f -- "$cur"))
    fi
}
complete -o filenames -F _fcadmin fcadmin
