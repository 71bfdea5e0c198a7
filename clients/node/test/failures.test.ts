// How the client fails: a host that cannot start, ends early or answers oddly rejects what is
// waiting with an error that says why, and nothing waits forever.
import assert from "node:assert/strict";
import { test } from "node:test";

import { ApnsHost, ApnsServiceError, userInfo } from "../src/index.js";
import { fakeHost, startHost } from "./support.js";

test("a host that cannot start rejects start with the reason", async () => {
  await assert.rejects(startHost({ executable: "/nonexistent/apns-host" }), { name: "ApnsHostError", kind: "start", message: /ENOENT/ });
  const exited = /status 2: apns-host: the bundle \/nonexistent does not exist/;
  await assert.rejects(startHost({ bundle: "/nonexistent" }), { name: "ApnsHostError", kind: "exited", message: exited });
});

test("a host that dies rejects every pending promise, and later ones at once", async () => {
  const host = await ApnsHost.start({ executable: fakeHost, args: ["die"] });
  const event = host.once("APNSService.OnNotificationPresented");
  const calls = [host.apnsService.getToken(), host.apnsService.setBadgeCount({ count: 1 }), host.platform({ app: "background" })];
  for (const pending of [...calls, event]) {
    await assert.rejects(pending, { name: "ApnsHostError", kind: "exited", exitCode: 3, message: /exited with status 3: fake-host: the plug-in crashed/ });
  }
  await assert.rejects(host.inspect("platform"), /status 3/);
  await assert.rejects(host.once("APNSService.OnTokenRefreshed"), /status 3/);
  assert.equal(await host.close(), 3);
});

test("a host killed by a signal rejects what waits with the signal, and close gives 128 + N", async () => {
  const host = await startHost();
  const waiting = host.once("APNSService.OnNotificationOpened");
  process.kill(host.pid ?? 0, "SIGKILL");
  await assert.rejects(waiting, { name: "ApnsHostError", kind: "exited", signal: "SIGKILL", message: /ended by SIGKILL/ });
  assert.equal(await host.close(), 137);
});

test("error and outcome replies reject with every field they carry", async (t) => {
  const cases = [
    {
      mode: "error",
      expected: { code: "ABORTED", message: "m", externalCode: "E1", traceId: "t1", details: { k: [1] }, type: "urn:t", instance: "/i", outcome: false },
    },
    { mode: "outcome", expected: { code: "LATER", message: "GetNotificationSettings ended with the outcome LATER", outcome: true, data: { retry: 3 } } },
  ];
  for (const { mode, expected } of cases) {
    await t.test(mode, async () => {
      const host = await ApnsHost.start({ executable: fakeHost, args: [mode] });
      const error = await host.apnsService.getNotificationSettings().catch((e: unknown) => e);
      assert.ok(error instanceof ApnsServiceError);
      const { method, ...fields } = { ...error, message: error.message };
      assert.equal(method, "GetNotificationSettings");
      assert.deepEqual({ ...fields, name: undefined }, { ...expected, name: undefined });
      assert.equal(await host.close(), 0);
    });
  }
});

test("a reply of no known kind rejects as a protocol fault", async () => {
  const host = await ApnsHost.start({ executable: fakeHost, args: ["garbage"] });
  await assert.rejects(host.apnsService.getToken(), { name: "ApnsHostError", kind: "protocol", message: /GetToken with {"surprise":true}/ });
  await host.close();
});

test("commands after close are refused without reaching the host", async () => {
  const host = await ApnsHost.start({ executable: fakeHost, args: ["outcome"] });
  const closed = host.close();
  await assert.rejects(host.inspect("platform"), /closing/);
  assert.equal(await closed, 0);
});

// Reading it, and nothing from the empty text, is in the host tests.
test("userInfo throws on a notification's text that is not JSON", () => {
  assert.throws(() => userInfo({ userInfoJson: "{" }), SyntaxError);
});

