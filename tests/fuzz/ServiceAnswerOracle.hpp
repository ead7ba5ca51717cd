// What the fuzz targets of the service's answer models share: a property check that stops
// the run, and an oracle that reads a parsed answer the way a plain JSON decoder must, written
// without JsonDecoding so that the two can disagree.
//
// The decoders' contract: keys as written, unknown keys ignored, an absent or null optional
// key is absent, a required key must be present and not null, a present key of the wrong type
// fails, integers are whole numbers within 64 bits (7.0 and 1e2 count, 7.5 does not).
#pragma once

#include "quillet_capture/service/JsonDecoding.hpp"

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillet::fuzz {

using nlohmann::json;

inline void check(bool condition, const char* what)
{
    if (!condition) {
        std::fprintf(stderr, "property failed: %s\n", what);
        std::abort();
    }
}

/// `body` parsed as JSON, or absent when it is not JSON.
inline std::optional<json> parsed(std::string_view body)
{
    // JSON text cannot hold a raw NUL byte (it is not white space, and inside strings control
    // characters must be escaped); nlohmann/json stops reading at one as if the text ended there.
    if (body.find('\0') != std::string_view::npos) {
        return std::nullopt;
    }
    json value = json::parse(body.begin(), body.end(), nullptr, false);
    if (value.is_discarded()) {
        return std::nullopt;
    }
    return value;
}

/// Reads fields of JSON objects and notes whether the whole answer conforms. Every reader
/// gives the value a conforming decoder must give (absent for a wrong type, with `conforms`
/// turned false).
class Oracle {
public:
    bool conforms = true;

    /// `value` when it is an object, else null (and not conforming).
    const json* object(const json& value)
    {
        if (!value.is_object()) {
            conforms = false;
            return nullptr;
        }
        return &value;
    }

    std::optional<std::string> string(const json* object, const char* key, bool required)
    {
        const json* value = field(object, key, required);
        if (value == nullptr) {
            return std::nullopt;
        }
        if (!value->is_string()) {
            conforms = false;
            return std::nullopt;
        }
        return value->get_ref<const std::string&>();
    }

    std::optional<bool> boolean(const json* object, const char* key, bool required)
    {
        const json* value = field(object, key, required);
        if (value == nullptr) {
            return std::nullopt;
        }
        if (!value->is_boolean()) {
            conforms = false;
            return std::nullopt;
        }
        return value->get<bool>();
    }

    std::optional<double> number(const json* object, const char* key, bool required)
    {
        const json* value = field(object, key, required);
        if (value == nullptr) {
            return std::nullopt;
        }
        if (!value->is_number()) {
            conforms = false;
            return std::nullopt;
        }
        return value->get<double>();
    }

    std::optional<std::int64_t> integer(const json* object, const char* key, bool required)
    {
        const json* value = field(object, key, required);
        if (value == nullptr) {
            return std::nullopt;
        }
        if (value->is_number_unsigned()) {
            auto number = value->get<std::uint64_t>();
            if (number <= 0x7FFF'FFFF'FFFF'FFFFULL) {
                return static_cast<std::int64_t>(number);
            }
        } else if (value->is_number_integer()) {
            return value->get<std::int64_t>();
        } else if (value->is_number_float()) {
            double number = value->get<double>();
            // [-2^63, 2^63): the doubles that a 64-bit integer holds exactly when whole.
            if (std::floor(number) == number && number >= -0x1p63 && number < 0x1p63) {
                return static_cast<std::int64_t>(number);
            }
        }
        conforms = false;
        return std::nullopt;
    }

    /// The object under `key`, or null when absent (or not conforming).
    const json* child(const json* object, const char* key, bool required)
    {
        const json* value = field(object, key, required);
        return value == nullptr ? nullptr : this->object(*value);
    }

    /// The elements of the array under `key` (required), or none when it is not one.
    std::vector<const json*> array(const json* object, const char* key)
    {
        std::vector<const json*> elements;
        const json* value = field(object, key, true);
        if (value == nullptr) {
            return elements;
        }
        if (!value->is_array()) {
            conforms = false;
            return elements;
        }
        for (const auto& element : *value) {
            elements.push_back(&element);
        }
        return elements;
    }

    std::optional<std::vector<std::string>> strings(const json* object, const char* key)
    {
        const json* value = field(object, key, false);
        if (value == nullptr) {
            return std::nullopt;
        }
        if (!value->is_array()) {
            conforms = false;
            return std::nullopt;
        }
        std::vector<std::string> result;
        for (const auto& element : *value) {
            if (!element.is_string()) {
                conforms = false;
                return std::nullopt;
            }
            result.push_back(element.get<std::string>());
        }
        return result;
    }

private:
    const json* field(const json* object, const char* key, bool required)
    {
        if (object == nullptr) {
            return nullptr;
        }
        auto found = object->find(key);
        if (found == object->end() || found->is_null()) {
            conforms = conforms && !required;
            return nullptr;
        }
        return &*found;
    }
};

/// Decodes `body` with `decode` and checks the outcome against the oracle: the decoder
/// succeeds exactly when `conforming`, fails only with DecodeError (dataCorrupted exactly
/// when the text is not JSON), and its error texts are the documented ones. Any other
/// exception ends the run with its text.
template <typename Model, typename Decode>
std::optional<Model> decodeChecked(std::string_view body, bool isJSON, bool conforming, Decode decode)
{
    static const std::string missing = "The data couldn\u2019t be read because it is missing.";
    static const std::string wrong = "The data couldn\u2019t be read because it isn\u2019t in the correct format.";
    try {
        Model model = decode(body);
        check(conforming, "only a conforming answer decodes");
        return model;
    } catch (const DecodeError& error) {
        check(!conforming, "a conforming answer decodes");
        check((error.kind() == DecodeError::Kind::dataCorrupted) == !isJSON, "dataCorrupted exactly when not JSON");
        bool isMissing = error.kind() == DecodeError::Kind::keyNotFound || error.kind() == DecodeError::Kind::valueNotFound;
        check(error.localizedDescription() == (isMissing ? missing : wrong), "the localised text");
        check(std::string_view(error.what()) == error.localizedDescription(), "what() is the localised text");
        check(!error.debugDescription().empty(), "a debug description");
        return std::nullopt;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "undocumented exception: %s\n", error.what());
        std::abort();
    }
}

} // namespace quillet::fuzz
