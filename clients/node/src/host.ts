// ApnsHost runs one apns-host process and speaks its JSON Lines protocol: every command carries
// an id of its own, and the one line that answers that id settles the command's promise. Lines
// without an id (events, the system's account of each push) are routed to listeners or to the
// command they belong to. Nothing here blocks; everything the host writes is read as it comes.
import { spawn, type ChildProcessWithoutNullStreams } from "node:child_process";
import { randomUUID } from "node:crypto";
import { mkdtemp, readFile, rm } from "node:fs/promises";
import { constants, tmpdir } from "node:os";
import { dirname, join, resolve } from "node:path";
import { createInterface } from "node:readline";
import { fileURLToPath } from "node:url";

import { ApnsHostError, ApnsServiceError, type ApnsServiceErrorFields } from "./errors.js";
import {
  bindApnsService,
  type ApnsService,
  type ApnsServiceEvents,
  type ApnsServiceMethods,
} from "./generated.js";
import {
  SystemAuthorizationStatus,
  type PlatformSettings,
  type PlatformState,
  type ProviderApi,
  type ProviderApiOptions,
  type PushOptions,
  type ShownNotification,
  type StartOptions,
  type SystemAuthorizationStatusName,
  type SystemLine,
} from "./types.js";

export type ApnsServiceEventName = keyof ApnsServiceEvents;
export type ApnsServiceListener<E extends ApnsServiceEventName> = (payload: ApnsServiceEvents[E]) => void;

type Json = Record<string, unknown>;

interface Pending {
  readonly command: string;
  readonly resolve: (line: Json) => void;
  readonly reject: (error: Error) => void;
  /** Resolves once the answer has come, whichever way. */
  readonly settled: Promise<void>;
  /** For push and tap: the notification the system line must name ("latest" for any). */
  readonly notification?: string;
  system?: SystemLine;
}

interface Waiter {
  readonly name: ApnsServiceEventName;
  readonly accept: (payload: never) => boolean;
  readonly reject: (error: Error) => void;
}

/** How much of the host's standard error is kept for the error that reports its end. */
const stderrTail = 4096;

const isObject = (value: unknown): value is Json =>
  typeof value === "object" && value !== null && !Array.isArray(value);

/** The repository's build of the host, relative to this package (dist/src/host.js). */
function defaultExecutable(): string {
  const packageDir = resolve(dirname(fileURLToPath(import.meta.url)), "..", "..");
  return resolve(packageDir, "..", "..", "build", "tools", "apns-host");
}

function statusNumber(status: number | SystemAuthorizationStatusName): number {
  return typeof status === "number" ? status : SystemAuthorizationStatus[status];
}

function providerArguments(options: ProviderApiOptions, certificateOut: string | undefined): string[] {
  const args = ["--provider-api", String(options.listen ?? 0)];
  const add = (flag: string, value: string | undefined) => {
    if (value !== undefined) args.push(flag, value);
  };
  if (options.tls === false) args.push("--cleartext");
  add("--tls-cert", options.tlsCert);
  add("--tls-key", options.tlsKey);
  add("--tls-cert-out", certificateOut);
  add("--auth-key", options.authKey);
  add("--key-id", options.keyId);
  add("--team-id", options.teamId);
  add("--client-ca", options.clientCa);
  add("--device-token", options.deviceToken);
  return args;
}

/**
 * One running apns-host: the plug-in's methods (`apnsService`), its events (`on`, `off`,
 * `once`) and the simulated phone (`push`, `platform`, `launch`, `tap`, `inspect`).
 */
export class ApnsHost {
  /** The plug-in's eleven methods, each a promise of its response record. */
  readonly apnsService: ApnsService;

  readonly #child: ChildProcessWithoutNullStreams;
  readonly #pending = new Map<string, Pending>();
  readonly #listeners = new Map<ApnsServiceEventName, Set<(payload: never) => void>>();
  readonly #waiters = new Set<Waiter>();
  readonly #exit: Promise<number>;
  #nextId = 0;
  #stderr = "";
  #ended: ApnsHostError | undefined;
  #closing = false;
  #providerApi: ProviderApi | undefined;
  #startLine: { resolve: (line: Json) => void; reject: (error: Error) => void } | undefined;

  private constructor(child: ChildProcessWithoutNullStreams, temporary: string | undefined) {
    this.#child = child;
    this.apnsService = bindApnsService((method, request) => this.#call(method, request));

    child.stdin.on("error", () => {
      // A host that has gone away shows up as its exit; a failed write adds nothing to that.
    });
    child.stderr.setEncoding("utf8");
    child.stderr.on("data", (chunk: string) => {
      this.#stderr = (this.#stderr + chunk).slice(-stderrTail);
    });
    const lines = createInterface({ input: child.stdout, crlfDelay: Infinity });
    lines.on("line", (line) => this.#onLine(line));

    const removeTemporary = () => {
      if (temporary !== undefined) rm(temporary, { recursive: true, force: true }).catch(() => {});
    };
    this.#exit = new Promise((resolveExit) => {
      child.on("error", (error) => {
        this.#end(new ApnsHostError("start", `apns-host could not be run: ${error.message}`));
        resolveExit(-1);
        removeTemporary();
      });
      child.on("close", (code, signal) => {
        const stderr = this.#stderr.trim();
        const why = signal !== null ? `was ended by ${signal}` : `exited with status ${code}`;
        const last = stderr.split("\n").pop();
        const message = `apns-host ${why}${last ? `: ${last}` : ""}`;
        this.#end(new ApnsHostError("exited", message, { exitCode: code, signal, stderr }));
        const signalNumber = signal === null ? 0 : (constants.signals[signal] ?? 0);
        resolveExit(code ?? 128 + signalNumber);
        removeTemporary();
      });
    });
  }

  /**
   * Starts apns-host and resolves once it answers commands (and, with the provider API, once it
   * listens). Rejects with an ApnsHostError when it cannot run or ends at once, saying why.
   */
  static async start(options: StartOptions = {}): Promise<ApnsHost> {
    const executable = options.executable ?? process.env["APNS_HOST"] ?? defaultExecutable();
    const args: string[] = [];
    if (options.bundle !== undefined) args.push("--bundle", options.bundle);
    if (options.status !== undefined) args.push("--status", String(statusNumber(options.status)));
    if (options.present !== undefined) args.push("--present", options.present.join(","));
    if (options.logLevel !== undefined) args.push("--log-level", options.logLevel);

    let temporary: string | undefined;
    const provider = options.providerApi === true ? {} : options.providerApi || undefined;
    let certificatePath: string | undefined;
    if (provider !== undefined) {
      if (provider.tls !== false && provider.tlsCert === undefined) {
        temporary = await mkdtemp(join(tmpdir(), "apns-host-"));
        certificatePath = join(temporary, "host.pem");
      }
      args.push(...providerArguments(provider, certificatePath));
      certificatePath ??= provider.tlsCert;
    }
    args.push(...(options.args ?? []));

    const child = spawn(executable, args, { stdio: ["pipe", "pipe", "pipe"] });
    const host = new ApnsHost(child, temporary);
    try {
      if (provider !== undefined) {
        const line = await host.#awaitStartLine();
        host.#providerApi = await ApnsHost.#describeProvider(line, certificatePath);
      }
      // A first answer shows the host has read its options and its bundle.
      await host.inspect("platform");
    } catch (error) {
      host.#child.kill("SIGKILL");
      await host.#exit;
      throw error;
    }
    return host;
  }

  static async #describeProvider(line: Json, certificatePath: string | undefined): Promise<ProviderApi> {
    const tls = line["tls"] === true;
    const api: ProviderApi = {
      url: `${tls ? "https" : "http"}://${String(line["listening"])}`,
      port: Number(line["port"]),
      tls,
      deviceToken: String(line["deviceToken"] ?? ""),
      topic: String(line["topic"] ?? ""),
      environment: String(line["environment"] ?? ""),
      startLine: line,
    };
    if (tls && certificatePath !== undefined) {
      api.certificatePath = certificatePath;
      api.certificate = await readFile(certificatePath, "utf8");
    }
    return api;
  }

  #awaitStartLine(): Promise<Json> {
    return new Promise((resolveLine, rejectLine) => {
      if (this.#ended !== undefined) {
        rejectLine(this.#ended);
        return;
      }
      this.#startLine = { resolve: resolveLine, reject: rejectLine };
    });
  }

  /** Where the provider API listens, when the host was started with one. */
  get providerApi(): ProviderApi | undefined {
    return this.#providerApi;
  }

  /** The host's process id. */
  get pid(): number | undefined {
    return this.#child.pid;
  }

  // ---- events ----

  /** Calls `listener` with the payload of every `name` event from now on. */
  on<E extends ApnsServiceEventName>(name: E, listener: ApnsServiceListener<E>): this {
    let set = this.#listeners.get(name);
    if (set === undefined) this.#listeners.set(name, (set = new Set()));
    set.add(listener as (payload: never) => void);
    return this;
  }

  /** Stops calling a listener given to `on`. */
  off<E extends ApnsServiceEventName>(name: E, listener: ApnsServiceListener<E>): this {
    this.#listeners.get(name)?.delete(listener as (payload: never) => void);
    return this;
  }

  /**
   * The payload of the next `name` event (that `filter` accepts, when given). Rejects when the
   * host ends first.
   */
  once<E extends ApnsServiceEventName>(
    name: E,
    filter?: (payload: ApnsServiceEvents[E]) => boolean,
  ): Promise<ApnsServiceEvents[E]> {
    return new Promise((resolveEvent, rejectEvent) => {
      if (this.#ended !== undefined) {
        rejectEvent(this.#ended);
        return;
      }
      const waiter: Waiter = {
        name,
        accept: ((payload: ApnsServiceEvents[E]) => {
          if (filter !== undefined && !filter(payload)) return false;
          resolveEvent(payload);
          return true;
        }) as (payload: never) => boolean,
        reject: rejectEvent,
      };
      this.#waiters.add(waiter);
    });
  }

  #emit(name: ApnsServiceEventName, payload: unknown): void {
    for (const waiter of [...this.#waiters]) {
      if (waiter.name === name && waiter.accept(payload as never)) this.#waiters.delete(waiter);
    }
    for (const listener of [...(this.#listeners.get(name) ?? [])]) {
      try {
        listener(payload as never);
      } catch (error) {
        // The listener's fault is the caller's to see, without stopping the reading of lines.
        queueMicrotask(() => {
          throw error;
        });
      }
    }
  }

  // ---- the phone ----

  /**
   * The system receives a remote notification. Resolves with the system's account of it (the
   * `{"system":{...}}` line) once everything it caused has been written and seen by listeners.
   */
  async push(payload: object, options: PushOptions = {}): Promise<SystemLine> {
    const apnsId = options.apnsId ?? randomUUID().toUpperCase();
    const command: Json = { push: payload, apnsId };
    if (options.app !== undefined) command["app"] = options.app;
    if (options.tap !== undefined && options.tap !== false) command["tap"] = options.tap;
    if (options.collapseId !== undefined) command["collapseId"] = options.collapseId;
    return this.#withSystemLine(command, apnsId);
  }

  /**
   * The user taps a notification the system shows: by its apns-id, or the latest one. Resolves
   * with the system's account of the tap.
   */
  async tap(apnsId = "latest", action?: string): Promise<SystemLine> {
    const command: Json = { tap: apnsId };
    if (action !== undefined) command["action"] = action;
    return this.#withSystemLine(command, apnsId);
  }

  async #withSystemLine(command: Json, notification: string): Promise<SystemLine> {
    const { pending, answer } = this.#send(command, notification);
    await answer;
    if (pending.system === undefined) {
      throw new ApnsHostError("protocol", `apns-host wrote no system line for ${JSON.stringify(command)}`);
    }
    return pending.system;
  }

  /** Changes the simulated phone; resolves once every earlier call is answered and it is done. */
  async platform(settings: PlatformSettings): Promise<void> {
    const wire: Json = { ...settings };
    if (settings.authorizationStatus !== undefined) {
      wire["authorizationStatus"] = statusNumber(settings.authorizationStatus);
    }
    await this.#send({ platform: wire }).answer;
  }

  /** Hands a launch notification's payload to the launch code, as at a launch by a tap. */
  async launch(payload: object): Promise<void> {
    await this.#send({ launch: payload }).answer;
  }

  /** What the simulated system holds: its settings, or the notifications it shows. */
  inspect(what: "platform"): Promise<PlatformState>;
  inspect(what: "notificationCenter"): Promise<ShownNotification[]>;
  async inspect(what: "platform" | "notificationCenter"): Promise<PlatformState | ShownNotification[]> {
    const line = await this.#send({ inspect: what }).answer;
    return line[what] as PlatformState | ShownNotification[];
  }

  // ---- lifetime ----

  /**
   * Ends the host's input once every command has been answered and resolves with its exit
   * status (0: every line accepted; 1: a line was refused; 128 + N: ended by signal N). With
   * the provider API, which serves past the end of the input, the host is sent SIGTERM.
   */
  async close(): Promise<number> {
    if (!this.#closing && this.#ended === undefined) {
      this.#closing = true;
      while (this.#pending.size > 0 && this.#ended === undefined) {
        await Promise.race([this.#exit, ...[...this.#pending.values()].map((p) => p.settled)]);
      }
      this.#child.stdin.end();
      if (this.#providerApi !== undefined) this.#child.kill("SIGTERM");
    }
    return this.#exit;
  }

  // ---- the protocol ----

  #call(method: keyof ApnsServiceMethods, request: object): Promise<unknown> {
    return this.#send({ call: method, payload: request }).answer.then((line) => {
      const reply = line["reply"];
      if (isObject(reply)) {
        if ("success" in reply) return reply["success"];
        const error = reply["error"];
        if (isObject(error) && typeof error["code"] === "string") {
          return Promise.reject(new ApnsServiceError(method, error as unknown as ApnsServiceErrorFields));
        }
        const outcome = reply["outcome"];
        if (isObject(outcome) && typeof outcome["code"] === "string") {
          const code = outcome["code"];
          const fields = { code, message: `${method} ended with the outcome ${code}` };
          return Promise.reject(new ApnsServiceError(method, fields, { data: outcome["data"] }));
        }
      }
      return Promise.reject(
        new ApnsHostError("protocol", `apns-host answered ${method} with ${JSON.stringify(reply)}`),
      );
    });
  }

  #send(command: Json, notification?: string): { pending: Pending; answer: Promise<Json> } {
    const id = `c${++this.#nextId}`;
    let resolveAnswer!: (line: Json) => void;
    let rejectAnswer!: (error: Error) => void;
    const answer = new Promise<Json>((resolveLine, rejectLine) => {
      resolveAnswer = resolveLine;
      rejectAnswer = rejectLine;
    });
    const settled = answer.then(
      () => undefined,
      () => undefined,
    );
    const pending: Pending = {
      command: Object.keys(command)[0] ?? "",
      resolve: resolveAnswer,
      reject: rejectAnswer,
      settled,
      ...(notification !== undefined ? { notification } : {}),
    };
    if (this.#ended !== undefined) {
      rejectAnswer(this.#ended);
    } else if (this.#closing) {
      rejectAnswer(new ApnsHostError("exited", "apns-host is closing: it takes no more commands"));
    } else {
      this.#pending.set(id, pending);
      this.#child.stdin.write(`${JSON.stringify({ ...command, id })}\n`);
    }
    return { pending, answer };
  }

  #onLine(text: string): void {
    let line: unknown;
    try {
      line = JSON.parse(text);
    } catch {
      return; // Not a protocol line.
    }
    if (!isObject(line)) return;
    const id = line["id"];
    const pending = typeof id === "string" ? this.#pending.get(id) : undefined;
    if (pending !== undefined && typeof id === "string") {
      this.#pending.delete(id);
      if (typeof line["error"] === "string" && "line" in line) {
        const number = typeof line["line"] === "number" ? line["line"] : undefined;
        const extra = number !== undefined ? { line: number } : {};
        pending.reject(new ApnsHostError("refused", `apns-host refused ${pending.command}: ${line["error"]}`, extra));
      } else {
        pending.resolve(line);
      }
      return;
    }
    if (typeof line["event"] === "string") {
      this.#emit(line["event"] as ApnsServiceEventName, line["payload"]);
    } else if (isObject(line["system"])) {
      this.#onSystemLine(line["system"] as unknown as SystemLine);
    } else if (isObject(line["providerApi"]) && this.#startLine !== undefined) {
      const started = this.#startLine;
      this.#startLine = undefined;
      started.resolve(line["providerApi"]);
    }
  }

  /** Gives a system line to the push or tap it reports on: the one naming its notification. */
  #onSystemLine(system: SystemLine): void {
    const named = String(system.apnsId ?? "").toUpperCase();
    for (const pending of this.#pending.values()) {
      if (pending.notification === undefined || pending.system !== undefined) continue;
      if (pending.notification.toUpperCase() === named || pending.notification === "latest") {
        pending.system = system;
        return;
      }
    }
  }

  /** Rejects everything still waiting: the host has gone. */
  #end(error: ApnsHostError): void {
    if (this.#ended !== undefined) return;
    this.#ended = error;
    for (const pending of this.#pending.values()) pending.reject(error);
    this.#pending.clear();
    for (const waiter of this.#waiters) waiter.reject(error);
    this.#waiters.clear();
    this.#startLine?.reject(error);
    this.#startLine = undefined;
  }
}
