# bash completion of kestrune-probe(8): its own help says which options it has.

_kestrune_probe()
{
    local cur=$2 prev=$3 values=''
    case $prev in
    -r | --read | -p | --plugin | --config)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return
        ;;
    -i | --interface) values=$(cd /sys/class/net 2>/dev/null && echo *) ;;
    -P | --params) values='port= export_path= buffer_size= capture_script= verbose=' && compopt -o nospace 2>/dev/null ;;
    -v | --verbose) values='0 1 2 3 4 5' ;;
    *) values=$("$1" --help 2>/dev/null | sed -n 's/^ *\(-[A-Za-z],\)\{0,1\}\(--[a-z][a-z-]*\).*/\2/p') ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$values" -- "$cur")
}

complete -F _kestrune_probe kestrune-probe
