"""Sends two notifications with the asyncio APNs client as a push server would: one to the
device, one to a malformed token. Prints each answer's status and reason, one per line.

    aioapns-send.py KEY_FILE KEY_ID TEAM_ID TOPIC DEVICE_TOKEN

Nothing is changed: the development environment's default host and port (use_sandbox=True) and
the system's trust store, which `apns-host -- COMMAND` points at itself.
"""
import asyncio
import sys

from aioapns import APNs, NotificationRequest


async def main(key_file, key_id, team_id, topic, device_token):
    client = APNs(key=key_file, key_id=key_id, team_id=team_id, topic=topic, use_sandbox=True)
    for token in (device_token, "not-a-token"):
        request = NotificationRequest(device_token=token,
                                      message={"aps": {"alert": "Hello from aioapns"}})
        response = await client.send_notification(request)
        print(response.status, response.description, flush=True)


asyncio.run(main(*sys.argv[1:6]))
