#pragma once

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace quillet {

/// Thrown when a JSON document of the program's own formats (settings, recorder sidecars)
/// lacks a required value or holds a value of the wrong type; what() names the value.
class JsonDecodeError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Typed reading of JSON values that refuses what a lenient conversion would bend: a number
/// for a bool, a fraction for an integer, an integer beyond 64 bits. nlohmann's own get<T>()
/// truncates 7.9 to 7 and reads an out-of-range number as something else, which would turn
/// a damaged file into wrong settings instead of an ignored one.
namespace strictJson {

using nlohmann::json;

template <typename T>
struct IsVector : std::false_type {};
template <typename T>
struct IsVector<std::vector<T>> : std::true_type {};

/// `value` as T; throws JsonDecodeError naming `what` when it is not one. T is std::string,
/// bool, std::int64_t, double, float, a std::vector of these, or a type with a from_json
/// that throws JsonDecodeError.
template <typename T>
T decode(const json& value, std::string_view what)
{
    auto wrong = [&](const char* expected) {
        return JsonDecodeError(std::string(what) + ": expected " + expected);
    };
    if constexpr (std::is_same_v<T, std::string>) {
        if (!value.is_string()) {
            throw wrong("a string");
        }
        return value.get<std::string>();
    } else if constexpr (std::is_same_v<T, bool>) {
        if (!value.is_boolean()) {
            throw wrong("true or false");
        }
        return value.get<bool>();
    } else if constexpr (std::is_same_v<T, std::int64_t>) {
        if (value.is_number_integer() && !value.is_number_unsigned()) {
            return value.get<std::int64_t>();
        }
        if (value.is_number_unsigned()) {
            auto number = value.get<std::uint64_t>();
            if (number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
                throw wrong("an integer of at most 64 bits");
            }
            return static_cast<std::int64_t>(number);
        }
        if (value.is_number_float()) {
            // 7.0 and 1e2 are whole numbers; 7.5 and 1e300 are not integers we can hold.
            double number = value.get<double>();
            if (std::isfinite(number) && std::trunc(number) == number && number >= -9.2233720368547758e18 &&
                number < 9.2233720368547758e18) {
                return static_cast<std::int64_t>(number);
            }
        }
        throw wrong("an integer");
    } else if constexpr (std::is_same_v<T, double> || std::is_same_v<T, float>) {
        if (!value.is_number() || !std::isfinite(value.get<double>())) {
            throw wrong("a finite number");
        }
        return value.get<T>();
    } else if constexpr (IsVector<T>::value) {
        if (!value.is_array()) {
            throw wrong("an array");
        }
        T result;
        result.reserve(value.size());
        for (const auto& element : value) {
            result.push_back(decode<typename T::value_type>(element, what));
        }
        return result;
    } else {
        T result{};
        from_json(value, result);
        return result;
    }
}

/// The value of `key` in `object`; throws JsonDecodeError when it is missing, null or of the
/// wrong type.
template <typename T>
T required(const json& object, const std::string& key)
{
    auto found = object.find(key);
    if (found == object.end() || found->is_null()) {
        throw JsonDecodeError("missing value \"" + key + "\"");
    }
    return decode<T>(*found, key);
}

/// The value of `key` in `object`, absent when the key is missing or null; throws
/// JsonDecodeError when it is present with the wrong type.
template <typename T>
std::optional<T> optional(const json& object, const std::string& key)
{
    auto found = object.find(key);
    if (found == object.end() || found->is_null()) {
        return std::nullopt;
    }
    return decode<T>(*found, key);
}

/// Sets `key` in `object` to the value, or leaves the key out when there is none.
template <typename T>
void putIfPresent(json& object, const std::string& key, const std::optional<T>& value)
{
    if (value) {
        object[key] = *value;
    }
}

} // namespace strictJson
} // namespace quillet
