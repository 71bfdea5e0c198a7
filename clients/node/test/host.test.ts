// The client against the built apns-host: every method, every event, a push in each application
// state, a refusal. Each test starts its own host, so that none depends on another's state.
import assert from "node:assert/strict";
import { test } from "node:test";

import {
  ApnsServiceError,
  ProviderEnvironment,
  UNAuthorizationOption,
  UNAuthorizationStatus,
  userInfo,
  type ApnsHost,
  type ApnsNotification,
  type ApnsServiceEventName,
} from "../src/index.js";
import { startHost } from "./support.js";

const eventNames: ApnsServiceEventName[] = [
  "APNSService.OnTokenRefreshed",
  "APNSService.OnNotificationPresented",
  "APNSService.OnNotificationOpened",
];

/** Every event the host emits from now on, as [name, payload], in order. */
function recordEvents(host: ApnsHost): Array<[string, unknown]> {
  const seen: Array<[string, unknown]> = [];
  for (const name of eventNames) host.on(name, (payload) => seen.push([name, payload]));
  return seen;
}

const shipped = { aps: { alert: { title: "Order", body: "A-1042 has shipped" }, badge: 3 }, order: "A-1042" };

test("every method resolves with its response record or rejects with the reply's error", async () => {
  const host = await startHost({ status: "notDetermined" });
  const events = recordEvents(host);
  const service = host.apnsService;
  // Launched without a notification: every field empty (the plug-in decodes the note built on it).
  const { notification: empty } = await service.getColdStartNotification();
  assert.deepEqual(Object.values(empty).filter(Boolean), []);
  const note: ApnsNotification = { ...empty, body: "Hi", userInfoJson: '{"aps":{"alert":"Hi"}}' };

  const steps: Array<[string, () => Promise<unknown>, unknown]> = [
    ["environment", () => service.getProviderEnvironment(), { environment: ProviderEnvironment.apnsSandbox }],
    ["settings before", () => service.getNotificationSettings(), { authorizationStatus: UNAuthorizationStatus.notDetermined }],
    [
      "authorization",
      () => service.requestAuthorization({ options: [UNAuthorizationOption.alert, UNAuthorizationOption.badge] }),
      { granted: true },
    ],
    ["settings after", () => service.getNotificationSettings(), { authorizationStatus: UNAuthorizationStatus.authorized }],
    ["badge", () => service.setBadgeCount({ count: 7 }), {}],
    ["registered", () => service.notifyDidRegisterForRemoteNotifications({ deviceToken: "AQL/" }), {}],
    ["failed", () => service.notifyDidFailToRegister({ errorDescription: "no network" }), {}],
    ["will present", () => service.notifyWillPresentNotification({ notification: note }), { presentationOptions: [] }],
    ["opened", () => service.notifyDidReceiveResponse({ notification: note, actionIdentifier: "reply" }), {}],
    ["cold start", () => service.notifyColdStartNotification({ userInfoJson: JSON.stringify(shipped) }), {}],
  ];
  for (const [name, step, expected] of steps) assert.deepEqual(await step(), expected, name);

  const { notification } = await service.getColdStartNotification();
  assert.deepEqual([notification.title, notification.body, notification.badge], ["Order", "A-1042 has shipped", 3]);
  assert.equal(userInfo(notification)?.["order"], "A-1042");
  const drained = await service.getColdStartNotification({});
  assert.deepEqual(drained.notification, empty);
  assert.equal(userInfo(drained.notification), undefined);

  // Every field of an error reply is read in the failure tests; here the real host's, by method.
  await assert.rejects(service.getToken(), { name: "ApnsServiceError", method: "GetToken", externalCode: "SIMULATOR_NO_APNS" });
  // A request the plug-in cannot decode is its error too, not the host's.
  await assert.rejects(service.setBadgeCount({} as never), { name: "ApnsServiceError", code: "INTERNAL" });

  assert.deepEqual(events, [
    ["APNSService.OnTokenRefreshed", { newToken: "0102ff" }],
    ["APNSService.OnNotificationPresented", note],
    ["APNSService.OnNotificationOpened", { actionIdentifier: "reply", notification: note }],
  ]);
  const platform = await host.inspect("platform");
  assert.deepEqual([platform.authorizationOptions, platform.badgeCount], [5, 7]);
  assert.equal(await host.close(), 0);
});

test("a push in each application state reaches the far side as the phone delivers it", async (t) => {
  const cases = [
    { app: "foreground", tap: undefined, callbacks: ["willPresent"], events: ["APNSService.OnNotificationPresented"], listed: false },
    { app: "background", tap: undefined, callbacks: [], events: [], listed: true },
    { app: "notRunning", tap: true, callbacks: ["didFinishLaunching", "didReceiveResponse"], events: ["APNSService.OnNotificationOpened"], listed: false },
  ] as const;
  for (const expected of cases) {
    await t.test(expected.app, async () => {
      const host = await startHost();
      const events = recordEvents(host);
      const system = await host.push(shipped, { app: expected.app, ...(expected.tap ? { tap: expected.tap } : {}) });
      // Everything the push caused has been seen by the time it resolves.
      assert.deepEqual(events.map(([name]) => name), expected.events);
      assert.deepEqual([system.app, system.callbacks, system.listed], [expected.app, expected.callbacks, expected.listed]);
      const listed = await host.inspect("notificationCenter");
      assert.deepEqual(listed.map((shown) => shown.apnsId), expected.listed ? [system.apnsId] : []);
      if (expected.app === "notRunning") {
        const [, opened] = events[0] as [string, { actionIdentifier: string; notification: ApnsNotification }];
        assert.equal(opened.actionIdentifier, "com.apple.UNNotificationDefaultActionIdentifier");
        const { notification } = await host.apnsService.getColdStartNotification();
        assert.deepEqual(userInfo(notification), shipped);
      }
      assert.equal(await host.close(), 0);
    });
  }
});

test("a listed notification is tapped by its id; once, on and off follow the events", async () => {
  const host = await startHost({ present: ["list"] });
  const presented: string[] = [];
  const listener = (notification: ApnsNotification) => presented.push(notification.body);
  host.on("APNSService.OnNotificationPresented", listener);
  const first = await host.push({ aps: { alert: "first" } }, { apnsId: "3C2B1E6A-0E2F-4F43-9C61-4D2E4B8E6B01" });
  host.off("APNSService.OnNotificationPresented", listener);
  const second = host.once("APNSService.OnNotificationPresented", (n) => n.body === "second");
  await host.push({ aps: { alert: "second" } }, { collapseId: "c" });
  assert.equal((await second).body, "second");
  assert.deepEqual(presented, ["first"]);

  const opened = host.once("APNSService.OnNotificationOpened");
  const tapped = await host.tap(first.apnsId, "archive");
  assert.deepEqual([tapped.apnsId, tapped.tap, tapped.callbacks], [first.apnsId, "archive", ["didReceiveResponse"]]);
  assert.equal(userInfo((await opened).notification)?.["aps"] !== undefined, true);
  assert.deepEqual(
    (await host.inspect("notificationCenter")).map((shown) => shown.payload),
    [{ aps: { alert: "second" } }],
  );
  assert.equal(await host.close(), 0);
});

test("the phone's settings and launch change what the plug-in answers", async () => {
  const host = await startHost({ status: "notDetermined" });
  await host.platform({ authorization: { granted: false } });
  assert.deepEqual(await host.apnsService.requestAuthorization({ options: [UNAuthorizationOption.sound] }), { granted: false });
  await host.platform({ authorizationStatus: "provisional", badgeError: { domain: "UNErrorDomain", code: 1 } });
  assert.deepEqual(await host.apnsService.getNotificationSettings(), { authorizationStatus: UNAuthorizationStatus.provisional });
  await assert.rejects(host.apnsService.setBadgeCount({ count: 1 }), ApnsServiceError);
  await host.launch({ aps: { alert: "launched" }, deepLink: "/orders" });
  const { notification } = await host.apnsService.getColdStartNotification();
  assert.deepEqual([notification.body, userInfo(notification)?.["deepLink"]], ["launched", "/orders"]);
  assert.equal(await host.close(), 0);
});

test("a refused command rejects with the host's reason and line, and the session goes on", async () => {
  const host = await startHost();
  const foreign = { aps: { alert: "x" }, "Simulator Target Bundle": "com.example.other" };
  await assert.rejects(host.push(foreign), { name: "ApnsHostError", kind: "refused", line: 2, message: /refused push: .*com\.example\.other/ });
  await assert.rejects(host.tap("00000000-0000-0000-0000-000000000000"), { kind: "refused" });
  assert.deepEqual(await host.apnsService.getProviderEnvironment(), { environment: ProviderEnvironment.apnsSandbox });
  assert.equal(await host.close(), 1);
});
