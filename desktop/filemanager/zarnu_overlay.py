"""The Zarnu overlay of a file manager, without the file manager.

AgentClient speaks the overlay protocol (docs/overlay-protocol.md) to the agent's
socket and keeps what the file manager shows: path
statuses (asked with "overlay_path_status_cached", kept up to date by the agent's
"ova_refresh_path" pushes) and context menus ("overlay_get_menu"). emblem_for,
MenuEntry and icon_file turn them into what a file manager draws.

The file manager's thread never waits on the socket: status_of answers from the
cache at once, menu_for waits at most the time it is given and only while a
session is up. The socket is served by a loop: ThreadLoop (a thread of the
client's own) or GLibLoop (watches in the file manager's GLib main loop; an
embedded Python may not let a thread of its own run while the file manager's
code does). Callbacks (on_status, on_reset, on_menu_refresh, on_menu, a
request's completion) run on the loop's thread with no lock held.

The file manager's glue is zarnu_overlay_extension.py; this module needs nothing
but Python's standard library, so tests drive it against the real agent.
"""
import base64
import collections
import errno
import hashlib
import json
import os
import select
import selectors
import socket
import struct
import threading
import time
import traceback

MAGIC = b"ZOV1"
HEADER = struct.Struct(">4sII")  # magic, body length, JSON length
LENGTH = struct.Struct(">I")
MAX_BODY = 16 * 1024 * 1024
BINARY_PREFIX = "BinaryIndex-"
SOCKET_FILE = "zarnuagent-overlay.socket"

CONNECT_TIMEOUT = 1.0  # seconds for connecting to the socket
REQUEST_TIMEOUT = 3.0  # a request without a reply by then fails with ETIMEDOUT
RECONNECT_FIRST = 0.5  # the wait before connecting again doubles up to RECONNECT_LAST
RECONNECT_LAST = 5.0
ROOT_RETRY = 10.0  # an agent that is not linked is asked for its root folder again this often
STATUS_CAPACITY = 1024  # statuses kept, least recently used dropped first
MENU_CAPACITY = 64  # menus kept, by selection
ASKED_CAPACITY = 4096  # paths asked for whose push has not come

# cloud_status numbers and the emblem (an icon name of the "emblems" context) each shows.
STATUS_NONE, STATUS_SYNCED, STATUS_SYNCING, STATUS_ERROR = 0, 1, 2, 3
EMBLEMS = {
    STATUS_SYNCED: "emblem-zarnu-synced",
    STATUS_SYNCING: "emblem-zarnu-syncing",
    STATUS_ERROR: "emblem-zarnu-error",
}

# The error code this client answers an agent request it does not know with.
UNKNOWN_AGENT_REQUEST = 1


def default_socket_path():
    """The agent's socket: in $ZARNU_DATA when set and not empty, else in ~/.zarnu."""
    data = os.environ.get("ZARNU_DATA") or os.path.join(os.path.expanduser("~"), ".zarnu")
    return os.path.join(data, SOCKET_FILE)


class PathStatus(collections.namedtuple("PathStatus", "cloud_status sync_progress flags")):
    """What the agent says of one path (numbers as in the protocol)."""


def emblem_for(status):
    """The emblem for a PathStatus; None for no status, "none" and unknown numbers."""
    if status is None:
        return None
    return EMBLEMS.get(status.cloud_status)


class Image(collections.namedtuple("Image", "data mime_type width height")):
    """A menu item's picture: its bytes and their MIME type."""


class MenuEntry(collections.namedtuple(
        "MenuEntry", "title description description2 flags command_id command_arg icon submenus")):
    """One item of the agent's menu; `icon` is an Image or None, `submenus` a list of MenuEntry."""


def _binary(value, attachments):
    """A binary field: an attachment reference or Base64 text."""
    if isinstance(value, (bytes, bytearray)):
        return bytes(value)
    if not isinstance(value, str):
        raise ValueError(f"a binary field holds {value!r}")
    if value.startswith(BINARY_PREFIX):
        index = int(value[len(BINARY_PREFIX):])
        if not 0 <= index < len(attachments):
            raise ValueError(f"{value} names no attachment (the frame has {len(attachments)})")
        return attachments[index]
    return base64.b64decode(value, validate=True)


def parse_image(obj, attachments=()):
    return Image(_binary(obj["data"], attachments), str(obj["mime_type"]), int(obj["width"]), int(obj["height"]))


def parse_menu_item(obj, attachments=()):
    """A MenuEntry from its JSON object; every key but "avatar" and "preview" is required."""
    arg = obj["command_arg"]
    entry = MenuEntry(
        title=str(obj["title"]), description=str(obj["description"]), description2=str(obj["description2"]),
        flags=int(obj["flags"]), command_id=int(obj["command_id"]),
        command_arg={"type": int(arg["type"]), "data": _binary(arg["data"], attachments)},
        icon=parse_image(obj["avatar"], attachments) if "avatar" in obj else None,
        submenus=[])
    entry.submenus.extend(parse_menu_item(sub, attachments) for sub in obj["sub_menus"])
    return entry


def icon_file(image, folder):
    """Writes `image` once into `folder` (named by its content) and returns the file's path."""
    extension = {"image/png": ".png", "image/svg+xml": ".svg"}.get(image.mime_type, ".img")
    path = os.path.join(folder, hashlib.sha1(image.data).hexdigest() + extension)
    if not os.path.exists(path):
        os.makedirs(folder, exist_ok=True)
        temporary = f"{path}.{os.getpid()}.{threading.get_ident()}"
        with open(temporary, "wb") as out:
            out.write(image.data)
        os.replace(temporary, path)
    return path


def default_icon_folder():
    cache = os.environ.get("XDG_CACHE_HOME") or os.path.join(os.path.expanduser("~"), ".cache")
    return os.path.join(cache, "zarnu", "menu-icons")


def encode_frame(obj):
    """One frame for `obj`; bytes values anywhere in it travel as attachments."""
    attachments = []

    def lift(value):
        if isinstance(value, (bytes, bytearray)):
            attachments.append(bytes(value))
            return f"{BINARY_PREFIX}{len(attachments) - 1}"
        if isinstance(value, dict):
            return {k: lift(v) for k, v in value.items()}
        if isinstance(value, list):
            return [lift(v) for v in value]
        return value

    text = json.dumps(lift(obj), separators=(",", ":")).encode()
    body = LENGTH.pack(len(text)) + text + b"".join(LENGTH.pack(len(a)) + a for a in attachments)
    if len(body) > MAX_BODY:
        raise ValueError(f"a frame of {len(body)} bytes is over the limit of {MAX_BODY}")
    return MAGIC + LENGTH.pack(len(body)) + body


class FrameError(Exception):
    """The agent sent something that is not a frame; the session ends."""


def decode_frames(buffer):
    """Takes the complete frames off the front of `buffer` (a bytearray): [(message, attachments)]."""
    frames = []
    while len(buffer) >= HEADER.size:
        magic, body_length, json_length = HEADER.unpack_from(buffer)
        if magic != MAGIC:
            raise FrameError(f"bad magic {bytes(magic)!r}")
        if body_length > MAX_BODY or json_length > body_length - LENGTH.size:
            raise FrameError(f"body of {body_length} bytes, JSON of {json_length}")
        if len(buffer) < 8 + body_length:
            break
        body = bytes(buffer[8:8 + body_length])
        del buffer[:8 + body_length]
        message = json.loads(body[4:4 + json_length])
        if not isinstance(message, dict):
            raise FrameError("the JSON of a frame is not an object")
        attachments, rest = [], memoryview(body)[4 + json_length:]
        while rest:
            if len(rest) < LENGTH.size:
                raise FrameError("an attachment's length runs past the body")
            (size,) = LENGTH.unpack_from(rest)
            if size > len(rest) - LENGTH.size:
                raise FrameError("an attachment runs past the body")
            attachments.append(bytes(rest[LENGTH.size:LENGTH.size + size]))
            rest = rest[LENGTH.size + size:]
        frames.append((message, attachments))
    return frames


class RequestFailed(Exception):
    """A request's error: the agent's error object, or a local one (no session, time-out)."""

    def __init__(self, error):
        super().__init__(f"{error.get('info', '')} (error {error.get('code')})")
        self.error = error


def _local_error(code, info):
    return {"code": code, "sub_code": 3, "info": info}


def _safely(function, *args):
    """Calls a callback; what it raises is printed, and the session goes on."""
    try:
        function(*args)
    except Exception:  # noqa: BLE001 - a callback's fault must not end the client's loop
        traceback.print_exc()


class AgentClient:
    """One client of the agent's overlay socket, connected (and connected again) by its loop.

    The loop is a ThreadLoop (a thread of the client's own; the default) or a GLibLoop (the
    GLib main loop the file manager runs). Callbacks run on the loop's thread, no lock held:
    on_status(path, PathStatus): a pushed status differs from the one known.
    on_reset(): every status and menu known was dropped (a session began or ended), or the root
      folder became known: what is shown should be asked for again.
    on_menu_refresh(): the agent asked for menus to be made again.
    on_menu(paths): a menu asked for by menu_for arrived after menu_for returned.
    """

    def __init__(self, socket_path=None, on_status=None, on_reset=None, on_menu_refresh=None, on_menu=None,
                 loop=None):
        self.socket_path = str(socket_path or default_socket_path())
        self._callbacks = {"status": on_status, "reset": on_reset, "menu_refresh": on_menu_refresh,
                           "menu": on_menu}
        self._loop = loop or ThreadLoop()
        self._lock = threading.Lock()
        self._statuses = collections.OrderedDict()  # path -> PathStatus, least recently used first
        self._asked = set()
        self._menus = collections.OrderedDict()  # tuple of paths -> [MenuEntry]
        self._menu_waits = {}  # tuple of paths -> Event set when the menu arrives
        self._late_menus = set()  # menus that menu_for stopped waiting for
        self._pending = {}  # request id -> (completion, deadline)
        self._outbox = []  # frames for the loop to send
        self._next_id = 1
        self._connected = False
        self._root = None  # None: not known yet; "": the agent is not linked
        self._root_asked_at = 0.0
        self._stopping = False
        # Owned by the loop's thread.
        self._sock = None
        self._received = bytearray()
        self._unsent = bytearray()

    # Life cycle.

    def start(self):
        self._loop.start(self)
        return self

    def stop(self):
        """Ends the session and the loop's work; pending requests fail."""
        with self._lock:
            self._stopping = True
        self._loop.stop()

    @property
    def connected(self):
        with self._lock:
            return self._connected

    @property
    def root(self):
        """The agent's root folder: None before it answered, "" when it is not linked."""
        with self._lock:
            return self._root

    # What the file manager asks; none of it waits on the agent.

    def status_of(self, path):
        """The known status of `path`, or None. A path not known yet is asked for (once, while the
        session is up and the path is in the root folder); its push calls on_status."""
        with self._lock:
            status = self._statuses.get(path)
            if status is not None:
                self._statuses.move_to_end(path)
                return status
            if not self._connected or path in self._asked or not self._may_hold(path):
                return None
            if len(self._asked) >= ASKED_CAPACITY:
                self._asked.clear()
            self._asked.add(path)
            self._queue("overlay_path_status_cached", {"file_path": path}, None)
        self._loop.wake()
        return None

    def menu_for(self, paths, wait=0.0):
        """The agent's menu for `paths` ([MenuEntry]; [] when it offers none), or None when it is not
        known yet. Asks the agent and waits up to `wait` seconds, only while a session is up; a menu
        that comes later is kept, and on_menu(paths) tells of it. With a GLibLoop, call it on the
        loop's thread."""
        key = tuple(paths)
        with self._lock:
            if key in self._menus:
                self._menus.move_to_end(key)
                return self._menus[key]
            if not self._connected or not key:
                return None
            arrived = self._menu_waits.get(key)
            if arrived is None:
                arrived = self._menu_waits[key] = threading.Event()
                self._queue("overlay_get_menu", {"file_paths": list(key)},
                            lambda result, error, attachments: self._menu_arrived(key, result, error, attachments))
        self._loop.wake()
        if wait > 0:
            self._loop.wait(arrived, wait)
        with self._lock:
            menu = self._menus.get(key)
            if menu is None:
                self._late_menus.add(key)  # on_menu tells the caller when it comes
            return menu

    def run_command(self, path, entry, completion=None):
        """Sends a menu entry's command for `path` ("overlay_request_ui"); completion(result, error)
        runs on the loop's thread. Returns False when there is no session."""
        params = {"file_path": path, "ui_command": entry.command_id, "ui_command_arg": entry.command_arg}
        return self.submit("overlay_request_ui", params, completion)

    # Requests of any method.

    def submit(self, method, params=None, completion=None):
        """Sends a request; completion(result, error) runs on the loop's thread once (error is a dict
        with "code" and "info" when it failed). False when there is no session."""
        with self._lock:
            if not self._connected:
                return False
            self._queue(method, params,
                        None if completion is None else (lambda result, error, attachments: completion(result, error)))
        self._loop.wake()
        return True

    def request(self, method, params=None, timeout=REQUEST_TIMEOUT + 1):
        """Sends a request and waits for its result (ThreadLoop only). Raises RequestFailed."""
        done, answer = threading.Event(), {}

        def completion(result, error):
            answer.update(result=result, error=error)
            done.set()

        if not self.submit(method, params, completion):
            raise RequestFailed(_local_error(errno.ENOTCONN, f"no session with the agent at {self.socket_path}"))
        if not done.wait(timeout):
            raise RequestFailed(_local_error(errno.ETIMEDOUT, f"{method} got no answer"))
        if answer["error"] is not None:
            raise RequestFailed(answer["error"])
        return answer["result"]

    # Inside: state under the lock; the socket on the loop's thread.

    def _may_hold(self, path):
        # Until the root folder is known nothing is asked; its arrival calls on_reset.
        return bool(self._root) and (path == self._root or path.startswith(self._root.rstrip("/") + "/"))

    def _queue(self, method, params, completion):
        """Under the lock: a request for the loop to send."""
        ident = self._next_id
        self._next_id += 1
        message = {"id": ident, "method": method}
        if params is not None:
            message["params"] = params
        self._pending[ident] = (completion, time.monotonic() + REQUEST_TIMEOUT)
        self._outbox.append(encode_frame(message))

    def _call(self, name, *args):
        callback = self._callbacks.get(name)
        if callback is not None:
            _safely(callback, *args)

    def _menu_arrived(self, key, result, error, attachments):
        menu = []
        if error is None:
            try:
                menu = [parse_menu_item(item, attachments) for item in result["menus"]]
            except (KeyError, TypeError, ValueError):
                menu = []  # a menu that cannot be read is no menu
        with self._lock:
            late = key in self._late_menus
            self._late_menus.discard(key)
            arrived = self._menu_waits.pop(key, None)
            if error is None or error.get("sub_code") != 3:  # a time-out or a lost session is asked again
                self._menus[key] = menu
                if len(self._menus) > MENU_CAPACITY:
                    self._menus.popitem(last=False)
        if arrived is not None:
            arrived.set()
        if late:
            self._call("menu", list(key))

    def _root_arrived(self, result, error, attachments):
        with self._lock:
            if not self._connected:
                return
            before = self._root
            if error is None:
                self._root = str(result.get("share_path", ""))
            elif self._root is None:
                self._root = ""  # asked again after ROOT_RETRY
            self._root_asked_at = time.monotonic()
            changed = self._root != before
        if changed:
            self._call("reset")  # paths in the root folder may be asked for now

    @property
    def _is_stopping(self):
        with self._lock:
            return self._stopping

    def _try_connect(self, timeout):
        """Connects to the socket (waiting at most `timeout`, 0: not at all) and begins a session."""
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM | socket.SOCK_CLOEXEC)
        sock.settimeout(timeout if timeout > 0 else 0.0)
        try:
            sock.connect(self.socket_path)
        except OSError:
            sock.close()
            return False
        sock.setblocking(False)
        self._sock = sock
        self._received.clear()
        self._unsent.clear()
        with self._lock:
            self._connected = True
            self._statuses.clear()
            self._asked.clear()
            self._menus.clear()
            self._late_menus.clear()
            self._root = None
            self._queue("overlay_get_root_share", None, self._root_arrived)
        self._call("reset")  # what was shown came from no session or an earlier one
        return True

    def _prepare(self):
        """Before the loop waits: takes the queued frames, fails requests past their time and asks
        an agent that is not linked for its root folder again. Returns (something to send, seconds
        until this should run again or None)."""
        now = time.monotonic()
        with self._lock:
            if self._root == "" and now - self._root_asked_at >= ROOT_RETRY:
                self._root_asked_at = now
                self._queue("overlay_get_root_share", None, self._root_arrived)
            for frame in self._outbox:
                self._unsent += frame
            self._outbox.clear()
            late = [ident for ident, (_, deadline) in self._pending.items() if deadline <= now]
            expired = [self._pending.pop(ident)[0] for ident in late]
            deadlines = [deadline for _, deadline in self._pending.values()]
            if self._root == "":
                deadlines.append(self._root_asked_at + ROOT_RETRY)
        for completion in expired:
            if completion is not None:
                _safely(completion, None, _local_error(errno.ETIMEDOUT, "the agent did not answer in time"), [])
        timeout = max(0.0, min(deadlines) - time.monotonic()) if deadlines else None
        return bool(self._unsent), timeout

    def _io(self, can_read, can_write):
        """Moves bytes while the socket is ready; False when the session is over."""
        try:
            if can_write and self._unsent:
                del self._unsent[:self._sock.send(self._unsent)]
            if can_read:
                data = self._sock.recv(1 << 16)
                if not data:
                    return False  # the agent closed the session
                self._received += data
                for message, attachments in decode_frames(self._received):
                    self._unsent += self._handle(message, attachments)
        except (BlockingIOError, InterruptedError):
            pass
        except (OSError, FrameError, ValueError, KeyError, TypeError, AttributeError):
            return False  # the socket failed, or the agent sent what this client cannot read
        return True

    def _end_session(self):
        if self._sock is not None:
            self._sock.close()
            self._sock = None
        with self._lock:
            self._connected = False
            failed = list(self._pending.values())
            self._pending.clear()
            self._outbox.clear()
            self._statuses.clear()
            self._asked.clear()
            self._menus.clear()
            self._root = None
        error = _local_error(errno.ENOTCONN, f"the session with the agent at {self.socket_path} ended")
        for completion, _ in failed:
            if completion is not None:
                _safely(completion, None, error, [])
        self._call("reset")

    def _handle(self, message, attachments):
        """Handles one message from the agent; returns the bytes to send back."""
        if "method" not in message:
            with self._lock:
                completion, _ = self._pending.pop(message.get("id"), (None, None))
            if completion is not None:
                error = message.get("error")
                _safely(completion, None if error else message.get("result", {}), error, attachments)
            return b""
        reply = {"id": message.get("id")}
        method = message["method"]
        if method == "ova_refresh_path":
            self._refresh_paths(message.get("params", {}).get("paths", []))
            reply["result"] = {}
        elif method == "ova_refresh_menu":
            with self._lock:
                self._menus.clear()
            self._call("menu_refresh")
            reply["result"] = {}
        else:
            reply["error"] = {"code": UNKNOWN_AGENT_REQUEST, "sub_code": 0, "info": f"unknown method {method}",
                              "function": "ProcessAgentRequest"}
        return encode_frame(reply)

    def _refresh_paths(self, entries):
        changed = []
        with self._lock:
            for entry in entries:
                path = str(entry["path"])
                status = PathStatus(int(entry["status"]), int(entry["progress"]), int(entry["flags"]))
                self._asked.discard(path)
                if self._statuses.get(path) != status:
                    changed.append((path, status))
                self._statuses[path] = status
                self._statuses.move_to_end(path)
                while len(self._statuses) > STATUS_CAPACITY:
                    self._statuses.popitem(last=False)
        for path, status in changed:
            self._call("status", path, status)


class ThreadLoop:
    """Runs a client on a thread of its own: connects, waits on the socket with selectors, and
    connects again after RECONNECT_FIRST, doubling up to RECONNECT_LAST while no agent answers."""

    def start(self, client):
        self._client = client
        self._wake_read, self._wake_write = os.pipe2(os.O_NONBLOCK | os.O_CLOEXEC)
        self._thread = threading.Thread(target=self._run, name="zarnu-overlay", daemon=True)
        self._thread.start()

    def wake(self):
        try:
            os.write(self._wake_write, b"!")
        except OSError:
            pass  # the pipe is full (already awake) or closed (stopped)

    def wait(self, event, seconds):
        event.wait(seconds)

    def stop(self):
        self.wake()
        self._thread.join()
        os.close(self._wake_read)
        os.close(self._wake_write)

    def _run(self):
        client, delay = self._client, RECONNECT_FIRST
        while not client._is_stopping:
            if not client._try_connect(CONNECT_TIMEOUT):
                self._sleep(delay)
                delay = min(delay * 2, RECONNECT_LAST)
                continue
            delay = RECONNECT_FIRST
            try:
                self._serve()
            finally:
                client._end_session()

    def _sleep(self, seconds):
        with selectors.DefaultSelector() as selector:
            selector.register(self._wake_read, selectors.EVENT_READ)
            selector.select(seconds)
        self._drain()

    def _drain(self):
        try:
            while os.read(self._wake_read, 4096):
                pass
        except BlockingIOError:
            pass

    def _serve(self):
        client = self._client
        with selectors.DefaultSelector() as selector:
            selector.register(client._sock, selectors.EVENT_READ)
            selector.register(self._wake_read, selectors.EVENT_READ)
            while not client._is_stopping:
                wants_write, timeout = client._prepare()
                selector.modify(client._sock, selectors.EVENT_READ | (selectors.EVENT_WRITE if wants_write else 0))
                readable = writable = False
                for key, mask in selector.select(timeout):
                    if key.fileobj == self._wake_read:
                        self._drain()
                    else:
                        readable, writable = bool(mask & selectors.EVENT_READ), bool(mask & selectors.EVENT_WRITE)
                if (readable or writable) and not client._io(readable, writable):
                    return


class GLibLoop:
    """Runs a client in the GLib main loop of the thread that calls start (a file manager's main
    thread): socket watches and timers, never a blocking call. Connecting is tried without waiting,
    and again after RECONNECT_FIRST, doubling up to RECONNECT_LAST, while no agent answers.
    menu_for's wait reads the socket directly, so it must be called on that same thread."""

    def __init__(self):
        from gi.repository import GLib
        self._glib = GLib
        self._sources = {}  # "in", "out", "timer", "connect" -> GLib source id
        self._delay = RECONNECT_FIRST

    def start(self, client):
        self._client = client
        self._sources["connect"] = self._glib.idle_add(self._connect)

    def wake(self):
        self._glib.idle_add(self._step)  # from any thread

    def wait(self, event, seconds):
        client = self._client
        deadline = time.monotonic() + seconds
        while not event.is_set() and client._sock is not None:
            wants_write, timeout = client._prepare()
            remaining = deadline - time.monotonic()
            if remaining <= 0:
                break
            readable, writable, _ = select.select([client._sock], [client._sock] if wants_write else [], [],
                                                  remaining if timeout is None else min(remaining, timeout))
            if (readable or writable) and not client._io(bool(readable), bool(writable)):
                self._end()
        self._step()

    def stop(self):
        for name in list(self._sources):
            self._drop(name)
        if self._client._sock is not None:
            self._client._end_session()

    def _drop(self, name):
        source = self._sources.pop(name, None)
        if source is not None:
            self._glib.source_remove(source)

    def _connect(self):
        self._sources.pop("connect", None)
        client = self._client
        if client._is_stopping:
            return False
        if client._try_connect(0):
            self._delay = RECONNECT_FIRST
            self._sources["in"] = self._glib.io_add_watch(
                client._sock.fileno(), self._glib.PRIORITY_DEFAULT,
                self._glib.IO_IN | self._glib.IO_HUP | self._glib.IO_ERR, self._on_in)
            self._step()
        else:
            self._sources["connect"] = self._glib.timeout_add(int(self._delay * 1000), self._connect)
            self._delay = min(self._delay * 2, RECONNECT_LAST)
        return False

    def _step(self, *ignored):
        """Sends what is queued (watching for room to write) and sets the timer for what is due."""
        client = self._client
        if client._sock is None:
            return False
        wants_write, timeout = client._prepare()
        if wants_write and "out" not in self._sources:
            self._sources["out"] = self._glib.io_add_watch(client._sock.fileno(), self._glib.PRIORITY_DEFAULT,
                                                           self._glib.IO_OUT, self._on_out)
        self._drop("timer")
        if timeout is not None:
            self._sources["timer"] = self._glib.timeout_add(max(1, int(timeout * 1000)), self._on_timer)
        return False

    def _on_in(self, fd, condition):
        if not self._client._io(True, False):
            self._sources.pop("in", None)  # returning False removes it
            self._end()
            return False
        self._step()
        return True

    def _on_out(self, fd, condition):
        client = self._client
        if not client._io(False, True):
            self._sources.pop("out", None)
            self._end()
            return False
        if client._unsent:
            return True
        self._sources.pop("out", None)
        return False

    def _on_timer(self):
        self._sources.pop("timer", None)
        self._step()
        return False

    def _end(self):
        for name in ("in", "out", "timer"):
            self._drop(name)
        self._client._end_session()
        if "connect" not in self._sources and not self._client._is_stopping:
            self._delay = RECONNECT_FIRST
            self._sources["connect"] = self._glib.timeout_add(int(self._delay * 1000), self._connect)
