# bash completion for quillet-capture                                     -*- shell-script -*-
# Plain bash (compgen, compopt): works with or without the bash-completion package.

# Offers the options of the command being completed that are not given yet; the first
# argument lists those that may be given again. Every command also takes --help and --verbose.
_quillet_capture_offer()
{
    local options=$1 option
    shift
    for option in "$@" --help --verbose; do
        [[ " ${COMP_WORDS[*]:2:COMP_CWORD-2} " == *" $option "* ]] || options+=" $option"
    done
    COMPREPLY=($(compgen -W "$options" -- "$cur"))
}

_quillet_capture()
{
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local commands="setup config pair install uninstall status audit retry sync import-existing run version help"
    COMPREPLY=()

    if ((COMP_CWORD == 1)); then
        if [[ $cur == -* ]]; then
            COMPREPLY=($(compgen -W "--version -v" -- "$cur"))
        else
            COMPREPLY=($(compgen -W "$commands" -- "$cur"))
        fi
        return
    fi

    case ${COMP_WORDS[1]} in
    help)
        ((COMP_CWORD == 2)) && COMPREPLY=($(compgen -W "$commands" -- "$cur"))
        ;;
    setup)
        case $prev in
        --vault | --watch)
            compopt -o filenames 2>/dev/null
            COMPREPLY=($(compgen -d -- "$cur"))
            return
            ;;
        --after-transcript)
            # A shell command of the user's: nothing to offer.
            return
            ;;
        esac
        _quillet_capture_offer --watch --vault --no-upload --upload --no-keep-voice-memos --after-transcript --no-notifications
        ;;
    config)
        local keys="vaultPath watchedFoldersRaw captureVoiceMemosEnabled keepVoiceMemosRunning captureVeldaneEnabled
            veldaneBaseURL afterTranscriptCommand notifications notifyTranscriptReady notifyTranscriptFailed
            notifyVoiceMemoSent excludeFilePatterns"
        if ((COMP_CWORD == 2)); then
            COMPREPLY=($(compgen -W "list get set unset watch unwatch" -- "$cur"))
        elif ((COMP_CWORD == 3)); then
            case ${COMP_WORDS[2]} in
            list) COMPREPLY=($(compgen -W "--json" -- "$cur")) ;;
            get | set | unset) COMPREPLY=($(compgen -W "$keys" -- "$cur")) ;;
            watch | unwatch)
                compopt -o filenames 2>/dev/null
                COMPREPLY=($(compgen -d -- "$cur"))
                ;;
            esac
        elif ((COMP_CWORD == 4)) && [[ ${COMP_WORDS[2]} == set ]]; then
            case ${COMP_WORDS[3]} in
            vaultPath)
                compopt -o filenames 2>/dev/null
                COMPREPLY=($(compgen -d -- "$cur"))
                ;;
            capture* | keepVoiceMemosRunning | notif*) COMPREPLY=($(compgen -W "true false" -- "$cur")) ;;
            esac
        fi
        ;;
    audit)
        # --since takes a day, YYYY-MM-DD.
        [[ $prev == --since ]] && return
        _quillet_capture_offer "" --all --since --verify --json
        ;;
    retry)
        # --restore takes the id of a removed note (audit --all lists them).
        [[ $prev == --restore ]] && return
        _quillet_capture_offer "" --restore
        ;;
    status)
        _quillet_capture_offer "" --json
        ;;
    import-existing)
        # --since takes a day, YYYY-MM-DD; --folder a folder.
        case $prev in
        --since) return ;;
        --folder)
            compopt -o filenames 2>/dev/null
            COMPREPLY=($(compgen -d -- "$cur"))
            return
            ;;
        esac
        _quillet_capture_offer "" --since --folder --dry-run
        ;;
    *)
        _quillet_capture_offer ""
        ;;
    esac
} &&
    complete -F _quillet_capture quillet-capture
