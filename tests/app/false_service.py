"""What a stranger might put in the service's place.

  false_service.py serve SOCKET FOLDER   answers everybody that FOLDER is watched already
  false_service.py hold LOCKFILE [PID]   holds the lock file, whose text names another process
"""
import fcntl
import os
import signal
import socket
import struct
import sys

OFD_SETLK = 37  # fcntl(2)


def text(value):
    data = value.encode()
    return struct.pack("<BI", 7, len(data)) + data


def entries(**values):
    body = b"".join(struct.pack("<I", len(key)) + key.encode() + value for key, value in values.items())
    return struct.pack("<BI", 12, len(values)) + body


def array(value):
    return struct.pack("<BI", 11, 1) + value


def serve(path, folder):
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    listener.bind(path)
    os.chmod(path, 0o666)
    listener.listen(16)
    print("ready", flush=True)
    process = entries(pid=struct.pack("<Bq", 2, os.getpid()), identifier=text("it"))
    watch = entries(number=struct.pack("<Bq", 2, 1), folder=text(folder), state=text("standing"))
    status = entries(process=array(process), watches=array(watch))
    while True:
        client, _ = listener.accept()
        if client.recv(4096):
            print("asked", flush=True)
            client.sendmsg([struct.pack("<IBBH", len(status), 3, 1, 0) + status])
        client.close()


def hold(path, process=None):
    descriptor = os.open(path, os.O_RDWR | os.O_CREAT, 0o600)
    fcntl.fcntl(descriptor, OFD_SETLK, struct.pack("hhqqi4x", fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0))
    if process:
        with open(f"/proc/{process}/stat") as about:
            started = about.read().rpartition(")")[2].split()[19]
        os.pwrite(descriptor, f"{process} {started}\n".encode(), 0)
    print("ready", flush=True)
    signal.pause()


{"serve": serve, "hold": hold}[sys.argv[1]](*sys.argv[2:])
