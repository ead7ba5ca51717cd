#pragma once

// Whether a D-Bus session bus can be there at all, shared by the Linux back ends that talk to
// services on it (the Secret Service, desktop notifications).
namespace quillet::SessionBus {

/// True when `$DBUS_SESSION_BUS_ADDRESS` is set and not empty, or `$XDG_RUNTIME_DIR/bus` is a
/// socket. Without either there is no bus to ask, and GDBus would otherwise try to start one
/// through X11. Reads the environment at each call; any thread.
bool conceivable();

} // namespace quillet::SessionBus
