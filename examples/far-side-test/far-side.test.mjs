// What an application's push handling sees on a phone, tested without one.
import assert from "node:assert/strict";
import { test } from "node:test";
import { fileURLToPath } from "node:url";
import { ApnsHost, UNAuthorizationOption as Option, UNAuthorizationStatus, userInfo } from "@nimborra/apns-host";

test("the far side asks, counts, is shown a push and is launched by a tap", async () => {
  const host = await ApnsHost.start({ bundle: fileURLToPath(new URL("../bundle", import.meta.url)) });
  const apns = host.apnsService;
  assert.deepEqual(await apns.requestAuthorization({ options: [Option.alert, Option.badge] }), { granted: true });
  assert.equal((await apns.getNotificationSettings()).authorizationStatus, UNAuthorizationStatus.authorized);
  await apns.setBadgeCount({ count: 3 });
  assert.equal((await host.inspect("platform")).badgeCount, 3);

  const presented = host.once("APNSService.OnNotificationPresented");
  await host.push({ aps: { alert: "Your order has shipped" } }, { app: "foreground" });
  assert.equal((await presented).body, "Your order has shipped");

  const opened = host.once("APNSService.OnNotificationOpened");
  await host.push({ aps: { alert: "New message" }, chat: "42" }, { app: "notRunning", tap: true });
  assert.equal(userInfo((await opened).notification).chat, "42");
  const { notification } = await apns.getColdStartNotification();
  assert.equal(userInfo(notification).chat, "42");
  assert.equal(await host.close(), 0);
});
