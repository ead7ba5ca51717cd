#pragma once

#include <chrono>
#include <functional>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace quillet {

/// The vault's inbox: its folders, the audio copies in it, and the Markdown note of each
/// capture with its YAML frontmatter, written and read back in one exact format. Holds no
/// state besides the vault root and takes no locks: any thread may use it, and callers keep
/// work on one capture in one place at a time. Notes are replaced atomically, so a reader sees
/// the old or the new note, never a mix.
///
/// Failures: file-system errors come out as std::system_error (std::filesystem's errors are a
/// kind of it) with the system's description; reading a note without a frontmatter block
/// throws `InboxWriter::Error`. Nothing else fails: unknown keys, hand edits, CRLF line ends
/// and bytes that are not UTF-8 are read as well as they can be, and kept as bytes.
class InboxWriter {
public:
    using TimePoint = std::chrono::system_clock::time_point;

    /// An error of the note writer itself (domain "InboxWriter"); what() is its description.
    class Error : public std::runtime_error {
    public:
        static constexpr std::string_view domain = "InboxWriter";
        static constexpr int noFrontmatterCode = 1;
        static constexpr int invalidIdCode = 2;
        static constexpr int notYamlCode = 3;

        Error(int code, const std::string& description) : std::runtime_error(description), code_(code) {}
        int code() const { return code_; }

    private:
        int code_;
    };

    /// The frontmatter of a note. The member defaults are those of a note read back without
    /// the key; `id` and `created` have no meaningful default and must be set.
    struct Frontmatter {
        std::string id;
        TimePoint created{};
        std::string classification = "voice_memo";
        std::string status = "pending";
        std::string confidence = "high";
        std::string sourceType = "audio";
        std::string sourceOrigin = "voice_memo";
        std::string audioPath;
        std::optional<std::int64_t> audioDurationSec;
        std::string ingestionTool = "quillet-mac";
        std::optional<std::string> externalId;  // the Veldane cache key
        std::optional<std::string> vdJobStatus;  // the capture's job status
        std::optional<TimePoint> uploadedAt;
        std::optional<std::string> recorderSource;
        std::optional<std::string> recorderMicrophone;
        std::optional<std::string> recorderChannelLayout;
        std::optional<std::string> voiceMemosId;      // the Voice Memos library's id of the recording
        std::optional<std::string> voiceMemosFolder;  // its folder in Voice Memos
        std::optional<std::string> targetSkill = "/transcript";
        std::optional<std::string> targetFolder;
        std::optional<std::string> title;
        std::vector<std::string> tags;
        std::optional<TimePoint> processedAt;
        std::optional<std::string> processedBy;
        std::optional<std::string> outputFile;
        std::optional<std::string> archivedTo;
        bool operator==(const Frontmatter&) const = default;

        /// The frontmatter of a new capture `id` made at `created`: every default, and the
        /// audio path of its copy in the vault.
        static Frontmatter forCapture(std::string id, TimePoint created);
    };

    /// The words that YAML would read as something other than text (compared lower-case):
    /// y, n, yes, no, on, off, true, false, null, ~.
    static const std::set<std::string, std::less<>>& yamlReservedWords();

    /// A writer for the vault at `vaultRoot` (a folder; tildes must already be expanded). The
    /// caller takes it from the settings.
    explicit InboxWriter(std::filesystem::path vaultRoot);

    const std::filesystem::path& vaultRoot() const { return vaultRoot_; }
    /// vaultRoot + "_inbox".
    std::filesystem::path inboxDirectory() const;
    /// vaultRoot + "_inbox/.audio".
    std::filesystem::path audioDirectory() const;
    /// "_inbox/" + id + ".md" in the vault.
    std::filesystem::path noteURL(std::string_view id) const;
    /// "_inbox/.audio/" + id + ".m4a" in the vault, whatever the source's extension.
    std::filesystem::path audioURL(std::string_view id) const;
    /// The vault-relative text of a capture's audio link: "_inbox/.audio/" + id + ".m4a".
    static std::string audioLink(std::string_view id);

    /// Creates "_inbox" and then "_inbox/.audio", with intermediate folders; existing folders
    /// are fine. Throws std::system_error.
    void ensureDirectories() const;

    /// An audio copy in the vault and what it holds.
    struct AudioCopy {
        std::filesystem::path path;
        std::string sha256;      // the SHA-256 of its bytes, as 64 lower-case hex digits
        std::uintmax_t size = 0;
    };
    /// Ensures the folders, then copies `source` to the capture's audio copy and returns it
    /// with its digest, computed from the bytes as they are copied (the source is read once).
    /// A copy already there is kept as it is (never overwritten, even by a concurrent copy);
    /// its digest is then read from it. The bytes go to a hidden temporary file first and are
    /// flushed to disk before they get the final name, so a crash never leaves a partial copy
    /// under that name. The copy gets the mode the umask gives new files (0644 under the usual
    /// umask), not the source's. Throws std::system_error.
    AudioCopy copyAudio(const std::filesystem::path& source, std::string_view id) const;
    /// The same for a recording that grew after its capture: the copy there is replaced, in
    /// one rename, so that its name holds the old copy or the new one and never part of
    /// either. Throws std::system_error.
    AudioCopy replaceAudio(const std::filesystem::path& source, std::string_view id) const;
    /// Ensures the folders and writes the note of `frontmatter` with an empty body.
    void writeStub(const Frontmatter& frontmatter) const;

    /// Renders and atomically writes "_inbox/" + frontmatter.id + ".md", replacing any note
    /// there. Throws std::system_error, or `Error` (invalidIdCode) for an id that is empty,
    /// "." or "..", or holds a slash, a NUL or a line break, and so names no note in the inbox.
    void writeMarkdown(const Frontmatter& frontmatter, std::string_view body) const;

    /// Edits the existing note of `id` in place: lets `change` alter its frontmatter's values
    /// and its body, then changes in the file only the keys whose values changed (each on its
    /// own lines, added at the end of its map when missing) and the body when it changed, so
    /// that every other byte stays as the person left it. When the note changes on disk while
    /// the edit is made (an editor saved it), the edit is made again on the new text. Writes
    /// nothing when nothing changed; returns true when it wrote. Throws std::system_error when
    /// the note cannot be read or written, `Error` (noFrontmatterCode, notYamlCode) when it
    /// cannot be parsed: the file is then left exactly as it is.
    using Change = std::function<void(Frontmatter&, std::string& body)>;
    bool editNote(std::string_view id, const Change& change) const;

    /// Writes a transcript into the note of `id`, in place (editNote): sets the job status
    /// "done" and the cache key, the title `llmTitle` only when the note has none, appends the
    /// `tags` it lacks, sets the duration when given, and puts `transcript` at the top of the
    /// body. Text in the body that the program did not write (typed under a stub while the
    /// transcript was pending) stays below the transcript, after a blank line; a body that
    /// already begins with `transcript` stays as it is. A note that does not exist is written
    /// anew. `language` is accepted and not written. Throws as editNote.
    void writeTranscript(std::string_view id, std::string_view transcript, std::string_view vdCacheKey,
                         const std::optional<std::string>& language, std::optional<std::int64_t> durationSec,
                         const std::optional<std::string>& llmTitle, const std::vector<std::string>& tags) const;

    /// Writes `transcript` beside the note of `id` that cannot be parsed, where the person
    /// finds it: "_inbox/<id>.transcript.md" (a name the program never reads as a note),
    /// replacing an earlier one. Returns its path. Throws std::system_error.
    std::filesystem::path writeTranscriptBeside(std::string_view id, std::string_view transcript) const;

    /// Sets the note's job status to `status` (with line breaks removed), in place; writes
    /// nothing when the status is already that. Throws as editNote.
    void updateVDJobStatus(std::string_view id, std::string_view status) const;

    /// Gives the note of `id` the title `to` when its title is `from` (no title counts as
    /// ""), keeping everything else; a title that is anything else is the person's and stays.
    /// True when the note was written. Throws as editNote.
    bool replaceTitle(std::string_view id, std::string_view from, std::string_view to) const;

    /// The frontmatter of the note at `note`, read as YAML (block and flow lists, block
    /// scalars, any quoting, comments). Keys missing from the block keep the member defaults of
    /// `Frontmatter`, except that `created` defaults to now and `audioPath` to "". Throws
    /// std::system_error when the file cannot be read, `Error` (noFrontmatterCode) when the
    /// text has no frontmatter block, `Error` (notYamlCode) when the block is not YAML or not a
    /// map of keys.
    static Frontmatter readFrontmatter(const std::filesystem::path& note);

    /// The same from the note's text, with `now` as the default of `created`. A frontmatter of
    /// plain "key: value" lines, one level of nested keys and block lists (what the program
    /// writes, and most editors keep) is read line by line; any other goes through yaml-cpp.
    static Frontmatter frontmatterFromText(std::string_view text, TimePoint now);
    /// The same through yaml-cpp alone, whatever the frontmatter holds: what the line reader
    /// must always agree with (for tests and for the edits' read-back).
    static Frontmatter frontmatterFromYaml(std::string_view text, TimePoint now);

    /// The text between the opening "---" line at the very start of `text` and the next "---"
    /// line; absent when either is missing.
    static std::optional<std::string> extractFrontmatter(std::string_view text);

    /// The body of the note at `note`: everything after the closing "---" line of its
    /// frontmatter, without the line breaks that lead it; the whole text when it has no
    /// frontmatter block. Throws std::system_error when the file cannot be read.
    static std::string readBody(const std::filesystem::path& note);

    /// The same from the note's text.
    static std::string bodyFromText(std::string_view text);

    /// The whole text of a new note: the frontmatter lines between "---" lines, an empty line,
    /// then `body` unchanged, joined with line feeds and no line feed added at the end.
    static std::string renderMarkdown(const Frontmatter& frontmatter, std::string_view body);

    /// `value` as a YAML scalar that every YAML reader (1.2 and 1.1) reads back as this same
    /// text: as it is when that is safe (it starts with a letter, a digit or a character
    /// beyond ASCII, holds only printable characters and none of : # , [ ] { } " ' ` \,
    /// does not end with a blank, and does not read as a null, a boolean, a number or a
    /// date); otherwise in double quotes with YAML's escapes. Bytes that are not UTF-8 become
    /// U+FFFD first.
    static std::string yamlString(std::string_view value);

private:
    AudioCopy copyAudio(const std::filesystem::path& source, std::string_view id, bool replace) const;

    std::filesystem::path vaultRoot_;
};

} // namespace quillet
