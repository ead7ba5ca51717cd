#pragma once

#include <cstddef>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace quillet {

/// One option of a command, as the command line, the help, the manual page and the shell
/// completions know it.
struct Option {
    /// What follows the option on the command line.
    enum class Value {
        none,   ///< nothing: a flag
        text,   ///< any word, the empty one included
        folder, ///< a folder: any word but the empty one
        day,    ///< a day written YYYY-MM-DD
    };
    std::string name;        ///< "--vault"
    Value value;             ///< what it takes
    std::string placeholder; ///< the value as the help shows it ("<folder>"); empty for a flag
    std::string help;        ///< one line
    bool repeatable;         ///< may be given more than once; otherwise a second one is refused
};

struct CommandLine;

/// One row of the command table: the words that select a command, the words and options it
/// takes, its help, and what it runs. A handler that returns ends the process with status 0;
/// handlers may also end it themselves.
struct Command {
    std::vector<std::string> words;
    std::string operands;     ///< the words it takes after the command word, as the help shows them
    std::size_t maxOperands;  ///< how many such words it takes at most
    std::string summary;      ///< what it does: the paragraph of its help
    std::vector<Option> options;
    std::string changes;      ///< what it changes on disk
    std::string example;      ///< one command line
    std::string exitStatus;   ///< what each exit status means
    bool showsLog;            ///< its log lines reach standard error even without --verbose
    std::function<void(const CommandLine&)> run;
};

/// Options that every command takes besides its own: "--verbose", and "--help" with its
/// short form "-h".
const std::vector<Option>& commonOptions();

/// A command line that a command does not take: what() is the one line to print.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A command line read against its command.
struct CommandLine {
    /// The words as given, command word first, with "--name=value" split into two words and
    /// a "--" that ends the options dropped.
    std::vector<std::string> arguments;
    /// The words that are no option nor an option's value.
    std::vector<std::string> operands;
    bool help = false;    ///< "--help" or "-h" is among the words: nothing else counts
    bool verbose = false; ///< "--verbose" is among them

    /// Reads `arguments` (command word first) against `command`. Throws UsageError for an
    /// option it does not take, an option without its value, a value that does not parse, an
    /// option given twice that may be given once, or more words than it takes. Help asked
    /// anywhere on the line wins over every such fault.
    static CommandLine read(const Command& command, const std::vector<std::string>& arguments);
};

/// The help of `command`: its synopsis, what it does, every option with its value, what it
/// changes on disk, an example and its exit statuses; without the final line feed.
std::string helpText(const Command& command);

} // namespace quillet
