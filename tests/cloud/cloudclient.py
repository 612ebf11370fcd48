"""A small client for the zarnu-cloud HTTP API, used by the end-to-end tests and the
benchmark. It speaks the wire format of docs/cloud-api.md over one keep-alive
http.client connection."""

import hashlib
import http.client
import json
import ssl
import urllib.parse

MAX_PART = 1024 * 1024


def fingerprint(data: bytes) -> str:
    return hashlib.md5(data).hexdigest() + hashlib.sha1(data).hexdigest()


class CloudError(Exception):
    def __init__(self, status, code, message, body=None):
        super().__init__(f"HTTP {status}, code {code}: {message}")
        self.status = status
        self.code = code
        self.message = message
        self.body = body or {}


class CloudClient:
    def __init__(self, url, token=None, cafile=None, timeout=60):
        parts = urllib.parse.urlsplit(url)
        self.url = url
        self.host = parts.hostname
        self.port = parts.port
        self.https = parts.scheme == "https"
        self.cafile = cafile
        self.timeout = timeout
        self.token = token
        self.conn = None

    # ---- transport ----
    def _connect(self):
        if self.https:
            ctx = ssl.create_default_context(cafile=self.cafile)
            return http.client.HTTPSConnection(self.host, self.port, context=ctx, timeout=self.timeout)
        return http.client.HTTPConnection(self.host, self.port, timeout=self.timeout)

    def close(self):
        if self.conn:
            self.conn.close()
            self.conn = None

    def request(self, method, path, body=None, headers=None, auth=True):
        """Sends one request; returns (status, headers dict, body bytes)."""
        hdrs = dict(headers or {})
        if auth and self.token:
            hdrs["Authorization"] = "Bearer " + self.token
        for attempt in range(2):
            if self.conn is None:
                self.conn = self._connect()
            try:
                self.conn.request(method, path, body=body, headers=hdrs)
                resp = self.conn.getresponse()
                data = resp.read()
                if resp.getheader("Connection", "").lower() == "close":
                    self.close()
                return resp.status, {k.lower(): v for k, v in resp.getheaders()}, data
            except (http.client.RemoteDisconnected, BrokenPipeError, ConnectionResetError):
                # A keep-alive connection the service closed; retry once on a new one.
                self.close()
                if attempt:
                    raise
        raise AssertionError("unreachable")

    def call(self, op, fields=None, check=True):
        """POSTs JSON to /api/v1/<op>; returns the decoded answer or raises CloudError."""
        status, _, data = self.request("POST", "/api/v1/" + op, json.dumps(fields or {}).encode(),
                                       {"Content-Type": "application/json"})
        return self._decode(status, data, check)

    def get_json(self, path, auth=True, check=True):
        status, _, data = self.request("GET", path, auth=auth)
        return self._decode(status, data, check)

    @staticmethod
    def _decode(status, data, check):
        answer = json.loads(data) if data else {}
        if check and status != 200:
            err = answer.get("error", {})
            raise CloudError(status, err.get("code"), err.get("message"), err)
        return answer

    # ---- API ----
    def login(self, user, password):
        answer = self.call("login", {"username": user, "password": password})
        self.token = answer["token"]
        return answer

    def list(self, path, **fields):
        fields["path"] = path
        return self.call("list", fields)

    def list_pages(self, path, **fields):
        """Every page of a listing, following the cursor."""
        pages = []
        cursor = ""
        while True:
            page = self.list(path, cursor=cursor, **fields)
            pages.append(page)
            if not page["more"]:
                return pages
            cursor = page["cursor"]

    def missing(self, fingerprints):
        return self.call("parts/missing", {"fingerprints": list(fingerprints)})["missing"]

    @staticmethod
    def upload_body(parts, manifest=None):
        manifest = manifest or [{"fingerprint": fingerprint(p), "size": len(p)} for p in parts]
        return json.dumps({"parts": manifest}).encode() + b"\n" + b"".join(parts)

    def upload_raw(self, body, check=True):
        status, _, data = self.request("POST", "/api/v1/parts/upload", body,
                                       {"Content-Type": "application/octet-stream"})
        return self._decode(status, data, check)

    def upload(self, parts, manifest=None):
        return self.upload_raw(self.upload_body(parts, manifest))

    def create(self, path, parts, modified=None):
        fields = {"path": path, "parts": [{"fingerprint": fingerprint(p), "size": len(p)} for p in parts]}
        if modified is not None:
            fields["modified"] = modified
        return self.call("files/create", fields)["entry"]

    def put_file(self, path, data, part_size=MAX_PART, batch=5):
        """Uploads what the cloud lacks, then creates the file. Returns the entry."""
        parts = [data[i:i + part_size] for i in range(0, len(data), part_size)]
        lacking = set(self.missing({fingerprint(p) for p in parts}))
        todo = [p for p in {fingerprint(p): p for p in parts}.values() if fingerprint(p) in lacking]
        for i in range(0, len(todo), batch):
            self.upload(todo[i:i + batch])
        return self.create(path, parts)

    def download(self, file_id, fingerprints):
        """Returns a list of (fingerprint, status, bytes) in request order."""
        status, headers, data = self.request(
            "POST", "/api/v1/parts/download",
            json.dumps({"id": file_id, "fingerprints": list(fingerprints)}).encode(),
            {"Content-Type": "application/json"})
        if status != 200:
            self._decode(status, data, True)
        assert headers["content-type"] == "application/octet-stream"
        newline = data.index(b"\n")
        manifest = json.loads(data[:newline])["parts"]
        offset = newline + 1
        out = []
        for item in manifest:
            size = item["size"] if item["status"] == "ok" else 0
            out.append((item["fingerprint"], item["status"], data[offset:offset + size]))
            offset += size
        assert offset == len(data), "download body longer than its manifest says"
        return out

    def get_file(self, path):
        """The bytes of a file, fetched part by part."""
        entry = self.list(path, include_parts=True)["entries"][0]
        got = b""
        for fp, status, data in self.download(entry["id"], [p["fingerprint"] for p in entry["parts"]]):
            assert status == "ok", (fp, status)
            got += data
        return got

    def stats(self):
        """The counters this client's token may see: its account's own, or the whole
        service's for the operator token."""
        return self.get_json("/api/v1/stats")
