#!/usr/bin/python3
"""A plain end of a channel, written from docs/protocol.md alone, on python3-dbus.

It shares no code and no D-Bus library with the project, so that the tools are tried against an end
that does not share their mistakes. It prints a line for each thing that happens.

Usage: foreign-end.py CHANNEL [service|client]

FOREIGN_FAULTS names what it does wrong, or otherwise than most, separated by commas:

  waits                  announces no SYN at the start
  other-path             exports its object at another path
  other-interface        ... with another interface
  other-method           ... with another method
  split                  announces on another connection than the one that exports the object
  silent                 answers no request
  wrong-error            answers a malformed request with another error than InvalidArgs
  takes-all              answers a malformed request with a payload
  strips-zeros           leaves zero bytes at the end of a reply out
  refuses-strangers      answers requests of others than its partner with AccessDenied
  no-introspection       does not know the method Introspect
  slow-answer            announces SYN_ACK and ACK a second late
  ack-for-syn            answers SYN with ACK
  ack-twice              announces ACK twice
  never-repeats          does not repeat a refused announcement
  queues                 queues for its names
  holds-syn-ack          does not release SYN_ACK
  holds-a-second         owns each name for a second before it releases it
  syn-on-notification    announces SYN when a notification comes
  unbinds-on-malformed   forgets its partner at a malformed notification
  broadcasts             sends its notifications to everybody
  rebinds                binds each process that announces itself
  ignores-loss           does not notice that its partner has left
  repeats-syn            announces SYN every quarter of a second while it is not ready
  syn-after-loss         announces SYN when its partner has left
  stops-on-syn           stops its process when it hears a SYN
  exits-on-syn           ends its process when it hears a SYN
  hostile-error          answers each request with an error whose text is FOREIGN_TEXT

Standard input, one command a line: announce STAGE, acquire NAME, release NAME, request TEXT,
notify TEXT, quit. It goes on after the end of standard input.
"""
import os
import signal
import sys
import traceback

import dbus
import dbus.lowlevel
import dbus.mainloop.glib
from gi.repository import GLib

DRIVER = "org.freedesktop.DBus"
DRIVER_PATH = "/org/freedesktop/DBus"
INTERFACE = "org.ulmar.tevrol.DbusCommunication"
OTHER_INTERFACE = "org.ulmar.tevrol.Communication"
PATH = "/org/ulmar/tevrol/CommunicationChannel/"
OTHER_PATH = "/org/ulmar/tevrol/Channel/"
ERROR = "org.freedesktop.DBus.Error."
DO_NOT_QUEUE = 4
PRIMARY_OWNER = 1
SECOND = 1000

HANDLED = dbus.lowlevel.HANDLER_RESULT_HANDLED
NOT_HANDLED = dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED


def tell(*words):
    print(*words, flush=True)


class End:
    def __init__(self, channel, role, faults):
        self.faults = faults
        self.names = f"org.ulmar.Tevrol.{channel}_{role.upper()}_"
        other = "client" if role == "service" else "service"
        self.others_names = f"org.ulmar.Tevrol.{channel}_{other.upper()}_"
        self.channel = channel
        self.path = (OTHER_PATH if "other-path" in faults else PATH) + channel
        self.interface = OTHER_INTERFACE if "other-interface" in faults else INTERFACE
        self.method = "SendMessage" if "other-method" in faults else "Send"
        self.bound = None
        self.ready = False
        self.owed = None
        self.bus = dbus.SystemBus(private=True)
        self.herald = dbus.SystemBus(private=True) if "split" in faults else self.bus
        self.bus.add_message_filter(self.on_message)
        for stage in ("SYN", "SYN_ACK", "ACK"):
            self.bus.add_match_string(self.owner_change(self.others_names + stage))
        tell("joined", self.bus.get_unique_name())
        if "waits" not in faults:
            self.announce("SYN")
        if "repeats-syn" in faults:
            GLib.timeout_add(SECOND // 4, self.repeat_syn)

    # ---- Announcements ----

    @staticmethod
    def owner_change(name):
        return (f"type='signal',sender='{DRIVER}',path='{DRIVER_PATH}',interface='{DRIVER}',"
                f"member='NameOwnerChanged',arg0='{name}'")

    def driver(self, method, signature, *arguments):
        return self.herald.call_blocking(DRIVER, DRIVER_PATH, DRIVER, method, signature, arguments)

    def acquire(self, name):
        flags = 0 if "queues" in self.faults else DO_NOT_QUEUE
        try:
            return self.driver("RequestName", "su", name, flags) == PRIMARY_OWNER
        except dbus.DBusException as refusal:
            tell("refused", name, refusal.get_dbus_name())
            return False

    def release(self, name):
        self.driver("ReleaseName", "s", name)
        return False

    def announce(self, stage):
        """Acquires and releases the name. False when it could not be acquired."""
        name = self.names + stage
        if not self.acquire(name):
            tell("not announced", stage)
            return False
        if "holds-syn-ack" in self.faults and stage == "SYN_ACK":
            tell("holds", stage)
        elif "holds-a-second" in self.faults:
            GLib.timeout_add(SECOND, self.release, name)
        else:
            self.release(name)
        tell("announced", stage)
        return True

    def repeat_syn(self):
        if not self.ready:
            self.announce("SYN")
        return True

    def answer(self, stage):
        if "slow-answer" in self.faults:
            GLib.timeout_add(SECOND, self.answer_now, stage)
        else:
            self.answer_now(stage)

    def answer_now(self, stage):
        if "ack-for-syn" in self.faults:
            stage = "ACK"
        if self.announce(stage):
            if stage == "ACK":
                if "ack-twice" in self.faults:
                    self.announce(stage)
                self.become_ready(self.bound)
        elif "never-repeats" not in self.faults:
            self.owed = stage
            GLib.timeout_add(SECOND // 2, self.resend)
        return False

    def resend(self):
        stage, self.owed = self.owed, None
        if stage and self.bound:
            self.answer_now(stage)
        return False

    # ---- The partner ----

    def bind(self, process):
        self.bound = process
        if "ignores-loss" not in self.faults:
            self.bus.add_match_string(self.owner_change(process))
        self.bus.add_match_string(f"type='signal',sender='{process}',interface='{self.interface}'")
        tell("bound", process)
        if not self.bus.name_has_owner(process):
            self.lose()

    def become_ready(self, process):
        self.ready = True
        tell("ready", process)

    def unbind(self):
        if "ignores-loss" not in self.faults:
            self.bus.remove_match_string_non_blocking(self.owner_change(self.bound))
        # The bus has dropped the rule by itself when the process has left.
        self.bus.remove_match_string_non_blocking(
            f"type='signal',sender='{self.bound}',interface='{self.interface}'")
        self.bound, self.ready, self.owed = None, False, None

    def lose(self):
        tell("lost", self.bound)
        self.unbind()
        if "syn-after-loss" in self.faults:
            self.announce("SYN")

    def on_announced(self, stage, process):
        tell("heard", stage, process)
        if process in (self.bus.get_unique_name(), self.herald.get_unique_name()):
            return
        if stage == "SYN" and "exits-on-syn" in self.faults:
            os._exit(0)
        if stage == "SYN" and "stops-on-syn" in self.faults:
            os.kill(os.getpid(), signal.SIGSTOP)
        if stage == "ACK":
            if self.bound:
                self.become_ready(process)
            return
        if self.bound and "rebinds" in self.faults:
            self.unbind()
        if not self.bound:
            self.bind(process)
            if self.bound:
                self.answer("SYN_ACK" if stage == "SYN" else "ACK")

    # ---- Messages ----

    def on_message(self, _, message):
        try:
            return self.take(message)
        except Exception:  # python3-dbus drops what a filter raises
            traceback.print_exc()
            os._exit(1)

    def take(self, message):
        kind = message.get_type()
        if kind == 1:
            return self.on_call(message)
        if kind == 4:
            self.on_signal(message)
        return NOT_HANDLED

    def on_signal(self, message):
        if message.get_sender() == DRIVER and message.get_member() == "NameOwnerChanged":
            name, old, new = message.get_args_list()
            if new:
                return
            if name == self.bound and "ignores-loss" not in self.faults:
                self.lose()
            elif name.startswith(self.others_names):
                self.on_announced(name[len(self.others_names):], old)
        elif message.get_interface() == self.interface and message.get_sender() == self.bound:
            self.on_notification(message)

    def on_notification(self, message):
        if message.get_signature() != "ay":
            tell("malformed notification", message.get_signature())
            if "unbinds-on-malformed" in self.faults:
                self.unbind()
            return
        tell("notification", self.payload(message).hex())
        if "syn-on-notification" in self.faults:
            self.announce("SYN")

    @staticmethod
    def payload(message):
        return message.get_args_list(byte_arrays=True)[0]

    def on_call(self, call):
        if call.get_interface() == DRIVER + ".Introspectable":
            return self.introspect(call)
        if call.get_path() != self.path:
            return self.refuse(call, "UnknownObject", "no such object")
        if call.get_interface() != self.interface:
            return self.refuse(call, "UnknownInterface", "no such interface")
        if call.get_member() != self.method:
            return self.refuse(call, "UnknownMethod", "no such method")
        return self.on_request(call)

    def on_request(self, call):
        if "silent" in self.faults:
            return HANDLED
        if "hostile-error" in self.faults:
            return self.refuse(call, "Failed", os.environ["FOREIGN_TEXT"])
        if "refuses-strangers" in self.faults and call.get_sender() != self.bound:
            return self.refuse(call, "AccessDenied", "not the partner")
        if call.get_signature() != "ay" and "takes-all" not in self.faults:
            error = "Failed" if "wrong-error" in self.faults else "InvalidArgs"
            return self.refuse(call, error, "takes a payload of type ay")
        payload = self.payload(call) if call.get_signature() == "ay" else b""
        tell("request", bytes(payload).hex())
        if "strips-zeros" in self.faults:
            payload = bytes(payload).rstrip(b"\0")
        reply = dbus.lowlevel.MethodReturnMessage(call)
        reply.append(dbus.ByteArray(payload), signature="ay")
        self.bus.send_message(reply)
        return HANDLED

    def refuse(self, call, error, text):
        if not call.get_no_reply():
            self.bus.send_message(dbus.lowlevel.ErrorMessage(call, ERROR + error, text))
        return HANDLED

    def introspect(self, call):
        if "no-introspection" in self.faults:
            return self.refuse(call, "UnknownMethod", "no introspection")
        content = ""
        if call.get_path() == self.path:
            content = (f'<interface name="{self.interface}"><method name="{self.method}">'
                       '<arg type="ay" direction="in"/><arg type="ay" direction="out"/>'
                       '</method></interface>')
        elif self.path.startswith(call.get_path().rstrip("/") + "/"):
            rest = self.path[len(call.get_path().rstrip("/")) + 1:]
            content = f'<node name="{rest.split("/")[0]}"/>'
        reply = dbus.lowlevel.MethodReturnMessage(call)
        reply.append(f"<node>{content}</node>", signature="s")
        self.bus.send_message(reply)
        return HANDLED

    def notify(self, text):
        notification = dbus.lowlevel.SignalMessage(self.path, self.interface, "SendSignal")
        if "broadcasts" not in self.faults:
            if not self.bound:
                tell("not notified")
                return
            notification.set_destination(self.bound)
        notification.append(dbus.ByteArray(text.encode()), signature="ay")
        self.bus.send_message(notification)
        tell("notified")

    def request(self, text):
        self.bus.call_async(self.bound, self.path, self.interface, self.method, "ay",
                            (dbus.ByteArray(text.encode()),),
                            lambda reply: tell("reply", bytes(reply).hex()),
                            lambda error: tell("no reply", error), byte_arrays=True)

    # ---- Commands ----

    def obey(self, line):
        command, _, argument = line.partition(" ")
        if command == "announce":
            self.announce(argument)
        elif command == "acquire":
            tell("acquired" if self.acquire(argument) else "not acquired", argument)
        elif command == "release":
            self.release(argument)
            tell("released", argument)
        elif command == "request":
            self.request(argument)
        elif command == "notify":
            self.notify(argument)
        elif command == "quit":
            os._exit(0)
        else:
            tell("not understood", line)


def faults_of(environment):
    # What the text above describes, and nothing else: a fault with a wrong name would test nothing.
    known = {line.split()[0] for line in __doc__.splitlines() if line.startswith("  ")}
    faults = set(filter(None, environment.split(",")))
    if faults - known:
        sys.exit(f"unknown faults: {', '.join(sorted(faults - known))}")
    return faults


def main():
    if len(sys.argv) not in (2, 3) or sys.argv[2:] not in ([], ["service"], ["client"]):
        sys.exit(__doc__)
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    faults = faults_of(os.environ.get("FOREIGN_FAULTS", ""))
    end = End(sys.argv[1], sys.argv[2] if len(sys.argv) == 3 else "service", faults)

    rest = bytearray()

    def on_input(source, _):
        read = os.read(source, 4096)
        rest.extend(read)
        while b"\n" in rest:
            line, _, left = bytes(rest).partition(b"\n")
            rest[:] = left
            if line:
                end.obey(line.decode())
        return bool(read)

    GLib.io_add_watch(0, GLib.PRIORITY_DEFAULT, GLib.IO_IN | GLib.IO_HUP, on_input)
    GLib.MainLoop().run()


if __name__ == "__main__":
    main()
