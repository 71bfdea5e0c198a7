// What `npm pack` makes installs into an empty project, and its declarations type-check a file
// that uses every method with the package's own TypeScript, offline.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { copyFileSync, mkdirSync, mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { test } from "node:test";

import { packageDir } from "./support.js";

const npm = (cwd: string, ...args: string[]) =>
  execFileSync("npm", [...args, "--no-audit", "--no-fund", "--loglevel=error"], { cwd, encoding: "utf8" });

test("the packed tarball installs into an empty project and its types check", (t) => {
  const work = mkdtempSync(join(tmpdir(), "apns-host-pack-"));
  t.after(() => rmSync(work, { recursive: true, force: true }));
  const [packed] = JSON.parse(npm(packageDir, "pack", "--json", "--ignore-scripts", "--pack-destination", work)) as Array<{
    filename: string;
    files: Array<{ path: string }>;
  }>;
  assert.ok(packed !== undefined);
  const files = packed.files.map((file) => file.path);
  for (const expected of ["package.json", "README.md", "LICENSE", "dist/src/index.js", "dist/src/index.d.ts"]) {
    assert.ok(files.includes(expected), `${expected} is packed`);
  }
  assert.deepEqual(files.filter((file) => !/^(dist\/src\/|package\.json|README\.md|LICENSE)/.test(file)), []);

  const project = join(work, "project");
  mkdirSync(project);
  writeFileSync(join(project, "package.json"), JSON.stringify({ name: "consumer", private: true, type: "module" }));
  npm(project, "install", "--offline", join(work, packed.filename.replace(/^.*\//, "")));
  copyFileSync(join(packageDir, "test/fixtures/consumer.ts"), join(project, "index.ts"));
  const compilerOptions = { strict: true, noEmit: true, module: "Node16", moduleResolution: "Node16", target: "ES2022", lib: ["ES2022", "DOM"], types: [] };
  writeFileSync(join(project, "tsconfig.json"), JSON.stringify({ compilerOptions, files: ["index.ts"] }));
  const tsc = join(packageDir, "node_modules/typescript/bin/tsc");
  execFileSync(process.execPath, [tsc, "-p", project], { encoding: "utf8" });
});
