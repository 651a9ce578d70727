#!/usr/bin/python3
"""A ScreenCast backend for the real xdg-desktop-portal, standing in for a desktop's dialog.

Like a compositor, it makes a PipeWire node for each started session (a GStreamer test pattern of QM_TEST_SIZE,
"WxH") and removes it when the session ends; it hands the portal restore data, so the portal's own token storage
is exercised. A test steers it through org.quillmoor.TestBackend:
Answer("cancel" | "error" | "ok") decides the next Start, Dialogs() counts the Starts that had nothing to
restore (the ones where a real desktop would show its dialog), CloseSessions() ends every session the way a
user who stops sharing from the desktop does, LastSelect() returns the options of the last SelectSources.
"""
import os
import signal
import subprocess
import sys
import time

from gi.repository import Gio, GLib

BUS_NAME = "org.freedesktop.impl.portal.desktop.qmtest"
VENDOR = "qmtest"

XML = """
<node>
  <interface name="org.freedesktop.impl.portal.ScreenCast">
    <method name="CreateSession">
      <arg type="o" direction="in"/><arg type="o" direction="in"/><arg type="s" direction="in"/>
      <arg type="a{sv}" direction="in"/>
      <arg type="u" direction="out"/><arg type="a{sv}" direction="out"/>
    </method>
    <method name="SelectSources">
      <arg type="o" direction="in"/><arg type="o" direction="in"/><arg type="s" direction="in"/>
      <arg type="a{sv}" direction="in"/>
      <arg type="u" direction="out"/><arg type="a{sv}" direction="out"/>
    </method>
    <method name="Start">
      <arg type="o" direction="in"/><arg type="o" direction="in"/><arg type="s" direction="in"/>
      <arg type="s" direction="in"/><arg type="a{sv}" direction="in"/>
      <arg type="u" direction="out"/><arg type="a{sv}" direction="out"/>
    </method>
    <property name="AvailableSourceTypes" type="u" access="read"/>
    <property name="AvailableCursorModes" type="u" access="read"/>
    <property name="version" type="u" access="read"/>
  </interface>
  <interface name="org.freedesktop.impl.portal.Session">
    <method name="Close"/>
    <signal name="Closed"/>
    <property name="version" type="u" access="read"/>
  </interface>
  <interface name="org.quillmoor.TestBackend">
    <method name="Answer"><arg type="s" direction="in"/></method>
    <method name="Dialogs"><arg type="u" direction="out"/></method>
    <method name="CloseSessions"/>
    <method name="LastSelect"><arg type="a{sv}" direction="out"/></method>
  </interface>
</node>
"""


class Backend:
    def __init__(self, connection):
        self.connection = connection
        width, height = os.environ.get("QM_TEST_SIZE", "320x240").split("x")
        self.size = (int(width), int(height))
        self.info = Gio.DBusNodeInfo.new_for_xml(XML)
        self.answer = "ok"
        self.dialogs = 0
        self.sessions = {}  # path -> [registration id, selected options, producer]
        self.last_select = {}
        for name in ("org.freedesktop.impl.portal.ScreenCast", "org.quillmoor.TestBackend"):
            connection.register_object("/org/freedesktop/portal/desktop", self.info.lookup_interface(name),
                                       self.call, self.get_property, None)

    def get_property(self, connection, sender, path, interface, name):
        values = {"AvailableSourceTypes": 3, "AvailableCursorModes": 7, "version": 4}
        return GLib.Variant("u", values[name])

    def call(self, connection, sender, path, interface, method, args, invocation):
        reply = getattr(self, method)(*args.unpack())
        invocation.return_value(reply)

    def CreateSession(self, handle, session, app_id, options):
        registration = self.connection.register_object(
            session, self.info.lookup_interface("org.freedesktop.impl.portal.Session"), self.call_session,
            self.get_property, None)
        self.sessions[session] = [registration, {}, None]
        return GLib.Variant("(ua{sv})", (0, {}))

    def call_session(self, connection, sender, path, interface, method, args, invocation):
        self.drop(path)
        invocation.return_value(None)

    def drop(self, path):
        entry = self.sessions.pop(path, None)
        if entry:
            self.connection.unregister_object(entry[0])
            stop(entry[2])

    def produce(self, name):
        """Starts a test pattern as the node `name`; returns the process and the node's id."""
        width, height = self.size
        producer = subprocess.Popen(
            ["gst-launch-1.0", "-q", "videotestsrc", "is-live=true", "pattern=ball", "!",
             f"video/x-raw,format=BGRx,width={width},height={height},framerate=30/1", "!",
             "pipewiresink", "mode=provide", f"client-name={name}",
             f"stream-properties=props,media.class=Video/Source,node.name={name}"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            node = None
            for line in subprocess.run(["pw-cli", "ls", "Node"], capture_output=True, text=True).stdout.splitlines():
                if line.startswith("\tid "):
                    node = int(line.split()[1].rstrip(","))
                elif f'node.name = "{name}"' in line:
                    return producer, node
            time.sleep(0.05)
        stop(producer)
        return None, None

    def SelectSources(self, handle, session, app_id, options):
        self.sessions[session][1] = options
        self.last_select = options
        return GLib.Variant("(ua{sv})", (0, {}))

    def Start(self, handle, session, app_id, parent, options):
        answer, self.answer = self.answer, "ok"
        if answer == "cancel":
            return GLib.Variant("(ua{sv})", (1, {}))
        if answer == "error":
            return GLib.Variant("(ua{sv})", (2, {}))
        entry = self.sessions[session]
        selected = entry[1]
        entry[2], node = self.produce("qm-test-" + session.rsplit("/", 1)[-1])
        if node is None:
            return GLib.Variant("(ua{sv})", (2, {}))
        restored = selected.get("restore_data")
        if not restored or restored[0] != VENDOR:
            self.dialogs += 1
        source_type = selected.get("types", 1) & 3 or 1
        source_type = 2 if source_type == 2 else 1
        stream = {"source_type": GLib.Variant("u", source_type), "size": GLib.Variant("(ii)", self.size),
                  "position": GLib.Variant("(ii)", (0, 0)), "id": GLib.Variant("s", "0")}
        results = {"streams": GLib.Variant("a(ua{sv})", [(node, stream)])}
        if "persist_mode" in selected:
            results["persist_mode"] = GLib.Variant("u", selected["persist_mode"])
            results["restore_data"] = GLib.Variant("(suv)", (VENDOR, 1, GLib.Variant("u", source_type)))
        return GLib.Variant("(ua{sv})", (0, results))

    def Answer(self, answer):
        self.answer = answer
        return None

    def Dialogs(self):
        return GLib.Variant("(u)", (self.dialogs,))

    def CloseSessions(self):
        for path in list(self.sessions):
            self.connection.emit_signal(None, path, "org.freedesktop.impl.portal.Session", "Closed", None)
            self.drop(path)
        return None

    def LastSelect(self):
        keys = ("types", "cursor_mode", "persist_mode")
        chosen = {key: GLib.Variant("u", self.last_select[key]) for key in keys if key in self.last_select}
        return GLib.Variant("(a{sv})", (chosen,))


def stop(producer):
    if producer:
        producer.terminate()
        producer.wait()


def main():
    loop = GLib.MainLoop()
    GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGTERM, loop.quit)
    connection = Gio.bus_get_sync(Gio.BusType.SESSION, None)
    backend = Backend(connection)
    Gio.bus_own_name_on_connection(connection, BUS_NAME, Gio.BusNameOwnerFlags.NONE, None,
                                   lambda *_: loop.quit())
    backend.connection.connect("closed", lambda *_: loop.quit())
    loop.run()
    for entry in backend.sessions.values():
        stop(entry[2])
    return 0


if __name__ == "__main__":
    sys.exit(main())
