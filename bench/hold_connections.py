#!/usr/bin/env python3
"""Opens COUNT connections to 127.0.0.1:PORT, sends nothing on them, and holds them until the file STOP appears or
SECONDS pass. Prints "open N" once all are connected, then on stop how many the server still kept open, closed, or
answered (a refusal such as 503 arrives as bytes on an idle socket)."""
import os
import resource
import socket
import sys
import time


def main():
    port, count, seconds, stop = int(sys.argv[1]), int(sys.argv[2]), float(sys.argv[3]), sys.argv[4]
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    wanted = count + 64
    if soft < wanted:
        resource.setrlimit(resource.RLIMIT_NOFILE, (wanted if hard == resource.RLIM_INFINITY else min(wanted, hard), hard))
    sockets = []
    for _ in range(count):
        try:
            sockets.append(socket.create_connection(("127.0.0.1", port), timeout=5))
        except OSError as error:
            print(f"connect failed after {len(sockets)}: {error}", flush=True)
            break
    print(f"open {len(sockets)}", flush=True)
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline and not os.path.exists(stop):
        time.sleep(0.05)
    still_open = closed = answered = 0
    for connection in sockets:
        connection.setblocking(False)
        try:
            data = connection.recv(1, socket.MSG_PEEK)
            if data:
                answered += 1
            else:
                closed += 1
        except BlockingIOError:
            still_open += 1
        except OSError:
            closed += 1
    print(f"still-open {still_open} closed {closed} answered {answered}", flush=True)
    for connection in sockets:
        connection.close()


if __name__ == "__main__":
    main()
