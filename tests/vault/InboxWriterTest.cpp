#include "quillet_capture/vault/InboxWriter.hpp"

#include "quillet_capture/platform/Sha256.hpp"

#include "quillet_capture/util/AtomicFile.hpp"
#include "quillet_capture/util/Iso8601.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <system_error>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using Frontmatter = InboxWriter::Frontmatter;
using TimePoint = InboxWriter::TimePoint;

TimePoint at(const char* text)
{
    return *Iso8601::parse(text);
}

struct VaultFixture {
    test::ScratchDir dir;
    fs::path vault = dir.path() / "My Vault";
    InboxWriter writer{vault};

    fs::path note(const std::string& id) { return vault / "_inbox" / (id + ".md"); }

    std::vector<std::string> inboxEntries()
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::recursive_directory_iterator(vault / "_inbox")) {
            names.push_back(fs::relative(entry.path(), vault / "_inbox").string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
};

Frontmatter everyField()
{
    Frontmatter fm;
    fm.id = "240131-132530";
    fm.created = at("2024-01-31T13:25:30Z");
    fm.classification = "meeting_recording";
    fm.status = "processed";
    fm.confidence = "low";
    fm.sourceType = "audio_capture";
    fm.sourceOrigin = "quillet_recorder";
    fm.audioPath = "_inbox/.audio/240131-132530.m4a";
    fm.audioDurationSec = 3725;
    fm.ingestionTool = "quillet-recorder";
    fm.externalId = "DOC_abc:123";
    fm.vdJobStatus = "processing";
    fm.uploadedAt = at("2024-01-31T13:30:00Z");
    fm.recorderSource = "Zoom";
    fm.recorderMicrophone = "MacBook Pro Microphone";
    fm.recorderChannelLayout = "All audio";
    fm.targetSkill = "/meeting";
    fm.targetFolder = "Meetings/2024";
    fm.title = "Planning: Q3 \"kickoff\"";
    fm.tags = {"meeting", "quillet-mac", "a b"};
    fm.processedAt = at("2024-02-01T08:00:00Z");
    fm.processedBy = "claude";
    fm.outputFile = "Meetings/2024/Planning.md";
    fm.archivedTo = "Archive/#1";
    return fm;
}

// --- rendering -------------------------------------------------------------------------------

TEST(InboxWriterRender, StubNote)
{
    auto fm = Frontmatter::forCapture("240131-132530", at("2024-01-31T13:25:30.250Z"));
    fm.status = "queued";
    EXPECT_EQ(InboxWriter::renderMarkdown(fm, ""),
              "---\n"
              "id: 240131-132530\n"
              "created: 2024-01-31T13:25:30Z\n"
              "classification: voice_memo\n"
              "status: queued\n"
              "confidence: high\n"
              "source:\n"
              "  type: audio\n"
              "  origin: voice_memo\n"
              "  audio_path: _inbox/.audio/240131-132530.m4a\n"
              "  ingestion_tool: quillet-mac\n"
              "target_skill: /transcript\n"
              "---\n"
              "\n");
}

TEST(InboxWriterRender, EveryFieldInItsPlaceAndQuotedWhereItMustBe)
{
    EXPECT_EQ(InboxWriter::renderMarkdown(everyField(), "Body line\n---\nmore"),
              "---\n"
              "id: 240131-132530\n"
              "created: 2024-01-31T13:25:30Z\n"
              "classification: meeting_recording\n"
              "status: processed\n"
              "confidence: low\n"
              "source:\n"
              "  type: audio_capture\n"
              "  origin: quillet_recorder\n"
              "  audio_path: _inbox/.audio/240131-132530.m4a\n"
              "  audio_duration_sec: 3725\n"
              "  ingestion_tool: quillet-recorder\n"
              "  external_id: \"DOC_abc:123\"\n"
              "  vd_job_status: processing\n"
              "  uploaded_at: 2024-01-31T13:30:00Z\n"
              "  app: Zoom\n"
              "  microphone: MacBook Pro Microphone\n"
              "  channel_layout: All audio\n"
              "target_skill: /meeting\n"
              "target_folder: Meetings/2024\n"
              "title: \"Planning: Q3 \\\"kickoff\\\"\"\n"
              "tags: [meeting, quillet-mac, a b]\n"
              "processed_at: 2024-02-01T08:00:00Z\n"
              "processed_by: claude\n"
              "output_file: Meetings/2024/Planning.md\n"
              "archived_to: \"Archive/#1\"\n"
              "---\n"
              "\n"
              "Body line\n---\nmore");
}

TEST(InboxWriterRender, YamlQuoting)
{
    EXPECT_EQ(InboxWriter::yamlString("Meeting: Q3"), "\"Meeting: Q3\"");
    EXPECT_EQ(InboxWriter::yamlString("no"), "\"no\"");
    for (const char* reserved : {"y", "N", "Yes", "NO", "on", "Off", "TRUE", "false", "Null", "~"}) {
        EXPECT_EQ(InboxWriter::yamlString(reserved), "\"" + std::string(reserved) + "\"");
    }
    EXPECT_EQ(InboxWriter::yamlString("Q3: a\\b"), "\"Q3: a\\\\b\"");
    EXPECT_EQ(InboxWriter::yamlString("a\\b"), "a\\b") << "a backslash alone needs no quotes";
    EXPECT_EQ(InboxWriter::yamlString("say \"hi\""), "\"say \\\"hi\\\"\"");
    EXPECT_EQ(InboxWriter::yamlString("#tag"), "\"#tag\"");
    EXPECT_EQ(InboxWriter::yamlString(""), "\"\"");
    EXPECT_EQ(InboxWriter::yamlString(" lead"), "\" lead\"");
    EXPECT_EQ(InboxWriter::yamlString("trail "), "\"trail \"");
    EXPECT_EQ(InboxWriter::yamlString("\ttab"), "\"\\ttab\"");
    // Whatever a YAML reader would take for something else: an indicator at the start, a
    // number, a date, a control character.
    for (const char* indicator : {"[x", "]x", "&co meeting", "*x", "- x", "-x", "!x", "%x", "@x", "|x", ">x", "'x",
                                  "{x", "?x", ".inf", "+1", "=", "<<"}) {
        EXPECT_EQ(InboxWriter::yamlString(indicator).front(), '"') << indicator;
    }
    for (const char* number : {"123", "1.5", "1e3", "0x1F", "0o17", "0b101", "1_000", "2024-01-31", "2024-1-3 10:00"}) {
        EXPECT_EQ(InboxWriter::yamlString(number), "\"" + std::string(number) + "\"");
    }
    EXPECT_EQ(InboxWriter::yamlString(std::string_view("a\0b\x1B\x7F", 5)), "\"a\\0b\\e\\x7F\"");
    EXPECT_EQ(InboxWriter::yamlString("bad \xFF byte"), "bad \xEF\xBF\xBD byte") << "U+FFFD in its place";
    for (const char* plain : {"240131-142530", "Meeting 2", "voice-memo", "_inbox/.audio/a.m4a", "/transcript", "3 things"}) {
        EXPECT_EQ(InboxWriter::yamlString(plain), plain);
    }
    EXPECT_EQ(InboxWriter::yamlString("yesterday"), "yesterday");
    EXPECT_EQ(InboxWriter::yamlString("it's fine"), "it's fine");
    EXPECT_EQ(InboxWriter::yamlString("r\xC3\xA4ksm\xC3\xB6rg\xC3\xA5s"), "r\xC3\xA4ksm\xC3\xB6rg\xC3\xA5s");
}

TEST(InboxWriterRender, LineBreaksFromOutsideCannotAddKeys)
{
    auto fm = Frontmatter::forCapture("x", at("2024-01-01T00:00:00Z"));
    fm.vdJobStatus = "processing\nstatus: done\r\n";
    fm.title = "two\nlines\xE2\x80\xA8here";
    fm.tags = {"a\nb"};
    auto text = InboxWriter::renderMarkdown(fm, "");
    auto back = InboxWriter::frontmatterFromText(text, at("2000-01-01T00:00:00Z"));
    EXPECT_EQ(back.status, "pending");
    EXPECT_EQ(back.vdJobStatus, "processingstatus: done");
    EXPECT_EQ(back.title, "two lines here");
    EXPECT_EQ(back.tags, std::vector<std::string>{"a b"});
}

// --- reading ---------------------------------------------------------------------------------

TEST(InboxWriterRead, EveryRenderedFieldComesBack)
{
    auto fm = everyField();
    fm.created += std::chrono::milliseconds(750);
    auto back = InboxWriter::frontmatterFromText(InboxWriter::renderMarkdown(fm, "body"), at("2000-01-01T00:00:00Z"));
    fm.created = at("2024-01-31T13:25:30Z");
    EXPECT_EQ(back, fm);

    // Quoted values with every escape, and values that are quoted for being reserved.
    fm.title = "back\\slash \"quote\" \\\"both\\\" end\\";
    fm.externalId = "null";
    fm.targetFolder = "";
    fm.outputFile = " padded ";
    fm.recorderSource = "yes";
    fm.tags = {"true", "#x", "\"q\""};
    back = InboxWriter::frontmatterFromText(InboxWriter::renderMarkdown(fm, ""), at("2000-01-01T00:00:00Z"));
    EXPECT_EQ(back, fm);
}

// Most notes are read line by line, not by the YAML parser: whatever a note holds, that reader
// must read what yaml-cpp reads, or leave the note to it.
TEST(InboxWriterRead, TheLineReaderReadsWhatYamlReads)
{
    const auto now = at("2026-01-01T00:00:00Z");
    auto same = [&](const std::string& block) {
        const std::string text = "---\n" + block + "---\nbody\n";
        std::optional<Frontmatter> fast, full;
        std::string fastError, fullError;
        try {
            fast = InboxWriter::frontmatterFromText(text, now);
        } catch (const std::exception& error) {
            fastError = error.what();
        }
        try {
            full = InboxWriter::frontmatterFromYaml(text, now);
        } catch (const std::exception& error) {
            fullError = error.what();
        }
        EXPECT_EQ(fast.has_value(), full.has_value()) << block << fastError << fullError;
        if (fast && full) {
            EXPECT_TRUE(*fast == *full) << block << "\nline reader: title " << fast->title.value_or("(none)")
                                        << ", status " << fast->vdJobStatus.value_or("(none)") << "\nyaml-cpp: title "
                                        << full->title.value_or("(none)") << ", status "
                                        << full->vdJobStatus.value_or("(none)");
        }
    };
    // Written by hand or by other tools: values at the edges of what a plain line may be.
    const std::vector<std::string> values = {
        "plain words", "C#", "12:30", "a:b", "it's", "say \"hi\"", "a  b", "x #y", "x#y", "trailing ",
        " leading", "~", "null", "Null", "NULL", "true", "no", "0x1F", "1e3", "-1", "+1", "012", ".5",
        "2024-01-31T14:25:30Z", "2024-01-31", "\"quoted\"", "'single'", "'it''s'", "\"esc\\\"aped\"",
        "\"a\\nb\"", "[a, b]", "{a: b}", "&anchor x", "*alias", "!tag x", "|", ">", "? x", "- x",
        "%x", "@x", "`x`", "a: b", "ends:", "\"unclosed", "'unclosed", "\"\"", "''", "é ü 日本",
        "\xC2\x85", "a\xE2\x80\xA8" "b", "\xEF\xBB\xBFx", "tab\there", "ctl\x01", "del\x7F", "\xFF\xFE",
        "...", "---x", "a,b,c"};
    for (const auto& value : values) {
        same("id: x\ntitle: " + value + "\n");
        same("id: x\nsource:\n  vd_job_status: " + value + "\n  external_id: k\n");
        same("id: x\ntags:\n  - " + value + "\n  - other\n");
        same("id: x\ncreated: " + value + "\n");
        same("id: x\ntags: [" + value + "]\n");
        same("id: x\ntags: [a, " + value + ", b]\n");
        same("id: x\nsource:\n  audio_duration_sec: " + value + "\n");
    }
    // Shapes: nesting, lists, nulls, duplicates, indents, comments, continuations.
    for (const char* block : {
             "", "id: x\n", "id:\n", "id: x\ntitle:\nstatus: done\n", "source:\n", "source:\n  type:\n",
             "source:\n  type: a\n  type: b\n", "id: a\nid: b\n", "tags:\n- a\n- b\n", "tags:\n  - a\n  b: c\n",
             "source:\n  a: b\n  - c\n", "source:\n   type: x\n", "source:\n  sub:\n    type: x\n", " id: x\n",
             "id: x\n  more\n", "title: a\n  continued\n", "# comment\nid: x\n", "id: x # c\n", "id:x\n",
             "id : x\n", "\"id\": x\n", "id: x\n\nstatus: done\n", "id: x\n   \nstatus: y\n", "id: x\r\n",
             "source:\n  type: a\ntitle: t\nsource:\n  type: b\n", "tags: a, b\n", "tags: [a, b]\n", "- a\n",
             "id: x\n...\n", "tags: []\n", "tags: [ ]\n", "tags: [a,b]\n", "tags: [a, ]\n", "tags: [, a]\n",
             "tags: [a b, c]\n", "tags: [a] x\n", "tags: [[a]]\n", "tags: [a, [b]]\n", "tags: [a,, b]\n",
             "source:\n  type: [a, b]\n", "tags:\n  -\n", "tags:\n  -  a\n", "source: {type: a}\n", "source:\n\n  type: a\n"}) {
        same(block);
    }
    // What the program writes, with hostile values in every text field.
    for (const auto& value : values) {
        auto frontmatter = Frontmatter::forCapture("240131-142530", at("2024-01-31T14:25:30Z"));
        frontmatter.title = value;
        frontmatter.vdJobStatus = value;
        frontmatter.externalId = value;
        frontmatter.voiceMemosFolder = value;
        frontmatter.tags = {value, "plain"};
        same(*InboxWriter::extractFrontmatter(InboxWriter::renderMarkdown(frontmatter, "")));
    }
}

TEST(InboxWriterRead, DefaultsForMissingKeys)
{
    auto now = at("2025-05-05T05:05:05Z");
    auto fm = InboxWriter::frontmatterFromText("---\nid: abc\n---\n", now);
    Frontmatter expected;
    expected.id = "abc";
    expected.created = now;
    EXPECT_EQ(fm, expected);
    EXPECT_EQ(fm.targetSkill, "/transcript");
}

TEST(InboxWriterRead, HandEditsAndOtherTools)
{
    auto now = at("2025-05-05T05:05:05Z");
    auto fm = InboxWriter::frontmatterFromText("---\r\n"
                                               "id: 'single'\r\n"
                                               "created: not a date\r\n"
                                               "aliases: [x]\r\n"
                                               "type: top-level-is-not-source\r\n"
                                               "other:\r\n"
                                               "  type: nested-elsewhere\r\n"
                                               "source:\r\n"
                                               "  type: audio_capture\r\n"
                                               "  origin:\r\n"
                                               "    deeper: is not the origin\r\n"
                                               "  audio_duration_sec: 12.5\r\n"
                                               "  uploaded_at: 2024-13-01T00:00:00Z\r\n"
                                               "  external_id: null\r\n"
                                               "  vd_job_status: \"null\"\r\n"
                                               "  unknown: 1\r\n"
                                               "title:    spaced   \r\n"
                                               "tags: [a, \"b, c\", \"\"]\r\n"
                                               "status: a:b:c\r\n"
                                               "confidence:\r\n"
                                               "---\r\n\r\nBody\r\n",
                                               now);
    EXPECT_EQ(fm.id, "single");
    EXPECT_EQ(fm.created, now);
    EXPECT_EQ(fm.sourceType, "audio_capture");
    EXPECT_EQ(fm.sourceOrigin, "voice_memo") << "a map where a text belongs counts as no value";
    EXPECT_FALSE(fm.audioDurationSec.has_value());
    EXPECT_FALSE(fm.uploadedAt.has_value());
    EXPECT_FALSE(fm.externalId.has_value());
    EXPECT_EQ(fm.vdJobStatus, "null");
    EXPECT_EQ(fm.title, "spaced");
    EXPECT_EQ(fm.tags, (std::vector<std::string>{"a", "b, c"}));
    EXPECT_EQ(fm.status, "a:b:c");
    EXPECT_EQ(fm.confidence, "high") << "an empty value is no value";
}

TEST(InboxWriterRead, NumbersAndDates)
{
    auto now = at("2025-05-05T05:05:05Z");
    auto read = [&](const std::string& source) {
        return InboxWriter::frontmatterFromText("---\nsource:\n" + source + "\n---\n", now);
    };
    EXPECT_EQ(read("  audio_duration_sec: 42").audioDurationSec, 42);
    EXPECT_EQ(read("  audio_duration_sec: +42").audioDurationSec, 42);
    EXPECT_EQ(read("  audio_duration_sec: -3").audioDurationSec, -3);
    EXPECT_FALSE(read("  audio_duration_sec: 99999999999999999999").audioDurationSec.has_value());
    EXPECT_FALSE(read("  audio_duration_sec: 4 minutes").audioDurationSec.has_value());
    EXPECT_FALSE(read("  audio_duration_sec: +").audioDurationSec.has_value());
    EXPECT_EQ(read("  uploaded_at: \"2024-01-31T14:25:30+01:00\"").uploadedAt, at("2024-01-31T13:25:30Z"));
    // Years the clock cannot hold read as no date rather than overflowing.
    EXPECT_FALSE(read("  uploaded_at: 0001-01-01T00:00:00Z").uploadedAt.has_value());
    EXPECT_FALSE(read("  uploaded_at: 9999-01-01T00:00:00Z").uploadedAt.has_value());
}

TEST(InboxWriterRead, FrontmatterBlockBoundaries)
{
    EXPECT_EQ(InboxWriter::extractFrontmatter("---\nid: a\n---\nbody"), "id: a\n");
    EXPECT_EQ(InboxWriter::extractFrontmatter("---\n---\n"), "");
    EXPECT_EQ(InboxWriter::extractFrontmatter("---"), std::nullopt);
    EXPECT_EQ(InboxWriter::extractFrontmatter("---\nid: a\n"), std::nullopt);
    EXPECT_EQ(InboxWriter::extractFrontmatter("\n---\nid: a\n---\n"), std::nullopt);
    EXPECT_EQ(InboxWriter::extractFrontmatter(""), std::nullopt);

    for (const char* text : {"# Title\n---\nid: a\n---\n", "---\nid: a\n", "", "--", " ---\n---\n"}) {
        try {
            InboxWriter::frontmatterFromText(text, {});
            ADD_FAILURE() << "no error for: " << text;
        } catch (const InboxWriter::Error& error) {
            EXPECT_STREQ(error.what(), "no frontmatter block");
            EXPECT_EQ(error.code(), 1);
            EXPECT_EQ(InboxWriter::Error::domain, "InboxWriter");
        }
    }
}

// What people's editors write: block lists (Obsidian), lists on one line, one text with
// commas, block scalars, every quoting, comments, CRLF line ends.
TEST(InboxWriterRead, TheYamlThatEditorsWrite)
{
    using List = std::vector<std::string>;
    auto read = [](const std::string& block) { return InboxWriter::frontmatterFromText("---\n" + block + "---\n", {}); };
    EXPECT_EQ(read("tags:\n  - important-project\n  - \"a, b\"\n").tags, (List{"important-project", "a, b"}));
    EXPECT_EQ(read("tags:\n- one\n- two # a comment\n").tags, (List{"one", "two"}));
    EXPECT_EQ(read("tags: [a, 'b c', \"d\\\"e\"]\n").tags, (List{"a", "b c", "d\"e"}));
    EXPECT_EQ(read("tags: one, two ,three\n").tags, (List{"one", "two", "three"}));
    EXPECT_EQ(read("tags: []\n").tags, List{});
    EXPECT_EQ(read("tags:\n").tags, List{});
    auto fm = read("title: |\n  First line\n  second line\nid: x # mine\nsource:\n  vd_job_status: 'processing'\n"
                   "  external_id: \"DOC_1:2\"\n");
    EXPECT_EQ(fm.title, "First line\nsecond line\n");
    EXPECT_EQ(fm.id, "x");
    EXPECT_EQ(fm.vdJobStatus, "processing");
    EXPECT_EQ(fm.externalId, "DOC_1:2");
    EXPECT_EQ(read("title: >-\n  folded\n  text\n").title, "folded text");
    EXPECT_EQ(read("title: null\n").title, std::nullopt);
    EXPECT_EQ(read("title: ~\n").title, std::nullopt);
    EXPECT_EQ(read("title: '&co meeting'\n").title, "&co meeting");
    auto crlf = InboxWriter::frontmatterFromText("---\r\nid: a\r\ntags:\r\n  - x\r\n---\r\nbody", {});
    EXPECT_EQ(crlf.id, "a");
    EXPECT_EQ(crlf.tags, List{"x"});

    // Text that is not YAML, or not a map of keys, is an error of its own: such a note is the
    // person's to fix, never to be replaced.
    for (const char* block : {"title: [unclosed\n", "id: a\n\tindented: with a tab\n", "- a list\n- of items\n",
                              "just words\n", "a: 1\na: [\n"}) {
        try {
            read(block);
            ADD_FAILURE() << "no error for: " << block;
        } catch (const InboxWriter::Error& error) {
            EXPECT_EQ(error.code(), InboxWriter::Error::notYamlCode) << block;
        }
    }
}

TEST(InboxWriterRead, Body)
{
    EXPECT_EQ(InboxWriter::bodyFromText("---\nid: a\n---\n\nThe body\n---\nstays whole\n"), "The body\n---\nstays whole\n");
    EXPECT_EQ(InboxWriter::bodyFromText("---\nid: a\n---"), "");
    EXPECT_EQ(InboxWriter::bodyFromText("---\nid: a\n---\r\n\v\f\xC2\x85\xE2\x80\xA8\xE2\x80\xA9\n  indented"), "  indented");
    EXPECT_EQ(InboxWriter::bodyFromText("just text\nno frontmatter"), "just text\nno frontmatter");
    EXPECT_EQ(InboxWriter::bodyFromText("---\nid: a\n---x\n---\nbody"), "body") << "a delimiter is a whole line";
    EXPECT_EQ(InboxWriter::bodyFromText("abc\n---\nx"), "abc\n---\nx") << "the block opens on the first line";
    EXPECT_EQ(InboxWriter::bodyFromText(""), "");
}

TEST(InboxWriterRead, BytesThatAreNotUtf8AreKept)
{
    std::string text = "---\nid: a\ntitle: caf\xE9 \xFF\n---\n\nbody \xC3\x28 end";
    auto fm = InboxWriter::frontmatterFromText(text, {});
    EXPECT_EQ(fm.title, "caf\xE9 \xFF");
    EXPECT_EQ(InboxWriter::bodyFromText(text), "body \xC3\x28 end");
}

// --- the vault on disk -----------------------------------------------------------------------

TEST(InboxWriterVault, LayoutAndFolders)
{
    VaultFixture f;
    EXPECT_EQ(f.writer.inboxDirectory(), f.vault / "_inbox");
    EXPECT_EQ(f.writer.audioDirectory(), f.vault / "_inbox/.audio");
    EXPECT_EQ(f.writer.noteURL("240131-132530"), f.vault / "_inbox/240131-132530.md");
    EXPECT_EQ(f.writer.audioURL("240131-132530"), f.vault / "_inbox/.audio/240131-132530.m4a");
    EXPECT_EQ(InboxWriter::audioLink("x_2"), "_inbox/.audio/x_2.m4a");

    f.writer.ensureDirectories();
    f.writer.ensureDirectories();
    EXPECT_TRUE(fs::is_directory(f.vault / "_inbox/.audio"));

    VaultFixture blocked;
    fs::create_directories(blocked.vault);
    test::writeFile(blocked.vault / "_inbox", "a file in the way");
    EXPECT_THROW(blocked.writer.ensureDirectories(), std::system_error);
}

TEST(InboxWriterVault, CopyAudioNeverOverwritesAnExistingCopy)
{
    VaultFixture f;
    auto first = f.dir.path() / "240131 132530.wav";
    auto second = f.dir.path() / "other.m4a";
    test::writeFile(first, "first recording");
    test::writeFile(second, "second recording");

    // The copy's digest is taken from the bytes as they are copied, and matches them.
    const std::string firstDigest = "81530399ccaaa4f4a321e7075da22400d1dde21e95c77f8f926953557269e970";
    auto made = f.writer.copyAudio(first, "240131-132530");
    auto copy = made.path;
    EXPECT_EQ(copy, f.vault / "_inbox/.audio/240131-132530.m4a");
    EXPECT_EQ(made.sha256, firstDigest);
    EXPECT_EQ(made.size, std::string("first recording").size());
    EXPECT_EQ(Sha256::ofFile(copy), firstDigest);
    EXPECT_EQ(test::readFile(copy), "first recording");
    struct stat before {};
    ASSERT_EQ(::stat(copy.c_str(), &before), 0);

    // A copy already there stays, and its digest is its own, not the other file's.
    auto again = f.writer.copyAudio(second, "240131-132530");
    EXPECT_EQ(again.path, copy);
    EXPECT_EQ(again.sha256, firstDigest);
    EXPECT_EQ(test::readFile(copy), "first recording");
    struct stat after {};
    ASSERT_EQ(::stat(copy.c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);

    // A failed copy leaves nothing behind.
    EXPECT_THROW(f.writer.copyAudio(f.dir.path() / "missing.m4a", "x"), std::system_error);
    EXPECT_THROW(f.writer.copyAudio(f.dir.path(), "y"), std::system_error) << "a folder is no audio file";
    EXPECT_EQ(f.inboxEntries(), (std::vector<std::string>{".audio", ".audio/240131-132530.m4a"}));

    // A recording that grew replaces its copy whole; a failed replacement keeps the old one.
    test::writeFile(first, "first recording, and what came after");
    auto replaced = f.writer.replaceAudio(first, "240131-132530");
    EXPECT_EQ(replaced.path, copy);
    EXPECT_EQ(replaced.sha256, "4fdc3a98d66dd73c1e8541c4210a20e7c8a35ca199b3f62e5aa6c250a03acd5c");
    EXPECT_EQ(test::readFile(copy), "first recording, and what came after");
    EXPECT_THROW(f.writer.replaceAudio(f.dir.path() / "missing.m4a", "240131-132530"), std::system_error);
    EXPECT_EQ(test::readFile(copy), "first recording, and what came after");
    EXPECT_EQ(f.inboxEntries(), (std::vector<std::string>{".audio", ".audio/240131-132530.m4a"}));
}

TEST(InboxWriterVault, StubAndMarkdownAreWrittenWholeOrNotAtAll)
{
    VaultFixture f;
    auto fm = Frontmatter::forCapture("240131-132530", at("2024-01-31T13:25:30Z"));
    f.writer.writeStub(fm);
    auto text = test::readFile(f.note("240131-132530"));
    EXPECT_TRUE(text.ends_with("---\n\n"));
    EXPECT_EQ(InboxWriter::readFrontmatter(f.note("240131-132530")), fm);
    EXPECT_EQ(InboxWriter::readBody(f.note("240131-132530")), "");

    f.writer.writeMarkdown(fm, "Hello");
    EXPECT_EQ(InboxWriter::readBody(f.note("240131-132530")), "Hello");

    // A failed write leaves no temporary file.
    fs::create_directories(f.note("blocked"));  // a folder where the note would go
    auto blocked = Frontmatter::forCapture("blocked", at("2024-01-31T13:25:30Z"));
    EXPECT_THROW(f.writer.writeMarkdown(blocked, "x"), std::system_error);
    EXPECT_EQ(f.inboxEntries(), (std::vector<std::string>{".audio", "240131-132530.md", "blocked.md"}));
    InboxWriter nowhere(f.dir.path() / "no such vault");
    EXPECT_THROW(nowhere.writeMarkdown(blocked, "x"), std::system_error);
}

TEST(InboxWriterVault, IdsThatAreNoNoteNameAndNotesThatCannotBeReadAreErrors)
{
    VaultFixture f;
    f.writer.ensureDirectories();
    for (const char* id : {"", ".", "..", "../escape", "a/b", "line\nbreak"}) {
        auto fm = Frontmatter::forCapture(id, {});
        EXPECT_THROW(f.writer.writeMarkdown(fm, ""), InboxWriter::Error) << id;
        EXPECT_THROW(f.writer.updateVDJobStatus(id, "done"), InboxWriter::Error) << id;
    }
    EXPECT_FALSE(fs::exists(f.vault / "escape.md"));

    EXPECT_THROW(InboxWriter::readFrontmatter(f.note("missing")), std::system_error);
    EXPECT_THROW(InboxWriter::readBody(f.note("missing")), std::system_error);
    EXPECT_THROW(InboxWriter::readFrontmatter(f.vault / "_inbox"), std::system_error);
    test::writeFile(f.note("plain"), "No frontmatter here.\n");
    EXPECT_THROW(InboxWriter::readFrontmatter(f.note("plain")), InboxWriter::Error);
    EXPECT_EQ(InboxWriter::readBody(f.note("plain")), "No frontmatter here.\n");
}

TEST(InboxWriterVault, LongNotesReadTheSameWhereverTheBlockEnds)
{
    // The reader stops after the block, reading 4 KiB at a time: a closing delimiter on either
    // side of, or across, a read boundary must be found all the same.
    VaultFixture f;
    f.writer.ensureDirectories();
    const std::string head = "---\nid: a\ntitle: ";
    for (size_t closeAt = 4085; closeAt <= 4105; ++closeAt) {
        std::string title(closeAt - head.size(), 'x');
        test::writeFile(f.note("long"), head + title + "\n---\n\n" + std::string(20000, 'b') + "\n---\nid: wrong\n");
        auto fm = InboxWriter::readFrontmatter(f.note("long"));
        EXPECT_EQ(fm.id, "a") << closeAt;
        EXPECT_EQ(fm.title, title) << closeAt;
    }
    test::writeFile(f.note("unclosed"), "---\nid: a\n" + std::string(50000, 'b'));
    EXPECT_THROW(InboxWriter::readFrontmatter(f.note("unclosed")), InboxWriter::Error);
    test::writeFile(f.note("dashes"), "--");
    EXPECT_THROW(InboxWriter::readFrontmatter(f.note("dashes")), InboxWriter::Error);
    test::writeFile(f.note("late"), std::string(8000, '\n') + "---\nid: a\n---\n");
    EXPECT_THROW(InboxWriter::readFrontmatter(f.note("late")), InboxWriter::Error);
}

TEST(InboxWriterVault, TranscriptKeepsTheNoteAndAddsWhatIsNew)
{
    VaultFixture f;
    auto fm = Frontmatter::forCapture("240131-132530", at("2024-01-31T13:25:30Z"));
    fm.title = "Typed by me";
    fm.tags = {"voice-memo", "quillet-mac"};
    fm.vdJobStatus = "processing";
    f.writer.writeStub(fm);
    test::writeFile(f.note("240131-132530"), test::readFile(f.note("240131-132530")) + "Old body");

    f.writer.writeTranscript("240131-132530", "The transcript.", "DOC_1", "en", 61, "Proposed title",
                             {"quillet-mac", "meeting", "meeting"});
    auto back = InboxWriter::readFrontmatter(f.note("240131-132530"));
    EXPECT_EQ(back.vdJobStatus, "done");
    EXPECT_EQ(back.externalId, "DOC_1");
    EXPECT_EQ(back.title, "Typed by me");
    EXPECT_EQ(back.tags, (std::vector<std::string>{"voice-memo", "quillet-mac", "meeting"}));
    EXPECT_EQ(back.audioDurationSec, 61);
    EXPECT_EQ(back.created, at("2024-01-31T13:25:30Z"));
    // What the user typed under the stub while the transcript was pending stays, below it.
    EXPECT_EQ(InboxWriter::readBody(f.note("240131-132530")), "The transcript.\n\nOld body");

    // Written again (a resumed capture), the note stays as it is, the user's words included.
    auto before = test::readFile(f.note("240131-132530"));
    f.writer.writeTranscript("240131-132530", "The transcript.", "DOC_1", "en", 61, "Proposed title",
                             {"quillet-mac", "meeting"});
    EXPECT_EQ(test::readFile(f.note("240131-132530")), before);

    // Without a duration the old one stays.
    f.writer.writeTranscript("240131-132530", "Again.", "DOC_2", std::nullopt, std::nullopt, std::nullopt, {});
    EXPECT_EQ(InboxWriter::readFrontmatter(f.note("240131-132530")).audioDurationSec, 61);
}

// Keys that the user or another tool added to a note, with whatever is nested below them, and
// comments, survive every rewrite verbatim and in place; a note nobody edited is written as
// before, byte for byte.
TEST(InboxWriterVault, KeysAndLinesThatTheProgramDoesNotKnowAreKeptInPlace)
{
    VaultFixture f;
    auto fm = Frontmatter::forCapture("240131-132530", at("2024-01-31T13:25:30Z"));
    f.writer.writeStub(fm);
    const std::string stub = test::readFile(f.note("240131-132530"));
    f.writer.updateVDJobStatus("240131-132530", "processing");
    f.writer.updateVDJobStatus("240131-132530", "queued");
    EXPECT_EQ(InboxWriter::renderMarkdown(InboxWriter::frontmatterFromText(stub, at("2024-01-31T13:25:30Z")), ""),
              stub);

    // The user edits the pending note: keys of their own, a list, a comment, a key inside
    // the source map, and words under the stub.
    auto edited = test::readFile(f.note("240131-132530"));
    auto insertAfter = [&](const std::string& line, const std::string& added) {
        auto at = edited.find(line);
        ASSERT_NE(at, std::string::npos) << line;
        edited.insert(at + line.size(), added);
    };
    insertAfter("id: 240131-132530\n", "project: apollo\n# keep this\n");
    insertAfter("  origin: voice_memo\n", "  device:\n    name: \"Pixel 8\"\n    model: 8a\n");
    insertAfter("target_skill: /transcript\n", "aliases:\n  - Apollo kickoff\n  - kickoff\n");
    // A key of the user's right after the source map stays after the whole map.
    insertAfter("  vd_job_status: queued\n", "owner: me\n");
    edited += "My own words.\n";
    test::writeFile(f.note("240131-132530"), edited);

    f.writer.updateVDJobStatus("240131-132530", "processing");
    auto afterStatus = test::readFile(f.note("240131-132530"));
    auto expected = edited;
    expected.replace(expected.find("vd_job_status: queued"), 21, "vd_job_status: processing");
    EXPECT_EQ(afterStatus, expected);

    f.writer.writeTranscript("240131-132530", "The transcript.", "DOC_1", "en", 61, "Kickoff", {"meeting"});
    auto done = test::readFile(f.note("240131-132530"));
    for (const char* kept : {"\nid: 240131-132530\nproject: apollo\n# keep this\ncreated: ",
                             "\n  origin: voice_memo\n  device:\n    name: \"Pixel 8\"\n    model: 8a\n  audio_path: ",
                             "\ntarget_skill: /transcript\ntitle: Kickoff\ntags: [meeting]\naliases:\n  - Apollo kickoff\n  - kickoff\n---",
                             "\n  external_id: DOC_1\n  vd_job_status: done\nowner: me\ntarget_skill: ",
                             "\n---\n\nThe transcript.\n\nMy own words."}) {
        EXPECT_NE(done.find(kept), std::string::npos) << kept << "\nin\n" << done;
    }
    auto back = InboxWriter::readFrontmatter(f.note("240131-132530"));
    EXPECT_EQ(back.vdJobStatus, "done");
    EXPECT_EQ(back.sourceOrigin, "voice_memo");
    EXPECT_EQ(back.targetSkill, "/transcript");
}

// A missing note is written anew; a note that does not parse is the person's file and is
// never replaced: every edit refuses it and leaves it byte for byte, and the transcript can
// wait beside it.
TEST(InboxWriterVault, ANoteThatDoesNotParseIsNeverReplaced)
{
    VaultFixture f;
    f.writer.writeTranscript("missing", "Words.", "KEY", std::nullopt, std::nullopt, "Title: proposed", {"t"});
    auto fm = InboxWriter::readFrontmatter(f.note("missing"));
    EXPECT_EQ(fm.id, "missing");
    EXPECT_EQ(fm.audioPath, "_inbox/.audio/missing.m4a");
    EXPECT_EQ(fm.title, "Title: proposed");
    EXPECT_EQ(fm.tags, std::vector<std::string>{"t"});
    EXPECT_EQ(fm.vdJobStatus, "done");
    EXPECT_EQ(InboxWriter::readBody(f.note("missing")), "Words.");

    const std::string typed = "My words, typed all morning.\n";
    for (const std::string& broken :
         {std::string("no frontmatter at all\n") + typed, "A line above\n---\nid: b\n---\n" + typed,
          "---\nid: b\nsource:\n  vd_job_status: queued\n" + typed, std::string(),
          "---\nid: b\ntitle: [unclosed\n---\n" + typed, "---\n- a list\n---\n" + typed}) {
        test::writeFile(f.note("b"), broken);
        auto refused = [&](auto edit) {
            try {
                edit();
                ADD_FAILURE() << "no error for:\n" << broken;
            } catch (const InboxWriter::Error& error) {
                EXPECT_TRUE(error.code() == InboxWriter::Error::noFrontmatterCode ||
                            error.code() == InboxWriter::Error::notYamlCode)
                    << error.what();
            }
            EXPECT_EQ(test::readFile(f.note("b")), broken);
        };
        refused([&] { f.writer.writeTranscript("b", "Words.", "KEY", std::nullopt, 3, "T", {"t"}); });
        refused([&] { f.writer.updateVDJobStatus("b", "processing"); });
        refused([&] { f.writer.replaceTitle("b", "", "New"); });
    }
    // A source map on one line cannot be edited key by key: it is refused, not rewritten.
    const std::string flow = "---\nid: b\nsource: {vd_job_status: queued}\n---\n" + typed;
    test::writeFile(f.note("b"), flow);
    EXPECT_THROW(f.writer.updateVDJobStatus("b", "processing"), InboxWriter::Error);
    EXPECT_EQ(test::readFile(f.note("b")), flow);

    auto beside = f.writer.writeTranscriptBeside("b", "Words.");
    EXPECT_EQ(beside, f.vault / "_inbox" / "b.transcript.md");
    EXPECT_EQ(test::readFile(beside), "Words.\n");
    EXPECT_THROW(InboxWriter::readFrontmatter(beside), InboxWriter::Error) << "never read as a note";
}

TEST(InboxWriterVault, JobStatusIsWrittenOnlyWhenItChanges)
{
    VaultFixture f;
    auto fm = Frontmatter::forCapture("a", at("2024-01-31T13:25:30Z"));
    fm.vdJobStatus = "queued";
    f.writer.writeStub(fm);
    test::writeFile(f.note("a"), test::readFile(f.note("a")) + "My notes\n");

    struct stat before {};
    ASSERT_EQ(::stat(f.note("a").c_str(), &before), 0);
    auto modified = fs::last_write_time(f.note("a"));
    f.writer.updateVDJobStatus("a", "queued");
    f.writer.updateVDJobStatus("a", "queued\n");
    struct stat same {};
    ASSERT_EQ(::stat(f.note("a").c_str(), &same), 0);
    EXPECT_EQ(same.st_ino, before.st_ino) << "an atomic write would have made a new file";
    EXPECT_EQ(fs::last_write_time(f.note("a")), modified);

    f.writer.updateVDJobStatus("a", "processing");
    struct stat changed {};
    ASSERT_EQ(::stat(f.note("a").c_str(), &changed), 0);
    EXPECT_NE(changed.st_ino, before.st_ino);
    EXPECT_EQ(InboxWriter::readFrontmatter(f.note("a")).vdJobStatus, "processing");
    EXPECT_EQ(InboxWriter::readBody(f.note("a")), "My notes\n");

    EXPECT_THROW(f.writer.updateVDJobStatus("missing", "done"), std::system_error);
    test::writeFile(f.note("plain"), "text");
    EXPECT_THROW(f.writer.updateVDJobStatus("plain", "done"), InboxWriter::Error);
    EXPECT_EQ(test::readFile(f.note("plain")), "text");
}

// A rename in Voice Memos reaches a note only while its title is the one this program wrote.
TEST(InboxWriterVault, ReplaceTitleTouchesOnlyATitleThisProgramWrote)
{
    VaultFixture f;
    auto fm = Frontmatter::forCapture("a", at("2024-01-31T13:25:30Z"));
    fm.title = "Draft";
    fm.voiceMemosId = "REC-1";
    fm.voiceMemosFolder = "Work: 2024";
    f.writer.writeStub(fm);
    test::writeFile(f.note("a"), test::readFile(f.note("a")) + "My notes\n");
    EXPECT_NE(test::readFile(f.note("a")).find("  voice_memos_id: REC-1\n  voice_memos_folder: \"Work: 2024\"\n"),
              std::string::npos)
        << test::readFile(f.note("a"));

    EXPECT_TRUE(f.writer.replaceTitle("a", "Draft", "Final: take 2"));
    auto read = InboxWriter::readFrontmatter(f.note("a"));
    EXPECT_EQ(read.title, "Final: take 2");
    EXPECT_EQ(read.voiceMemosId, "REC-1");
    EXPECT_EQ(read.voiceMemosFolder, "Work: 2024");
    EXPECT_EQ(InboxWriter::readBody(f.note("a")), "My notes\n");

    // The person's own title stays, whatever Voice Memos calls it now.
    auto before = test::readFile(f.note("a"));
    EXPECT_FALSE(f.writer.replaceTitle("a", "Draft", "Other"));
    EXPECT_EQ(test::readFile(f.note("a")), before);
    // A note without a title takes one that Voice Memos gave later.
    auto untitled = Frontmatter::forCapture("b", at("2024-01-31T13:25:30Z"));
    f.writer.writeStub(untitled);
    EXPECT_TRUE(f.writer.replaceTitle("b", "", "Named later"));
    EXPECT_EQ(InboxWriter::readFrontmatter(f.note("b")).title, "Named later");
    EXPECT_THROW(f.writer.replaceTitle("missing", "", "x"), std::system_error);
}

} // namespace
} // namespace quillet
