"""Sends two notifications with the asyncio APNs client as a push server would: one to the
device, one to a malformed token. Prints each answer's status and reason, one per line.

    aioapns-send.py KEY_FILE KEY_ID TEAM_ID TOPIC DEVICE_TOKEN [PORT CA_FILE]

Without PORT and CA_FILE nothing is changed: the development environment's default host and
port (use_sandbox=True) and the system's trust store. With them, the only change is the address
it connects to, this machine's PORT, trusting CA_FILE.
"""
import asyncio
import ssl
import sys

from aioapns import APNs, NotificationRequest
from aioapns.connection import APNsDevelopmentClientProtocol


async def main(key_file, key_id, team_id, topic, device_token, port=None, ca_file=None):
    context = None
    if port is not None:
        APNsDevelopmentClientProtocol.APNS_SERVER = "localhost"
        APNsDevelopmentClientProtocol.APNS_PORT = int(port)
        context = ssl.create_default_context(cafile=ca_file)
    client = APNs(key=key_file, key_id=key_id, team_id=team_id, topic=topic,
                  use_sandbox=True, ssl_context=context)
    for token in (device_token, "not-a-token"):
        request = NotificationRequest(device_token=token,
                                      message={"aps": {"alert": "Hello from aioapns"}})
        response = await client.send_notification(request)
        print(response.status, response.description, flush=True)


asyncio.run(main(*sys.argv[1:8]))
