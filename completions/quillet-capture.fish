# fish completion for quillet-capture

set -l commands setup config pair install uninstall status audit retry sync import-existing run version help

complete -c quillet-capture -f
complete -c quillet-capture -n "not __fish_seen_subcommand_from $commands" -a setup -d 'Choose the vault, write the settings and print them'
complete -c quillet-capture -n "not __fish_seen_subcommand_from $commands" -a config -d 'Show or change one setting, watch or unwatch a folder'
complete -c quillet-capture -n "not __fish_seen_subcommand_from $commands" -a pair -d 'Connect this computer to a Veldane account'
complete -c quillet-capture -n "not __fish_seen_subcommand_from $commands" -a install -d 'Start the agent automatically at login'
complete -c quillet-capture -n "not __fish_seen_subcommand_from $commands" -a uninstall -d 'Stop the agent and remove it from login'
complete -c quillet-capture -n "not __fish_seen_subcommand_from $commands" -a status -d 'Show configuration, access and recent log lines'
complete -c quillet-capture -n "not __fish_seen_subcommand_from $commands" -a audit -d 'Account for every recording and say what needs you'
complete -c quillet-capture -n "not __fish_seen_subcommand_from $commands" -a retry -d 'Upload captures that were skipped or failed'
complete -c quillet-capture -n "not __fish_seen_subcommand_from $commands" -a sync -d 'Bring transcripts from the Veldane account into the vault'
complete -c quillet-capture -n "not __fish_seen_subcommand_from $commands" -a import-existing -d 'Send recordings already in Voice Memos too'
complete -c quillet-capture -n "not __fish_seen_subcommand_from $commands" -a run -d 'Run the agent in the foreground'
complete -c quillet-capture -n "not __fish_seen_subcommand_from $commands" -a version -d 'Print the version'
complete -c quillet-capture -n "not __fish_seen_subcommand_from $commands" -a help -d 'Show what a command does, its options and an example'
complete -c quillet-capture -n "not __fish_seen_subcommand_from $commands" -l version -d 'Print the version'
complete -c quillet-capture -n "not __fish_seen_subcommand_from $commands" -s v -d 'Print the version'

complete -c quillet-capture -n "__fish_seen_subcommand_from $commands" -s h -l help -d 'Show the help of the command; nothing else is done'
complete -c quillet-capture -n "__fish_seen_subcommand_from $commands" -l verbose -d 'Also show the log lines on the terminal'
complete -c quillet-capture -n '__fish_seen_subcommand_from help' -a "$commands"

complete -c quillet-capture -n '__fish_seen_subcommand_from setup' -l vault -x -a '(__fish_complete_directories)' -d 'The notes folder'
complete -c quillet-capture -n '__fish_seen_subcommand_from setup' -l no-upload -d 'Capture into the vault only, send nothing to Veldane'
complete -c quillet-capture -n '__fish_seen_subcommand_from setup' -l upload -d 'Send recordings to Veldane again'
complete -c quillet-capture -n '__fish_seen_subcommand_from setup' -l no-keep-voice-memos -d 'Do not keep Voice Memos running'
complete -c quillet-capture -n '__fish_seen_subcommand_from setup' -l after-transcript -x -d 'Command to run after each transcript'
complete -c quillet-capture -n '__fish_seen_subcommand_from setup' -l no-notifications -d 'Show no desktop notifications'
complete -c quillet-capture -n '__fish_seen_subcommand_from setup' -l watch -x -a '(__fish_complete_directories)' -d 'Watch this folder too (repeatable)'

set -l config_words list get set unset watch unwatch
set -l config_keys vaultPath watchedFoldersRaw captureVoiceMemosEnabled keepVoiceMemosRunning captureVeldaneEnabled veldaneBaseURL afterTranscriptCommand notifications notifyTranscriptReady notifyTranscriptFailed notifyVoiceMemoSent excludeFilePatterns
complete -c quillet-capture -n "__fish_seen_subcommand_from config; and not __fish_seen_subcommand_from $config_words" -a "$config_words"
complete -c quillet-capture -n '__fish_seen_subcommand_from config; and __fish_seen_subcommand_from get set unset' -a "$config_keys"
complete -c quillet-capture -n '__fish_seen_subcommand_from config; and __fish_seen_subcommand_from watch unwatch' -a '(__fish_complete_directories)'
complete -c quillet-capture -n '__fish_seen_subcommand_from config; and __fish_seen_subcommand_from list' -l json -d 'Print one JSON object'

complete -c quillet-capture -n '__fish_seen_subcommand_from import-existing' -l since -x -d 'Only recordings from this day on (YYYY-MM-DD)'
complete -c quillet-capture -n '__fish_seen_subcommand_from import-existing' -l folder -x -a '(__fish_complete_directories)' -d 'Only this watched folder'
complete -c quillet-capture -n '__fish_seen_subcommand_from import-existing' -l dry-run -d 'List what would be queued, queue nothing'

complete -c quillet-capture -n '__fish_seen_subcommand_from audit' -l all -d 'Also list the skipped files'
complete -c quillet-capture -n '__fish_seen_subcommand_from audit' -l since -x -d 'Only recordings from this day on (YYYY-MM-DD)'
complete -c quillet-capture -n '__fish_seen_subcommand_from audit' -l verify -d 'Read every audio copy again and compare its SHA-256'
complete -c quillet-capture -n '__fish_seen_subcommand_from audit' -l json -d 'Print JSON for scripts'

complete -c quillet-capture -n '__fish_seen_subcommand_from retry' -l restore -x -d 'Bring back a note removed from the inbox (its id)'

complete -c quillet-capture -n '__fish_seen_subcommand_from status' -l json -d 'Print the same facts as one JSON object'
