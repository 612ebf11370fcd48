"""The Zarnu overlay in GNOME Files (Nautilus), Nemo and Caja, through their Python bindings.

Each file manager loads every Python file of its extension folder; this one defines the
provider when it runs inside one of them (the process tells which) and nothing anywhere
else. The agent's side lives in zarnu_overlay.py beside this file: a badge (emblem) on
every file of the synced folder from the path statuses, the agent's context menu with its
icons and sub-menus, and its commands sent back with "overlay_request_ui".

The client runs in the file manager's main loop (GLibLoop: socket watches, no thread, as
the embedded Python may not run a thread of ours while the file manager's code runs), and
never blocks it: statuses come from the client's cache, a menu waits at most MENU_WAIT
while a session is up, and a push asks the file manager to look at the file again.
"""
import importlib
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zarnu_overlay  # noqa: E402

MENU_WAIT = 0.2  # seconds a context menu waits for the agent's answer
FILES_KEPT = 20000  # files whose badge a push may change (oldest forgotten first)

# The process name of each file manager and its binding's namespace and versions, newest first.
BINDINGS = {
    "nautilus": ("Nautilus", ("4.0", "3.0")),
    "nemo": ("Nemo", ("3.0",)),
    "caja": ("Caja", ("2.0",)),
}


def host_binding():
    """The binding module of the file manager this process is, or None."""
    try:
        with open("/proc/self/comm", encoding="utf-8") as comm:
            name = comm.read().strip()
    except OSError:
        return None
    if name not in BINDINGS:
        return None
    import gi
    namespace, versions = BINDINGS[name]
    for version in versions:
        try:
            gi.require_version(namespace, version)
            return importlib.import_module("gi.repository." + namespace)
        except (ValueError, ImportError):
            continue
    return None


FileManager = host_binding()

if FileManager is not None:
    from gi.repository import GLib, GObject

    def local_path(file_info):
        location = file_info.get_location()
        return location.get_path() if location is not None else None

    class ZarnuOverlayProvider(GObject.GObject, FileManager.InfoProvider, FileManager.MenuProvider):
        def __init__(self):
            super().__init__()
            self._files = {}  # path -> the file manager's file, for the badges a push changes
            self._icons = zarnu_overlay.default_icon_folder()
            self._client = zarnu_overlay.AgentClient(
                on_status=lambda path, status: GLib.idle_add(self._invalidate, [path]),
                on_reset=lambda: GLib.idle_add(self._invalidate, None),
                on_menu=lambda paths: GLib.idle_add(self._menus_changed),
                on_menu_refresh=lambda: GLib.idle_add(self._menus_changed),
                loop=zarnu_overlay.GLibLoop()).start()

        # Badges.

        def update_file_info(self, file_info):
            path = local_path(file_info)
            if path:
                self._files.pop(path, None)
                self._files[path] = file_info
                if len(self._files) > FILES_KEPT:
                    del self._files[next(iter(self._files))]
                emblem = zarnu_overlay.emblem_for(self._client.status_of(path))
                if emblem:
                    file_info.add_emblem(emblem)
            return FileManager.OperationResult.COMPLETE

        def _invalidate(self, paths):
            for path in list(self._files) if paths is None else paths:
                file_info = self._files.get(path)
                if file_info is not None:
                    file_info.invalidate_extension_info()
            return False

        # Context menu.

        def get_file_items(self, *args):
            files = args[-1]  # Nautilus 4 passes the files only; older APIs the window first
            paths = [local_path(f) for f in files]
            if not paths or None in paths:
                return []
            menu = self._client.menu_for(paths, wait=MENU_WAIT)
            return [self._item(entry, paths, f"{i}") for i, entry in enumerate(menu or [])]

        def get_background_items(self, *args):
            return []

        def _item(self, entry, paths, name):
            icon = zarnu_overlay.icon_file(entry.icon, self._icons) if entry.icon is not None else None
            item = FileManager.MenuItem(name=f"ZarnuOverlay::{name}", label=entry.title, tip=entry.description,
                                        icon=icon or "")
            if entry.submenus:
                submenu = FileManager.Menu()
                for i, sub in enumerate(entry.submenus):
                    submenu.append_item(self._item(sub, paths, f"{name}.{i}"))
                item.set_submenu(submenu)
            else:
                item.connect("activate", self._activate, paths[0], entry)
            return item

        def _activate(self, item, path, entry):
            self._client.run_command(path, entry)

        def _menus_changed(self):
            self.emit_items_updated_signal()
            return False
