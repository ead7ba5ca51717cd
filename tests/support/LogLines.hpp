#pragma once

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/platform/Paths.hpp"
#include "tests/support/Scratch.hpp"

#include <algorithm>
#include <string>
#include <vector>

namespace quillet::test {

/// The messages of the log file (time stamps removed), after the queue has drained.
inline std::vector<std::string> logMessages()
{
    QuilletLog::drain();
    std::vector<std::string> messages;
    for (const auto& line : readLines(Paths::logFile())) {
        auto blank = line.find(' ');
        messages.push_back(blank == std::string::npos ? line : line.substr(blank + 1));
    }
    return messages;
}

/// How many log messages contain `text`.
inline long countLogLines(const std::string& text)
{
    auto messages = logMessages();
    return std::count_if(messages.begin(), messages.end(),
                         [&](const std::string& message) { return message.find(text) != std::string::npos; });
}

} // namespace quillet::test
