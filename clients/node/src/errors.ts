// The two ways a promise of the client rejects: the plug-in answered with an error (or an
// outcome the library does not model), or the host itself refused a command or went away.

/** The members of an error reply, as the plug-in writes them. */
export interface ApnsServiceErrorFields {
  code: string;
  message: string;
  externalCode?: string;
  traceId?: string;
  details?: unknown;
  type?: string;
  instance?: string;
}

/**
 * A method's reply was an error, or an outcome: `{"error":{...}}` carries the plug-in's error
 * record, whose fields are copied here; `{"outcome":{"code":C,"data":D}}` rejects too, with
 * `outcome` set, `code` = C and `data` = D, since it has no response record to resolve with.
 */
export class ApnsServiceError extends Error implements ApnsServiceErrorFields {
  override readonly name = "ApnsServiceError";
  /** The method that was called, e.g. "GetToken". */
  readonly method: string;
  readonly code: string;
  readonly externalCode?: string;
  readonly traceId?: string;
  readonly details?: unknown;
  readonly type?: string;
  readonly instance?: string;
  /** True for an outcome reply. */
  readonly outcome: boolean;
  /** An outcome's data. */
  readonly data?: unknown;

  constructor(method: string, fields: ApnsServiceErrorFields, outcome?: { data: unknown }) {
    super(fields.message);
    this.method = method;
    this.code = fields.code;
    this.outcome = outcome !== undefined;
    if (outcome !== undefined) this.data = outcome.data;
    if (fields.externalCode !== undefined) this.externalCode = fields.externalCode;
    if (fields.traceId !== undefined) this.traceId = fields.traceId;
    if (fields.details !== undefined) this.details = fields.details;
    if (fields.type !== undefined) this.type = fields.type;
    if (fields.instance !== undefined) this.instance = fields.instance;
  }
}

/** Why an ApnsHostError was raised. */
export type ApnsHostErrorKind =
  /** The host could not be started (missing executable, a wrong option, ...). */
  | "start"
  /** The host refused the command: its `{"error":TEXT,"line":N}` answer. */
  | "refused"
  /** The host ended (or was closed) before answering. */
  | "exited"
  /** The host answered in a way the client cannot read. */
  | "protocol";

/** The host refused a command, failed to start, or ended before it answered. */
export class ApnsHostError extends Error {
  override readonly name = "ApnsHostError";
  readonly kind: ApnsHostErrorKind;
  /** The input line number the host gave with a refusal. */
  readonly line?: number;
  /** The exit status, when the host has ended by itself. */
  readonly exitCode?: number | null;
  /** The signal that ended the host, if one did. */
  readonly signal?: string | null;
  /** The last lines the host wrote to standard error. */
  readonly stderr?: string;

  constructor(
    kind: ApnsHostErrorKind,
    message: string,
    extra: { line?: number; exitCode?: number | null; signal?: string | null; stderr?: string } = {},
  ) {
    super(message);
    this.kind = kind;
    if (extra.line !== undefined) this.line = extra.line;
    if (extra.exitCode !== undefined) this.exitCode = extra.exitCode;
    if (extra.signal !== undefined) this.signal = extra.signal;
    if (extra.stderr !== undefined) this.stderr = extra.stderr;
  }
}
