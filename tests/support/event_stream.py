"""A client of filedrop's live list, a stream of server-sent events."""

import http.client


class EventStream:
    def __init__(self, port, limit_seconds):
        self.connection = http.client.HTTPConnection("127.0.0.1", port, timeout=limit_seconds)
        self.connection.request("GET", "/live", headers={"Accept": "text/event-stream"})
        self.socket = self.connection.sock
        self.response = self.connection.getresponse()
        assert self.response.status == 200, self.response.status
        media_type = self.response.headers["Content-Type"]
        assert media_type == "text/event-stream", media_type

    def receive(self):
        """The data of the next event; None at the end of the stream or of the connection."""
        data = []
        while True:
            try:
                line = self.response.readline()
            except (http.client.IncompleteRead, ConnectionError):
                return None
            if not line:
                return None
            line = line.decode().rstrip("\n")
            if line.startswith("data: "):
                data.append(line.removeprefix("data: "))
            elif not line and data:
                return "\n".join(data)

    def finish_sending(self):
        self.socket.shutdown(1)

    def close(self):
        self.response.close()
        self.connection.close()
