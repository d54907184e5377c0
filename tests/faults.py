"""Faults of the vendor's service: what it does in place of a good answer."""

import contextlib
import socket
import struct

import certificates
import service


def fault(function):
    """Makes cut(1000) return a function that plays the fault, given the handler and the answer."""

    def with_details(*details, **named):
        return lambda handler, content: function(handler, content, *details, **named)

    return with_details


def connection_lost():
    """The client may go away while this is sent."""
    return contextlib.suppress(OSError)


@fault
def once(handler, content, play=None, **faults):
    """This fault or a good answer, and these faults from then on."""
    handler.server.faults = faults
    play(handler, content) if play else handler.send(200, content)


@fault
def status(handler, content, number):
    """Another status, with the same content as its body."""
    handler.send(number, content)


@fault
def redirect(handler, content):
    handler.head(302, 0, Location=service.DOWNLOAD_PATH)


@fault
def headers(handler, content, *lines, part=1):
    """A part of a good answer, with these header lines, where {whole} and {part} are its bytes."""
    sent = content[: int(len(content) * part)]
    handler.send_response(200)
    for line in lines:
        handler.send_header(*line.format(whole=len(content), part=len(sent)).split(": "))
    handler.end_headers()
    handler.wfile.write(sent)
    handler.request.unwrap()


@fault
def chunks(handler, content, pack=bytes, last=b"0\r\n\r\n", **headers):
    """A good answer in one chunk, packed by this function, and the last chunk, which is empty."""
    packed = pack(content)
    handler.head(200, **{"Transfer_Encoding": "chunked"} | headers)
    handler.wfile.write(b"%x\r\n%s\r\n" % (len(packed), packed) + last)


@fault
def reset(handler, content):
    """A TCP reset after a part that reads as a newer version."""
    begin(handler, content, 6)
    handler.request.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    handler.request.close()


@fault
def meanwhile(handler, content, act, offset=0, length=True):
    """A good answer, with its length or without; after so many bytes, something else happens."""
    begin(handler, content, offset, length)
    act(handler)
    with connection_lost():
        handler.wfile.write(content[offset:])


def pause(seconds, offset=0, **options):
    """A good answer with a pause after so many bytes."""
    return meanwhile(lambda handler: wait(handler, seconds), offset, **options)


@fault
def trickle(handler, content, bytes_per_second):
    """A good answer that comes slowly."""
    begin(handler, content, 0)
    step = bytes_per_second // 2
    with connection_lost():
        for offset in range(0, len(content), step):
            handler.wfile.write(content[offset : offset + step])
            wait(handler, 0.5)


@fault
def endless(handler, content):
    """An answer without end."""
    handler.head(200)
    with connection_lost():
        while not wait(handler, 0.001):  # fast, yet not so fast that it fills the sandbox at once
            handler.wfile.write(b"9" * 16384)


@fault
def late_handshake(handler, _, seconds):
    """A connection that is accepted, and answered late."""
    wait(handler, seconds)


@fault
def certificate(handler, _, name):
    """A certificate that the launcher must not trust."""
    host = "other.example" if name == "wrong-host" else certificates.HOST
    signer = [] if name == "self-signed" else certificates.SIGNED
    earlier = ["faketime", "2020-01-01"] if name == "expired" else []
    certificates.make(name, host, *signer, command=[*earlier, "openssl"])
    handler.server.context = certificates.context(name)


def begin(handler, content, offset, length=True):
    """A good answer's head and its first bytes."""
    handler.head(200, len(content) if length else None)
    handler.wfile.write(content[:offset])


def wait(handler, seconds):
    return handler.server.ending.wait(seconds)
