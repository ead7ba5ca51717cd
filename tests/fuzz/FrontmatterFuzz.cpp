// Fuzzes the note reader on arbitrary text, and the writer with arbitrary values.
//
// Properties checked besides "no crash, no sanitizer report":
// - reading fails only with "no frontmatter block" exactly when there is no block, and
//   otherwise only because the block is not YAML (or not a map);
// - the file readers give what the text readers give;
// - a note read and written back (as a status update does) keeps its body, and every value
//   read comes back from the written note, quoted values exactly (line breaks become blanks);
// - values from outside cannot add or change other keys of a note: whatever the title, tags
//   or job status hold, every other field reads back as it was written;
// - an edit in place (a status update) changes that value and no other, and keeps the body.

#include "quillet_capture/util/Utf8.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"
#include "quillet_capture/vault/NoteText.hpp"

#include <fuzzer/FuzzedDataProvider.h>

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

using namespace quillet;
using Frontmatter = InboxWriter::Frontmatter;

namespace {

const InboxWriter::TimePoint kNow{std::chrono::seconds(1'700'000'000)};

void check(bool condition, const char* what)
{
    if (!condition) {
        std::fprintf(stderr, "property failed: %s\n", what);
        std::abort();
    }
}

size_t lineBreakAt(std::string_view text, size_t i)
{
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '\n' || c == '\v' || c == '\f' || c == '\r') {
        return 1;
    }
    std::string_view rest = text.substr(i);
    if (rest.starts_with("\xC2\x85")) {
        return 2;
    }
    if (rest.starts_with("\xE2\x80\xA8") || rest.starts_with("\xE2\x80\xA9")) {
        return 3;
    }
    return 0;
}

// What a value written through yamlString reads back as.
std::string expectedQuoted(std::string_view value)
{
    std::string out;
    for (size_t i = 0; i < value.size();) {
        if (size_t n = lineBreakAt(value, i)) {
            out += ' ';
            i += n;
        } else {
            out += value[i++];
        }
    }
    return Utf8::encoded(Utf8::codePoints(out));
}

std::optional<std::string> expectedQuotedIfAny(const std::optional<std::string>& value)
{
    return value ? std::optional(expectedQuoted(*value)) : std::nullopt;
}

std::optional<InboxWriter::TimePoint> whole(std::optional<InboxWriter::TimePoint> time)
{
    return time ? std::optional(InboxWriter::TimePoint(std::chrono::floor<std::chrono::seconds>(*time))) : std::nullopt;
}

void checkQuotedFieldsCameBack(const Frontmatter& written, const Frontmatter& read)
{
    check(read.externalId == expectedQuotedIfAny(written.externalId), "external_id comes back");
    check(read.recorderSource == expectedQuotedIfAny(written.recorderSource), "app comes back");
    check(read.recorderMicrophone == expectedQuotedIfAny(written.recorderMicrophone), "microphone comes back");
    check(read.recorderChannelLayout == expectedQuotedIfAny(written.recorderChannelLayout), "channel_layout comes back");
    check(read.targetFolder == expectedQuotedIfAny(written.targetFolder), "target_folder comes back");
    check(read.title == expectedQuotedIfAny(written.title), "title comes back");
    check(read.outputFile == expectedQuotedIfAny(written.outputFile), "output_file comes back");
    check(read.archivedTo == expectedQuotedIfAny(written.archivedTo), "archived_to comes back");
    check(read.created == *whole(written.created), "created comes back in whole seconds");
    check(read.uploadedAt == whole(written.uploadedAt), "uploaded_at comes back");
    check(read.processedAt == whole(written.processedAt), "processed_at comes back");
    check(read.audioDurationSec == written.audioDurationSec, "audio_duration_sec comes back");
    // Tags are trimmed and empty ones dropped: that is the list format, not a loss.
    std::vector<std::string> tags;
    for (const auto& tag : written.tags) {
        auto expected = expectedQuoted(tag);
        auto begin = expected.find_first_not_of(" \t");
        if (begin != std::string::npos) {
            tags.push_back(expected.substr(begin, expected.find_last_not_of(" \t") + 1 - begin));
        }
    }
    check(read.tags == tags, "tags come back");
}

void checkReadingText(std::string_view text)
{
    auto block = InboxWriter::extractFrontmatter(text);
    auto body = InboxWriter::bodyFromText(text);
    check(body.size() <= text.size(), "the body is part of the text");
    Frontmatter fm;
    try {
        fm = InboxWriter::frontmatterFromText(text, kNow);
    } catch (const InboxWriter::Error& error) {
        if (error.code() == InboxWriter::Error::notYamlCode) {
            check(block.has_value(), "a block that is not YAML has a block");
            return;
        }
        check(!block.has_value(), "only a missing block fails");
        check(std::string_view(error.what()) == "no frontmatter block", "the error's text");
        return;
    }
    check(block.has_value(), "a missing block fails");

    // Written back as a status update does it.
    auto rendered = InboxWriter::renderMarkdown(fm, body);
    check(InboxWriter::bodyFromText(rendered) == body, "the body survives a rewrite");
    auto again = InboxWriter::frontmatterFromText(rendered, kNow);
    checkQuotedFieldsCameBack(fm, again);

    // Edited in place, as a status update does it: that value changes and no other.
    try {
        NoteText note{std::string(text)};
        note.set("source.vd_job_status", "edited");
        Frontmatter edited;
        try {
            edited = InboxWriter::frontmatterFromText(note.text(), kNow);
        } catch (const InboxWriter::Error&) {
            return;  // a layout the line edits do not understand: the writer refuses to write it
        }
        if (edited.vdJobStatus != "edited") {
            return;  // the same refusal: the value did not land where a reader finds it
        }
        edited.vdJobStatus = fm.vdJobStatus;
        if (edited == fm) {
            check(InboxWriter::bodyFromText(note.text()) == body, "an edit in place keeps the body");
        }
    } catch (const NoteText::Unparseable&) {
    }
}

void checkReadingFile(std::string_view text)
{
    static const std::string path = [] {
        std::atexit([] { ::unlink(("/tmp/quillet-frontmatter-fuzz-" + std::to_string(::getpid()) + ".md").c_str()); });
        return "/tmp/quillet-frontmatter-fuzz-" + std::to_string(::getpid()) + ".md";
    }();
    // A new file each time: ext4 flushes a truncated and rewritten file to disk on close.
    ::unlink(path.c_str());
    {
        std::ofstream file(path, std::ios::binary);
        file.write(text.data(), static_cast<std::streamsize>(text.size()));
    }
    check(InboxWriter::readBody(path) == InboxWriter::bodyFromText(text), "readBody reads the file's text");
    bool hasBlock = InboxWriter::extractFrontmatter(text).has_value();
    try {
        auto fm = InboxWriter::readFrontmatter(path);
        auto fromText = InboxWriter::frontmatterFromText(text, fm.created);
        check(hasBlock && fm == fromText, "readFrontmatter reads the file's text");
    } catch (const InboxWriter::Error& error) {
        check(!hasBlock || error.code() == InboxWriter::Error::notYamlCode,
              "readFrontmatter fails only without a block, or with one that is not YAML");
    }
}

std::optional<std::string> maybeString(FuzzedDataProvider& input)
{
    if (!input.ConsumeBool()) {
        return std::nullopt;
    }
    return input.ConsumeRandomLengthString(32);
}

std::optional<InboxWriter::TimePoint> maybeTime(FuzzedDataProvider& input)
{
    if (!input.ConsumeBool()) {
        return std::nullopt;
    }
    // Nanoseconds within the years that a note can hold (1678 to 2261).
    auto ns = input.ConsumeIntegralInRange<int64_t>(-9'000'000'000'000'000'000LL, 9'000'000'000'000'000'000LL);
    return InboxWriter::TimePoint(std::chrono::duration_cast<InboxWriter::TimePoint::duration>(std::chrono::nanoseconds(ns)));
}

void checkWritingValues(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    auto fm = Frontmatter::forCapture("240131-132530", maybeTime(input).value_or(kNow));
    fm.status = "queued";
    fm.vdJobStatus = maybeString(input);
    fm.externalId = maybeString(input);
    fm.uploadedAt = maybeTime(input);
    fm.recorderSource = maybeString(input);
    fm.recorderMicrophone = maybeString(input);
    fm.recorderChannelLayout = maybeString(input);
    fm.targetFolder = maybeString(input);
    fm.title = maybeString(input);
    int tags = input.ConsumeIntegralInRange(0, 4);
    for (int i = 0; i < tags; ++i) {
        fm.tags.push_back(input.ConsumeRandomLengthString(16));
    }
    fm.processedAt = maybeTime(input);
    fm.outputFile = maybeString(input);
    fm.archivedTo = maybeString(input);
    if (input.ConsumeBool()) {
        fm.audioDurationSec = input.ConsumeIntegral<int64_t>();
    }
    auto body = input.ConsumeRemainingBytesAsString();

    auto rendered = InboxWriter::renderMarkdown(fm, body);
    auto back = InboxWriter::frontmatterFromText(rendered, kNow);
    checkQuotedFieldsCameBack(fm, back);
    // Nothing in the values above may reach the fixed fields.
    check(back.id == fm.id && back.status == fm.status && back.classification == fm.classification &&
              back.confidence == fm.confidence && back.sourceType == fm.sourceType &&
              back.sourceOrigin == fm.sourceOrigin && back.audioPath == fm.audioPath &&
              back.ingestionTool == fm.ingestionTool && back.targetSkill == fm.targetSkill,
          "values cannot change other keys");

    std::string_view expectedBody = body;
    while (!expectedBody.empty() && lineBreakAt(expectedBody, 0)) {
        expectedBody.remove_prefix(lineBreakAt(expectedBody, 0));
    }
    check(InboxWriter::bodyFromText(rendered) == expectedBody, "the body comes back");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string_view text(reinterpret_cast<const char*>(data), size);
    checkReadingText(text);
    checkReadingFile(text);
    InboxWriter::yamlString(text);
    checkWritingValues(data, size);
    return 0;
}
