#include "quillet_capture/cli/Commands.hpp"

#include "quillet_capture/cli/Console.hpp"
#include "quillet_capture/config/Settings.hpp"
#include "quillet_capture/pipeline/CaptureAudit.hpp"
#include "quillet_capture/runtime/MainLoop.hpp"
#include "quillet_capture/util/Iso8601.hpp"
#include "quillet_capture/util/Utf8.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace quillet {

namespace {

using Item = CaptureAudit::Item;
using State = CaptureAudit::State;

constexpr std::size_t kTitleWidth = 36;

// A usage error: one line on standard error, status 2.
[[noreturn]] void refuse(const std::string& text)
{
    std::fflush(stdout);
    std::fprintf(stderr, "%s\n", text.c_str());
    runtime::exitProcess(2);
}

std::size_t width(const std::string& text)
{
    return Utf8::codePoints(text).size();
}

std::string padded(const std::string& text, std::size_t columns)
{
    auto shown = width(text);
    return shown >= columns ? text : text + std::string(columns - shown, ' ');
}

// What names the recording in the text: its title, with its id when both are known.
std::string label(const Item& item)
{
    std::string title = Utf8::escapedLine(Utf8::lossless(item.title.empty() ? item.id : item.title));
    if (width(title) > kTitleWidth) {
        title = Utf8::prefix(title, kTitleWidth - 3) + "...";
    }
    return title;
}

nlohmann::json toJson(const Item& item)
{
    auto time = [](const std::optional<std::chrono::system_clock::time_point>& when) -> nlohmann::json {
        if (!when) {
            return nullptr;
        }
        return Iso8601::format(std::chrono::time_point_cast<std::chrono::seconds>(*when));
    };
    auto text = [](const std::string& value) -> nlohmann::json {
        if (value.empty()) {
            return nullptr;
        }
        return Utf8::lossless(value);
    };
    return {
        {"state", CaptureAudit::key(item.state)},
        {"kind", item.kind},
        {"id", text(item.id)},
        {"title", text(item.title)},
        {"date", time(item.date)},
        {"reason", item.reason},
        {"jobStatus", text(item.jobStatus)},
        {"nextTry", time(item.nextTry)},
        {"folder", text(item.folderId)},
        {"source", text(item.source)},
        {"note", text(item.note)},
        {"copy", text(item.copy)},
        {"sha256", text(item.sha256)},
        {"verified", item.verified ? nlohmann::json(*item.verified) : nlohmann::json(nullptr)},
    };
}

std::string summaryLine(const CaptureAudit::Counts& counts)
{
    std::string line = plural(counts.total(), "recording") + ": " + std::to_string(counts.captured) + " captured, " +
                       std::to_string(counts.waiting) + " waiting, " + std::to_string(counts.skipped) + " skipped, " +
                       std::to_string(counts.needsYou) + " needs you";
    if (counts.removedByYou > 0) {
        line += ", " + std::to_string(counts.removedByYou) + " removed by you";
    }
    return line;
}

void printText(const std::vector<Item>& items, bool all, bool verified)
{
    const State order[] = {State::needsYou, State::waiting, State::captured, State::removedByYou, State::skipped};
    for (State state : order) {
        if (state == State::skipped && !all) {
            continue;
        }
        std::vector<const Item*> group;
        std::size_t titleColumn = 0;
        for (const auto& item : items) {
            if (item.state == state) {
                group.push_back(&item);
                titleColumn = std::max(titleColumn, width(label(item)));
            }
        }
        if (group.empty()) {
            continue;
        }
        out(CaptureAudit::words(state) + " (" + std::to_string(group.size()) + ")");
        for (const auto* item : group) {
            std::string line = "  " + padded(item->date ? localMinute(*item->date) : "", 16) + "  " + padded(label(*item), titleColumn);
            if (!item->id.empty() && item->id != item->title) {
                line += "  " + item->id;
            }
            line += "  " + Utf8::escapedLine(item->reason);
            out(line);
        }
        out();
    }
    auto counts = CaptureAudit::count(items);
    if (!all && counts.skipped > 0) {
        out(plural(counts.skipped, "skipped file") + " not shown (quillet-capture audit --all lists them).");
    }
    if (verified) {
        int checked = 0;
        for (const auto& item : items) {
            checked += item.verified.has_value() ? 1 : 0;
        }
        out(plural(checked, "audio copy") + " read again and compared with the SHA-256 taken at capture.");
    }
    out(summaryLine(counts));
}

} // namespace

void cmdAudit(const std::vector<std::string>& arguments)
{
    auto given = [&](std::string_view name) {
        return std::find(arguments.begin() + 1, arguments.end(), name) != arguments.end();
    };
    const bool all = given("--all");
    const bool json = given("--json");
    CaptureAudit::Options options;
    options.verify = given("--verify");
    std::optional<std::chrono::system_clock::time_point> since;
    if (auto day = option("--since", arguments)) {
        since = parseLocalDay(*day);
    }
    if (Settings::shared().isFirstRun()) {
        refuse("audit: nothing is set up yet. Run setup first.");
    }

    auto items = CaptureAudit::run(CaptureAudit::gather(), options);
    if (since) {
        std::erase_if(items, [&](const Item& item) {
            return item.kind == "recording" && (!item.date || *item.date < *since);
        });
    }
    const auto counts = CaptureAudit::count(items);
    if (json) {
        nlohmann::json list = nlohmann::json::array();
        for (const auto& item : items) {
            list.push_back(toJson(item));
        }
        nlohmann::json whole{
            {"recordings", std::move(list)},
            {"counts",
             {{"total", counts.total()},
              {"captured", counts.captured},
              {"waiting", counts.waiting},
              {"skipped", counts.skipped},
              {"needsYou", counts.needsYou},
              {"removedByYou", counts.removedByYou}}},
            {"verified", options.verify},
        };
        out(whole.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
    } else {
        printText(items, all, options.verify);
    }
    runtime::exitProcess(counts.needsYou > 0 ? 1 : 0);
}

} // namespace quillet
