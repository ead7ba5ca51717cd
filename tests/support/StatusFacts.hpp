#pragma once

#include "quillet_capture/util/Iso8601.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

namespace quillet::test {

/// Reads the text report of `status` line by line, as a person would, and checks each line
/// against the JSON object of `status --json` made from the same home: every fact of the text
/// must be in the JSON with the same value, and the text must hold nothing else (every line is
/// accounted for). Failures are reported as test failures naming the line.
inline void expectSameFacts(const std::string& text, const nlohmann::json& facts)
{
    using nlohmann::json;
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    ASSERT_TRUE(text.ends_with("\n")) << text;
    std::size_t at = 0;
    // The next line, which must begin with `prefix`; what follows it.
    auto next = [&](const std::string& prefix) -> std::string {
        if (at >= lines.size()) {
            ADD_FAILURE() << "the text ends before a line starting with \"" << prefix << "\"\n" << text;
            return "";
        }
        const std::string& line = lines[at++];
        EXPECT_TRUE(line.starts_with(prefix)) << "line " << at << " is \"" << line << "\", not \"" << prefix
                                              << "...\"";
        return line.starts_with(prefix) ? line.substr(prefix.size()) : "";
    };
    auto peek = [&](const std::string& prefix) { return at < lines.size() && lines[at].starts_with(prefix); };
    auto onOff = [](const json& value) { return value.get<bool>() ? std::string("on") : std::string("off"); };
    auto count = [](const json& value, const std::string& word) {
        int n = value.get<int>();
        return std::to_string(n) + " " + word + (n == 1 ? "" : "s");
    };

    EXPECT_EQ(next("quillet-capture "), facts.at("version").get<std::string>());
    EXPECT_EQ(next("  program:     "), facts.at("program").get<std::string>());
    EXPECT_EQ(next("  config:      "), facts.at("settingsFile").get<std::string>() +
                                           (facts.at("settingsMissing").get<bool>() ? "  (missing -- run setup)" : ""));
    EXPECT_EQ(next("  vault:       "), facts.at("vault").get<std::string>());
    for (const auto& folder : facts.at("folders")) {
        EXPECT_EQ(next("  folder:      "), folder.at("name").get<std::string>() + " " + onOff(folder.at("enabled")) +
                                               " -- " + folder.at("path").get<std::string>());
        EXPECT_EQ(folder.at("kind") == "voiceMemos", folder.at("id") == "voice-memos") << folder;
        const json& library = folder.at("library");
        EXPECT_EQ(peek("  library:     "), !library.is_null()) << "line " << at + 1;
        if (library.is_null()) {
            continue;
        }
        std::string line = next("  library:     ");
        std::string expected = library.at("summary").get<std::string>();
        EXPECT_EQ(library.at("state") == "readable", !library.at("recordings").is_null()) << library;
        if (!library.at("waitingForDownload").is_null()) {
            expected += ", " + std::to_string(library.at("waitingForDownload").get<int>()) + " waiting for download";
            if (!library.at("oldestWaiting").is_null()) {
                auto oldest = library.at("oldestWaiting").get<std::string>();
                EXPECT_TRUE(Iso8601::parse(oldest)) << oldest;
                expected += " (oldest recorded " + oldest.substr(0, 10) + ")";
            }
            expected += ", " + std::to_string(library.at("recentlyDeleted").get<int>()) + " in Recently Deleted";
        }
        EXPECT_EQ(line, expected);
    }
    EXPECT_EQ(next("  upload:      "), onOff(facts.at("upload")));
    EXPECT_EQ(next("  after a transcript: "),
              facts.at("afterTranscript").is_null() ? "off" : facts.at("afterTranscript").get<std::string>());
    std::string paired = next("  paired:      ");
    EXPECT_EQ(paired.starts_with("yes ("), facts.at("paired").get<bool>()) << paired;
    if (!facts.at("unreadableTokenFile").is_null()) {
        EXPECT_TRUE(paired.ends_with("(" + facts.at("unreadableTokenFile").get<std::string>() + " cannot be read)"))
            << paired;
    } else {
        EXPECT_EQ(paired.find("cannot be read"), std::string::npos) << paired;
    }
    // Outside macOS the Voice Memos line is there only while a Voice Memos folder is watched.
    if (peek("  keep Voice Memos running: ")) {
        EXPECT_EQ(next("  keep Voice Memos running: "),
                  onOff(facts.at("voiceMemos").at("keepRunning")) +
                      (facts.at("voiceMemos").at("running").get<bool>() ? " (running now)" : " (not running now)"));
    }
    const json& agent = facts.at("agent");
    EXPECT_EQ(agent.at("startedByHand").get<bool>(), !agent.at("pid").is_null() && !agent.at("loaded").get<bool>())
        << agent;
    if (agent.at("startedByHand").get<bool>()) {
        EXPECT_EQ(next("  agent:       "), "running (pid " + std::to_string(agent.at("pid").get<long>()) +
                                             ", started by hand)");
    } else {
        std::string name = agent.at("name").get<std::string>();
        std::string label = "  " + name + ": ";
        label.resize(std::max<std::size_t>(label.size(), 15), ' ');
        EXPECT_EQ(next(label), agent.at("loaded").get<bool>() ? "loaded" : "not loaded -- run install");
    }

    const json& inbox = facts.at("inbox");
    const json& counts = facts.at("counts");
    std::string inboxLine = next("  inbox:       ");
    if (inbox.at("state") == "missing") {
        EXPECT_EQ(inboxLine, "no _inbox yet");
    } else if (inbox.at("state") == "unreadable") {
        EXPECT_EQ(inboxLine, "cannot read _inbox (" + inbox.at("error").get<std::string>() + ")");
    } else {
        EXPECT_EQ(inbox.at("state"), "listed");
        std::string expected = std::to_string(counts.at("transcribed").get<int>()) + " transcribed, " +
                               std::to_string(counts.at("inProgress").get<int>()) + " in progress, " +
                               std::to_string(counts.at("other").get<int>()) + " other";
        // A running agent sends them itself: retry is suggested only while none runs.
        if (counts.at("canBeSentWithRetry").get<int>() > 0 && agent.at("pid").is_null()) {
            expected += " -- " + std::to_string(counts.at("canBeSentWithRetry").get<int>()) +
                        " can be sent with: quillet-capture retry";
        }
        if (counts.at("waitingForPairing").get<int>() > 0) {
            expected += " -- " + std::to_string(counts.at("waitingForPairing").get<int>()) +
                        " wait because Veldane refused this device's token: run quillet-capture pair";
        }
        EXPECT_EQ(inboxLine, expected);
    }
    EXPECT_EQ(inbox.at("error").is_null(), inbox.at("state") != "unreadable") << inbox;

    EXPECT_EQ(peek("  tried again: "), counts.at("waitingForRetry").get<int>() > 0) << "line " << at + 1;
    EXPECT_EQ(counts.at("nextTry").is_null(), counts.at("waitingForRetry").get<int>() == 0) << counts;
    if (peek("  tried again: ")) {
        std::string line = next("  tried again: ");
        std::string head = count(counts.at("waitingForRetry"), "capture") + ", next attempt at ";
        EXPECT_TRUE(line.starts_with(head)) << line;
        // The text gives local time, the JSON UTC: the same instant.
        auto shown = Iso8601::parse(line.substr(std::min(head.size(), line.size())));
        auto given = Iso8601::parse(counts.at("nextTry").get<std::string>());
        EXPECT_TRUE(shown && given && *shown == *given) << line << " / " << counts.at("nextTry");
        EXPECT_TRUE(counts.at("nextTry").get<std::string>().ends_with("Z")) << counts.at("nextTry");
    }
    EXPECT_EQ(peek("  failed:      "), counts.at("givenUp").get<int>() > 0) << "line " << at + 1;
    if (peek("  failed:      ")) {
        EXPECT_TRUE(next("  failed:      ").starts_with(count(counts.at("givenUp"), "capture") + " the service failed "));
    }
    const json& unreadable = counts.at("unreadableNotes");
    EXPECT_EQ(peek("  needs you:   "), !unreadable.empty()) << "line " << at + 1;
    if (peek("  needs you:   ")) {
        std::string names;
        for (const auto& id : unreadable) {
            names += (names.empty() ? "" : ", ") + id.get<std::string>() + ".md";
        }
        std::string line = next("  needs you:   ");
        EXPECT_TRUE(line.starts_with(count(json(unreadable.size()), "note") + " whose frontmatter does not parse (" +
                                     names + ") -- "))
            << line;
    }

    EXPECT_EQ(next(""), "");
    next("Access as seen by the running capture");
    EXPECT_EQ(next("  "), facts.at("lastAccessLine").is_null() ? "(no access line yet)"
                                                                : facts.at("lastAccessLine").get<std::string>());
    EXPECT_EQ(next(""), "");
    EXPECT_EQ(next("Last log lines ("), facts.at("logFile").get<std::string>() + "):");
    std::vector<std::string> tail;
    while (at < lines.size()) {
        tail.push_back(next("  "));
    }
    EXPECT_EQ(tail, facts.at("logTail").get<std::vector<std::string>>());
}

} // namespace quillet::test
