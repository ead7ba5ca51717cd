#pragma once

#include <simdjson.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
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

/// One parsed answer. Its values live in the parser it owns, so Objects read from it must not
/// outlive it.
class Document {
public:
    /// Parses `body` as one JSON value; text that is not JSON (or not UTF-8) is dataCorrupted.
    explicit Document(std::string_view body);
    ~Document();
    Document(Document&&) noexcept = default;
    Document& operator=(Document&&) noexcept = default;

    simdjson::dom::element root() const { return root_; }

private:
    // The parser holds the values' tape; a pointer, so that a moved Document keeps it in place.
    // Parsers are reused (see JsonDecoding.cpp), so that a page of a listing does not pay for
    // fresh buffers.
    std::unique_ptr<simdjson::dom::parser> parser_;
    simdjson::dom::element root_;
};

/// Parses `body` as one JSON value (see Document).
Document parse(std::string_view body);

/// A JSON object being decoded, with its path from the top for error messages.
class Object {
public:
    /// The document's top value as an object; anything else is a typeMismatch.
    explicit Object(const Document& document);
    /// `value` as an object; anything else is a typeMismatch. `path` leads to it, followed by
    /// ", Index n" for an element of an array.
    Object(simdjson::dom::element value, std::shared_ptr<const std::string> path,
           std::optional<std::size_t> index = std::nullopt);

    std::string requiredString(const char* key) const;
    std::optional<std::string> optionalString(const char* key) const;
    bool requiredBool(const char* key) const;
    std::optional<bool> optionalBool(const char* key) const;
    std::int64_t requiredInt(const char* key) const;
    std::optional<std::int64_t> optionalInt(const char* key) const;
    std::optional<double> optionalDouble(const char* key) const;
    Object requiredObject(const char* key) const;
    std::optional<Object> optionalObject(const char* key) const;
    /// Calls `visit` with each element of the array under `key`, which must hold objects, in
    /// order. The Object handed over is one and the same, refilled for each element (so that a
    /// page of a hundred objects allocates once): it is valid only during the call.
    void forEachObject(const char* key, const std::function<void(const Object&)>& visit) const;
    std::optional<std::vector<std::string>> optionalStringArray(const char* key) const;

private:
    // Reads `value` (an object, else a typeMismatch) into this Object, keeping the path.
    void assign(simdjson::dom::element value, std::optional<std::size_t> index);
    // The value under `key` (the last one when a key is repeated), or nothing when absent or
    // null (valueNotFound/keyNotFound when `required`).
    std::optional<simdjson::dom::element> find(const char* key, bool required) const;
    // The path to this object, and to a value under `key` in it, for error messages: built only
    // when an error needs it, so that decoding a page of a hundred objects makes no paths.
    std::string path() const;
    std::string pathTo(std::string_view key) const;
    [[noreturn]] void mismatch(std::string_view key, const char* expected, simdjson::dom::element found) const;

    // The fields in the order written, read once: every lookup scans this short list (from the
    // end, so that a repeated key holds its last value) instead of the parser's tape.
    std::vector<std::pair<std::string_view, simdjson::dom::element>> fields_;
    std::shared_ptr<const std::string> path_;
    std::optional<std::size_t> index_;
};

} // namespace JsonDecoding
} // namespace quillet
