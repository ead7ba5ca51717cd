#include "quillet_capture/cli/CommandLine.hpp"

#include <gtest/gtest.h>

namespace quillet {
namespace {

using Value = Option::Value;
using Words = std::vector<std::string>;

Command example(std::size_t maxOperands = 0)
{
    return {
        .words = {"setup"},
        .operands = maxOperands ? "KEY" : "",
        .maxOperands = maxOperands,
        .summary = "Sets up.",
        .options = {{"--vault", Value::folder, "<folder>", "the vault", false},
                    {"--watch", Value::folder, "<folder>", "a folder", true},
                    {"--since", Value::day, "YYYY-MM-DD", "a day", false},
                    {"--after", Value::text, "'<command>'", "a command", false},
                    {"--no-upload", Value::none, "", "no upload", false}},
        .changes = "the settings.",
        .example = "quillet-capture setup",
        .exitStatus = "0.",
        .showsLog = false,
        .run = nullptr,
    };
}

std::string refusal(const Command& command, const Words& arguments)
{
    try {
        CommandLine::read(command, arguments);
    } catch (const UsageError& error) {
        return error.what();
    }
    return "(taken)";
}

TEST(CommandLineRead, WhatTheCommandTakesIsKeptInOrderWithValuesAsSeparateWords)
{
    auto line = CommandLine::read(example(), {"setup", "--vault=/v", "--watch", "/a", "--watch=/b", "--no-upload",
                                              "--after", "", "--since", "2026-01-31", "--verbose"});
    EXPECT_EQ(line.arguments, (Words{"setup", "--vault", "/v", "--watch", "/a", "--watch", "/b", "--no-upload",
                                     "--after", "", "--since", "2026-01-31", "--verbose"}));
    EXPECT_TRUE(line.verbose);
    EXPECT_FALSE(line.help);
    EXPECT_TRUE(line.operands.empty());

    // A value may look like an option, as long as it is none of the command's: a command's
    // own flags and "-" alone are words; "--" ends the options.
    line = CommandLine::read(example(2), {"setup", "--after", "-x --fast", "key", "--", "--vault"});
    EXPECT_EQ(line.operands, (Words{"key", "--vault"}));
    EXPECT_EQ(line.arguments, (Words{"setup", "--after", "-x --fast", "key", "--vault"}));
    EXPECT_FALSE(line.verbose);
}

TEST(CommandLineRead, MistakesAreRefusedWithALineThatNamesThemAndTheHelp)
{
    const auto command = example();
    const std::string help = " (see quillet-capture setup --help)";
    EXPECT_EQ(refusal(command, {"setup", "--vaul", "/v"}), "setup: unknown option \"--vaul\"; did you mean --vault?" + help);
    EXPECT_EQ(refusal(command, {"setup", "--frobnicate"}), "setup: unknown option \"--frobnicate\"" + help);
    EXPECT_EQ(refusal(command, {"setup", "-q"}), "setup: unknown option \"-q\"" + help);
    EXPECT_EQ(refusal(command, {"setup", "--vault"}), "setup: --vault needs a value: <folder>" + help);
    EXPECT_EQ(refusal(command, {"setup", "--vault", "--no-upload"}), "setup: --vault needs a value: <folder>" + help);
    EXPECT_EQ(refusal(command, {"setup", "--after", "--watch=/a"}), "setup: --after needs a value: '<command>'" + help);
    EXPECT_EQ(refusal(command, {"setup", "--vault", ""}), "setup: --vault needs a folder, not an empty word" + help);
    EXPECT_EQ(refusal(command, {"setup", "--since", "2026-02-30x"}),
              "setup: --since wants a date like 2026-09-01, not \"2026-02-30x\"" + help);
    EXPECT_EQ(refusal(command, {"setup", "--since=tomorrow"}),
              "setup: --since wants a date like 2026-09-01, not \"tomorrow\"" + help);
    EXPECT_EQ(refusal(command, {"setup", "--vault", "/a", "--vault=/b"}), "setup: --vault is given twice" + help);
    EXPECT_EQ(refusal(command, {"setup", "--no-upload=yes"}), "setup: --no-upload takes no value" + help);
    EXPECT_EQ(refusal(command, {"setup", "stray"}), "setup: takes no word like \"stray\"" + help);
    EXPECT_EQ(refusal(example(1), {"setup", "a", "b"}), "setup: too many words, from \"b\" on" + help);
}

TEST(CommandLineRead, HelpAnywhereWinsOverEverythingElse)
{
    for (const auto& arguments : std::vector<Words>{{"setup", "-h"},
                                                    {"setup", "--help"},
                                                    {"setup", "--vault", "--help"},
                                                    {"setup", "--bogus", "stray", "-h"},
                                                    {"setup", "--since", "never", "--help"}}) {
        EXPECT_TRUE(CommandLine::read(example(), arguments).help) << testing::PrintToString(arguments);
    }
}

TEST(CommandLineHelp, NamesEveryOptionWithItsValueAndWrapsAtEightyColumns)
{
    auto command = example();
    command.summary = std::string(30, 'a') + " " + std::string(30, 'b') + " " + std::string(30, 'c');
    const std::string text = helpText(command);
    EXPECT_TRUE(text.starts_with("Usage: quillet-capture setup [--vault <folder>] [--watch <folder>]... "))
        << text;
    for (const char* shown : {"  --vault <folder>", "  --watch <folder>", "  --since YYYY-MM-DD",
                              "  --after '<command>'", "  --no-upload", "  --verbose", "  -h, --help",
                              "\nChanges: the settings.", "\nExample: quillet-capture setup", "\nExit status: 0."}) {
        EXPECT_NE(text.find(shown), std::string::npos) << shown << "\n" << text;
    }
    std::size_t start = 0;
    while (start < text.size()) {
        auto end = text.find('\n', start);
        end = end == std::string::npos ? text.size() : end;
        EXPECT_LE(end - start, 80u) << text.substr(start, end - start);
        start = end + 1;
    }
}

} // namespace
} // namespace quillet
