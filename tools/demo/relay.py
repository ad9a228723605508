#!/usr/bin/env python3
"""Connects a port of one network namespace with the same port of another, over a file's socket.

relay.py outside SOCKET PORT              takes connections to SOCKET to 127.0.0.1:PORT
relay.py inside SOCKET PORT COMMAND...    becomes COMMAND, whose connections to PORT go to SOCKET
"""

import asyncio
import os
import socket
import sys

HOST = "127.0.0.1"


async def copy(reader, writer):
    try:
        while data := await reader.read(65536):
            writer.write(data)
            await writer.drain()
    except ConnectionError:
        pass
    writer.close()


def joined_to(connect):
    async def join(reader, writer):
        try:
            far_reader, far_writer = await connect()
        except OSError:
            writer.close()
            return
        await asyncio.gather(copy(reader, far_writer), copy(far_reader, writer))
    return join


async def outside(path, port):
    join = joined_to(lambda: asyncio.open_connection(HOST, port))
    server = await asyncio.start_unix_server(join, path)
    await server.serve_forever()


async def inside(path, listener, command_lives):
    """Until the other end of the pipe `command_lives` is closed."""
    join = joined_to(lambda: asyncio.open_unix_connection(path))
    ended = asyncio.Event()
    asyncio.get_running_loop().add_reader(command_lives, ended.set)
    async with await asyncio.start_server(join, sock=listener):
        await ended.wait()


def main():
    side, path, port, *command = sys.argv[1:]
    if side == "outside":
        asyncio.run(outside(path, int(port)))
        return
    listener = socket.create_server((HOST, int(port)))  # before the command may want it
    command_lives, held_by_command = os.pipe()
    if os.fork() == 0:
        os.close(held_by_command)
        # Whoever reads the command's output is to see its end.
        nowhere = os.open(os.devnull, os.O_RDWR)
        for descriptor in (0, 1, 2):
            os.dup2(nowhere, descriptor)
        asyncio.run(inside(path, listener, command_lives))
        os._exit(0)
    os.set_inheritable(held_by_command, True)
    os.execv(command[0], command)


if __name__ == "__main__":
    main()
