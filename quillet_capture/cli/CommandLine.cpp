#include "quillet_capture/cli/CommandLine.hpp"

#include "quillet_capture/cli/Commands.hpp"

#include <algorithm>
#include <sstream>

namespace quillet {

namespace {

constexpr std::size_t kColumns = 80;

const std::string& commandWord(const Command& command)
{
    return command.words.front();
}

[[noreturn]] void refuse(const Command& command, const std::string& what)
{
    throw UsageError(commandWord(command) + ": " + what + " (see quillet-capture " + commandWord(command) +
                     " --help)");
}

// The number of single-letter edits between two words, for a "did you mean" on a typo.
std::size_t distance(const std::string& a, const std::string& b)
{
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) {
        row[j] = j;
    }
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            std::size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

std::vector<const Option*> optionsOf(const Command& command)
{
    std::vector<const Option*> all;
    for (const auto& option : command.options) {
        all.push_back(&option);
    }
    for (const auto& option : commonOptions()) {
        all.push_back(&option);
    }
    return all;
}

const Option* find(const std::vector<const Option*>& options, const std::string& name)
{
    for (const auto* option : options) {
        if (option->name == name || (option->name == "--help" && name == "-h")) {
            return option;
        }
    }
    return nullptr;
}

std::string unknown(const std::vector<const Option*>& options, const std::string& word)
{
    std::string text = "unknown option \"" + word + "\"";
    const Option* nearest = nullptr;
    std::size_t best = 3;
    for (const auto* option : options) {
        auto d = distance(word, option->name);
        if (d < best) {
            best = d;
            nearest = option;
        }
    }
    if (nearest) {
        text += "; did you mean " + nearest->name + "?";
    }
    return text;
}

void check(const Command& command, const Option& option, const std::string& value)
{
    switch (option.value) {
    case Option::Value::folder:
        // An empty value (an unset shell variable, say) would name the working folder's root.
        if (value.empty()) {
            refuse(command, option.name + " needs a folder, not an empty word");
        }
        break;
    case Option::Value::day:
        if (!parseLocalDay(value)) {
            refuse(command, option.name + " wants a date like 2026-09-01, not \"" + value + "\"");
        }
        break;
    case Option::Value::none:
    case Option::Value::text:
        break;
    }
}

// `text` broken into lines of at most kColumns, the first starting with `first`, the others
// with `rest`. A word longer than a line gets a line of its own.
std::string wrapped(const std::string& text, const std::string& first, const std::string& rest)
{
    std::istringstream words(text);
    std::string result, line = first, word;
    bool empty = true;
    while (words >> word) {
        if (!empty && line.size() + 1 + word.size() > kColumns) {
            result += line + "\n";
            line = rest;
            empty = true;
        }
        line += (empty ? "" : " ") + word;
        empty = false;
    }
    return result + line;
}

std::string shown(const Option& option)
{
    std::string text = option.name == "--help" ? "-h, --help" : option.name;
    return option.placeholder.empty() ? text : text + " " + option.placeholder;
}

} // namespace

const std::vector<Option>& commonOptions()
{
    static const std::vector<Option> options = {
        {"--verbose", Option::Value::none, "", "also show the log lines on the terminal (they always go to the log file)",
         false},
        {"--help", Option::Value::none, "", "show this help; nothing else is done", false},
    };
    return options;
}

CommandLine CommandLine::read(const Command& command, const std::vector<std::string>& arguments)
{
    CommandLine line;
    if (std::any_of(arguments.begin() + (arguments.empty() ? 0 : 1), arguments.end(),
                    [](const std::string& word) { return word == "--help" || word == "-h"; })) {
        line.help = true;
        return line;
    }
    const auto options = optionsOf(command);
    std::vector<const Option*> given;
    bool optionsEnded = false;
    for (std::size_t at = 0; at < arguments.size(); ++at) {
        const std::string& word = arguments[at];
        if (at == 0) {
            line.arguments.push_back(word);
            continue;
        }
        if (optionsEnded || word == "-" || !word.starts_with('-')) {
            line.arguments.push_back(word);
            line.operands.push_back(word);
            continue;
        }
        if (word == "--") {
            optionsEnded = true;
            continue;
        }
        auto equals = word.find('=');
        std::string name = word.starts_with("--") ? word.substr(0, equals) : word;
        const Option* option = find(options, name);
        if (!option) {
            refuse(command, unknown(options, name));
        }
        if (!option->repeatable && std::find(given.begin(), given.end(), option) != given.end()) {
            refuse(command, option->name + " is given twice");
        }
        given.push_back(option);
        line.arguments.push_back(option->name);
        if (option->name == "--verbose") {
            line.verbose = true;
        }
        if (option->value == Option::Value::none) {
            if (equals != std::string::npos) {
                refuse(command, option->name + " takes no value");
            }
            continue;
        }
        std::string value;
        if (equals != std::string::npos) {
            value = word.substr(equals + 1);
        } else {
            // The next word is the value, unless it is itself one of the command's options:
            // "--vault --no-upload" has lost its folder.
            bool missing = at + 1 >= arguments.size();
            if (!missing) {
                const std::string& next = arguments[at + 1];
                missing = next.starts_with('-') && find(options, next.substr(0, next.find('='))) != nullptr;
            }
            if (missing) {
                refuse(command, option->name + " needs a value: " + option->placeholder);
            }
            value = arguments[++at];
        }
        check(command, *option, value);
        line.arguments.push_back(value);
    }
    if (line.operands.size() > command.maxOperands) {
        const auto& extra = line.operands[command.maxOperands];
        refuse(command, command.maxOperands == 0 ? "takes no word like \"" + extra + "\""
                                                 : "too many words, from \"" + extra + "\" on");
    }
    return line;
}

std::string helpText(const Command& command)
{
    std::string synopsis = "quillet-capture " + commandWord(command);
    if (!command.operands.empty()) {
        synopsis += " " + command.operands;
    }
    for (const auto& option : command.options) {
        synopsis += " [" + shown(option) + "]" + (option.repeatable ? "..." : "");
    }
    std::string text = wrapped(synopsis, "Usage: ", "         ") + "\n\n" + wrapped(command.summary, "", "") + "\n";

    const auto options = optionsOf(command);
    std::size_t column = 0;
    for (const auto* option : options) {
        column = std::max(column, shown(*option).size());
    }
    column += 4;
    text += "\nOptions:\n";
    for (const auto* option : options) {
        std::string head = "  " + shown(*option);
        head += std::string(column - head.size(), ' ');
        text += wrapped(option->help, head, std::string(column, ' ')) + "\n";
    }
    if (command.words.size() > 1) {
        std::string also;
        for (std::size_t i = 1; i < command.words.size(); ++i) {
            also += (i > 1 ? ", " : "") + command.words[i];
        }
        text += "\n" + wrapped("Also written: " + also + ".", "", "") + "\n";
    }
    text += "\n" + wrapped("Changes: " + command.changes, "", "") + "\n";
    text += "\nExample: " + command.example + "\n";
    text += "\n" + wrapped("Exit status: " + command.exitStatus, "", "");
    return text;
}

} // namespace quillet
