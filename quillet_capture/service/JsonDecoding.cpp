#include "quillet_capture/service/JsonDecoding.hpp"

#include <cmath>
#include <limits>

namespace quillet {

namespace {

using nlohmann::json;

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

json parse(std::string_view body)
{
    try {
        return json::parse(body.begin(), body.end());
    } catch (const json::exception& error) {
        throw DecodeError(DecodeError::Kind::dataCorrupted, "",
                          std::string("The given data was not valid JSON. ") + error.what());
    }
}

Object::Object(const json& value, std::string path) : value_(&value), path_(std::move(path))
{
    if (!value.is_object()) {
        throw DecodeError(DecodeError::Kind::typeMismatch, path_,
                          std::string("Expected to decode a dictionary but found ") + value.type_name() + ".");
    }
}

std::string Object::pathTo(std::string_view key) const
{
    std::string quoted = "\"" + std::string(key) + "\"";
    return path_.empty() ? quoted : path_ + ", " + quoted;
}

void Object::mismatch(std::string_view key, const char* expected, const json& found) const
{
    throw DecodeError(DecodeError::Kind::typeMismatch, pathTo(key),
                      std::string("Expected to decode ") + expected + " but found " + found.type_name() + ".");
}

const json* Object::find(const char* key, bool required) const
{
    auto found = value_->find(key);
    if (found == value_->end()) {
        if (required) {
            throw DecodeError(DecodeError::Kind::keyNotFound, path_,
                              std::string("No value associated with key \\\"") + key + "\\\".");
        }
        return nullptr;
    }
    if (found->is_null()) {
        if (required) {
            throw DecodeError(DecodeError::Kind::valueNotFound, pathTo(key),
                              "Expected a value but found null instead.");
        }
        return nullptr;
    }
    return &*found;
}

namespace {

std::optional<std::int64_t> wholeNumber(const json& value)
{
    if (value.is_number_integer()) {
        if (value.is_number_unsigned() &&
            value.get<std::uint64_t>() > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return std::nullopt;
        }
        return value.get<std::int64_t>();
    }
    if (value.is_number_float()) {
        double number = value.get<double>();
        // 2^63 itself does not fit; every double below it that is whole does.
        if (std::isfinite(number) && std::trunc(number) == number && number >= -9.223372036854775808e18 &&
            number < 9.223372036854775808e18) {
            return static_cast<std::int64_t>(number);
        }
    }
    return std::nullopt;
}

} // namespace

std::string Object::requiredString(const char* key) const
{
    const json* value = find(key, true);
    if (!value->is_string()) {
        mismatch(key, "String", *value);
    }
    return value->get<std::string>();
}

std::optional<std::string> Object::optionalString(const char* key) const
{
    const json* value = find(key, false);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->is_string()) {
        mismatch(key, "String", *value);
    }
    return value->get<std::string>();
}

bool Object::requiredBool(const char* key) const
{
    const json* value = find(key, true);
    if (!value->is_boolean()) {
        mismatch(key, "Bool", *value);
    }
    return value->get<bool>();
}

std::optional<bool> Object::optionalBool(const char* key) const
{
    const json* value = find(key, false);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->is_boolean()) {
        mismatch(key, "Bool", *value);
    }
    return value->get<bool>();
}

std::int64_t Object::requiredInt(const char* key) const
{
    const json* value = find(key, true);
    auto number = wholeNumber(*value);
    if (!number) {
        mismatch(key, "Int", *value);
    }
    return *number;
}

std::optional<std::int64_t> Object::optionalInt(const char* key) const
{
    const json* value = find(key, false);
    if (value == nullptr) {
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
    const json* value = find(key, false);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->is_number()) {
        mismatch(key, "Double", *value);
    }
    return value->get<double>();
}

Object Object::requiredObject(const char* key) const
{
    const json* value = find(key, true);
    if (!value->is_object()) {
        mismatch(key, "a dictionary", *value);
    }
    return Object(*value, pathTo(key));
}

std::optional<Object> Object::optionalObject(const char* key) const
{
    const json* value = find(key, false);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->is_object()) {
        mismatch(key, "a dictionary", *value);
    }
    return Object(*value, pathTo(key));
}

std::vector<Object> Object::requiredObjectArray(const char* key) const
{
    const json* value = find(key, true);
    if (!value->is_array()) {
        mismatch(key, "an array", *value);
    }
    std::vector<Object> elements;
    elements.reserve(value->size());
    std::size_t index = 0;
    for (const auto& element : *value) {
        elements.emplace_back(element, pathTo(key) + ", Index " + std::to_string(index++));
    }
    return elements;
}

std::optional<std::vector<std::string>> Object::optionalStringArray(const char* key) const
{
    const json* value = find(key, false);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->is_array()) {
        mismatch(key, "an array", *value);
    }
    std::vector<std::string> strings;
    std::size_t index = 0;
    for (const auto& element : *value) {
        if (!element.is_string()) {
            throw DecodeError(DecodeError::Kind::typeMismatch, pathTo(key) + ", Index " + std::to_string(index),
                              std::string("Expected to decode String but found ") + element.type_name() + ".");
        }
        strings.push_back(element.get<std::string>());
        ++index;
    }
    return strings;
}

} // namespace JsonDecoding
} // namespace quillet
