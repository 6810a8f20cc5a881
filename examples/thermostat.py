#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""The thermostat of product-service.cpp in another language: Python over GDBus.

It shows what a service end needs without this project's library. docs/protocol.md has the rules.
"""
import random

from gi.repository import Gio, GLib

DRIVER = "org.freedesktop.DBus"
DRIVER_PATH = "/org/freedesktop/DBus"
INTERFACE = "org.ulmar.tevrol.DbusCommunication"
INTROSPECTION = f"""<node><interface name="{INTERFACE}">
  <method name="Send">
    <arg name="data" type="ay" direction="in"/><arg name="reply" type="ay" direction="out"/>
  </method>
  <signal name="SendSignal"><arg name="data" type="ay"/></signal>
</interface></node>"""
DO_NOT_QUEUE = 4
PRIMARY_OWNER = 1
SHORTEST, LONGEST = 0.25, 15  # seconds between announcements
MOST_UNANSWERED = 6


class Service:
    """One end of a channel, on the default main context. on_request(bytes) returns the reply's bytes."""

    def __init__(self, name, on_request):
        self.names = f"org.ulmar.Tevrol.{name}_SERVICE_"
        self.partners_names = f"org.ulmar.Tevrol.{name}_CLIENT_"
        self.path = f"/org/ulmar/tevrol/CommunicationChannel/{name}"
        self.on_request = on_request
        self.timer = 0
        self.join()

    def notify(self, payload):
        """False where there is no partner."""
        if not self.ready:
            return False
        return self.bus.emit_signal(self.bound, self.path, INTERFACE, "SendSignal",
                                    GLib.Variant("(ay)", (payload,)))

    # ---- The bus ----

    def join(self):
        address = Gio.dbus_address_get_for_bus_sync(Gio.BusType.SYSTEM)
        self.bus = Gio.DBusConnection.new_for_address_sync(
            address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
            | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None)
        self.bus.set_exit_on_close(True)  # when the bus ends
        self.bound, self.ready, self.answer, self.watches = None, False, None, []
        info = Gio.DBusNodeInfo.new_for_xml(INTROSPECTION).interfaces[0]
        self.bus.register_object(self.path, info, self.on_call, None, None)
        for stage in ("SYN", "SYN_ACK", "ACK"):
            self.listen(self.partners_names + stage,
                        lambda owner, stage=stage: self.on_announced(stage, owner))
        self.open()

    def open(self):
        self.announce("SYN")
        self.tries = 0
        self.start_timer()

    def driver(self, method, parameters):
        return self.bus.call_sync(DRIVER, DRIVER_PATH, DRIVER, method, parameters, None,
                                  Gio.DBusCallFlags.NONE, -1, None).unpack()[0]

    def listen(self, name, on_released):
        """Calls on_released(former owner) when somebody lets go of the name."""
        def on_change(_bus, _sender, _path, _interface, _signal, parameters):
            _, old, new = parameters.unpack()
            if not new and old != self.bus.get_unique_name():
                on_released(old)
        return self.bus.signal_subscribe(DRIVER, DRIVER, "NameOwnerChanged", DRIVER_PATH, name,
                                         Gio.DBusSignalFlags.NONE, on_change)

    def announce(self, stage):
        """Acquires and releases the name. False where that fails: the timer tries again."""
        name = self.names + stage
        try:
            owned = self.driver("RequestName", GLib.Variant("(su)", (name, DO_NOT_QUEUE)))
            self.driver("ReleaseName", GLib.Variant("(s)", (name,)))
        except GLib.Error:
            return False
        return owned == PRIMARY_OWNER

    # ---- The handshake ----

    def on_announced(self, stage, process):
        if self.bound not in (None, process):
            return
        if stage == "ACK":
            self.ready = self.ready or self.bound == process
            return
        self.answer = "SYN_ACK" if stage == "SYN" else "ACK"
        if self.bound is None:
            self.bound = process
            self.tries = 0
            self.start_timer()
            self.watches = [self.listen(process, lambda _: self.lose())]
            try:  # It may have gone before the watch.
                self.driver("GetNameOwner", GLib.Variant("(s)", (process,)))
            except GLib.Error:
                self.lose()
                return
        self.give_answer()

    def give_answer(self):
        if self.announce(self.answer) and self.answer == "ACK":
            self.answer = "SYN_ACK"
            self.ready = True

    def lose(self):
        for watch in self.watches:
            self.bus.signal_unsubscribe(watch)
        self.bound, self.ready, self.watches = None, False, []
        self.open()

    def start_timer(self):
        if self.timer:
            GLib.source_remove(self.timer)
        seconds = min(LONGEST, SHORTEST * 2 ** self.tries) * random.uniform(0.75, 1.25)
        self.timer = GLib.timeout_add(int(seconds * 1000), self.on_timer)

    def on_timer(self):
        self.timer = 0
        if self.ready:
            return GLib.SOURCE_REMOVE
        self.tries += 1
        if self.tries > MOST_UNANSWERED:
            self.bus.close_sync(None)
            self.join()  # under a new name, which nobody has bound
            return GLib.SOURCE_REMOVE
        if self.bound is None:
            self.announce("SYN")
        else:
            self.give_answer()
        self.start_timer()
        return GLib.SOURCE_REMOVE

    # ---- Messages ----

    def on_call(self, _bus, sender, _path, _interface, _method, parameters, invocation):
        if sender != self.bound:
            invocation.return_dbus_error(DRIVER + ".Error.AccessDenied", "not the partner")
            return
        request = parameters.get_child_value(0).get_data_as_bytes().get_data() or b""
        reply = self.on_request(request)
        invocation.return_value(GLib.Variant("(ay)", (reply,)))


class Thermostat:
    def __init__(self):
        self.degrees = 20
        self.display = Service("thermostat", lambda _question: self.text())
        GLib.timeout_add(200, self.warm_up)

    def text(self):
        return str(self.degrees).encode()

    def warm_up(self):
        self.degrees += 1
        self.display.notify(self.text())
        return GLib.SOURCE_CONTINUE


if __name__ == "__main__":
    thermostat = Thermostat()
    GLib.MainLoop().run()
