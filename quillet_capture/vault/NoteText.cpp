#include "quillet_capture/vault/NoteText.hpp"

#include <algorithm>

namespace quillet {

namespace {

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

// A line without its line break, its indent (spaces only: YAML indents with spaces) and what
// follows it.
struct LineText {
    std::string_view text;
    std::size_t indent = 0;

    std::string_view rest() const { return text.substr(indent); }
    bool blank() const { return std::all_of(text.begin(), text.end(), [](char c) { return isBlank(c) || c == '\r'; }); }
    bool comment() const
    {
        auto start = text.find_first_not_of(" \t");
        return start != std::string_view::npos && text[start] == '#';
    }
    // "- item" or a lone "-": an item of a block list.
    bool item() const
    {
        auto r = rest();
        return r.starts_with('-') && (r.size() == 1 || isBlank(r[1]) || r[1] == '\r');
    }
};

LineText lineText(std::string_view text)
{
    if (text.ends_with('\r')) {
        text.remove_suffix(1);
    }
    LineText line{text, 0};
    while (line.indent < text.size() && text[line.indent] == ' ') {
        ++line.indent;
    }
    return line;
}

// The key of a "key: value" line (after its indent), unquoted, and where its value starts;
// nothing for a line that is not a key.
std::optional<std::pair<std::string, std::size_t>> keyOf(std::string_view rest)
{
    std::string key;
    std::size_t at = 0;
    if (!rest.empty() && (rest[0] == '"' || rest[0] == '\'')) {
        auto close = rest.find(rest[0], 1);
        if (close == std::string_view::npos) {
            return std::nullopt;
        }
        key = std::string(rest.substr(1, close - 1));
        at = close + 1;
        while (at < rest.size() && isBlank(rest[at])) {
            ++at;
        }
        if (at >= rest.size() || rest[at] != ':') {
            return std::nullopt;
        }
    } else {
        for (at = 0; at < rest.size(); ++at) {
            if (rest[at] == ':' && (at + 1 == rest.size() || isBlank(rest[at + 1]))) {
                break;
            }
        }
        if (at >= rest.size()) {
            return std::nullopt;
        }
        key = std::string(rest.substr(0, at));
        while (!key.empty() && isBlank(key.back())) {
            key.pop_back();
        }
    }
    return std::make_pair(std::move(key), at + 1);
}

// The value on a key's own line, without blanks around it and without a comment after it.
std::string_view inlineValue(std::string_view rest, std::size_t valueAt)
{
    auto value = rest.substr(std::min(valueAt, rest.size()));
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] == '#' && (i == 0 || isBlank(value[i - 1]))) {
            value = value.substr(0, i);
            break;
        }
    }
    while (!value.empty() && isBlank(value.front())) {
        value.remove_prefix(1);
    }
    while (!value.empty() && isBlank(value.back())) {
        value.remove_suffix(1);
    }
    return value;
}

std::string joined(const std::vector<std::string>& items)
{
    std::string text;
    for (const auto& item : items) {
        if (!text.empty()) {
            text += ", ";
        }
        text += item;
    }
    return text;
}

// A delimiter line: "---", then nothing but blanks.
bool isDelimiter(std::string_view line)
{
    if (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    if (!line.starts_with("---")) {
        return false;
    }
    return std::all_of(line.begin() + 3, line.end(), isBlank);
}

} // namespace

NoteText::NoteText(std::string text) : text_(std::move(text))
{
    relayout();
    auto firstBreak = text_.find('\n');
    if (firstBreak != std::string::npos && firstBreak > 0 && text_[firstBreak - 1] == '\r') {
        eol_ = "\r\n";
    }
}

std::optional<NoteText::Layout> NoteText::layoutOf(std::string_view text)
{
    auto firstEnd = text.find('\n');
    if (firstEnd == std::string_view::npos || !isDelimiter(text.substr(0, firstEnd))) {
        return std::nullopt;
    }
    Layout layout;
    layout.blockBegin = firstEnd + 1;
    for (std::size_t at = layout.blockBegin; at < text.size();) {
        auto end = text.find('\n', at);
        auto line = text.substr(at, end == std::string_view::npos ? std::string_view::npos : end - at);
        if (isDelimiter(line)) {
            layout.blockEnd = at;
            layout.bodyBegin = end == std::string_view::npos ? text.size() : end + 1;
            return layout;
        }
        if (end == std::string_view::npos) {
            break;
        }
        at = end + 1;
    }
    return std::nullopt;
}

void NoteText::relayout()
{
    auto layout = layoutOf(text_);
    if (!layout) {
        throw Unparseable{Problem::noBlock, "no frontmatter block"};
    }
    layout_ = *layout;
}

std::string_view NoteText::block() const
{
    return std::string_view(text_).substr(layout_.blockBegin, layout_.blockEnd - layout_.blockBegin);
}

std::string_view NoteText::body() const
{
    auto body = std::string_view(text_).substr(layout_.bodyBegin);
    while (!body.empty() && (body.front() == '\n' || body.front() == '\r')) {
        body.remove_prefix(1);
    }
    return body;
}

std::vector<NoteText::Line> NoteText::blockLines() const
{
    std::vector<Line> lines;
    for (std::size_t at = layout_.blockBegin; at < layout_.blockEnd;) {
        auto end = text_.find('\n', at);
        if (end == std::string::npos || end >= layout_.blockEnd) {
            end = layout_.blockEnd - 1;
        }
        lines.push_back(Line{at, end + 1, end});
        at = end + 1;
    }
    return lines;
}

std::optional<NoteText::Span> NoteText::findTopLevel(std::string_view key, const std::vector<Line>& lines) const
{
    auto textOf = [&](const Line& line) { return lineText(std::string_view(text_).substr(line.begin, line.textEnd - line.begin)); };
    for (std::size_t i = 0; i < lines.size(); ++i) {
        auto line = textOf(lines[i]);
        if (line.indent != 0 || line.blank() || line.comment() || line.item()) {
            continue;
        }
        auto found = keyOf(line.rest());
        if (!found || found->first != key) {
            continue;
        }
        // The entry is its line and the lines nested below it (indented, or items of its list
        // at the margin); blank lines and comments after its last line are not its own.
        Span span{lines[i].begin, lines[i].end};
        for (std::size_t j = i + 1; j < lines.size(); ++j) {
            auto next = textOf(lines[j]);
            if (next.blank() || next.comment()) {
                continue;
            }
            if (next.indent == 0 && !next.item()) {
                break;
            }
            span.end = lines[j].end;
        }
        return span;
    }
    return std::nullopt;
}

std::optional<NoteText::Span> NoteText::findInSource(const Span& source, std::string_view key, std::string& indent) const
{
    auto lines = blockLines();
    std::optional<std::size_t> childIndent;
    std::optional<Span> found;
    for (const auto& each : lines) {
        if (each.begin <= source.begin || each.begin >= source.end) {
            continue;
        }
        auto line = lineText(std::string_view(text_).substr(each.begin, each.textEnd - each.begin));
        if (line.blank() || line.comment()) {
            continue;
        }
        if (!childIndent) {
            childIndent = line.indent;
        }
        bool child = line.indent == *childIndent && !line.item();
        if (child && found) {
            break;
        }
        if (found) {
            found->end = each.end;
            continue;
        }
        if (auto name = child ? keyOf(line.rest()) : std::nullopt; name && name->first == key) {
            found = Span{each.begin, each.end};
        }
    }
    indent = std::string(childIndent && *childIndent > 0 ? *childIndent : 2, ' ');
    return found;
}

void NoteText::replace(const Span& span, const std::string& with)
{
    text_.replace(span.begin, span.end - span.begin, with);
    relayout();
}

void NoteText::insertAtEndOfBlock(const std::string& lines)
{
    text_.insert(layout_.blockEnd, lines);
    relayout();
}

void NoteText::set(std::string_view key, std::string_view yaml, const Keys& after)
{
    auto lines = blockLines();
    if (key.starts_with("source.")) {
        auto child = key.substr(7);
        auto source = findTopLevel("source", lines);
        if (!source) {
            // The map is made where the program writes it: `after` names its children, so
            // the place of the map itself is after the top-level keys that come before it.
            static const Keys kBeforeSource = {"id", "created", "classification", "status", "confidence"};
            insertAfter(lines, kBeforeSource, "source:" + eol_ + "  " + std::string(child) + ": " + std::string(yaml) + eol_);
            return;
        }
        auto sourceLine = lineText(std::string_view(text_).substr(source->begin, text_.find('\n', source->begin) - source->begin));
        auto name = keyOf(sourceLine.rest());
        if (!inlineValue(sourceLine.rest(), name ? name->second : 0).empty()) {
            throw Unparseable{Problem::flowSource, "the source map is written on one line"};
        }
        std::string indent;
        auto span = findInSource(*source, child, indent);
        std::string line = indent + std::string(child) + ": " + std::string(yaml) + eol_;
        if (span) {
            replace(*span, line);
            return;
        }
        std::size_t at = source->end;
        for (auto it = after.rbegin(); it != after.rend(); ++it) {
            if (auto before = findInSource(*source, *it, indent)) {
                at = before->end;
                break;
            }
        }
        replace(Span{at, at}, line);
        return;
    }
    std::string line = std::string(key) + ": " + std::string(yaml) + eol_;
    if (auto span = findTopLevel(key, lines)) {
        replace(*span, line);
    } else {
        insertAfter(lines, after, line);
    }
}

void NoteText::insertAfter(const std::vector<Line>& lines, const Keys& after, const std::string& text)
{
    for (auto it = after.rbegin(); it != after.rend(); ++it) {
        if (auto before = findTopLevel(*it, lines)) {
            replace(Span{before->end, before->end}, text);
            return;
        }
    }
    insertAtEndOfBlock(text);
}

void NoteText::remove(std::string_view key)
{
    auto lines = blockLines();
    if (key.starts_with("source.")) {
        auto source = findTopLevel("source", lines);
        std::string indent;
        if (auto span = source ? findInSource(*source, key.substr(7), indent) : std::nullopt) {
            replace(*span, "");
        }
        return;
    }
    if (auto span = findTopLevel(key, lines)) {
        replace(*span, "");
    }
}

void NoteText::appendToList(std::string_view key, const std::vector<std::string>& items,
                            const std::vector<std::string>& all, const Keys& after)
{
    if (items.empty()) {
        return;
    }
    auto lines = blockLines();
    auto span = findTopLevel(key, lines);
    if (!span) {
        set(key, "[" + joined(all) + "]", after);
        return;
    }
    auto lineEnd = text_.find('\n', span->begin);
    auto first = lineText(std::string_view(text_).substr(span->begin, lineEnd - span->begin));
    auto name = keyOf(first.rest());
    auto value = inlineValue(first.rest(), name ? name->second : 0);
    bool oneLine = lineEnd + 1 == span->end;
    if (value.empty() && !oneLine) {
        // A block list: the new items go after the last one, indented as it is.
        std::optional<std::string> itemIndent;
        for (const auto& each : lines) {
            if (each.begin <= span->begin || each.begin >= span->end) {
                continue;
            }
            auto line = lineText(std::string_view(text_).substr(each.begin, each.textEnd - each.begin));
            if (line.item() && !itemIndent) {
                itemIndent = std::string(line.indent, ' ');
            }
        }
        if (itemIndent) {
            std::string added;
            for (const auto& item : items) {
                added += *itemIndent + "- " + item + eol_;
            }
            replace(Span{span->end, span->end}, added);
            return;
        }
    }
    if (oneLine && value.starts_with('[') && value.ends_with(']')) {
        // A list on one line: the new items go before its "]".
        auto close = static_cast<std::size_t>(value.data() - text_.data()) + value.size() - 1;
        auto inner = value.substr(1, value.size() - 2);
        bool empty = std::all_of(inner.begin(), inner.end(), isBlank);
        replace(Span{close, close}, (empty ? "" : ", ") + joined(items));
        return;
    }
    replace(*span, std::string(key) + ": [" + joined(all) + "]" + eol_);
}

void NoteText::setBody(std::string_view body)
{
    text_.resize(layout_.bodyBegin);
    if (text_.empty() || text_.back() != '\n') {
        text_ += eol_;
    }
    text_ += eol_;
    text_ += body;
    relayout();
}

} // namespace quillet
