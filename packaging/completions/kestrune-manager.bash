# bash completion of kestrune-manager(8): its own help says which options it has.

_kestrune_manager()
{
    local cur=$2 prev=$3
    case $prev in
    -c | --config | --state)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return
        ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$("$1" --help 2>/dev/null |
        sed -n 's/^ *\(-[A-Za-z],\)\{0,1\}\(--[a-z][a-z-]*\).*/\2/p')" -- "$cur")
}

complete -F _kestrune_manager kestrune-manager
