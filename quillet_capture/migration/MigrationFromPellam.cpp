#include "quillet_capture/migration/MigrationFromPellam.hpp"

#include "quillet_capture/config/Keychain.hpp"
#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/migration/ItemMover.hpp"
#include "quillet_capture/platform/AgentManager.hpp"

#include <sys/stat.h>
#include <unistd.h>

namespace quillet::MigrationFromPellam {

namespace fs = std::filesystem;

namespace {

constexpr int kMaxKeptTokens = 100;

bool present(const fs::path& path)
{
    struct stat info {};
    return !path.empty() && ::lstat(path.c_str(), &info) == 0;
}

std::string keptAccount(int attempt)
{
    std::string account = Keychain::deviceTokenAccount;
    if (attempt > 1) {
        account += "." + std::to_string(attempt);
    }
    return account + keptSuffix;
}

} // namespace

bool hasLeftovers(const Paths::PellamLayout& pellam)
{
    for (const auto& folder : pellam.folders) {
        if (present(folder.first)) {
            return true;
        }
    }
    return present(pellam.settingsFile) || present(pellam.agentDefinition);
}

bool moveToken(std::vector<std::string>& progress)
{
    const std::string account = Keychain::deviceTokenAccount;
    auto old = Keychain::read(account, pellamService);
    if (!old) {
        return true;
    }
    if (!old->empty()) {
        auto current = Keychain::deviceToken();
        if (!current || current->empty()) {
            if (!Keychain::setDeviceToken(*old)) {
                progress.push_back("could not store the device token under " + std::string(Keychain::service));
                return false;
            }
            progress.push_back("moved the device token from " + std::string(pellamService) + " to " +
                               Keychain::service);
        } else if (*current != *old) {
            bool kept = false;
            for (int attempt = 1; attempt <= kMaxKeptTokens && !kept; ++attempt) {
                auto beside = keptAccount(attempt);
                auto there = Keychain::read(beside);
                if (there && *there == *old) {
                    kept = true; // kept by a run that was cut short before the delete below
                } else if (!there || there->empty()) {
                    if (!Keychain::write(beside, *old)) {
                        progress.push_back("could not keep the old device token as " + beside);
                        return false;
                    }
                    progress.push_back("a device token is stored already; kept the old one as " + beside);
                    kept = true;
                }
            }
            if (!kept) {
                progress.push_back("could not keep the old device token: too many old tokens");
                return false;
            }
        }
        // The same token in both places needs nothing but the delete below.
    }
    if (!Keychain::write(account, std::nullopt, pellamService)) {
        progress.push_back("could not delete the device token of " + std::string(pellamService));
        return false;
    }
    return true;
}

void run(const Paths::Layout& layout, AgentManager& agents)
{
    const auto& pellam = layout.pellam;
    if (!hasLeftovers(pellam)) {
        return;
    }
    std::vector<std::string> progress;

    // The old agent goes first, so that it does not write into the folders being moved.
    const bool hadAgent = present(pellam.agentDefinition);
    agents.removeOldPellamAgent([&progress](std::string_view line) { progress.emplace_back(line); });
    if (hadAgent && !present(layout.agentDefinition)) {
        progress.push_back("capture no longer starts at login. Run: quillet-capture install");
    }

    // Single files first: their new names differ from the old ones, which a whole-folder
    // rename would not give them. The folders then move (or merge) with what is left.
    ItemMover mover(keptSuffix);
    bool filesDone = mover.move(pellam.settingsFile, layout.settingsFile);
    filesDone = mover.move(pellam.logFile, layout.logFile) && filesDone;
    filesDone = mover.move(pellam.rotatedLogFile, layout.rotatedLogFile) && filesDone;
    for (const auto& [from, to] : pellam.folders) {
        filesDone = mover.move(from, to) && filesDone;
    }
    // macOS keeps Pellam's settings in a folder of their own; it goes once it is empty.
    ::rmdir(pellam.settingsFile.parent_path().c_str());
    progress.insert(progress.end(), mover.progress().begin(), mover.progress().end());

    // The secret store is asked only here, behind the evidence above: a clean machine never
    // waits for it.
    bool tokenDone = moveToken(progress);
    if (!tokenDone && !pellam.folders.empty()) {
        std::error_code ignored;
        fs::create_directories(pellam.folders.front().first, ignored);
    }

    // Logged only now: the first line appended would create the new log file, which must
    // not take the place of Pellam's before it has moved.
    for (const auto& line : progress) {
        rlog("[quillet] migration from Pellam: %@", line);
    }
    if (filesDone && tokenDone) {
        rlog("[quillet] migration from Pellam: done");
    } else {
        rlog("[quillet] migration from Pellam: not finished; the next start tries again");
    }
}

void run()
{
    try {
        Paths::Layout layout = Paths::layout();
        if (!hasLeftovers(layout.pellam)) {
            return;
        }
        run(layout, AgentManager::current());
    } catch (const std::exception& error) {
        rlog("[quillet] migration from Pellam: stopped: %@", error.what());
    } catch (...) {
        rlog("[quillet] migration from Pellam: stopped");
    }
}

} // namespace quillet::MigrationFromPellam
