"""Documents of accounts in GNOME Files: emblems and a column that tell how they are, and what can be
done about it in the menu.

The file manager is never held up. What is shown is asked of the tool for many files at a time
(docsource status), and what is different afterwards is told by one process that runs as long as the
file manager does (docsource watch). All of it is on the main thread.
"""
import json
import os

from gi.repository import Gio, GLib, GObject, Nautilus

TOOL = "docsource"
AT_A_TIME = 500
AGAIN_AFTER = 5  # seconds
EMBLEMS = {
    "placeholder": "emblem-docsource-placeholder",
    "providing": "emblem-docsource-providing",
    "changed": "emblem-docsource-changed",
    "uploading": "emblem-docsource-changed",
    "conflict": "emblem-docsource-conflict",
    "failed": "emblem-docsource-conflict",
}
WORDS = {
    "placeholder": "Not on this device",
    "providing": "Arriving",
    "present": "On this device",
    "changed": "To be uploaded",
    "uploading": "Uploading",
    "conflict": "Changed on both sides",
    "failed": "Failed",
    "local": "Only on this device",
}


class Item:
    """How a document or a directory is."""

    def __init__(self, told):
        self.state = told.get("state", "")
        self.is_pinned = bool(told.get("pinned"))
        self.reason = told.get("reason")
        self.percent = None

    def words(self):
        words = WORDS.get(self.state, self.state)
        if self.state == "present" and self.is_pinned:
            return "Kept on this device"
        if self.state == "failed" and self.reason:
            return f"{words}: {self.reason}"
        if self.percent is not None and self.state in ("providing", "uploading"):
            return f"{words}, {self.percent} %"
        return words


class DocSourceExtension(GObject.GObject, Nautilus.InfoProvider, Nautilus.ColumnProvider,
                         Nautilus.MenuProvider):
    def __init__(self):
        super().__init__()
        self.home = os.path.expanduser("~/DocSource")
        # Where the documents of accounts appear, and where they are.
        self.places = {}
        # By where they are: the files that are shown, and what is known of them.
        self.shown = {}
        self.items = {}
        # Below ~/DocSource, of accounts that are not known yet.
        self.unknown = []
        self.asked = []
        self.watch = None
        self.follow()

    # What the file manager asks.

    def get_columns(self):
        return [Nautilus.Column(name="DocSource::state", attribute="docsource_state",
                                label="Content", description="Whether the content is on this device")]

    def update_file_info_full(self, provider, handle, closure, file):
        path = self.path_of(file)
        if path is None:
            return Nautilus.OperationResult.COMPLETE
        if path not in self.shown or self.shown[path]() is not file:
            self.shown[path] = file.weak_ref(self.forget, path)
        if path in self.items:
            self.show(file, self.items[path])
            return Nautilus.OperationResult.COMPLETE
        if not self.asked:
            GLib.idle_add(self.ask)
        self.asked.append((path, file, provider, handle, closure))
        return Nautilus.OperationResult.IN_PROGRESS

    def cancel_update(self, provider, handle):
        self.asked = [each for each in self.asked if each[3] != handle]

    def get_file_items(self, *arguments):
        files = arguments[-1]
        paths = [self.path_of(file) for file in files]
        if not paths or None in paths:
            return []
        known = [self.items.get(path) for path in paths]
        entries = []
        if all(item and item.is_pinned for item in known):
            entries.append(("unpin", "Keep on This Device No Longer",
                            "The content stays until its space is freed up"))
        else:
            entries.append(("pin", "Keep on This Device",
                            "Brings the content in, and keeps it here from now on"))
            if any(file.is_directory() or not item or item.state != "placeholder"
                   for file, item in zip(files, known)):
                entries.append(("evict", "Free Up Space",
                                "Gives the content back; it is brought in again when it is read"))
        items = []
        for command, label, tip in entries:
            item = Nautilus.MenuItem(name=f"DocSource::{command}", label=label, tip=tip)
            item.connect("activate", lambda _, command: self.run(command, paths), command)
            items.append(item)
        return items

    def get_background_items(self, *arguments):
        return self.get_file_items([arguments[-1]])

    # What the tool does and tells.

    @staticmethod
    def run(command, paths):
        """A command, which tells the desktop itself when it fails."""
        process = Gio.Subprocess.new([TOOL, command, "--notify", *paths],
                                     Gio.SubprocessFlags.STDERR_SILENCE | Gio.SubprocessFlags.STDOUT_SILENCE)
        process.wait_async(None, None)  # so that nothing of it is left

    def ask(self):
        """The status of everything that was asked for meanwhile."""
        asked, self.asked = self.asked[:AT_A_TIME], self.asked[AT_A_TIME:]

        def ended(process, result):
            try:
                _, output, _ = process.communicate_utf8_finish(result)
                told = json.loads(output)["documents"] if output else []
            except (GLib.Error, ValueError):
                told = []
            for each in told:
                self.items.setdefault(each["path"], Item(each))
            for path, file, provider, handle, closure in asked:
                if path in self.items:
                    self.show(file, self.items[path])
                Nautilus.info_provider_update_complete_invoke(closure, provider, handle,
                                                              Nautilus.OperationResult.COMPLETE)
        process = Gio.Subprocess.new(
            [TOOL, "status", "--json", "--directory", *(each[0] for each in asked)],
            Gio.SubprocessFlags.STDOUT_PIPE | Gio.SubprocessFlags.STDERR_SILENCE)
        process.communicate_utf8_async(None, None, ended)
        return bool(self.asked)

    def follow(self):
        """Listens to what happens in the accounts, from the beginning."""
        try:
            self.watch = Gio.Subprocess.new(
                [TOOL, "watch", "--json"],
                Gio.SubprocessFlags.STDOUT_PIPE | Gio.SubprocessFlags.STDERR_SILENCE)
        except GLib.Error:
            self.watch = None
            GLib.timeout_add_seconds(AGAIN_AFTER, self.follow)
            return False
        lines = Gio.DataInputStream.new(self.watch.get_stdout_pipe())
        lines.read_line_async(GLib.PRIORITY_DEFAULT, None, self.hear)
        return False

    def hear(self, lines, result):
        try:
            line, _ = lines.read_line_finish_utf8(result)
        except GLib.Error:
            line = None
        if line is None:
            self.renew(self.shown)
            GLib.timeout_add_seconds(AGAIN_AFTER, self.follow)
            return
        self.told(json.loads(line))
        lines.read_line_async(GLib.PRIORITY_DEFAULT, None, self.hear)

    def told(self, event):
        kind, path = event["event"], event.get("path")
        if kind == "account":
            self.places[event["documents"]] = os.path.realpath(event["storage"])
            unknown, self.unknown = self.unknown, []
            for reference in unknown:
                if reference() is not None:
                    reference().invalidate_extension_info()
        if kind in ("account", "everything"):
            self.renew(self.shown)
        elif kind == "item" and path in self.shown:
            percent = self.items[path].percent if path in self.items else None
            self.items[path] = Item(event)
            self.items[path].percent = percent
            self.redraw(path)
            if not os.path.isfile(path):
                # What is below a directory is kept as the directory is.
                self.renew([each for each in self.shown if each.startswith(path + "/")])
        elif kind == "transfer" and path in self.items:
            if event["total"]:
                self.items[path].percent = 100 * event["done"] // event["total"]
            self.redraw(path)

    # What is shown.

    def path_of(self, file):
        """Where the file is, when it belongs to an account; no link of an account's is in the path."""
        if file.get_uri_scheme() != "file":
            return None
        path = file.get_location().get_path()
        for link, storage in self.places.items():
            if path == link or path.startswith(link + "/"):
                return storage + path[len(link):]
            if path == storage or path.startswith(storage + "/"):
                return path
        if path.startswith(self.home + "/"):
            self.unknown.append(file.weak_ref())
        return None

    @staticmethod
    def show(file, item):
        if item.state in EMBLEMS:
            file.add_emblem(EMBLEMS[item.state])
        if item.is_pinned:
            file.add_emblem("emblem-docsource-pinned")
        # What is in a directory may be here or not.
        if item.is_pinned or item.state != "present" or not file.is_directory():
            file.add_string_attribute("docsource_state", item.words())

    def redraw(self, path):
        file = self.shown[path]() if path in self.shown else None
        if file is not None:
            file.invalidate_extension_info()

    def renew(self, paths):
        for path in list(paths):
            self.items.pop(path, None)
            self.redraw(path)

    def forget(self, path):
        self.shown.pop(path, None)
        self.items.pop(path, None)
