"""Sends two notifications with the asyncio APNs client, unchanged but for the address it
connects to: one to the device, one to a malformed token. Prints each answer's status and
reason, one per line.

    aioapns-send.py PORT CA_FILE KEY_FILE KEY_ID TEAM_ID TOPIC DEVICE_TOKEN
"""
import asyncio
import ssl
import sys

from aioapns import APNs, NotificationRequest
from aioapns.connection import APNsDevelopmentClientProtocol


async def main(port, ca_file, key_file, key_id, team_id, topic, device_token):
    # The only change: the development server's address is this machine's host.
    APNsDevelopmentClientProtocol.APNS_SERVER = "localhost"
    APNsDevelopmentClientProtocol.APNS_PORT = int(port)
    client = APNs(key=key_file, key_id=key_id, team_id=team_id, topic=topic,
                  use_sandbox=True, ssl_context=ssl.create_default_context(cafile=ca_file))
    for token in (device_token, "not-a-token"):
        request = NotificationRequest(device_token=token,
                                      message={"aps": {"alert": "Hello from aioapns"}})
        response = await client.send_notification(request)
        print(response.status, response.description, flush=True)


asyncio.run(main(*sys.argv[1:8]))
