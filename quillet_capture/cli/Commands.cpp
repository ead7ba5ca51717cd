#include "quillet_capture/cli/Commands.hpp"

#include "quillet_capture/cli/Console.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/platform/System.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"

#include <algorithm>
#include <cstdio>

namespace quillet {

namespace {

using Value = Option::Value;

constexpr bool kMac = System::currentPlatform == System::Platform::macOS;

// The words of this system where the two differ.
std::string onSystem(const char* mac, const char* linux)
{
    return kMac ? mac : linux;
}

const Command* commandNamed(const std::string& word)
{
    for (const auto& command : commandTable()) {
        for (const auto& name : command.words) {
            if (name == word) {
                return &command;
            }
        }
    }
    return nullptr;
}

void cmdHelp(const CommandLine& line)
{
    if (line.operands.empty()) {
        usage();
    }
    const Command* command = commandNamed(line.operands.front());
    if (!command) {
        throw UsageError("help: there is no command \"" + line.operands.front() +
                         "\" (quillet-capture help lists the commands)");
    }
    out(helpText(*command));
}

const std::string kWrongOption = "2 an option or word it does not take, or a value that does not parse (nothing done).";

} // namespace

const std::vector<Command>& commandTable()
{
    static const std::vector<Command> table = {
        {
            .words = {"setup"},
            .operands = "",
            .maxOperands = 0,
            .summary = "Chooses the vault (the folder of the notes), creates its _inbox folder, writes the settings "
                       "file and prints a summary of the settings. Run again, it changes only what its options "
                       "name and says what changed: the vault, upload, the folders watched so far and the rest "
                       "stay as they are (--watch adds a folder; quillet-capture config changes one setting)." +
                       onSystem("",
                                " On Linux no folder is watched until you name one with --watch: point it at "
                                "the folder that your recorder or your phone's recordings sync into."),
            .options =
                {
                    {"--vault", Value::folder, "<folder>",
                     onSystem("the vault; default: quillet in iCloud Drive when the Mac has it, else ~/Documents/quillet",
                              "the vault; default: ~/Documents/quillet"),
                     false},
                    {"--watch", Value::folder, "<folder>",
                     "also watch this folder for new recordings; repeat it for more folders", true},
                    {"--no-upload", Value::none, "", "copy recordings and write their notes, but send nothing to Veldane",
                     false},
                    {"--upload", Value::none, "", "send recordings to Veldane again after an earlier --no-upload", false},
                    {"--no-keep-voice-memos", Value::none, "",
                     onSystem("do not keep the Voice Memos app running in the background",
                              "do not keep the Voice Memos app running (there is none on Linux: no effect here)"),
                     false},
                    {"--after-transcript", Value::text, "'<command>'",
                     "run this shell command in the vault after each transcript (QUILLET_ID, QUILLET_FILE and "
                     "QUILLET_FOLDER set); an empty one turns it off",
                     false},
                    {"--no-notifications", Value::none, "", "show no desktop notifications", false},
                },
            .changes = "writes the settings file (quillet-capture status shows where), creates <vault>/_inbox and "
                       "notes when each watched folder was first watched; a settings file that could not be read "
                       "is kept beside the new one. A running agent takes the new settings.",
            .example = onSystem("quillet-capture setup --vault ~/Notes --no-upload",
                                "quillet-capture setup --vault ~/Notes --watch ~/Recordings"),
            .exitStatus = "0 saved; 1 the inbox could not be created; " + kWrongOption,
            .showsLog = false,
            .run = [](const CommandLine&) { cmdSetup(args); },
        },
        {
            .words = {"config"},
            .operands = "[list | get KEY | set KEY VALUE | unset KEY | watch FOLDER | unwatch FOLDER]",
            .maxOperands = 3,
            .summary = "Shows or changes one setting of the settings file at a time, checked as setup checks it: "
                       "list shows every key with its value (or its default), get one key, set changes one, unset "
                       "returns it to its default, watch adds a watched folder and unwatch removes one. The keys "
                       "and their meaning are in the manual page's SETTINGS section. A value that starts with a "
                       "dash follows \"--\" (config set afterTranscriptCommand -- '-x').",
            .options = {{"--json", Value::none, "", "with list: print the settings as one JSON object", false}},
            .changes = "set, unset, watch and unwatch write the settings file (that key alone) and tell a running "
                       "agent; watch also notes when the folder was first watched. list and get only read.",
            .example = "quillet-capture config set captureVeldaneEnabled false",
            .exitStatus = "0 done (also a folder that is already watched); 2 an unknown key, a value the key does "
                          "not take, a change before any setup, or " +
                          kWrongOption.substr(2),
            .showsLog = false,
            .run =
                [](const CommandLine& line) {
                    std::vector<std::string> words = {"config"};
                    words.insert(words.end(), line.operands.begin(), line.operands.end());
                    if (std::find(line.arguments.begin(), line.arguments.end(), "--json") != line.arguments.end()) {
                        words.push_back("--json");
                    }
                    cmdConfig(words);
                },
        },
        {
            .words = {"pair"},
            .operands = "",
            .maxOperands = 0,
            .summary = onSystem("Connects this Mac to your Veldane account: opens the sign-in page in the browser "
                                "(and prints it with its code), waits until you approve the sign-in there, and "
                                "saves the device token in the login Keychain.",
                                "Connects this computer to your Veldane account: opens the sign-in page in the "
                                "browser (and prints it with its code), waits until you approve the sign-in there, "
                                "and saves the device token in the Secret Service of your desktop, or, where there "
                                "is none, in a file only you can read."),
            .options = {},
            .changes = onSystem("saves the device token in the login Keychain.",
                                "saves the device token in the Secret Service, or in the token file "
                                "(quillet-capture status shows which)."),
            .example = "quillet-capture pair",
            .exitStatus = "0 paired; 1 the sign-in failed or expired, or the token could not be saved; " + kWrongOption,
            .showsLog = false,
            .run = [](const CommandLine&) { cmdPair(); },
        },
        {
            .words = {"install"},
            .operands = "",
            .maxOperands = 0,
            .summary = onSystem("Writes the LaunchAgent for the program file that runs this command and loads it "
                                "with launchctl: the agent starts now, at every login, and again when it stops. "
                                "Run it from the copy that stays (the installed one), not from a build folder.",
                                "Writes the systemd user unit for the program file that runs this command and "
                                "enables it with systemctl --user: the agent starts now, at every login, and again "
                                "when it stops. Run it from the copy that stays (the installed one), not from a "
                                "build folder."),
            .options = {},
            .changes = onSystem("writes ~/Library/LaunchAgents/se.Brannick.quillet.capture.plist and starts the agent.",
                                "writes ~/.config/systemd/user/se.Brannick.quillet.capture.service and starts the "
                                "agent."),
            .example = "quillet-capture install",
            .exitStatus = "0 installed and started; 1 it could not be written or started; " + kWrongOption,
            .showsLog = false,
            .run = [](const CommandLine&) { cmdInstall(); },
        },
        {
            .words = {"import-existing"},
            .operands = "",
            .maxOperands = 0,
            .summary = "Queues the recordings that were already in the watched folders before they were first "
                       "watched (the Voice Memos folder's .m4a, .qta and .wav files, and the audio files of every "
                       "other watched folder) for the agent to capture, with the agent stopped meanwhile, and "
                       "says per folder how many. Recordings in Recently Deleted, recordings already captured, "
                       "the same recording found twice and those whose note you removed are left out.",
            .options = {{"--since", Value::day, "YYYY-MM-DD", "only the recordings made on or after that day", false},
                        {"--folder", Value::folder, "<folder>", "only this watched folder (default: every one)", false},
                        {"--dry-run", Value::none, "", "list what would be queued, and queue nothing", false}},
            .changes = "adds the recordings to the capture state's queue (the agent then copies them into the "
                       "vault and writes their notes); with --dry-run, nothing.",
            .example = "quillet-capture import-existing --folder ~/Recordings --dry-run",
            .exitStatus = "0 queued (also when there was nothing left to queue); 1 nothing is set up or a folder "
                          "cannot be read; 2 a folder that is not watched, or " +
                          kWrongOption.substr(2),
            .showsLog = false,
            .run = [](const CommandLine&) { cmdImportExisting(args); },
        },
        {
            .words = {"retry"},
            .operands = "",
            .maxOperands = 0,
            .summary = "Uploads again, with the agent stopped meanwhile, the captures whose upload was skipped or "
                       "failed, printing each. With --restore, brings back instead a note that you removed from "
                       "the inbox: it is written again from its audio copy (and the agent sends the recording "
                       "for a new transcript), or, for a transcript that sync brought, the next sync brings it.",
            .options = {{"--restore", Value::text, "<id>",
                         "bring back the removed note with this id (quillet-capture audit --all lists them)", false}},
            .changes = "the notes' job status and the capture state; with --restore, the note and the vault's "
                       "ledger.",
            .example = "quillet-capture retry",
            .exitStatus = "0 done, whatever each upload's outcome; 1 nothing is set up, no device token, or no "
                          "removed note with that id; " +
                          kWrongOption,
            .showsLog = false,
            .run = [](const CommandLine&) { cmdRetry(args); },
        },
        {
            .words = {"sync"},
            .operands = "",
            .maxOperands = 0,
            .summary = "Brings the transcripts of your Veldane account that the vault lacks into its _inbox, "
                       "printing progress. A transcript whose note you removed is not brought back.",
            .options = {},
            .changes = "writes new notes into <vault>/_inbox and records them in the vault's ledger.",
            .example = "quillet-capture sync",
            .exitStatus = "0 everything brought; 1 nothing is set up, no device token, the account could not be "
                          "listed or an item failed; " +
                          kWrongOption,
            .showsLog = false,
            .run = [](const CommandLine&) { cmdSync(); },
        },
        {
            .words = {"uninstall"},
            .operands = "",
            .maxOperands = 0,
            .summary = onSystem("Stops the background agent and removes its LaunchAgent. Settings, state, notes "
                                "and the device token are kept.",
                                "Stops the background agent and removes its systemd user unit. Settings, state, "
                                "notes and the device token are kept."),
            .options = {},
            .changes = onSystem("removes ~/Library/LaunchAgents/se.Brannick.quillet.capture.plist.",
                                "removes ~/.config/systemd/user/se.Brannick.quillet.capture.service."),
            .example = "quillet-capture uninstall",
            .exitStatus = "0 (also when nothing was installed); " + kWrongOption,
            .showsLog = false,
            .run = [](const CommandLine&) { cmdUninstall(); },
        },
        {
            .words = {"status"},
            .operands = "",
            .maxOperands = 0,
            .summary = "Shows the program and settings in use, the watched folders, upload, pairing and agent "
                       "state, the inbox, the folder access that the agent last logged, and the end of the log.",
            .options = {{"--json", Value::none, "", "print the same facts as one JSON object", false}},
            .changes = "nothing: it only reads.",
            .example = "quillet-capture status --json",
            .exitStatus = "0; " + kWrongOption,
            .showsLog = false,
            .run = [](const CommandLine&) { cmdStatus(args); },
        },
        {
            .words = {"audit"},
            .operands = "",
            .maxOperands = 0,
            .summary = "Accounts for every recording the program knows: the files of the watched folders, the "
                       "notes and audio copies of the inbox, and what the agent remembers. Each is captured, "
                       "waiting, skipped, needs you (with what to do) or removed by you, newest first.",
            .options =
                {
                    {"--all", Value::none, "", "also list the skipped files (hidden by default, always counted)", false},
                    {"--since", Value::day, "YYYY-MM-DD", "only the recordings made on or after that day", false},
                    {"--verify", Value::none, "",
                     "read every audio copy again and compare it with the SHA-256 taken when it was made; a copy "
                     "that differs or is gone needs you",
                     false},
                    {"--json", Value::none, "", "one JSON object: \"recordings\" (one object per recording) and \"counts\"",
                     false},
                },
            .changes = "nothing: it only reads; nothing is written, moved or sent.",
            .example = "quillet-capture audit --since 2026-11-01 --verify",
            .exitStatus = "0 when nothing needs you, 1 when something does, 2 when nothing is set up yet or for " +
                          kWrongOption.substr(2),
            .showsLog = false,
            .run = [](const CommandLine&) { cmdAudit(args); },
        },
        {
            .words = {"run"},
            .operands = "",
            .maxOperands = 0,
            .summary = onSystem("Runs capture in the foreground until it is stopped (Ctrl-C or SIGTERM): watches the "
                                "folders, copies each new recording into the vault, writes its note, uploads it and "
                                "writes its transcript. This is what the LaunchAgent runs; its log lines go to "
                                "standard error and the log file.",
                                "Runs capture in the foreground until it is stopped (Ctrl-C or SIGTERM): watches the "
                                "folders, copies each new recording into the vault, writes its note, uploads it and "
                                "writes its transcript. This is what the systemd user unit runs; its log lines go "
                                "to standard error and the log file."),
            .options = {},
            .changes = "the vault's notes and audio copies, the capture state and the log.",
            .example = "quillet-capture run",
            .exitStatus = "0 when stopped; 1 nothing is set up, no folder is watched, or another agent already "
                          "works on this state folder; " +
                          kWrongOption,
            .showsLog = true,
            .run = [](const CommandLine&) { cmdRun(); },
        },
        {
            .words = {"version", "--version", "-v"},
            .operands = "",
            .maxOperands = 0,
            .summary = "Prints the version, and nothing else.",
            .options = {},
            .changes = "nothing.",
            .example = "quillet-capture version",
            .exitStatus = "0; " + kWrongOption,
            .showsLog = false,
            .run = [](const CommandLine&) { out(toolVersion); },
        },
        {
            .words = {"help"},
            .operands = "[COMMAND]",
            .maxOperands = 1,
            .summary = "Prints the help of COMMAND, as quillet-capture COMMAND --help does; without one, the usage "
                       "of the program.",
            .options = {},
            .changes = "nothing.",
            .example = "quillet-capture help setup",
            .exitStatus = "0; 2 for a word that is no command (nothing done).",
            .showsLog = false,
            .run = cmdHelp,
        },
    };
    return table;
}

void dispatch()
{
    if (args.empty()) {
        usage();
    }
    const Command* command = commandNamed(args[0]);
    if (!command) {
        usage();
    }
    try {
        auto line = CommandLine::read(*command, args);
        if (line.help) {
            out(helpText(*command));
            runtime::exitProcess(0);
        }
        // The terminal shows the command's answers; its log lines go to the log file.
        QuilletLog::echoToStandardError(line.verbose || command->showsLog);
        args = line.arguments;
        command->run(line);
    } catch (const UsageError& error) {
        std::fflush(stdout);
        std::fprintf(stderr, "%s\n", error.what());
        runtime::exitProcess(2);
    }
    runtime::exitProcess(0);
}

} // namespace quillet
