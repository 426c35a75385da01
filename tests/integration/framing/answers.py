"""Reading a stream of HTTP answers the way a client does that believes what each declares."""

import dataclasses

END_OF_HEAD = b"\r\n\r\n"
APPLICATION = b"x-application"
NO_BODY = (204, 304)


@dataclasses.dataclass(frozen=True)
class Answer:
    status: int
    of_application: bool  # else the server's own
    is_last: bool  # says that the connection ends with it


@dataclasses.dataclass
class Answers:
    """What a stream holds: the answers that are whole, and what a client cannot place."""

    whole: list = dataclasses.field(default_factory=list)
    words: list = dataclasses.field(default_factory=list)  # for the table
    is_cut: bool = False
    has_stray: bool = False  # bytes of no answer, on a connection that goes on

    def final(self):
        return [answer for answer in self.whole if answer.status >= 200 or answer.status == 101]


def parse_head(data):
    """Status and headers of the answer that `data` begins with, and where its body begins."""
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
    """Where the answer ends; None when it is cut."""
    if not has_body or status < 200 or status in NO_BODY:
        return start
    if headers.get(b"transfer-encoding", b"").lower() == b"chunked":
        return end_of_chunks(data, start)
    if b"content-length" in headers:
        end = start + int(headers[b"content-length"])
        return end if end <= len(data) else None
    return len(data)


def parse(data, first_is_head=False):
    """The answers in `data`; `first_is_head` when the first one is to HEAD."""
    answers = Answers()
    start = 0
    while start < len(data):
        if not data.startswith(b"HTTP/1.", start):
            begin = data.find(b"HTTP/1.", start)
            end = begin if begin >= 0 else len(data)
            answers.words.append(f"{end - start} stray bytes")
            answers.has_stray |= not answers.whole or not answers.whole[-1].is_last
            start = end
            continue
        if data.find(END_OF_HEAD, start) < 0:
            answers.is_cut = True
            break
        status, headers, body = parse_head(data[start:])
        has_body = not (first_is_head and not answers.final())
        end = end_of_body(data, start + body, status, headers, has_body)
        if end is None:
            answers.is_cut = True
            break
        is_last = headers.get(b"connection", b"").lower() == b"close"
        answers.whole.append(Answer(status, APPLICATION in headers, is_last))
        answers.words.append(str(status))
        start = end
        if status == 101:
            break  # no HTTP any more
    if answers.is_cut:
        answers.words.append("cut off")
    return answers
