#include "quillet_capture/service/RefusedToken.hpp"

namespace quillet {

RefusedToken& RefusedToken::shared()
{
    static auto* instance = new RefusedToken; // requests may still run at exit
    return *instance;
}

bool RefusedToken::refuse(const std::string& baseURL, const std::string& authorization)
{
    std::lock_guard guard(lock_);
    if (refused_ && refused_->baseURL == baseURL && refused_->authorization == authorization) {
        return false;
    }
    // Only the latest refusal is kept: a device has one token, and an older refused one will
    // not come back from the store.
    refused_ = Refusal{baseURL, authorization};
    return true;
}

bool RefusedToken::isRefused(const std::string& baseURL, const std::string& authorization) const
{
    std::lock_guard guard(lock_);
    return refused_ && refused_->baseURL == baseURL && refused_->authorization == authorization;
}

void RefusedToken::forget()
{
    std::lock_guard guard(lock_);
    refused_.reset();
}

} // namespace quillet
