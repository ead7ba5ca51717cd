#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillet {

/// Why an answer of the service does not decode into the expected model. Decoding follows a
/// plain JSON decoder: keys as written, unknown keys ignored, an absent or null optional key
/// is absent, a present key of the wrong type is an error, integers must be whole numbers.
class DecodeError : public std::exception {
public:
    enum class Kind { keyNotFound, valueNotFound, typeMismatch, dataCorrupted };

    DecodeError(Kind kind, std::string codingPath, std::string detail);

    Kind kind() const { return kind_; }

    /// The short text users see, as the platform words decoding failures: "The data couldn’t
    /// be read because it is missing." or "… because it isn’t in the correct format.".
    const std::string& localizedDescription() const { return localized_; }

    /// The full rendering: the kind, the path of keys to the failing value, and the details.
    std::string debugDescription() const;

    /// The localised description.
    const char* what() const noexcept override { return localized_.c_str(); }

private:
    Kind kind_;
    std::string codingPath_;
    std::string detail_;
    std::string localized_;
};

/// Reading models out of JSON answers; every failure is a DecodeError.
namespace JsonDecoding {

/// Parses `body` as one JSON value; text that is not JSON (or not UTF-8) is dataCorrupted.
nlohmann::json parse(std::string_view body);

/// A JSON object being decoded, with its path from the top for error messages.
class Object {
public:
    /// `value` as an object; anything else is a typeMismatch.
    Object(const nlohmann::json& value, std::string path = "");

    std::string requiredString(const char* key) const;
    std::optional<std::string> optionalString(const char* key) const;
    bool requiredBool(const char* key) const;
    std::optional<bool> optionalBool(const char* key) const;
    std::int64_t requiredInt(const char* key) const;
    std::optional<std::int64_t> optionalInt(const char* key) const;
    std::optional<double> optionalDouble(const char* key) const;
    Object requiredObject(const char* key) const;
    std::optional<Object> optionalObject(const char* key) const;
    /// The elements of an array that must hold objects.
    std::vector<Object> requiredObjectArray(const char* key) const;
    std::optional<std::vector<std::string>> optionalStringArray(const char* key) const;

private:
    // The value under `key`, or null when absent or null (valueNotFound/keyNotFound when
    // `required`).
    const nlohmann::json* find(const char* key, bool required) const;
    std::string pathTo(std::string_view key) const;
    [[noreturn]] void mismatch(std::string_view key, const char* expected, const nlohmann::json& found) const;

    const nlohmann::json* value_;
    std::string path_;
};

} // namespace JsonDecoding
} // namespace quillet
