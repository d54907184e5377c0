"""Name servers that never answer."""

import pathlib
import socket

ADDRESSES = ("127.0.0.2", "127.0.0.3", "127.0.0.4")
SERVERS = "".join(f"nameserver {address}\n" for address in ADDRESSES)


class SilentNameServers:
    """Three of them. The system's resolver asks them in turn, twice, and then again for the name in
    the search domain: for almost a minute. Processes that start afterwards use them.
    """

    def __init__(self):
        self.queries = []
        self.servers = [socket.socket(type=socket.SOCK_DGRAM) for _ in ADDRESSES]
        for server, address in zip(self.servers, ADDRESSES):
            server.bind((address, 53))
            server.setblocking(False)
        pathlib.Path("/etc/nsswitch.conf").write_text("hosts: dns\n")
        pathlib.Path("/etc/resolv.conf").write_text("search elsewhere.example\n" + SERVERS)

    def queries_in_search_domain(self):
        """How many have come so far."""
        for server in self.servers:
            try:
                while True:
                    self.queries.append(server.recv(512))
            except BlockingIOError:
                continue
        return sum(b"elsewhere" in query for query in self.queries)
