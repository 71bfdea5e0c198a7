// How the client fails: a host that cannot start, ends early or answers oddly rejects what is
// waiting with an error that says why, and nothing waits forever.
import assert from "node:assert/strict";
import { test } from "node:test";

import { ApnsHost, ApnsHostError, ApnsServiceError, userInfo } from "../src/index.js";
import { fakeHost } from "./support.js";

test("a host that cannot start rejects start with the reason", async (t) => {
  const cases = [
    { name: "missing program", options: { executable: "/nonexistent/apns-host" }, kind: "start", why: /ENOENT/ },
    { name: "exits at once", options: { executable: fakeHost, args: ["refuse"] }, kind: "exited", why: /status 2: apns-host: no such bundle/ },
  ] as const;
  for (const { name, options, kind, why } of cases) {
    await t.test(name, async () => {
      const error = await ApnsHost.start(options).then(
        () => assert.fail("started"),
        (e: unknown) => e,
      );
      assert.ok(error instanceof ApnsHostError);
      assert.equal(error.kind, kind);
      assert.match(error.message, why);
    });
  }
});

test("a host that dies rejects every pending promise, and later ones at once", async () => {
  const host = await ApnsHost.start({ executable: fakeHost, args: ["die"] });
  const event = host.once("APNSService.OnNotificationPresented");
  const calls = [host.apnsService.getToken(), host.apnsService.setBadgeCount({ count: 1 }), host.platform({ app: "background" })];
  for (const pending of [...calls, event]) {
    await assert.rejects(pending, (error: unknown) => {
      assert.ok(error instanceof ApnsHostError);
      assert.equal(error.kind, "exited");
      assert.equal(error.exitCode, 3);
      assert.match(error.message, /exited with status 3: fake-host: the plug-in crashed/);
      return true;
    });
  }
  await assert.rejects(host.inspect("platform"), /status 3/);
  await assert.rejects(host.once("APNSService.OnTokenRefreshed"), /status 3/);
  assert.equal(await host.close(), 3);
});

test("an outcome reply rejects with its code and data", async () => {
  const host = await ApnsHost.start({ executable: fakeHost, args: ["outcome"] });
  const error = await host.apnsService.getNotificationSettings().catch((e: unknown) => e);
  assert.ok(error instanceof ApnsServiceError);
  assert.deepEqual(
    { method: error.method, code: error.code, outcome: error.outcome, data: error.data },
    { method: "GetNotificationSettings", code: "LATER", outcome: true, data: { retry: 3 } },
  );
  assert.equal(await host.close(), 0);
});

test("a reply of no known kind rejects as a protocol fault", async () => {
  const host = await ApnsHost.start({ executable: fakeHost, args: ["garbage"] });
  await assert.rejects(host.apnsService.getToken(), (error: unknown) => {
    assert.ok(error instanceof ApnsHostError);
    assert.equal(error.kind, "protocol");
    assert.match(error.message, /GetToken with {"surprise":true}/);
    return true;
  });
  await host.close();
});

test("commands after close are refused without reaching the host", async () => {
  const host = await ApnsHost.start({ executable: fakeHost, args: ["outcome"] });
  const closed = host.close();
  await assert.rejects(host.inspect("platform"), /closing/);
  assert.equal(await closed, 0);
});

test("userInfo reads the notification's JSON text, and nothing from the empty text", () => {
  assert.equal(userInfo({ userInfoJson: "" }), undefined);
  assert.deepEqual(userInfo({ userInfoJson: '{"aps":{"badge":2},"order":"A-1"}' }), { aps: { badge: 2 }, order: "A-1" });
  assert.throws(() => userInfo({ userInfoJson: "{" }), SyntaxError);
});

