// A stand-in for a desktop's notification service, for the tests of the Linux notifier: owns
// org.freedesktop.Notifications on the session bus it is started on, appends each Notify call
// to a file as one JSON line, and writes the bus address to a second file once the name is its
// own (after its process id, on a line of its own), so that a test started beside it can point
// the program at that bus and stop the fake, which ends the bus.
//
// Usage: quillet-fake-notifications <records file> <ready file> [--no-markup]
#include <gio/gio.h>
#include <glib-unix.h>

#include <nlohmann/json.hpp>

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

const char* const kInterface = R"(
<node>
  <interface name="org.freedesktop.Notifications">
    <method name="Notify">
      <arg type="s" name="app_name" direction="in"/>
      <arg type="u" name="replaces_id" direction="in"/>
      <arg type="s" name="app_icon" direction="in"/>
      <arg type="s" name="summary" direction="in"/>
      <arg type="s" name="body" direction="in"/>
      <arg type="as" name="actions" direction="in"/>
      <arg type="a{sv}" name="hints" direction="in"/>
      <arg type="i" name="expire_timeout" direction="in"/>
      <arg type="u" name="id" direction="out"/>
    </method>
    <method name="GetCapabilities">
      <arg type="as" name="capabilities" direction="out"/>
    </method>
    <method name="GetServerInformation">
      <arg type="s" name="name" direction="out"/>
      <arg type="s" name="vendor" direction="out"/>
      <arg type="s" name="version" direction="out"/>
      <arg type="s" name="spec_version" direction="out"/>
    </method>
    <method name="CloseNotification">
      <arg type="u" name="id" direction="in"/>
    </method>
  </interface>
</node>)";

std::string recordsFile;
std::string readyFile;
bool markup = true;
guint32 lastId = 0;
GMainLoop* loop = nullptr;

void call(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method, GVariant* parameters,
          GDBusMethodInvocation* invocation, gpointer)
{
    std::string name = method;
    if (name == "Notify") {
        const gchar* app = nullptr;
        guint32 replaces = 0;
        const gchar* icon = nullptr;
        const gchar* summary = nullptr;
        const gchar* body = nullptr;
        GVariantIter* actions = nullptr;
        GVariantIter* hints = nullptr;
        gint32 expire = 0;
        g_variant_get(parameters, "(&su&s&s&sasa{sv}i)", &app, &replaces, &icon, &summary, &body, &actions, &hints,
                      &expire);
        g_variant_iter_free(actions);
        g_variant_iter_free(hints);
        nlohmann::json record = {{"app", app}, {"summary", summary}, {"body", body}, {"expire", expire}};
        std::ofstream out(recordsFile, std::ios::app);
        out << record.dump() << "\n";
        out.flush();
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", ++lastId));
    } else if (name == "GetCapabilities") {
        GVariantBuilder builder;
        g_variant_builder_init(&builder, G_VARIANT_TYPE("as"));
        g_variant_builder_add(&builder, "s", "body");
        if (markup) {
            g_variant_builder_add(&builder, "s", "body-markup");
        }
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(as)", &builder));
    } else if (name == "GetServerInformation") {
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(ssss)", "fake", "quillet tests", "1", "1.2"));
    } else {
        g_dbus_method_invocation_return_value(invocation, nullptr);
    }
}

void acquired(GDBusConnection*, const gchar*, gpointer)
{
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    std::string temporary = readyFile + ".part";
    std::ofstream(temporary) << ::getpid() << "\n" << (address != nullptr ? address : "");
    std::rename(temporary.c_str(), readyFile.c_str());
}

void lost(GDBusConnection*, const gchar*, gpointer)
{
    g_main_loop_quit(loop);
}

gboolean stop(gpointer)
{
    g_main_loop_quit(loop);
    return G_SOURCE_REMOVE;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s <records file> <ready file> [--no-markup]\n", argv[0]);
        return 2;
    }
    recordsFile = argv[1];
    readyFile = argv[2];
    markup = !(argc > 3 && std::string(argv[3]) == "--no-markup");

    GError* error = nullptr;
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kInterface, &error);
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    if (node == nullptr || bus == nullptr) {
        std::fprintf(stderr, "fake notifications: %s\n", error != nullptr ? error->message : "no bus");
        return 1;
    }
    GDBusInterfaceVTable table = {call, nullptr, nullptr, {}};
    g_dbus_connection_register_object(bus, "/org/freedesktop/Notifications", node->interfaces[0], &table, nullptr,
                                      nullptr, &error);
    loop = g_main_loop_new(nullptr, FALSE);
    g_bus_own_name_on_connection(bus, "org.freedesktop.Notifications", G_BUS_NAME_OWNER_FLAGS_NONE, acquired, lost,
                                 nullptr, nullptr);
    g_unix_signal_add(SIGTERM, stop, nullptr);
    g_unix_signal_add(SIGINT, stop, nullptr);
    g_main_loop_run(loop);
    return 0;
}
