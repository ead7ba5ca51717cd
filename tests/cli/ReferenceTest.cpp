#include "quillet_capture/cli/CommandLine.hpp"
#include "quillet_capture/cli/Commands.hpp"
#include "quillet_capture/cli/Console.hpp"

#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using Words = std::set<std::string>;

// The manual page, the shell completions, the usage text and the commands' sources against the
// command table, from which the program parses every command line and prints every command's
// help. A command or option added, renamed or removed in one place and not in the others fails
// here.

std::string sourceFile(const std::string& relative)
{
    return test::readFile(fs::path(QUILLET_SOURCE_DIR) / relative);
}

Words matches(const std::string& text, const std::string& pattern)
{
    Words found;
    std::regex re(pattern);
    for (auto it = std::sregex_iterator(text.begin(), text.end(), re); it != std::sregex_iterator(); ++it) {
        found.insert((*it)[1].str());
    }
    return found;
}

Words without(Words words, const Words& removed)
{
    for (const auto& word : removed) {
        words.erase(word);
    }
    return words;
}

Words united(Words words, const Words& added)
{
    words.insert(added.begin(), added.end());
    return words;
}

// The words that select a command: "setup", "version", "--version", "-v", ...
Words commandWords()
{
    Words words;
    for (const auto& command : commandTable()) {
        words.insert(command.words.begin(), command.words.end());
    }
    return words;
}

Words dashWords()
{
    Words words;
    for (const auto& word : commandWords()) {
        if (word.starts_with('-')) {
            words.insert(word);
        }
    }
    return words;
}

Words plainCommands()
{
    return without(commandWords(), dashWords());
}

// The options that the code of a command reads: its "--name" literals.
Words optionsReadIn(const std::string& file)
{
    return without(matches(sourceFile("quillet_capture/cli/" + file), "\"(--[a-z][a-z-]*)\""), commandWords());
}

// The options that the usage text shows for `command`: its line and the lines that continue it.
Words usageOptions(const std::string& command, System::Platform platform)
{
    std::istringstream lines(usageText(platform));
    std::string line, entry;
    bool inside = false;
    while (std::getline(lines, line)) {
        bool starts = line.starts_with("  quillet-capture ");
        if (starts) {
            inside = line.substr(18) == command || line.substr(18).starts_with(command + " ");
        } else if (line.empty() || !line.starts_with("    ")) {
            inside = false;
        }
        if (inside) {
            entry += line + "\n";
        }
    }
    return matches(entry, "(--[a-z][a-z-]*)");
}

// Each command (by its first word) and the options of its row in the table.
std::map<std::string, Words> commandOptions()
{
    std::map<std::string, Words> options;
    for (const auto& command : commandTable()) {
        auto& words = options[command.words.front()];
        for (const auto& option : command.options) {
            words.insert(option.name);
        }
    }
    return options;
}

// What every command takes besides its own options.
Words commonWords()
{
    Words words = {"-h"};
    for (const auto& option : commonOptions()) {
        words.insert(option.name);
    }
    return words;
}

Words allOptions()
{
    Words all;
    for (const auto& [command, options] : commandOptions()) {
        all.insert(options.begin(), options.end());
    }
    return all;
}

TEST(Reference, TheUsageTextAndTheSourcesUseOnlyOptionsOfTheTable)
{
    auto options = commandOptions();
    for (auto platform : {System::Platform::macOS, System::Platform::Linux}) {
        SCOPED_TRACE(platform == System::Platform::macOS ? "macOS" : "Linux");
        ASSERT_FALSE(usageOptions("setup", platform).empty()) << usageText(platform);
        ASSERT_FALSE(usageOptions("import-existing", platform).empty()) << usageText(platform);
        for (const auto& [command, taken] : options) {
            EXPECT_EQ(without(usageOptions(command, platform), taken), Words{}) << command;
        }
    }
    // An option that some command's code reads is in the table, so it is parsed and in the help.
    Words read;
    for (const auto& entry : fs::directory_iterator(fs::path(QUILLET_SOURCE_DIR) / "quillet_capture/cli")) {
        if (entry.path().extension() != ".cpp") {
            continue;
        }
        auto found = optionsReadIn(entry.path().filename().string());
        read.insert(found.begin(), found.end());
    }
    ASSERT_TRUE(read.contains("--vault")) << "no option found: the sources moved?";
    EXPECT_EQ(without(read, united(allOptions(), commonWords())), Words{});
}

// The bold words of a line of roff: the words that a macro (.B, .BR, .BI, .RB, ...) or a
// font escape (\fB) sets in bold, with "\-" read as "-".
Words boldWords(const std::string& line)
{
    std::vector<std::string> parts;
    std::string fonts;
    if (line.starts_with('.')) {
        std::istringstream in(line);
        std::string macro;
        in >> macro;
        std::string rest;
        std::getline(in, rest);
        std::string part;
        bool quoted = false;
        for (char c : rest + " ") {
            if (c == '"') {
                quoted = !quoted;
            } else if (c == ' ' && !quoted) {
                if (!part.empty()) {
                    parts.push_back(part);
                }
                part.clear();
            } else {
                part += c;
            }
        }
        fonts = macro.substr(1);
        if (fonts.size() == 1) {
            fonts += fonts;
        }
    } else {
        parts = {line};
        fonts = "RR";
    }
    Words bold;
    for (size_t i = 0; i < parts.size(); ++i) {
        char font = fonts[i % 2];
        std::string run;
        const std::string& text = parts[i];
        for (size_t k = 0; k < text.size(); ++k) {
            if (text[k] == '\\' && k + 1 < text.size() && text[k + 1] == 'f' && k + 2 < text.size()) {
                if (font == 'B') {
                    run += ' ';
                }
                font = text[k + 2];
                k += 2;
            } else if (text[k] == '\\' && k + 1 < text.size() && text[k + 1] == '-') {
                if (font == 'B') {
                    run += '-';
                }
                ++k;
            } else if (font == 'B') {
                run += text[k];
            }
        }
        auto words = matches(run, "(?:^|[^A-Za-z0-9_-])(-{0,2}[A-Za-z][A-Za-z0-9_-]*)");
        bold.insert(words.begin(), words.end());
    }
    return bold;
}

// The bold words of the tags (the line after ".TP") of a section of the manual page.
Words manualTags(const std::string& section)
{
    std::istringstream lines(sourceFile("man/quillet-capture.1"));
    std::string line;
    bool inside = false, tag = false;
    Words tags;
    while (std::getline(lines, line)) {
        if (line.starts_with(".SH ")) {
            inside = line == ".SH " + section;
        } else if (inside && line.starts_with(".TP")) {
            tag = true;
        } else if (inside && tag) {
            auto words = boldWords(line);
            tags.insert(words.begin(), words.end());
            tag = false;
        }
    }
    return tags;
}

TEST(Reference, TheManualPageDescribesEveryCommandAndOptionAndNothingElse)
{
    EXPECT_EQ(manualTags("COMMANDS"), united(commandWords(), allOptions()));
    EXPECT_EQ(manualTags("OPTIONS"), commonWords());
    EXPECT_NE(sourceFile("man/quillet-capture.1").find("\"quillet-capture " QUILLET_PROJECT_VERSION "\""),
              std::string::npos)
        << "the manual page's title line names another version";
}

TEST(Reference, TheManualPageDescribesTheVariablesThatUsersSet)
{
    // Read by the program only for its own tests: not for users.
    const Words testOnly = {"QUILLET_POLL_INTERVAL_SECONDS", "QUILLET_RETRY_MINUTE_SECONDS",
                            "QUILLET_NOTIFICATION_QUIET_MS"};
    Words read;
    for (const auto& entry : fs::recursive_directory_iterator(fs::path(QUILLET_SOURCE_DIR) / "quillet_capture")) {
        if (entry.path().extension() == ".cpp") {
            auto found = matches(test::readFile(entry.path()), "getenv\\(\"(QUILLET_[A-Z_]+)\"\\)");
            read.insert(found.begin(), found.end());
        }
    }
    ASSERT_TRUE(read.contains("QUILLET_TOKEN_STORE")) << "no variable found: the sources moved?";
    Words documented = manualTags("ENVIRONMENT");
    for (const auto& name : without(read, testOnly)) {
        EXPECT_TRUE(documented.contains(name)) << name;
    }
    for (const auto& name : {"HOME", "XDG_CONFIG_HOME", "XDG_STATE_HOME", "XDG_DATA_HOME", "QUILLET_ID",
                             "QUILLET_FILE", "QUILLET_FOLDER"}) {
        EXPECT_TRUE(documented.contains(name)) << name;
    }
}

// What the bash completion offers for the command line `words` (the last one being completed).
Words bashOffers(const std::vector<std::string>& words)
{
    std::string script = "source \"$1\"; shift\n"
                         "registered=$(complete -p quillet-capture) || exit 3\n"
                         "function=${registered#*-F }; function=${function%% *}\n"
                         "COMP_WORDS=(quillet-capture \"$@\"); COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n"
                         "COMP_LINE=\"${COMP_WORDS[*]}\"; COMP_POINT=${#COMP_LINE}\n"
                         "\"$function\" quillet-capture \"${COMP_WORDS[COMP_CWORD]}\" \"${COMP_WORDS[COMP_CWORD-1]}\"\n"
                         "printf '%s\\n' \"${COMPREPLY[@]}\"\n";
    std::vector<std::string> arguments = {"--norc", "-c", script, "bash",
                                          std::string(QUILLET_SOURCE_DIR) + "/completions/quillet-capture.bash"};
    arguments.insert(arguments.end(), words.begin(), words.end());
    auto result = test::runProcess("/bin/bash", arguments);
    EXPECT_EQ(result.status, 0) << result.errors;
    Words offered;
    std::istringstream lines(result.output);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty()) {
            offered.insert(line);
        }
    }
    return offered;
}

TEST(Reference, BashCompletesCommandsAndTheirOptions)
{
    EXPECT_EQ(bashOffers({""}), plainCommands());
    EXPECT_EQ(bashOffers({"-"}), dashWords());
    Words startingWithS;
    for (const auto& word : plainCommands()) {
        if (word.starts_with('s')) {
            startingWithS.insert(word);
        }
    }
    EXPECT_EQ(bashOffers({"s"}), startingWithS);

    auto options = commandOptions();
    const Words common = without(commonWords(), {"-h"});
    for (const auto& [command, taken] : options) {
        // help completes a command; config first its subcommand.
        const Words expected = command == "help"     ? plainCommands()
                               : command == "config" ? Words{"list", "get", "set", "unset", "watch", "unwatch"}
                                                     : united(taken, common);
        EXPECT_EQ(bashOffers({command, ""}), expected) << command;
    }
    EXPECT_EQ(bashOffers({"setup", "--"}), united(options["setup"], common));
    // An option already given is not offered again, except --watch, which may be repeated.
    EXPECT_EQ(bashOffers({"setup", "--vault", "/tmp", "--watch", "/tmp", "--no-upload", "--verbose", ""}),
              united(without(options["setup"], {"--vault", "--no-upload"}), {"--help"}));
    EXPECT_EQ(bashOffers({"import-existing", "--since", ""}), Words{});
    EXPECT_EQ(bashOffers({"status", "--json", ""}), common);
    EXPECT_EQ(bashOffers({"audit", "--verify", "--json", ""}),
              united(without(options["audit"], {"--verify", "--json"}), common));
    EXPECT_EQ(bashOffers({"audit", "--since", ""}), Words{});
    EXPECT_EQ(bashOffers({"retry", "--restore", ""}), Words{});
    EXPECT_EQ(bashOffers({"help", "se"}), (Words{"setup"}));

    // The value of --vault and --watch is a folder.
    test::ScratchDir dir;
    fs::create_directories(dir.path() / "Recordings");
    test::writeFile(dir.path() / "Recording.txt", "not a folder");
    auto prefix = (dir.path() / "Rec").string();
    EXPECT_EQ(bashOffers({"setup", "--watch", prefix}), Words{(dir.path() / "Recordings").string()});
    EXPECT_EQ(bashOffers({"setup", "--vault", prefix}), Words{(dir.path() / "Recordings").string()});
}

TEST(Reference, ZshAndFishCompletionsNameEveryCommandAndOption)
{
    auto zsh = sourceFile("completions/_quillet-capture");
    EXPECT_EQ(matches(zsh, "\n +'([a-z-]+):"), plainCommands());
    EXPECT_EQ(matches(zsh, "'(?:\\([^)]*\\))?\\*?(-{1,2}[a-z][a-z-]*)\\["),
              united(united(allOptions(), dashWords()), commonWords()));

    auto fish = sourceFile("completions/quillet-capture.fish");
    EXPECT_EQ(matches(fish, "\nset -l commands ([a-z -]+)\n").size(), 1u);
    auto listed = matches(fish, "\nset -l commands ([a-z -]+)\n");
    EXPECT_EQ(matches(" " + *listed.begin() + " ", " ([a-z-]+)(?= )"), plainCommands());
    EXPECT_EQ(matches(fish, " -a ([a-z-]+) -d "), plainCommands());
    Words fishOptions = matches(fish, "\ncomplete [^\n]* -l ([a-z-]+)");
    for (const auto& short_ : matches(fish, "\ncomplete [^\n]* -s ([a-z])")) {
        fishOptions.insert("-" + short_);
    }
    Words expected;
    for (const auto& option : united(united(allOptions(), dashWords()), commonWords())) {
        expected.insert(option.starts_with("--") ? option.substr(2) : option);
    }
    EXPECT_EQ(fishOptions, expected);
}

} // namespace
} // namespace quillet
