"""Parses a stream of HTTP responses by their declared lengths, as a client does."""

import dataclasses

END_OF_HEAD = b"\r\n\r\n"
APPLICATION = b"x-application"
NO_BODY = (204, 304)


@dataclasses.dataclass(frozen=True)
class Response:
    status: int
    of_application: bool  # else the server's own
    is_last: bool  # says that the connection ends with it


@dataclasses.dataclass
class Responses:
    """Content of a stream: whole responses, and bytes that belong to none."""

    whole: list = dataclasses.field(default_factory=list)
    words: list = dataclasses.field(default_factory=list)  # for the table
    is_cut: bool = False
    has_stray: bool = False  # bytes of no response, on a connection that stays open

    def final(self):
        return [response for response in self.whole if response.status >= 200 or response.status == 101]


def parse_head(data):
    """Status and headers of the response that `data` begins with, and where its body begins."""
    end = data.index(END_OF_HEAD)
    lines = data[:end].split(b"\r\n")
    headers = {}
    for line in lines[1:]:
        name, _, value = line.partition(b":")
        headers[name.strip().lower()] = value.strip()
    return int(lines[0].split(b" ")[1]), headers, end + len(END_OF_HEAD)


def end_of_chunks(data, start):
    """Where the chunked body ends; None when it is cut."""
    while True:
        line_end = data.find(b"\r\n", start)
        if line_end < 0:
            return None
        size = int(data[start:line_end], 16)
        start = line_end + 2 + size + 2
        if start > len(data):
            return None
        if size == 0:
            return start


def end_of_body(data, start, status, headers, has_body):
    """The end of the response; None when it is incomplete."""
    if not has_body or status < 200 or status in NO_BODY:
        return start
    if headers.get(b"transfer-encoding", b"").lower() == b"chunked":
        return end_of_chunks(data, start)
    if b"content-length" in headers:
        end = start + int(headers[b"content-length"])
        return end if end <= len(data) else None
    return len(data)


def parse(data, first_is_head=False):
    """The responses in `data`; `first_is_head` when the first one is to HEAD."""
    responses = Responses()
    start = 0
    while start < len(data):
        if not data.startswith(b"HTTP/1.", start):
            begin = data.find(b"HTTP/1.", start)
            end = begin if begin >= 0 else len(data)
            responses.words.append(f"{end - start} stray bytes")
            responses.has_stray |= not responses.whole or not responses.whole[-1].is_last
            start = end
            continue
        if data.find(END_OF_HEAD, start) < 0:
            responses.is_cut = True
            break
        status, headers, body = parse_head(data[start:])
        has_body = not (first_is_head and not responses.final())
        end = end_of_body(data, start + body, status, headers, has_body)
        if end is None:
            responses.is_cut = True
            break
        is_last = headers.get(b"connection", b"").lower() == b"close"
        responses.whole.append(Response(status, APPLICATION in headers, is_last))
        responses.words.append(str(status))
        start = end
        if status == 101:
            break  # no HTTP any more
    if responses.is_cut:
        responses.words.append("cut off")
    return responses
