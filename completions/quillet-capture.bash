# bash completion for quillet-capture                                     -*- shell-script -*-
# Plain bash (compgen, compopt): works with or without the bash-completion package.

_quillet_capture()
{
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local commands="setup config pair install uninstall status audit retry sync import-existing run version"
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
        # --watch may be given again; the others once.
        local options="--watch" option
        for option in --vault --no-upload --upload --no-keep-voice-memos --after-transcript --no-notifications; do
            [[ " ${COMP_WORDS[*]:2:COMP_CWORD-2} " == *" $option "* ]] || options+=" $option"
        done
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
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
        # --since takes a day, YYYY-MM-DD; every option once.
        [[ $prev == --since ]] && return
        local options="" option
        for option in --all --since --verify --json; do
            [[ " ${COMP_WORDS[*]:2:COMP_CWORD-2} " == *" $option "* ]] || options+=" $option"
        done
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
        ;;
    retry)
        # --restore takes the id of a removed note (audit --all lists them).
        if ((COMP_CWORD == 2)); then
            COMPREPLY=($(compgen -W "--restore" -- "$cur"))
        fi
        ;;
    status)
        [[ " ${COMP_WORDS[*]:2:COMP_CWORD-2} " == *" --json "* ]] || COMPREPLY=($(compgen -W "--json" -- "$cur"))
        ;;
    import-existing)
        # --since takes a day, YYYY-MM-DD.
        if [[ $prev != --since && " ${COMP_WORDS[*]:2:COMP_CWORD-2} " != *" --since "* ]]; then
            COMPREPLY=($(compgen -W "--since" -- "$cur"))
        fi
        ;;
    esac
} &&
    complete -F _quillet_capture quillet-capture
