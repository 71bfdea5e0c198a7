// A push server's request to the provider API reaches the far side's listeners in the same
// script: host.providerApi says where to connect, what to trust and which device to address.
import assert from "node:assert/strict";
import { generateKeyPairSync, sign } from "node:crypto";
import { connect } from "node:http2";
import { test } from "node:test";

import { startHost } from "./support.js";

/** An ES256 provider token; the host checks its form, not its key, without --auth-key. */
function providerToken(): string {
  const { privateKey } = generateKeyPairSync("ec", { namedCurve: "P-256" });
  const part = (value: object) => Buffer.from(JSON.stringify(value)).toString("base64url");
  const unsigned = `${part({ alg: "ES256", kid: "ABC123DEFG" })}.${part({ iss: "TEAM123456", iat: Math.floor(Date.now() / 1000) })}`;
  const signature = sign("sha256", Buffer.from(unsigned), { key: privateKey, dsaEncoding: "ieee-p1363" });
  return `${unsigned}.${signature.toString("base64url")}`;
}

function send(url: string, ca: string, path: string, headers: Record<string, string>, body: string): Promise<number> {
  return new Promise((resolve, reject) => {
    const session = connect(url, { ca, servername: "localhost" });
    session.on("error", reject);
    const request = session.request({ ":method": "POST", ":path": path, ...headers });
    request.on("response", (response) => resolve(Number(response[":status"])));
    request.on("error", reject);
    request.on("close", () => session.close());
    request.resume();
    request.end(body);
  });
}

test("the provider API's address, certificate and device token take a push to the listeners", async () => {
  const host = await startHost({ providerApi: true });
  const api = host.providerApi;
  assert.ok(api !== undefined);
  assert.match(api.url, /^https:\/\/127\.0\.0\.1:\d+$/);
  assert.equal(api.url, `https://127.0.0.1:${api.port}`);
  assert.match(api.certificate ?? "", /^-----BEGIN CERTIFICATE-----/);
  assert.match(api.deviceToken, /^[0-9a-f]{64}$/);
  assert.equal(api.topic, "com.nimborra.sample");

  const presented = host.once("APNSService.OnNotificationPresented");
  const headers = { authorization: `bearer ${providerToken()}`, "apns-topic": api.topic, "apns-push-type": "alert" };
  const status = await send(api.url, api.certificate ?? "", `/3/device/${api.deviceToken}`, headers, '{"aps":{"alert":"from the server"}}');
  assert.equal(status, 200);
  assert.equal((await presented).body, "from the server");
  assert.equal(await host.close(), 0);
});
