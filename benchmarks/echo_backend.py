"""Says back what each client sends, for as long as the client stays: it stands behind relays whose sessions are idle.

A relay connects as fast as its clients do, so the queue of the listening socket is long. Prints "listening PORT".
"""
import asyncio


class Echo(asyncio.Protocol):
    def connection_made(self, transport):
        self.transport = transport

    def data_received(self, data):
        self.transport.write(data)


async def main():
    server = await asyncio.get_running_loop().create_server(Echo, "127.0.0.1", 0, backlog=4096)
    print("listening", server.sockets[0].getsockname()[1], flush=True)
    await server.serve_forever()


asyncio.run(main())
