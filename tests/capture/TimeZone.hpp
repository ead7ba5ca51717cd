#pragma once

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

namespace quillet::test {

/// Sets TZ for the life of the value and restores what was there before.
class TimeZone {
public:
    explicit TimeZone(const char* zone)
    {
        if (const char* old = std::getenv("TZ")) {
            saved_ = old;
        }
        setenv("TZ", zone, 1);
        tzset();
    }
    ~TimeZone()
    {
        if (saved_) {
            setenv("TZ", saved_->c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;

private:
    std::optional<std::string> saved_;
};

} // namespace quillet::test
