#include "quillet_capture/service/JsonDecoding.hpp"

#include <cmath>
#include <limits>

namespace quillet {

namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;

std::string localizedText(DecodeError::Kind kind)
{
    // The platform's wording, with its typographic apostrophes.
    switch (kind) {
    case DecodeError::Kind::keyNotFound:
    case DecodeError::Kind::valueNotFound:
        return "The data couldn\u2019t be read because it is missing.";
    case DecodeError::Kind::typeMismatch:
    case DecodeError::Kind::dataCorrupted:
        break;
    }
    return "The data couldn\u2019t be read because it isn\u2019t in the correct format.";
}

const char* kindName(DecodeError::Kind kind)
{
    switch (kind) {
    case DecodeError::Kind::keyNotFound:
        return "keyNotFound";
    case DecodeError::Kind::valueNotFound:
        return "valueNotFound";
    case DecodeError::Kind::typeMismatch:
        return "typeMismatch";
    case DecodeError::Kind::dataCorrupted:
        break;
    }
    return "dataCorrupted";
}

} // namespace

DecodeError::DecodeError(Kind kind, std::string codingPath, std::string detail)
    : kind_(kind), codingPath_(std::move(codingPath)), detail_(std::move(detail)), localized_(localizedText(kind))
{
}

std::string DecodeError::debugDescription() const
{
    return std::string(kindName(kind_)) + "(codingPath: [" + codingPath_ + "], debugDescription: \"" + detail_ +
           "\")";
}

namespace JsonDecoding {

namespace {

// The names a JSON value's kinds go by in the debug descriptions.
const char* typeName(element value)
{
    switch (value.type()) {
    case element_type::ARRAY:
        return "array";
    case element_type::OBJECT:
        return "object";
    case element_type::INT64:
    case element_type::UINT64:
    case element_type::DOUBLE:
        return "number";
    case element_type::STRING:
        return "string";
    case element_type::BOOL:
        return "boolean";
    case element_type::NULL_VALUE:
        break;
    }
    return "null";
}

std::optional<std::int64_t> wholeNumber(element value)
{
    switch (value.type()) {
    case element_type::INT64:
        return std::int64_t(value.get_int64());
    case element_type::UINT64: {
        std::uint64_t number = value.get_uint64();
        if (number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return std::nullopt;
        }
        return static_cast<std::int64_t>(number);
    }
    case element_type::DOUBLE: {
        double number = value.get_double();
        // 2^63 itself does not fit; every double below it that is whole does.
        if (std::isfinite(number) && std::trunc(number) == number && number >= -9.223372036854775808e18 &&
            number < 9.223372036854775808e18) {
            return static_cast<std::int64_t>(number);
        }
        return std::nullopt;
    }
    default:
        return std::nullopt;
    }
}

bool isNumber(element value)
{
    auto type = value.type();
    return type == element_type::INT64 || type == element_type::UINT64 || type == element_type::DOUBLE;
}

std::string text(element value)
{
    std::string_view view = value.get_string();
    return std::string(view);
}

} // namespace

// One parser per thread is kept for the next answer, unless a large answer grew it: answers
// are small, and an idle agent should not hold megabytes for a rare large one.
constexpr std::size_t kKeptParserCapacity = 256 * 1024;
thread_local std::unique_ptr<simdjson::dom::parser> spareParser;

// `body` with every integer literal too long for 64 bits written as a decimal (a ".0" added).
// simdjson keeps integers in 64 bits and refuses a text with a longer one (a number error, as
// for a malformed number, which the rewriting leaves as it is), though JSON allows it
// and a plain decoder reads as a double; the text rewritten so reads the same way.
std::string withLongIntegersAsDecimals(std::string_view body)
{
    auto fits = [](std::string_view digits, bool negative) {
        std::string_view limit = negative ? "9223372036854775808" : "18446744073709551615";
        return digits.size() < limit.size() || (digits.size() == limit.size() && digits <= limit);
    };
    std::string out;
    out.reserve(body.size() + 16);
    bool inString = false;
    for (size_t i = 0; i < body.size();) {
        char c = body[i];
        if (inString) {
            out += c;
            if (c == '\\' && i + 1 < body.size()) {
                out += body[i + 1];
                i += 2;
                continue;
            }
            inString = c != '"';
            ++i;
            continue;
        }
        if (c == '"') {
            inString = true;
            out += c;
            ++i;
            continue;
        }
        if (c == '-' || (c >= '0' && c <= '9')) {
            size_t end = i;
            while (end < body.size() && std::string_view("0123456789+-.eE").find(body[end]) != std::string_view::npos) {
                ++end;
            }
            std::string_view number = body.substr(i, end - i);
            out.append(number);
            bool negative = number.front() == '-';
            std::string_view digits = number.substr(negative ? 1 : 0);
            if (!digits.empty() && digits.find_first_not_of("0123456789") == std::string_view::npos &&
                !fits(digits, negative)) {
                out += ".0";
            }
            i = end;
            continue;
        }
        out += c;
        ++i;
    }
    return out;
}

Document::Document(std::string_view body)
    : parser_(spareParser ? std::move(spareParser) : std::make_unique<simdjson::dom::parser>())
{
    // The parser copies the body into a padded buffer of its own.
    auto error = parser_->parse(body.data(), body.size(), true).get(root_);
    if (error == simdjson::NUMBER_ERROR) {
        auto rewritten = withLongIntegersAsDecimals(body);
        error = parser_->parse(rewritten.data(), rewritten.size(), true).get(root_);
    }
    if (error) {
        throw DecodeError(DecodeError::Kind::dataCorrupted, "",
                          std::string("The given data was not valid JSON. ") + simdjson::error_message(error));
    }
}

Document::~Document()
{
    if (parser_ && parser_->capacity() <= kKeptParserCapacity) {
        spareParser = std::move(parser_);
    }
}

Document parse(std::string_view body)
{
    return Document(body);
}

Object::Object(const Document& document) : Object(document.root(), std::make_shared<const std::string>())
{
}

Object::Object(element value, std::shared_ptr<const std::string> path, std::optional<std::size_t> index)
    : path_(std::move(path))
{
    assign(value, index);
}

void Object::assign(element value, std::optional<std::size_t> index)
{
    index_ = index;
    fields_.clear();
    simdjson::dom::object object;
    if (value.get(object)) {
        throw DecodeError(DecodeError::Kind::typeMismatch, this->path(),
                          std::string("Expected to decode a dictionary but found ") + typeName(value) + ".");
    }
    for (auto field : object) {
        fields_.emplace_back(field.key, field.value);
    }
}

std::string Object::path() const
{
    if (!index_) {
        return *path_;
    }
    return *path_ + ", Index " + std::to_string(*index_);
}

std::string Object::pathTo(std::string_view key) const
{
    std::string quoted = "\"" + std::string(key) + "\"";
    auto path = this->path();
    return path.empty() ? quoted : path + ", " + quoted;
}

void Object::mismatch(std::string_view key, const char* expected, element found) const
{
    throw DecodeError(DecodeError::Kind::typeMismatch, pathTo(key),
                      std::string("Expected to decode ") + expected + " but found " + typeName(found) + ".");
}

std::optional<element> Object::find(const char* key, bool required) const
{
    std::optional<element> found;
    std::string_view wanted(key);
    for (auto field = fields_.rbegin(); field != fields_.rend(); ++field) {
        if (field->first == wanted) {
            found = field->second;
            break;
        }
    }
    if (!found) {
        if (required) {
            throw DecodeError(DecodeError::Kind::keyNotFound, path(),
                              std::string("No value associated with key \\\"") + key + "\\\".");
        }
        return std::nullopt;
    }
    if (found->is_null()) {
        if (required) {
            throw DecodeError(DecodeError::Kind::valueNotFound, pathTo(key),
                              "Expected a value but found null instead.");
        }
        return std::nullopt;
    }
    return found;
}

std::string Object::requiredString(const char* key) const
{
    auto value = find(key, true);
    if (!value->is_string()) {
        mismatch(key, "String", *value);
    }
    return text(*value);
}

std::optional<std::string> Object::optionalString(const char* key) const
{
    auto value = find(key, false);
    if (!value) {
        return std::nullopt;
    }
    if (!value->is_string()) {
        mismatch(key, "String", *value);
    }
    return text(*value);
}

bool Object::requiredBool(const char* key) const
{
    auto value = find(key, true);
    if (!value->is_bool()) {
        mismatch(key, "Bool", *value);
    }
    return bool(value->get_bool());
}

std::optional<bool> Object::optionalBool(const char* key) const
{
    auto value = find(key, false);
    if (!value) {
        return std::nullopt;
    }
    if (!value->is_bool()) {
        mismatch(key, "Bool", *value);
    }
    return bool(value->get_bool());
}

std::int64_t Object::requiredInt(const char* key) const
{
    auto value = find(key, true);
    auto number = wholeNumber(*value);
    if (!number) {
        mismatch(key, "Int", *value);
    }
    return *number;
}

std::optional<std::int64_t> Object::optionalInt(const char* key) const
{
    auto value = find(key, false);
    if (!value) {
        return std::nullopt;
    }
    auto number = wholeNumber(*value);
    if (!number) {
        mismatch(key, "Int", *value);
    }
    return number;
}

std::optional<double> Object::optionalDouble(const char* key) const
{
    auto value = find(key, false);
    if (!value) {
        return std::nullopt;
    }
    if (!isNumber(*value)) {
        mismatch(key, "Double", *value);
    }
    // Integers too, as doubles.
    return double(value->get_double());
}

Object Object::requiredObject(const char* key) const
{
    auto value = find(key, true);
    if (!value->is_object()) {
        mismatch(key, "a dictionary", *value);
    }
    return Object(*value, std::make_shared<const std::string>(pathTo(key)));
}

std::optional<Object> Object::optionalObject(const char* key) const
{
    auto value = find(key, false);
    if (!value) {
        return std::nullopt;
    }
    if (!value->is_object()) {
        mismatch(key, "a dictionary", *value);
    }
    return Object(*value, std::make_shared<const std::string>(pathTo(key)));
}

void Object::forEachObject(const char* key, const std::function<void(const Object&)>& visit) const
{
    auto value = find(key, true);
    simdjson::dom::array array;
    if (value->get(array)) {
        mismatch(key, "an array", *value);
    }
    std::optional<Object> item;
    std::size_t index = 0;
    for (element next : array) {
        if (item) {
            item->assign(next, index);
        } else {
            item.emplace(next, std::make_shared<const std::string>(pathTo(key)), index);
        }
        visit(*item);
        ++index;
    }
}

std::optional<std::vector<std::string>> Object::optionalStringArray(const char* key) const
{
    auto value = find(key, false);
    if (!value) {
        return std::nullopt;
    }
    simdjson::dom::array array;
    if (value->get(array)) {
        mismatch(key, "an array", *value);
    }
    std::vector<std::string> strings;
    std::size_t index = 0;
    for (element item : array) {
        if (!item.is_string()) {
            throw DecodeError(DecodeError::Kind::typeMismatch, pathTo(key) + ", Index " + std::to_string(index),
                              std::string("Expected to decode String but found ") + typeName(item) + ".");
        }
        strings.push_back(text(item));
        ++index;
    }
    return strings;
}

} // namespace JsonDecoding
} // namespace quillet
