// The committed types are what the built host describes: a record, method, enumeration or
// event that changes in the host fails here until `npm run generate` is run again.
import assert from "node:assert/strict";
import { execFileSync, spawnSync } from "node:child_process";
import { mkdtempSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { test } from "node:test";

import { hostPath, packageDir } from "./support.js";

const generate = (...args: string[]) =>
  spawnSync(process.execPath, ["scripts/generate.mjs", ...args], { cwd: packageDir, encoding: "utf8" });

test("src/generated.ts matches the host's description, and a changed description is caught", () => {
  const current = generate("--check", "--host", hostPath);
  assert.equal(current.status, 0, current.stderr);

  const description = JSON.parse(execFileSync(hostPath, ["--describe"], { encoding: "utf8" }));
  description.records.ApnsNotification.fields.push({ name: "imageURL", type: { type: "string" } });
  const changed = join(mkdtempSync(join(tmpdir(), "apns-describe-")), "describe.json");
  writeFileSync(changed, JSON.stringify(description));
  const stale = generate("--check", "--from", changed);
  assert.equal(stale.status, 1);
  assert.match(stale.stderr, /differs from what the host describes/);
});
