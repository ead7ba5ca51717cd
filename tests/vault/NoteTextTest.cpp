#include "quillet_capture/vault/NoteText.hpp"

#include "quillet_capture/util/Iso8601.hpp"
#include "quillet_capture/util/Utf8.hpp"
#include "quillet_capture/vault/InboxWriter.hpp"
#include "tests/support/Scratch.hpp"

#include <gtest/gtest.h>
#include <yaml-cpp/yaml.h>

#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace quillet {
namespace {

namespace fs = std::filesystem;
using Frontmatter = InboxWriter::Frontmatter;

struct NoteFixture {
    test::ScratchDir dir;
    fs::path vault = dir.path() / "Vault";
    InboxWriter writer{vault};

    fs::path note(const std::string& id) { return vault / "_inbox" / (id + ".md"); }
    void write(const std::string& id, const std::string& text)
    {
        writer.ensureDirectories();
        test::writeFile(note(id), text);
    }
};

// A note as Obsidian and people leave it: block lists, a block scalar, comments, quoting of
// their own, keys the program does not know, blank lines.
const std::string kPersonsNote = "---\n"
                                 "id: 240131-132530\n"
                                 "created: 2024-01-31T13:25:30Z\n"
                                 "# my own comment\n"
                                 "aliases:\n"
                                 "  - Kickoff\n"
                                 "title: |\n"
                                 "  Two lines\n"
                                 "  of title\n"
                                 "tags:\n"
                                 "  - important-project\n"
                                 "  - 'quoted'\n"
                                 "\n"
                                 "source:\n"
                                 "    type: audio\n"
                                 "    # a comment in the map\n"
                                 "    vd_job_status: processing   # mine too\n"
                                 "    external_id: 'DOC_1'\n"
                                 "    extra:\n"
                                 "      - nested\n"
                                 "rating: 5\n"
                                 "---\n"
                                 "\n"
                                 "Words I typed.\n";

TEST(NoteText, OnlyTheProgramsKeysChangeEveryOtherByteStays)
{
    NoteFixture f;
    f.write("240131-132530", kPersonsNote);

    f.writer.updateVDJobStatus("240131-132530", "completed");
    std::string expected = kPersonsNote;
    const std::string line = "    vd_job_status: processing   # mine too\n";
    expected.replace(expected.find(line), line.size(), "    vd_job_status: completed\n");
    EXPECT_EQ(test::readFile(f.note("240131-132530")), expected);

    // The transcript: status and key in their lines, the tags it lacks after the last item,
    // the duration after the keys that come before it, the title kept (the person has one), the
    // transcript above the person's words.
    f.writer.writeTranscript("240131-132530", "The transcript.", "DOC_2", std::nullopt, 61, "A proposed title",
                             {"important-project", "voice-memo"});
    expected.replace(expected.find("vd_job_status: completed"), 24, "vd_job_status: done");
    expected.replace(expected.find("external_id: 'DOC_1'"), 20, "external_id: DOC_2");
    expected.insert(expected.find("    # a comment in the map"), "    audio_duration_sec: 61\n");
    expected.insert(expected.find("\n\nsource:") + 1, "  - voice-memo\n");
    expected.replace(expected.find("Words I typed."), 14, "The transcript.\n\nWords I typed.");
    expected.pop_back();  // the person's text is kept trimmed below the transcript
    EXPECT_EQ(test::readFile(f.note("240131-132530")), expected);

    auto back = InboxWriter::readFrontmatter(f.note("240131-132530"));
    EXPECT_EQ(back.title, "Two lines\nof title\n");
    EXPECT_EQ(back.tags, (std::vector<std::string>{"important-project", "quoted", "voice-memo"}));
    EXPECT_EQ(back.vdJobStatus, "done");
    EXPECT_EQ(back.externalId, "DOC_2");
    EXPECT_EQ(back.audioDurationSec, 61);

    // A grown recording made pending again and transcribed again: the block scalar title and
    // the block list stay whole.
    f.writer.editNote("240131-132530", [](Frontmatter& fm, std::string& body) {
        fm.vdJobStatus = "queued";
        fm.externalId.reset();
        body = body.substr(body.find("Words I typed."));
    });
    f.writer.writeTranscript("240131-132530", "The longer transcript.", "DOC_3", std::nullopt, 90, "Other", {"voice-memo"});
    auto text = test::readFile(f.note("240131-132530"));
    EXPECT_NE(text.find("title: |\n  Two lines\n  of title\ntags:\n  - important-project\n  - 'quoted'\n  - voice-memo\n\n"),
              std::string::npos)
        << text;
    EXPECT_TRUE(text.ends_with("---\n\nThe longer transcript.\n\nWords I typed.")) << text;
    EXPECT_EQ(InboxWriter::readFrontmatter(f.note("240131-132530")).externalId, "DOC_3");
}

TEST(NoteText, ListsOnOneLineMissingKeysAndCrlfLineEnds)
{
    NoteFixture f;
    const std::string note = "---\r\nid: b\r\ntags: [one, \"two\"]  # kept\r\nsource:\r\n  type: audio\r\n---\r\nBody\r\n";
    f.write("b", note);
    f.writer.writeTranscript("b", "T.", "K", std::nullopt, std::nullopt, "New: title", {"three"});
    EXPECT_EQ(test::readFile(f.note("b")), "---\r\nid: b\r\ntags: [one, \"two\", three]  # kept\r\nsource:\r\n"
                                           "  type: audio\r\n  external_id: K\r\n  vd_job_status: done\r\n"
                                           "title: \"New: title\"\r\n---\r\n\r\nT.\n\nBody");

    // No source map at all, an empty list: both are made.
    f.write("c", "---\nid: c\ntags: []\n---\n");
    f.writer.writeTranscript("c", "T.", "K", std::nullopt, std::nullopt, std::nullopt, {"x"});
    EXPECT_EQ(test::readFile(f.note("c")), "---\nid: c\nsource:\n  external_id: K\n  vd_job_status: done\ntags: [x]\n---\n\nT.");
    EXPECT_EQ(InboxWriter::readFrontmatter(f.note("c")).vdJobStatus, "done");

    // A single tag written as text becomes a list with it.
    f.write("d", "---\nid: d\ntags: solo\n---\n");
    f.writer.writeTranscript("d", "T.", "K", std::nullopt, std::nullopt, std::nullopt, {"x"});
    EXPECT_EQ(InboxWriter::readFrontmatter(f.note("d")).tags, (std::vector<std::string>{"solo", "x"}));
}

// An editor that saves while the program edits: the edit is made again on what it saved.
TEST(NoteText, ASaveDuringTheEditIsNeverOverwritten)
{
    NoteFixture f;
    f.write("e", "---\nid: e\nsource:\n  vd_job_status: queued\n---\n");
    int calls = 0;
    f.writer.editNote("e", [&](Frontmatter& fm, std::string&) {
        if (++calls == 1) {
            test::writeFile(f.note("e"), "---\nid: e\nsource:\n  vd_job_status: queued\n---\n\nSaved meanwhile.\n");
        }
        fm.vdJobStatus = "processing";
    });
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(test::readFile(f.note("e")), "---\nid: e\nsource:\n  vd_job_status: processing\n---\n\nSaved meanwhile.\n");
}

// Every text the program writes as a value reads back, through a YAML parser, as the same
// text (made valid UTF-8), whatever it holds; and a value left plain never reads as a null,
// a boolean or a number.
TEST(NoteText, EveryValueWrittenIsYamlThatReadsBackTheSame)
{
    std::mt19937 random(20261125);
    const std::vector<std::string> pieces = {
        "a", "Z", "0", "9", " ", "\t", ":", ": ", "#", " #", "-", "- ", "?", ",", "[", "]", "{", "}", "&", "*",
        "!", "|", ">", "'", "\"", "%", "@", "`", "\\", "~", ".", "+", "e", "x", "_", "/", "=", "<<", "\x1B", "\x7F",
        std::string(1, '\0'), "\x01", "\r", "\n", "\xC2\x85", "\xE2\x80\xA8", "\xEF\xBB\xBF", "\xC3\xA9",
        "\xF0\x9F\x8E\x99", "\xFF", "\xC3", "\xED\xA0\x80", "yes", "No", "null", "true", "~", "0x1F", "1e3", "0o7",
        ".inf", ".NaN", "2024-01-31", "12:30", "---", "...", "%YAML", "\xC2\x9F", "\xEF\xBF\xBE"};
    std::vector<std::string> values = {"", "yes", "NULL", "123", "-1", "1.5", "0b1", "&co meeting", "[x", "*x", "@x",
                                       "!x", "%x", "'x", "{x", "| x", "> x", "- x", "x:", "x #y"};
    for (int round = 0; round < 4000; ++round) {
        std::string value;
        int count = 1 + static_cast<int>(random() % 6);
        for (int i = 0; i < count; ++i) {
            value += pieces[random() % pieces.size()];
        }
        values.push_back(std::move(value));
    }
    values.push_back(std::string(20000, 'w') + ": " + std::string(5000, '#'));

    for (const auto& value : values) {
        const std::string expected = Utf8::encoded(Utf8::codePoints(value));
        const std::string yaml = InboxWriter::yamlString(value);
        YAML::Node root;
        try {
            root = YAML::Load("key: " + yaml + "\nlist: [" + yaml + ", " + yaml + "]\n");
        } catch (const YAML::Exception& error) {
            ADD_FAILURE() << "not YAML for " << testing::PrintToString(value) << ": " << yaml << ": " << error.what();
            continue;
        }
        ASSERT_TRUE(root["key"].IsScalar()) << yaml;
        EXPECT_EQ(root["key"].Scalar(), expected) << testing::PrintToString(value) << " written as " << yaml;
        ASSERT_TRUE(root["list"].IsSequence() && root["list"].size() == 2) << yaml;
        EXPECT_EQ(root["list"][1].Scalar(), expected) << yaml;
        if (yaml.front() != '"') {
            bool asBool = false;
            double asNumber = 0;
            EXPECT_FALSE(YAML::convert<bool>::decode(root["key"], asBool)) << yaml;
            EXPECT_FALSE(YAML::convert<double>::decode(root["key"], asNumber)) << yaml;
            EXPECT_FALSE(root["key"].IsNull()) << yaml;
        }
    }
}

// A whole note written with hostile texts in every value the service gives is one YAML map
// whose values come back.
TEST(NoteText, NotesWithHostileTextsAreValidYaml)
{
    std::mt19937 random(7);
    const std::vector<std::string> hostile = {"[x", "&co meeting", "*ref", "- item", "!tag", "%d", "@me", "|", ">",
                                              "'q", "{m}", "a\tb", "\x1B[31m", "\x7F", std::string(1, '\0'),
                                              "yes", "123", "2024-01-31", "x\ny: z", "\xFF\xFE", ""};
    for (int round = 0; round < 300; ++round) {
        auto pick = [&] { return hostile[random() % hostile.size()] + hostile[random() % hostile.size()]; };
        auto fm = Frontmatter::forCapture("240131-132530", *Iso8601::parse("2024-01-31T13:25:30Z"));
        fm.title = pick();
        fm.tags = {pick(), pick()};
        fm.vdJobStatus = pick();
        fm.externalId = pick();
        fm.voiceMemosFolder = pick();
        auto text = InboxWriter::renderMarkdown(fm, "body");
        Frontmatter back;
        try {
            back = InboxWriter::frontmatterFromText(text, {});
        } catch (const std::exception& error) {
            ADD_FAILURE() << error.what() << " in\n" << text;
            continue;
        }
        auto lineOf = [](const std::string& v) {
            std::string out = Utf8::encoded(Utf8::codePoints(v));
            for (auto& c : out) {
                c = c == '\n' ? ' ' : c;
            }
            return out;
        };
        EXPECT_EQ(back.title, lineOf(*fm.title)) << text;
        EXPECT_EQ(back.voiceMemosFolder, lineOf(*fm.voiceMemosFolder)) << text;
        EXPECT_EQ(back.id, "240131-132530");
    }
}

} // namespace
} // namespace quillet
