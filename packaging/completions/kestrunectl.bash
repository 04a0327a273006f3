# bash completion of kestrunectl(1)

# The addresses of the rules that run on the probes of this command line.
_kestrunectl_addresses()
{
    "$1" "${servers[@]}" --timeout 1s --json list --brief 2>/dev/null | grep -o '"address":"[^"]*"' | cut -d '"' -f 4
}

_kestrunectl()
{
    # Words without regard to ':', which bash splits at, and which IPv6 addresses are full of.
    local line=${COMP_LINE:0:COMP_POINT} words cur='' prev i command='' given=0
    local -a servers=()
    read -ra words <<<"$line"
    [[ $line == *[[:space:]] ]] || { cur=${words[-1]} && unset 'words[-1]'; }
    prev=${words[-1]}

    for ((i = 1; i < ${#words[@]}; i++)); do
        case ${words[i]} in
        -s | --server) servers+=(-s "${words[++i]}") ;;
        -s?*) servers+=("${words[i]}") ;;
        --server=*) servers+=(-s "${words[i]#*=}") ;;
        --color | --timeout | -d | --direction | -c | --packets | -t | --time | -n | --name | -f | --from | \
            --wait-time | -o | --output) ((i++)) ;;
        -*) ;;
        *) if [[ -z $command || $command == history ]]; then
            command+=${command:+ }${words[i]}
        else
            given=1
        fi ;;
        esac
    done

    local options='--help --version --color --json --server --timeout'
    local values=''
    case $command in
    '') values='add remove list show history heavy watch merge verify' ;;
    add) options+=' --from --direction --packets --time --name --history-only --wait --wait-time' ;;
    remove)
        options+=' --direction'
        values=addresses
        ;;
    list) options+=' --direction --all --brief --watch' ;;
    show) ((given)) || values=addresses ;;
    history) values='on off status' ;;
    'history on') values='512M 1G 8G' ;;
    merge)
        options+=' --output --force --cut'
        values=files
        ;;
    verify) values=files ;;
    esac

    case $prev in
    --color) values='auto always never' ;;
    -d | --direction) values='src dst both' ;;
    -t | --time | --timeout | --wait-time) values='30s 5m 1h' ;;
    -f | --from | -o | --output) values=files ;;
    -s | --server) values=hosts ;;
    -c | --packets | -n | --name) values='' ;;
    *) [[ $cur == -* ]] && values=$options ;;
    esac

    case $values in
    files)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return
        ;;
    hosts) values=$(compgen -A hostname) ;;
    addresses) [[ $cur == -* ]] || values=$(_kestrunectl_addresses "${words[0]}") ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$values" -- "$cur")

    # bash replaces only what stands behind the last ':'.
    if [[ $cur == *:* && $COMP_WORDBREAKS == *:* ]]; then
        local kept=${cur%"${cur##*:}"}
        COMPREPLY=("${COMPREPLY[@]#"$kept"}")
    fi
}

complete -F _kestrunectl kestrunectl
