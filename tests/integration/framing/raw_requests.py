"""Raw requests with duplicate, conflicting, malformed or unusual framing.

NEXT is sent after each one in the same piece, except those in ALONE: its outcome shows where the
server ends the first request. Between the two possible ends of an ambiguous request is HIDDEN, a
whole request, so that the wrong interpretation shows as an additional request.
"""

import dataclasses

HOST = b"Host: site.test\r\n"
HIDDEN = b"GET /hidden HTTP/1.1\r\nHost: site.test\r\n\r\n"
NEXT = b"GET /next HTTP/1.1\r\nHost: site.test\r\n\r\n"

END_AND_HIDDEN = b"0\r\n\r\n" + HIDDEN  # an empty chunked body, and the hidden request
IN_A_CHUNK = b"%x\r\n%s\r\n0\r\n\r\n" % (len(HIDDEN), HIDDEN)  # the hidden request in the body
SIZE_LINE = len(IN_A_CHUNK.split(b"\r\n", maxsplit=1)[0]) + 2


@dataclasses.dataclass(frozen=True)
class Request:
    group: str
    name: str
    data: bytes

    def with_next(self):
        return self.data if self.name in ALONE else self.data + NEXT


def post(lines, body=b"", target=b"/first", method=b"POST", version=b"HTTP/1.1", host=HOST):
    if isinstance(lines, bytes):
        lines = (lines,)
    return (method + b" " + target + b" " + version + b"\r\n" + host
            + b"".join(line + b"\r\n" for line in lines) + b"\r\n" + body)


def get(lines=(), target=b"/first", method=b"GET", version=b"HTTP/1.1", host=HOST):
    return post(lines, b"", target, method, version, host)


def length(value):
    return b"Content-Length: %s" % value


def with_length(value, body=b"abcd"):
    return post(length(value), body)


def chunked(body, value=b"chunked"):
    return post(b"Transfer-Encoding: " + value, body)


TE = b"Transfer-Encoding: chunked"
LONG = b"%d" % (4 + len(HIDDEN))
ALL = length(b"%d" % len(END_AND_HIDDEN))  # the length wins: the hidden request is body
CHUNK = b"4\r\nabcd\r\n"
LAST = b"0\r\n\r\n"

CONTENT_LENGTH = {
    "one": with_length(b"4"),
    "twice the same": post((length(b"4"), length(b"4")), b"abcd"),
    "two, the shorter first": post((length(b"4"), length(LONG)), b"abcd" + HIDDEN),
    "two, the longer first": post((length(LONG), length(b"4")), b"abcd" + HIDDEN),
    "two, the second in lower case and shorter": post((length(LONG), b"content-length: 4"),
                                                      b"abcd" + HIDDEN),
    "a list of the same": with_length(b"4, 4"),
    "a list of different ones": with_length(b"4, " + LONG, b"abcd" + HIDDEN),
    "plus sign": with_length(b"+4"),
    "minus sign": with_length(b"-4"),
    "hexadecimal": with_length(b"0x4"),
    "leading zeros": with_length(b"0004"),
    "forty leading zeros": with_length(b"0" * 40 + b"4"),
    "fraction": with_length(b"4.0"),
    "exponent": with_length(b"4e0"),
    "space between digits": with_length(b"4 5"),
    "leading spaces": with_length(b"   4"),
    "leading tab": with_length(b"\t4"),
    "leading vertical tab": with_length(b"\v4"),
    "trailing space": with_length(b"4 "),
    "trailing tab": with_length(b"4\t"),
    "trailing comma": with_length(b"4,"),
    "no space after the colon": post(b"Content-Length:4", b"abcd"),
    "quoted": with_length(b'"4"'),
    "letters": with_length(b"four"),
    "empty": post(b"Content-Length:", b""),
    "2^31": with_length(b"2147483648"),
    "2^63 - 1": with_length(b"9223372036854775807"),
    "2^63": with_length(b"9223372036854775808"),
    "2^64 - 1": with_length(b"18446744073709551615"),
    "2^64": with_length(b"18446744073709551616", HIDDEN),
    "2^64 + 4": with_length(b"18446744073709551620", b"abcd" + HIDDEN),
    "thirty digits": with_length(b"1" + b"0" * 28 + b"4", b"abcd" + HIDDEN),
    "name with an underscore": post(b"Content_Length: %d" % len(HIDDEN), HIDDEN),
    "space before the colon": post(b"Content-Length : %d" % len(HIDDEN), HIDDEN),
    "made by a folded line": post((b"Content: %d" % len(HIDDEN), b" -Length"), HIDDEN),
    "value on a folded line": post((b"Content-Length:", b" %d" % len(HIDDEN)), HIDDEN),
}

TRANSFER_ENCODING = {
    "chunked": chunked(CHUNK + LAST),
    "Chunked": chunked(CHUNK + LAST, b"Chunked"),
    "CHUNKED": chunked(CHUNK + LAST, b"CHUNKED"),
    "gzip, chunked": chunked(END_AND_HIDDEN, b"gzip, chunked"),
    "chunked, identity": chunked(END_AND_HIDDEN, b"chunked, identity"),
    "chunked, chunked": chunked(END_AND_HIDDEN, b"chunked, chunked"),
    "identity": chunked(END_AND_HIDDEN, b"identity"),
    "identity, with a length": post((ALL, b"Transfer-Encoding: identity"), END_AND_HIDDEN),
    "xchunked": chunked(END_AND_HIDDEN, b"xchunked"),
    "xchunked, with a length": post((ALL, b"Transfer-Encoding: xchunked"), END_AND_HIDDEN),
    "quoted": post((ALL, b'Transfer-Encoding: "chunked"'), END_AND_HIDDEN),
    "with a parameter": post((ALL, b"Transfer-Encoding: chunked;q=1"), END_AND_HIDDEN),
    "trailing comma": post((ALL, b"Transfer-Encoding: chunked,"), END_AND_HIDDEN),
    "trailing space": post((ALL, b"Transfer-Encoding: chunked "), END_AND_HIDDEN),
    "leading tab": post((ALL, b"Transfer-Encoding:\tchunked"), END_AND_HIDDEN),
    "leading vertical tab": post((ALL, b"Transfer-Encoding: \vchunked"), END_AND_HIDDEN),
    "leading non-breaking space": post((ALL, b"Transfer-Encoding: \xa0chunked"), END_AND_HIDDEN),
    "NUL behind the value": post((ALL, b"Transfer-Encoding: chunked\0"), END_AND_HIDDEN),
    "empty, with a length": post((ALL, b"Transfer-Encoding:"), END_AND_HIDDEN),
    "twice": post((TE, TE), CHUNK + LAST),
    "gzip, and chunked in a line of its own": post((b"Transfer-Encoding: gzip", TE), END_AND_HIDDEN),
    "chunked, and gzip in a line of its own": post((TE, b"Transfer-Encoding: gzip"), END_AND_HIDDEN),
    "behind a length that covers more": post((ALL, TE), END_AND_HIDDEN),
    "before a length that covers more": post((TE, ALL), END_AND_HIDDEN),
    "behind a length that covers less": post((length(b"%d" % SIZE_LINE), TE), IN_A_CHUNK),
    "before a length that covers less": post((TE, length(b"%d" % SIZE_LINE)), IN_A_CHUNK),
    "space before the colon, with a length": post((ALL, b"Transfer-Encoding : chunked"), END_AND_HIDDEN),
    "tab before the colon, with a length": post((ALL, b"Transfer-Encoding\t: chunked"), END_AND_HIDDEN),
    "space before the name, with a length": post((ALL, b" Transfer-Encoding: chunked"), END_AND_HIDDEN),
    "first header line folded, with a length": post(
        (b"Host: site.test", ALL), END_AND_HIDDEN, host=b" Transfer-Encoding: chunked\r\n"),
    "name with an underscore, with a length": post((ALL, b"Transfer_Encoding: chunked"), END_AND_HIDDEN),
    "value on a folded line, with a length": post((ALL, b"Transfer-Encoding:", b" chunked"), END_AND_HIDDEN),
    "made by a folded line, with a length": post((ALL, b"Transfer: chunked", b" -Encoding"), END_AND_HIDDEN),
    "in a value behind a CR, with a length": post((ALL, b"X-A: b\rTransfer-Encoding: chunked"), END_AND_HIDDEN),
    "in a value behind an LF, with a length": post((ALL, b"X-A: b\nTransfer-Encoding: chunked"), END_AND_HIDDEN),
    "in HTTP/1.0": post(TE, CHUNK + LAST, version=b"HTTP/1.0"),
    "in HTTP/1.0, with a length": post((ALL, TE), END_AND_HIDDEN, version=b"HTTP/1.0"),
    "in HTTP/1.0 kept alive, with a length": post((ALL, TE, b"Connection: keep-alive"), END_AND_HIDDEN,
                                                  version=b"HTTP/1.0"),
    "with GET": post(TE, CHUNK + LAST, method=b"GET"),
}

CHUNKS = {
    "extension": chunked(b"4;a=b\r\nabcd\r\n" + LAST),
    "quoted extension": chunked(b'4;a="b;c"\r\nabcd\r\n' + LAST),
    "extension on the last chunk": chunked(CHUNK + b"0;a\r\n\r\n"),
    "LF within an extension": chunked(b"4;a\nabcd\r\n" + LAST + HIDDEN),
    "CR within an extension": chunked(b"4;a\rb\r\nabcd\r\n" + LAST),
    "extension of 5000 bytes": chunked(b"4;" + b"a" * 5000 + b"\r\nabcd\r\n" + LAST),
    "upper-case size": chunked(b"A\r\nabcdefghij\r\n" + LAST),
    "lower-case size": chunked(b"a\r\nabcdefghij\r\n" + LAST),
    "leading zeros": chunked(b"0004\r\nabcd\r\n" + LAST),
    "forty leading zeros": chunked(b"0" * 40 + b"4\r\nabcd\r\n" + LAST),
    "several zeros as the last": chunked(CHUNK + b"000\r\n\r\n"),
    "2^63": chunked(b"8000000000000000\r\nabcd\r\n" + LAST),
    "2^64 - 1": chunked(b"ffffffffffffffff\r\nabcd\r\n" + LAST),
    "2^64 + 4": chunked(b"10000000000000004\r\nabcd\r\n" + LAST + HIDDEN),
    "negative": chunked(b"-4\r\nabcd\r\n" + LAST),
    "plus sign": chunked(b"+4\r\nabcd\r\n" + LAST),
    "0x": chunked(b"0x4\r\nabcd\r\n" + LAST),
    "0x, hiding the end": chunked(b"0x%x\r\n%s\r\n" % (len(HIDDEN), HIDDEN) + LAST),
    "space before the size": chunked(b" 4\r\nabcd\r\n" + LAST),
    "space behind the size": chunked(b"4 \r\nabcd\r\n" + LAST),
    "tab behind the size": chunked(b"4\t\r\nabcd\r\n" + LAST),
    "letters behind the size": chunked(b"4xyz\r\nabcd\r\n" + LAST),
    "empty size": chunked(b"\r\nabcd\r\n" + LAST),
    "no line end behind the data": chunked(b"4\r\nabcd" + LAST),
    "LF behind the size": chunked(b"4\nabcd\r\n" + LAST),
    "LF behind the data": chunked(b"4\r\nabcd\n" + LAST),
    "LF everywhere": chunked(b"4\nabcd\n0\n\n"),
    "CR behind the size": chunked(b"4\rabcd\r\n" + LAST),
    "data longer than the size": chunked(b"4\r\nabcdef\r\n" + LAST),
    "trailer": chunked(CHUNK + b"0\r\nX-A: b\r\n\r\n"),
    "trailer Content-Length": chunked(CHUNK + b"0\r\nContent-Length: %d\r\n\r\n" % len(HIDDEN) + HIDDEN),
    "trailer Transfer-Encoding": chunked(CHUNK + b"0\r\nTransfer-Encoding: chunked\r\n\r\n" + HIDDEN),
    "trailer without a colon": chunked(CHUNK + b"0\r\nGET /hidden HTTP/1.1\r\n\r\n"),
    "no line end behind the last": chunked(CHUNK + b"0\r\n"),
}

HOSTS = {
    "none": get(host=b""),
    "none, HTTP/1.0": get(host=b"", version=b"HTTP/1.0"),
    "empty": get(host=b"Host:\r\n"),
    "twice the same": get(host=HOST + HOST),
    "two different": get(host=HOST + b"Host: other.test\r\n"),
    "a list": get(host=b"Host: site.test, other.test\r\n"),
    "with a port": get(host=b"Host: site.test:8080\r\n"),
    "with a bad port": get(host=b"Host: site.test:x\r\n"),
    "with a path": get(host=b"Host: site.test/x\r\n"),
    "with a user": get(host=b"Host: other.test@site.test\r\n"),
    "space before the colon": get(host=b"Host : site.test\r\n"),
    "folded": get(host=b"Host:\r\n site.test\r\n"),
}

TARGETS = {
    "absolute form": get(target=b"http://site.test/first"),
    "absolute form, other host": get(target=b"http://other.test/first"),
    "absolute form, no Host": get(target=b"http://site.test/first", host=b""),
    "absolute form, no path": get(target=b"http://site.test"),
    "absolute form, https": get(target=b"https://site.test/first"),
    "authority form": get(target=b"site.test:80"),
    "CONNECT": get(target=b"site.test:80", method=b"CONNECT", host=b"Host: site.test:80\r\n"),
    "asterisk": get(target=b"*"),
    "OPTIONS and asterisk": get(target=b"*", method=b"OPTIONS"),
    "two slashes": get(target=b"//other.test/first"),
    "at sign": get(target=b"@other.test/first"),
    "digits": get(target=b"81/first"),
    "no slash": get(target=b"first"),
    "query alone": get(target=b"?a=b"),
    "dots": get(target=b"/a/../first"),
    "dots above the root": get(target=b"/../first"),
    "encoded slash and dots": get(target=b"/a%2f..%2ffirst"),
    "backslash": get(target=b"/a\\..\\first"),
    "fragment": get(target=b"/first#part"),
    "space": get(target=b"/fir st"),
    "space and a version": get(target=b"/first HTTP/1.1"),
    "tab": get(target=b"/fir\tst"),
    "control character": get(target=b"/fir\x01st"),
    "NUL": get(target=b"/fir\0st"),
    "encoded NUL": get(target=b"/fir%00st"),
    "encoded line end": get(target=b"/fir%0d%0ast"),
    "CR": get(target=b"/fir\rst"),
    "UTF-8": get(target=b"/\xc3\xa9"),
    "not UTF-8": get(target=b"/\xff"),
    "bad escape": get(target=b"/%zz"),
    "4096 bytes": get(target=b"/" + b"a" * 4095),
    "4097 bytes": get(target=b"/" + b"a" * 4096),
    "20000 bytes": get(target=b"/" + b"a" * 19999),
    "300000 bytes": get(target=b"/" + b"a" * 299999),
}

REQUEST_LINES = {
    "HTTP/0.9, no version": b"GET /first\r\n\r\n",
    "HTTP/0.9": get(version=b"HTTP/0.9"),
    "HTTP/1.0": get(version=b"HTTP/1.0"),
    "HTTP/1.0, kept alive": get(b"Connection: keep-alive", version=b"HTTP/1.0"),
    "HTTP/1.2": get(version=b"HTTP/1.2"),
    "HTTP/1.10": get(version=b"HTTP/1.10"),
    "HTTP/2.0": get(version=b"HTTP/2.0"),
    "HTTP/2 preface": b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n",
    "HTTP/1": get(version=b"HTTP/1"),
    "lower-case http/1.1": get(version=b"http/1.1"),
    "another protocol": get(version=b"ICY/1.1"),
    "space behind the version": get(version=b"HTTP/1.1 "),
    "letters behind the version": get(version=b"HTTP/1.1x"),
    "lower-case method": get(method=b"get"),
    "unknown method": get(method=b"BREW"),
    "delimiter in the method": get(method=b"GE(T"),
    "control character in the method": get(method=b"G\x01T"),
    "LF as line end": b"GET /first HTTP/1.1\nHost: site.test\n\n",
    "CR as line end": b"GET /first HTTP/1.1\rHost: site.test\r\r",
    "CR CR LF as line end": b"GET /first HTTP/1.1\r\r\nHost: site.test\r\n\r\n",
    "a leading empty line": b"\r\n" + get(),
    "ten leading empty lines": b"\r\n" * 10 + get(),
    "a leading LF": b"\n" + get(),
    "a leading space": b" " + get(),
    "two spaces before the target": b"GET  /first HTTP/1.1\r\n" + HOST + b"\r\n",
    "two spaces behind the target": b"GET /first  HTTP/1.1\r\n" + HOST + b"\r\n",
    "tabs instead of spaces": b"GET\t/first\tHTTP/1.1\r\n" + HOST + b"\r\n",
    "no target": b"GET HTTP/1.1\r\n" + HOST + b"\r\n",
    "a method alone": b"GET\r\n" + HOST + b"\r\n",
}

HEADERS = {
    "space before the colon": get(b"X-A : b"),
    "space within the name": get(b"X A: b"),
    "empty name": post(b": b", HIDDEN, method=b"GET"),
    "empty name, with a length": post((length(b"%d" % (2 + len(HIDDEN))), b": b"), b"\r\n" + HIDDEN),
    "line of a colon, with a length": post((length(b"%d" % (2 + len(HIDDEN))), b":"), b"\r\n" + HIDDEN),
    "line that begins with NUL, with a length": post(
        (length(b"%d" % (2 + len(HIDDEN))), b"\0X: b"), b"\r\n" + HIDDEN),
    "NUL in the name": get(b"X\0A: b"),
    "NUL in the value": get(b"X-A: b\0c"),
    "control character in the name": get(b"X\x01A: b"),
    "control character in the value": get(b"X-A: b\x01c"),
    "delimiters in the name": get(b"X(A): b"),
    "name that is not ASCII": get(b"X\xc3\xa9: b"),
    "name that is not UTF-8": get(b"X\xff: b"),
    "value that is not UTF-8": get(b"X-A: \xff"),
    "underscore": get(b"X_A: b"),
    "no colon": get(b"X-A b"),
    "folded": get((b"X-A: b", b" c")),
    "CR in the value": get(b"X-A: b\rc"),
    "LF as line end": get(b"X-A: b\nX-C: d"),
    "CR CR LF as line end": get(b"X-A: b\r"),
    "LF behind the head": b"GET /first HTTP/1.1\r\n" + HOST + b"X-A: b\r\n\n",
    "8090 bytes": get(b"X-A: " + b"b" * 8087),
    "8100 bytes": get(b"X-A: " + b"b" * 8097),
    "20000 bytes": get(b"X-A: " + b"b" * 20000),
    "90 lines": get(tuple(b"X-%d: b" % number for number in range(90))),
    "1000 lines": get(tuple(b"X-%d: b" % number for number in range(1000))),
    "X-Forwarded-For": get(b"X-Forwarded-For: 192.0.2.7"),
    "X-Forwarded-For with underscores": get(b"X_Forwarded_For: 192.0.2.7"),
    "X-Forwarded-For, space before the colon": get(b"X-Forwarded-For : 192.0.2.7"),
    "X-Forwarded-For made by a folded line": get((b"X-Forwarded: 192.0.2.7", b" -For")),
    "X-Forwarded-For in a value behind a CR": get(b"X-A: b\rX-Forwarded-For: 192.0.2.7"),
    "X-Forwarded-For behind a NUL": get(b"X-A: b\0\r\nX-Forwarded-For: 192.0.2.7"),
}

# The outcome of a request after this one depends on timing: see Early in test_framing.py.
EXPECT_ALONE = "100-continue, no body, nothing behind it"
ALONE = (EXPECT_ALONE,)

EXPECT = {
    "100-continue": post((length(b"4"), b"Expect: 100-continue"), b"abcd"),
    "100-continue, chunked": post((TE, b"Expect: 100-continue"), CHUNK + LAST),
    EXPECT_ALONE: get(b"Expect: 100-continue"),
    "100-continue in HTTP/1.0": post((length(b"4"), b"Expect: 100-continue"), b"abcd",
                                     version=b"HTTP/1.0"),
    "100-Continue": post((length(b"4"), b"Expect: 100-Continue"), b"abcd"),
    "100-continue twice": post((length(b"4"), b"Expect: 100-continue", b"Expect: 100-continue"), b"abcd"),
    "space before 100-continue, folded": post((length(b"4"), b"Expect:", b" 100-continue"), b"abcd"),
    "something else": post((length(b"4"), b"Expect: 200-ok"), b"abcd"),
    "hidden in its body": post((length(b"%d" % len(HIDDEN)), b"Expect: 100-continue"), HIDDEN),
}

KEY = (b"Sec-WebSocket-Version: 13", b"Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==")
ASK = (b"Upgrade: WebSocket", b"Connection: Upgrade")
BODY_OF_HIDDEN = length(b"%d" % len(HIDDEN))

CONNECTION = {
    "close": get(b"Connection: close"),
    "close, hidden request behind it": post(b"Connection: close", HIDDEN, method=b"GET"),
    "Close": get(b"Connection: Close"),
    "close and keep-alive": get(b"Connection: close, keep-alive"),
    "close in a second line": get((b"Connection: keep-alive", b"Connection: close")),
    "names Content-Length": post((b"Connection: Content-Length", BODY_OF_HIDDEN), HIDDEN),
    "names Transfer-Encoding": post((b"Connection: close, Transfer-Encoding", TE), CHUNK + LAST),
    "names Host": get(b"Connection: Host"),
    "names X-Forwarded-For": get((b"Connection: X-Forwarded-For", b"X-Forwarded-For: 192.0.2.7")),
    "Proxy-Connection": get(b"Proxy-Connection: close"),
    "Keep-Alive": get((b"Connection: keep-alive", b"Keep-Alive: timeout=1, max=1")),
    "TE: trailers": get((b"Connection: TE", b"TE: trailers, chunked")),
    "Upgrade: h2c": get((b"Connection: Upgrade, HTTP2-Settings", b"Upgrade: h2c",
                         b"HTTP2-Settings: AAMAAABkAAQCAAAAAAIAAAAA")),
    "Upgrade: h2c with a hidden request": post(
        (b"Connection: Upgrade, HTTP2-Settings", b"Upgrade: h2c",
         b"HTTP2-Settings: AAMAAABkAAQCAAAAAAIAAAAA", BODY_OF_HIDDEN), HIDDEN),
    "Upgrade: WebSocket": get(ASK + KEY),
    "Upgrade: WebSocket, hidden request behind it": post(ASK + KEY, HIDDEN, method=b"GET"),
    "Upgrade: WebSocket, hidden request as its body": post(ASK + KEY + (BODY_OF_HIDDEN,), HIDDEN,
                                                           method=b"GET"),
    "Upgrade: WebSocket, chunked body": post(ASK + KEY + (TE,), IN_A_CHUNK, method=b"GET"),
    "Upgrade: WebSocket, POST": post(ASK + KEY + (BODY_OF_HIDDEN,), HIDDEN),
    "Upgrade: WebSocket, wrong version": post(
        ASK + (b"Sec-WebSocket-Version: 8", KEY[1]), HIDDEN, method=b"GET"),
    "Upgrade: WebSocket, no key": post(ASK + KEY[:1], HIDDEN, method=b"GET"),
    "Upgrade: WebSocket, HTTP/1.0": post(ASK + KEY, HIDDEN, method=b"GET", version=b"HTTP/1.0"),
    "Upgrade: websocket": post((b"Upgrade: websocket", ASK[1]) + KEY, HIDDEN, method=b"GET"),
    "Upgrade: websocket, Connection: close": post(
        (b"Upgrade: websocket", b"Connection: close, Upgrade") + KEY, HIDDEN, method=b"GET"),
    "Upgrade: h2c, WebSocket": post((b"Upgrade: h2c, WebSocket", ASK[1]) + KEY, HIDDEN, method=b"GET"),
    "Upgrade twice": post((b"Upgrade: h2c", b"Upgrade: WebSocket", ASK[1]) + KEY, HIDDEN, method=b"GET"),
    "Upgrade without Connection": get(ASK[:1] + KEY),
}

PIPELINES = {
    "GET and GET": get() + HIDDEN,
    "GET with a body": post(BODY_OF_HIDDEN, HIDDEN, method=b"GET"),
    "HEAD with a body": post(BODY_OF_HIDDEN, HIDDEN, method=b"HEAD"),
    "DELETE with a body": post(BODY_OF_HIDDEN, HIDDEN, method=b"DELETE"),
    "TRACE with a body": post(BODY_OF_HIDDEN, HIDDEN, method=b"TRACE"),
    "OPTIONS with a body": post(BODY_OF_HIDDEN, HIDDEN, method=b"OPTIONS"),
    "POST with a request as its body": post(BODY_OF_HIDDEN, HIDDEN),
    "POST without a length": post((), HIDDEN),
    "POST with length 0": post(length(b"0"), HIDDEN),
    "POST in HTTP/1.0 without a length": post((), HIDDEN, version=b"HTTP/1.0"),
    "a body one byte longer than declared": with_length(b"3"),
    "a line end behind the body": with_length(b"4", b"abcd\r\n"),
    "a chunked body and a request": chunked(CHUNK + LAST) + HIDDEN,
}

RESPONSES = {
    "HEAD, length not declared": get(target=b"/undeclared", method=b"HEAD"),
    "HEAD, length not declared, HTTP/1.0": get(b"Connection: keep-alive", target=b"/undeclared",
                                               method=b"HEAD", version=b"HTTP/1.0"),
    "HEAD with a condition, length not declared": get(b'If-None-Match: "a"', target=b"/undeclared",
                                                      method=b"HEAD"),
    "304 to If-None-Match, length not declared": get(b'If-None-Match: "a"', target=b"/not-modified"),
    "304 to If-Modified-Since, length not declared": get(
        b"If-Modified-Since: Sat, 01 Jan 2000 00:00:00 GMT", target=b"/not-modified"),
    "GET with a condition": get(b'If-None-Match: "a"'),
    "GET, length not declared": get(target=b"/undeclared"),
}

GROUPS = {
    "Content-Length": CONTENT_LENGTH,
    "Transfer-Encoding": TRANSFER_ENCODING,
    "Chunks": CHUNKS,
    "Host": HOSTS,
    "Target": TARGETS,
    "Request line": REQUEST_LINES,
    "Header lines": HEADERS,
    "Expect": EXPECT,
    "Connection and Upgrade": CONNECTION,
    "Bodies and pipelines": PIPELINES,
    "Responses": RESPONSES,
}

REQUESTS = [Request(group, name, data)
            for group, members in GROUPS.items() for name, data in members.items()]
