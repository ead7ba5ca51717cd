// The libsecret and GLib functions the Secret Service store calls, forwarded to libsecret
// opened on the first call (platform/LazyLibrary.hpp): only a command that reads or writes the
// token loads libsecret and the GLib stack beneath it.
#include <libsecret/secret.h>

#include "quillet_capture/platform/LazyLibrary.hpp"

namespace {

quillet::LazyLibrary& libsecret()
{
    // GLib's functions are found through libsecret, which depends on it.
    static quillet::LazyLibrary library{"libsecret-1.so.0", "libsecret-1.so"};
    return library;
}

#define QUILLET_SECRET(name) static const auto forward = libsecret().function<decltype(&::name)>(#name)

} // namespace

// The names are parenthesised where GLib may define a macro of the same name.
extern "C" {

SecretValue* secret_password_lookupv_binary_sync(const SecretSchema* schema, GHashTable* attributes,
                                                 GCancellable* cancellable, GError** error)
{
    QUILLET_SECRET(secret_password_lookupv_binary_sync);
    return forward(schema, attributes, cancellable, error);
}

gboolean secret_password_storev_binary_sync(const SecretSchema* schema, GHashTable* attributes,
                                            const gchar* collection, const gchar* label, SecretValue* value,
                                            GCancellable* cancellable, GError** error)
{
    QUILLET_SECRET(secret_password_storev_binary_sync);
    return forward(schema, attributes, collection, label, value, cancellable, error);
}

gboolean secret_password_clearv_sync(const SecretSchema* schema, GHashTable* attributes, GCancellable* cancellable,
                                     GError** error)
{
    QUILLET_SECRET(secret_password_clearv_sync);
    return forward(schema, attributes, cancellable, error);
}

const gchar* secret_value_get(SecretValue* value, gsize* length)
{
    QUILLET_SECRET(secret_value_get);
    return forward(value, length);
}

SecretValue* secret_value_new(const gchar* secret, gssize length, const gchar* contentType)
{
    QUILLET_SECRET(secret_value_new);
    return forward(secret, length, contentType);
}

void secret_value_unref(gpointer value)
{
    QUILLET_SECRET(secret_value_unref);
    forward(value);
}

GCancellable*(g_cancellable_new)(void)
{
    QUILLET_SECRET(g_cancellable_new);
    return forward();
}

void(g_cancellable_cancel)(GCancellable* cancellable)
{
    QUILLET_SECRET(g_cancellable_cancel);
    forward(cancellable);
}

void(g_error_free)(GError* error)
{
    QUILLET_SECRET(g_error_free);
    forward(error);
}

GHashTable*(g_hash_table_new)(GHashFunc hash, GEqualFunc equal)
{
    QUILLET_SECRET(g_hash_table_new);
    return forward(hash, equal);
}

gboolean(g_hash_table_insert)(GHashTable* table, gpointer key, gpointer value)
{
    QUILLET_SECRET(g_hash_table_insert);
    return forward(table, key, value);
}

void(g_hash_table_unref)(GHashTable* table)
{
    QUILLET_SECRET(g_hash_table_unref);
    forward(table);
}

void(g_object_unref)(gpointer object)
{
    QUILLET_SECRET(g_object_unref);
    forward(object);
}

guint(g_str_hash)(gconstpointer text)
{
    QUILLET_SECRET(g_str_hash);
    return forward(text);
}

gboolean(g_str_equal)(gconstpointer a, gconstpointer b)
{
    QUILLET_SECRET(g_str_equal);
    return forward(a, b);
}

} // extern "C"
