#!/usr/bin/env python3
"""An HTTP server for one image request that stalls halfway through the body.

usage: stallServer.py IMAGE CONTROL_DIR SPLIT

Writes its port to CONTROL_DIR/port, answers the first request with the image's first SPLIT bytes,
creates CONTROL_DIR/stalled, waits (at most 20 s) until CONTROL_DIR/go exists, then sends the rest.
"""
import os
import socket
import sys
import time


def main():
    image_path, control, split = sys.argv[1], sys.argv[2], int(sys.argv[3])
    with open(image_path, "rb") as f:
        image = f.read()
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    listener.bind(("127.0.0.1", 0))
    listener.listen(1)
    with open(os.path.join(control, "port.tmp"), "w") as f:
        f.write(str(listener.getsockname()[1]))
    os.rename(os.path.join(control, "port.tmp"), os.path.join(control, "port"))
    listener.settimeout(20)
    conn, _ = listener.accept()
    request = b""
    while b"\r\n\r\n" not in request:
        chunk = conn.recv(4096)
        if not chunk:
            return
        request += chunk
    head = "HTTP/1.1 200 OK\r\nContent-Length: %d\r\nConnection: close\r\n\r\n" % len(image)
    conn.sendall(head.encode() + image[:split])
    open(os.path.join(control, "stalled"), "w").close()
    deadline = time.monotonic() + 20
    while not os.path.exists(os.path.join(control, "go")) and time.monotonic() < deadline:
        time.sleep(0.01)
    conn.sendall(image[split:])
    conn.close()


if __name__ == "__main__":
    main()
