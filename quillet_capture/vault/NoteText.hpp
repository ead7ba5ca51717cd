#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillet {

/// The text of a note that exists, edited in place: the program changes the values of the keys
/// it owns and the body, and every other byte (the person's keys, comments, block lists and
/// block scalars, quoting, blank lines, line endings) stays as it was. Values are given already
/// written as YAML (`InboxWriter::yamlString`). A plain value holder: any thread, one at a time.
///
/// Keys are named "title" for a key at the top of the frontmatter and "source.external_id" for
/// a key of the `source` map.
class NoteText {
public:
    /// Why a text cannot be edited in place.
    enum class Problem {
        noBlock,     // no "---" on the first line, or no closing "---" line
        notYaml,     // the block is not YAML, or not a map of keys
        flowSource,  // the `source` map is written on one line ("{...}"), which cannot be edited key by key
    };

    /// Finds the frontmatter block of `text`. The caller has parsed the block (it is YAML and a
    /// map); this only finds its lines.
    explicit NoteText(std::string text);

    const std::string& text() const { return text_; }
    /// The frontmatter block: the text between the opening and the closing "---" lines.
    std::string_view block() const;
    /// Everything after the closing "---" line, without the line breaks that lead it.
    std::string_view body() const;

    /// The line ending the note uses ("\r\n" or "\n"), for the lines the program adds.
    const std::string& lineEnding() const { return eol_; }

    /// Gives `key` the value `yaml` (one line, already YAML), replacing the key's line and
    /// the lines nested below it. A key that is missing is added after the last of the keys
    /// of its map named in `after` that the note has (the keys that come before it where the
    /// program writes notes), else at the end of its map; the `source` map is made when it is
    /// missing. Throws `Unparseable` with `Problem::flowSource` for a key of a `source` map
    /// written on one line.
    using Keys = std::vector<std::string_view>;
    void set(std::string_view key, std::string_view yaml, const Keys& after = {});
    /// Removes `key` and the lines nested below it; nothing when it is missing.
    void remove(std::string_view key);
    /// Adds `items` (each already YAML) to the list `key`: after the last item of a block list,
    /// before the "]" of a list on one line; a key that is missing, empty or anything else gets
    /// the list `all` (already YAML) on one line.
    void appendToList(std::string_view key, const std::vector<std::string>& items,
                      const std::vector<std::string>& all, const Keys& after = {});
    /// Replaces the body with `body`, after one empty line below the frontmatter.
    void setBody(std::string_view body);

    /// The error of a text that cannot be edited.
    struct Unparseable {
        Problem problem;
        std::string description;
    };

    /// Where the block is in a text (offsets of `text`), or the reason there is none: the
    /// first line is "---" (trailing blanks and a carriage return allowed) and a later line
    /// is "---" too.
    struct Layout {
        std::size_t blockBegin = 0;  // the first byte after the opening line
        std::size_t blockEnd = 0;    // the first byte of the closing line
        std::size_t bodyBegin = 0;   // the first byte after the closing line
    };
    static std::optional<Layout> layoutOf(std::string_view text);

private:
    struct Span {
        std::size_t begin = 0;  // offset of the key's line
        std::size_t end = 0;    // offset after its last nested line's line break
    };
    struct Line {
        std::size_t begin = 0;
        std::size_t end = 0;       // after the line break
        std::size_t textEnd = 0;   // before the line break
    };

    std::vector<Line> blockLines() const;
    std::optional<Span> findTopLevel(std::string_view key, const std::vector<Line>& lines) const;
    /// The children of the `source` entry: their indent, and the span of `key` among them.
    std::optional<Span> findInSource(const Span& source, std::string_view key, std::string& indent) const;
    void insertAtEndOfBlock(const std::string& lines);
    /// Inserts `text` after the last key of `after` at the top of the block, else at its end.
    void insertAfter(const std::vector<Line>& lines, const Keys& after, const std::string& text);
    void replace(const Span& span, const std::string& with);
    void relayout();

    std::string text_;
    std::string eol_ = "\n";
    Layout layout_;
};

} // namespace quillet
