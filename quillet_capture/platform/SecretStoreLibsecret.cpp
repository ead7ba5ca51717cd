#include "quillet_capture/platform/SecretStore.hpp"

#include "quillet_capture/platform/Paths.hpp"

#include "quillet_capture/platform/SessionBusLinux.hpp"

#include <libsecret/secret.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace quillet::SecretStore {

namespace {

// The Secret Service is reached over the session bus, which may be missing (SSH, containers,
// a system service), or present with nothing behind it that answers (a keyring daemon waiting
// for a prompt that nobody sees). No caller may hang on it: each call gets kCallLimit, after
// which it is cancelled and abandoned, and the service is then left alone for kQuietPeriod so
// that code reading the token often does not wait every time.
constexpr auto kCallLimit = std::chrono::seconds(3);
constexpr auto kQuietPeriod = std::chrono::seconds(60);

std::atomic<std::chrono::steady_clock::rep> silentUntil{0};
// An abandoned call that has not returned yet; while it runs no new call is started, so a
// service that never answers costs one parked thread, not one per call.
std::atomic<bool> abandonedCallRunning{false};

bool serviceRecentlySilent()
{
    return abandonedCallRunning.load() ||
           std::chrono::steady_clock::now().time_since_epoch().count() < silentUntil.load();
}

void noteSilence()
{
    silentUntil.store((std::chrono::steady_clock::now() + kQuietPeriod).time_since_epoch().count());
}

// Items are matched by their attributes alone, so that items that other programs wrote
// (secret-tool, the predecessor) with the same service and account are found too.
const SecretSchema* schema()
{
    static const SecretSchema value = {
        "se.Brannick.quillet.Token",
        SECRET_SCHEMA_DONT_MATCH_NAME,
        {
            {"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
            {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
            {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING},
        },
        0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    };
    return &value;
}

// One call to the Secret Service and what it answered. Shared between the caller and the
// thread that runs it, because the caller may leave before the thread does.
struct Call {
    std::string service;
    std::string account;
    std::string secret;  // in: the data to store; out: the data found
    bool found = false;

    GCancellable* cancellable = g_cancellable_new();
    std::mutex lock;
    std::condition_variable finished;
    bool done = false;
    bool answered = false;
    bool abandoned = false;

    ~Call() { g_object_unref(cancellable); }

    GHashTable* attributes() const
    {
        GHashTable* table = g_hash_table_new(g_str_hash, g_str_equal);
        g_hash_table_insert(table, const_cast<char*>("service"), const_cast<char*>(service.c_str()));
        g_hash_table_insert(table, const_cast<char*>("account"), const_cast<char*>(account.c_str()));
        return table;
    }
};

using Work = std::function<void(Call&, GError**)>;

// True when the service answered (found, not found, stored or cleared); false when it could
// not be reached, failed, or stayed silent for kCallLimit.
bool run(const std::shared_ptr<Call>& call, Work work)
{
    if (serviceRecentlySilent() || !SessionBus::conceivable()) {
        return false;
    }
    std::thread([call, work = std::move(work)] {
        GError* error = nullptr;
        work(*call, &error);
        std::lock_guard guard(call->lock);
        call->done = true;
        call->answered = error == nullptr;
        if (error != nullptr) {
            g_error_free(error);
        }
        if (call->abandoned) {
            abandonedCallRunning.store(false);
        }
        call->finished.notify_all();
    }).detach();

    std::unique_lock guard(call->lock);
    if (!call->finished.wait_for(guard, kCallLimit, [&] { return call->done; })) {
        call->abandoned = true;
        abandonedCallRunning.store(true);
        noteSilence();
        g_cancellable_cancel(call->cancellable);
        return false;
    }
    return call->answered;
}

std::shared_ptr<Call> newCall(std::string_view service, std::string_view account)
{
    auto call = std::make_shared<Call>();
    call->service = service;
    call->account = account;
    return call;
}

} // namespace

std::optional<std::string> read(std::string_view service, std::string_view account)
{
    if (!fileStoreRequested()) {
        auto call = newCall(service, account);
        bool answered = run(call, [](Call& c, GError** error) {
            GHashTable* attributes = c.attributes();
            SecretValue* value = secret_password_lookupv_binary_sync(schema(), attributes, c.cancellable, error);
            g_hash_table_unref(attributes);
            if (value != nullptr) {
                gsize length = 0;
                const gchar* bytes = secret_value_get(value, &length);
                c.secret.assign(bytes, length);
                c.found = true;
                secret_value_unref(value);
            }
        });
        if (answered && call->found) {
            return call->secret;
        }
    }
    // Also a token saved while no Secret Service answered (pairing over SSH) is found.
    return File::read(service, account);
}

bool write(std::string_view service, std::string_view account, std::string_view secret)
{
    if (!fileStoreRequested()) {
        auto call = newCall(service, account);
        call->secret = secret;
        bool answered = run(call, [](Call& c, GError** error) {
            GHashTable* attributes = c.attributes();
            SecretValue* value = secret_value_new(c.secret.data(), static_cast<gssize>(c.secret.size()), "text/plain");
            std::string label = c.service + " (" + c.account + ")";
            // Storing with the same attributes replaces the data of the existing item.
            secret_password_storev_binary_sync(schema(), attributes, SECRET_COLLECTION_DEFAULT, label.c_str(), value,
                                               c.cancellable, error);
            secret_value_unref(value);
            g_hash_table_unref(attributes);
        });
        if (answered) {
            // A copy left in the file at a silent moment would otherwise outlive the new token.
            File::remove(service, account);
            return true;
        }
    }
    return File::write(service, account, secret);
}

bool remove(std::string_view service, std::string_view account)
{
    if (!fileStoreRequested()) {
        auto call = newCall(service, account);
        run(call, [](Call& c, GError** error) {
            GHashTable* attributes = c.attributes();
            secret_password_clearv_sync(schema(), attributes, c.cancellable, error);
            g_hash_table_unref(attributes);
        });
    }
    return File::remove(service, account);
}

std::string backendName()
{
    bool tried = !fileStoreRequested() && !serviceRecentlySilent() && SessionBus::conceivable();
    return tried ? "secret-service" : "file";
}

std::string place()
{
    return backendName() == "file" ? Paths::credentialsFile().string() : "the Secret Service";
}

} // namespace quillet::SecretStore
