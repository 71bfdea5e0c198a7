// What the tests share: where the package, the repository and the host under test are.
import { dirname, resolve } from "node:path";
import { fileURLToPath } from "node:url";

import { ApnsHost, type StartOptions } from "../src/index.js";

/** The package folder (clients/node); the tests run compiled from dist/test. */
export const packageDir = resolve(dirname(fileURLToPath(import.meta.url)), "..", "..");
export const repositoryDir = resolve(packageDir, "..", "..");
export const hostPath = process.env["APNS_HOST"] ?? resolve(repositoryDir, "build/tools/apns-host");
export const sampleBundle = resolve(repositoryDir, "examples/bundle");
export const fakeHost = resolve(packageDir, "test/fixtures/fake-host.mjs");

/** A host on the sample bundle, authorized, quiet on standard error. */
export function startHost(options: StartOptions = {}): Promise<ApnsHost> {
  return ApnsHost.start({ bundle: sampleBundle, status: "authorized", logLevel: "off", ...options });
}
