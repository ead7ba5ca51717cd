#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace quillet {

/// The vault each unfinished capture's note is in, so that a capture finishes where its note
/// is even when the settings name another vault by then, in this run of the agent or the next.
/// Kept in "capture-vaults.json" beside the state file, rewritten atomically and durably on
/// every change before the changing call returns. A capture without an entry (each one made
/// before this file existed) is in the vault the settings name. Any thread.
class CaptureVaults {
public:
    /// The agent's, beside the state file.
    static CaptureVaults& shared();

    /// Vaults kept in `file`, read once now (a missing or unreadable file is empty).
    explicit CaptureVaults(std::filesystem::path file);

    /// The vault of the capture `id`, when one is kept.
    std::optional<std::filesystem::path> find(const std::string& id) const;

    /// Keeps `vault` as the vault of `id` (written only when it changes).
    void record(const std::string& id, const std::filesystem::path& vault);

    /// Forgets the vault of `id`: its capture is finished (written only when it had one).
    void forget(const std::string& id);

    /// Every capture with its vault.
    std::map<std::string, std::filesystem::path> all() const;

    /// Waits for a write under way and keeps later changes in memory only: the process ends.
    void close();

private:
    void persistLocked();

    mutable std::mutex lock_;
    bool closed_ = false;
    std::filesystem::path file_;
    std::map<std::string, std::filesystem::path> vaults_;
};

} // namespace quillet
