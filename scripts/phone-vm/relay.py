#!/usr/bin/env python3
"""One guest connection to the provisioning server: QEMU's user network starts this for each TCP
connection the guest opens to the forwarded address, with that connection on standard input and
output, and it relays the bytes both ways to 127.0.0.1:PORT. Only that one loopback port is ever
reached. A half close is passed on, so a response delimited by the end of the connection ends."""
import os
import select
import socket
import sys

port = int(sys.argv[1])
server = socket.create_connection(("127.0.0.1", port), timeout=10)
server.settimeout(None)
guest_in, guest_out = sys.stdin.fileno(), sys.stdout.fileno()
open_ends = {guest_in, server.fileno()}
while open_ends:
    ready, _, _ = select.select(list(open_ends), [], [], 120)
    if not ready:
        break
    for fd in ready:
        data = os.read(fd, 65536)
        if fd == guest_in:
            if data:
                server.sendall(data)
            else:
                open_ends.discard(guest_in)
                server.shutdown(socket.SHUT_WR)
        else:
            if data:
                while data:
                    data = data[os.write(guest_out, data):]
            else:
                open_ends.clear()
