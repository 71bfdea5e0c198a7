"""Sends one notification to the device with the asyncio APNs client as a push server would,
nothing changed: the development environment's default host and port (use_sandbox=True), the
system's trust store, the device token the push server was given (APNS_HOST_DEVICE_TOKEN).
Prints the answer's status and reason.

    aioapns-default.py KEY_FILE KEY_ID TEAM_ID TOPIC
"""
import asyncio
import os
import sys

from aioapns import APNs, NotificationRequest


async def main(key_file, key_id, team_id, topic):
    client = APNs(key=key_file, key_id=key_id, team_id=team_id, topic=topic, use_sandbox=True)
    request = NotificationRequest(device_token=os.environ["APNS_HOST_DEVICE_TOKEN"],
                                  message={"aps": {"alert": "Hello from aioapns"}})
    response = await client.send_notification(request)
    print(response.status, response.description, flush=True)


asyncio.run(main(*sys.argv[1:5]))
