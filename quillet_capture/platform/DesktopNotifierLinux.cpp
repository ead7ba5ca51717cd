#include "quillet_capture/platform/DesktopNotifier.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/platform/LazyLibrary.hpp"
#include "quillet_capture/platform/SessionBusLinux.hpp"
#include "quillet_capture/runtime/SerialQueue.hpp"

#include <gio/gio.h>

#include <atomic>
#include <optional>
#include <string>

namespace quillet {

namespace {

// GIO's D-Bus client, opened on the first notification (platform/LazyLibrary.hpp): an agent
// that never posts one never loads GLib for it. Unlike libsecret's, these functions are looked
// up rather than defined under their own names, so the two never clash; and a system without
// GIO loses its notifications, not the agent.
struct Gio {
    decltype(&::g_dbus_address_get_for_bus_sync) addressForBus = nullptr;
    decltype(&::g_dbus_connection_new_for_address_sync) connect = nullptr;
    decltype(&::g_dbus_connection_is_closed) isClosed = nullptr;
    decltype(&::g_dbus_connection_call_sync) call = nullptr;
    decltype(&::g_variant_new_string) newString = nullptr;
    decltype(&::g_variant_new_uint32) newUint32 = nullptr;
    decltype(&::g_variant_new_int32) newInt32 = nullptr;
    decltype(&::g_variant_new_array) newArray = nullptr;
    decltype(&::g_variant_new_tuple) newTuple = nullptr;
    decltype(&::g_variant_get_child_value) child = nullptr;
    decltype(&::g_variant_n_children) childCount = nullptr;
    decltype(&::g_variant_get_string) getString = nullptr;
    decltype(&::g_variant_unref) unrefVariant = nullptr;
    decltype(&::g_object_unref) unrefObject = nullptr;
    decltype(&::g_error_free) freeError = nullptr;
    decltype(&::g_free) free = nullptr;

    bool complete() const
    {
        return addressForBus && connect && isClosed && call && newString && newUint32 && newInt32 && newArray &&
               newTuple && child && childCount && getString && unrefVariant && unrefObject && freeError && free;
    }
};

// Null when GIO cannot be opened or lacks a function.
const Gio* gio()
{
    static const std::optional<Gio> functions = []() -> std::optional<Gio> {
        // GObject's and GLib's functions are found through GIO, which depends on them.
        static LazyLibrary library{"libgio-2.0.so.0", "libgio-2.0.so"};
        Gio found;
        found.addressForBus = library.optionalFunction<decltype(found.addressForBus)>("g_dbus_address_get_for_bus_sync");
        found.connect = library.optionalFunction<decltype(found.connect)>("g_dbus_connection_new_for_address_sync");
        found.isClosed = library.optionalFunction<decltype(found.isClosed)>("g_dbus_connection_is_closed");
        found.call = library.optionalFunction<decltype(found.call)>("g_dbus_connection_call_sync");
        found.newString = library.optionalFunction<decltype(found.newString)>("g_variant_new_string");
        found.newUint32 = library.optionalFunction<decltype(found.newUint32)>("g_variant_new_uint32");
        found.newInt32 = library.optionalFunction<decltype(found.newInt32)>("g_variant_new_int32");
        found.newArray = library.optionalFunction<decltype(found.newArray)>("g_variant_new_array");
        found.newTuple = library.optionalFunction<decltype(found.newTuple)>("g_variant_new_tuple");
        found.child = library.optionalFunction<decltype(found.child)>("g_variant_get_child_value");
        found.childCount = library.optionalFunction<decltype(found.childCount)>("g_variant_n_children");
        found.getString = library.optionalFunction<decltype(found.getString)>("g_variant_get_string");
        found.unrefVariant = library.optionalFunction<decltype(found.unrefVariant)>("g_variant_unref");
        found.unrefObject = library.optionalFunction<decltype(found.unrefObject)>("g_object_unref");
        found.freeError = library.optionalFunction<decltype(found.freeError)>("g_error_free");
        found.free = library.optionalFunction<decltype(found.free)>("g_free");
        if (!found.complete()) {
            return std::nullopt;
        }
        return found;
    }();
    return functions ? &*functions : nullptr;
}

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
// A notification service that accepts the call but does not answer in this time is taken as
// absent for that notification; the next one asks again.
constexpr int kCallTimeoutMs = 5000;

// Servers that announce "body-markup" read the body as a small subset of HTML: a file name
// with "<" or "&" would be taken for markup, or make the server drop the text.
std::string markupEscaped(const std::string& text)
{
    std::string escaped;
    escaped.reserve(text.size());
    for (char c : text) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}

class FreedesktopNotifier final : public DesktopNotifier {
public:
    void post(const std::string& title, const std::string& body) override
    {
        // Texts are made plain here, on the caller's thread, so that the queue holds no more
        // than a notification's worth of each.
        queue().async([this, title = plainText(title), body = plainText(body)] { show(title, body); });
    }

private:
    runtime::SerialQueue& queue()
    {
        // Made on the first notification: an agent that posts none has no thread for them.
        static auto* made = new runtime::SerialQueue("quillet.notify");
        return *made;
    }

    // One line per process, whatever goes wrong and however often.
    void tellOnce(const std::string& why)
    {
        if (!told_.exchange(true)) {
            rlog("[quillet] notifications: no desktop notification shown (%@); they are only logged", why);
        }
    }

    void forgetConnection()
    {
        if (connection_ != nullptr) {
            gio()->unrefObject(connection_);
            connection_ = nullptr;
        }
        markup_.reset();
    }

    // The connection to the session bus named now; a closed one (the bus restarted, the person
    // logged in again) or one to another address is replaced.
    GDBusConnection* connection(std::string& why)
    {
        const Gio& g = *gio();
        GError* error = nullptr;
        gchar* address = g.addressForBus(G_BUS_TYPE_SESSION, nullptr, &error);
        if (address == nullptr) {
            why = error != nullptr ? error->message : "no session bus address";
            if (error != nullptr) {
                g.freeError(error);
            }
            forgetConnection();
            return nullptr;
        }
        std::string named = address;
        g.free(address);
        if (connection_ != nullptr && (named != address_ || g.isClosed(connection_))) {
            forgetConnection();
        }
        if (connection_ == nullptr) {
            auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                           G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
            connection_ = g.connect(named.c_str(), flags, nullptr, nullptr, &error);
            if (connection_ == nullptr) {
                why = error != nullptr ? error->message : "cannot connect to " + named;
                if (error != nullptr) {
                    g.freeError(error);
                }
                return nullptr;
            }
            address_ = named;
        }
        return connection_;
    }

    // Whether the server reads the body as markup; asked once per connection.
    bool readsMarkup(GDBusConnection* bus)
    {
        if (markup_) {
            return *markup_;
        }
        const Gio& g = *gio();
        GError* error = nullptr;
        GVariant* reply = g.call(bus, kService, kPath, kService, "GetCapabilities", nullptr,
                                 reinterpret_cast<const GVariantType*>("(as)"), G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs,
                                 nullptr, &error);
        if (reply == nullptr) {
            if (error != nullptr) {
                g.freeError(error);
            }
            // Escaped text is the safe guess: a server without markup shows it as typed.
            return true;
        }
        bool markup = false;
        GVariant* list = g.child(reply, 0);
        for (gsize i = 0, n = g.childCount(list); i < n; ++i) {
            GVariant* item = g.child(list, i);
            markup = markup || std::string(g.getString(item, nullptr)) == "body-markup";
            g.unrefVariant(item);
        }
        g.unrefVariant(list);
        g.unrefVariant(reply);
        markup_ = markup;
        return markup;
    }

    void show(const std::string& title, const std::string& body)
    {
        if (!SessionBus::conceivable()) {
            tellOnce("no session bus");
            return;
        }
        const Gio* g = gio();
        if (g == nullptr) {
            tellOnce("GIO cannot be loaded");
            return;
        }
        std::string why;
        GDBusConnection* bus = connection(why);
        if (bus == nullptr) {
            tellOnce(why);
            return;
        }
        const std::string text = readsMarkup(bus) ? markupEscaped(body) : body;
        // Notify(app_name s, replaces_id u, app_icon s, summary s, body s, actions as,
        // hints a{sv}, expire_timeout i); the floating values are taken by the tuple, and the
        // tuple by the call.
        GVariant* fields[] = {
            g->newString("quillet-capture"),
            g->newUint32(0),
            g->newString(""),
            g->newString(title.c_str()),
            g->newString(text.c_str()),
            g->newArray(G_VARIANT_TYPE_STRING, nullptr, 0),
            g->newArray(reinterpret_cast<const GVariantType*>("{sv}"), nullptr, 0),
            g->newInt32(-1),
        };
        GError* error = nullptr;
        GVariant* reply = g->call(bus, kService, kPath, kService, "Notify", g->newTuple(fields, std::size(fields)),
                                  nullptr, G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, &error);
        if (reply == nullptr) {
            tellOnce(error != nullptr ? error->message : "Notify failed");
            if (error != nullptr) {
                g->freeError(error);
            }
            // The service may come later (a desktop session that starts after the agent).
            markup_.reset();
            return;
        }
        g->unrefVariant(reply);
    }

    // Used only on the notifier's queue.
    GDBusConnection* connection_ = nullptr;
    std::string address_;
    std::optional<bool> markup_;
    std::atomic<bool> told_{false};
};

} // namespace

DesktopNotifier& DesktopNotifier::system()
{
    static auto* notifier = new FreedesktopNotifier;
    return *notifier;
}

} // namespace quillet
