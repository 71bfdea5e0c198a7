// The phone's side of the host protocol: what the simulated system is told and what it answers.
// The plug-in's own records and enumerations are generated (generated.ts).

/** The application's state when a notification arrives. */
export type AppState = "foreground" | "background" | "notRunning";

/** A foreground presentation option the host application hands the system. */
export type PresentationName = "badge" | "sound" | "list" | "banner";

/**
 * The system's authorization status numbers, as `--status` and `{"platform":{...}}` take them.
 * They are the platform's own numbers, one below the plug-in's UNAuthorizationStatus, which
 * keeps 0 for "unspecified".
 */
export const SystemAuthorizationStatus = {
  notDetermined: 0,
  denied: 1,
  authorized: 2,
  provisional: 3,
  ephemeral: 4,
} as const;
export type SystemAuthorizationStatusName = keyof typeof SystemAuthorizationStatus;

/** A system error as the simulated system reports it. */
export interface SystemError {
  domain: string;
  code: number;
}

/** What `host.platform(settings)` changes on the simulated phone; every member is optional. */
export interface PlatformSettings {
  /** The user's answer to the next authorization request. */
  authorization?: { granted: boolean } | { error: SystemError };
  /** The authorization status: a system status number or its name. */
  authorizationStatus?: number | SystemAuthorizationStatusName;
  /** The error the next badge change fails with, or null for none. */
  badgeError?: SystemError | null;
  /** The application's state. */
  app?: AppState;
  /** The foreground presentation options, or null for the plug-in's own answer. */
  present?: PresentationName[] | null;
  /** With the provider API: whether the application is installed (a new token when it is again). */
  deviceRegistered?: boolean;
  /** With the provider API: whether the device is reachable. */
  deviceOnline?: boolean;
}

/** What the system did with one notification: the host's `{"system":{...}}` line. */
export interface SystemLine {
  apnsId: string;
  app: AppState;
  visible: boolean;
  shown: boolean;
  listed: boolean;
  presentation: PresentationName[] | null;
  /** Why nothing reached the application, or null when a callback ran. */
  reason: string | null;
  /** The badge count the system set, or null. */
  badge: number | null;
  /** The action of the tap, or null without one. */
  tap: string | null;
  callbacks: Array<"didFinishLaunching" | "willPresent" | "didReceiveResponse">;
}

/** The answer to `inspect("platform")`. */
export interface PlatformState {
  /** The option mask of the last authorization request, or null before any. */
  authorizationOptions: number | null;
  /** The last badge count set, or null before any. */
  badgeCount: number | null;
  /** How many times the application registered for remote notifications. */
  registrations: number;
  /** The system's authorization status number (SystemAuthorizationStatus). */
  authorizationStatus: number;
  app: AppState;
  /** The foreground presentation options, or null for the plug-in's own answer. */
  present: PresentationName[] | null;
  [member: string]: unknown;
}

/** One notification the system shows, as `inspect("notificationCenter")` lists them. */
export interface ShownNotification {
  apnsId: string;
  collapseId: string | null;
  payload: Record<string, unknown>;
}

/** How `host.push(payload, options)` delivers a notification. */
export interface PushOptions {
  /** The application's state; the phone's current state when absent. */
  app?: AppState;
  /** The user taps it at once: true for the default action, or an action identifier. */
  tap?: boolean | string;
  /** The notification's identifier; a new UUID when absent. */
  apnsId?: string;
  /** Replaces a shown notification with the same collapse identifier. */
  collapseId?: string;
}

/** The provider API that `ApnsHost.start({providerApi})` serves beside the session. */
export interface ProviderApiOptions {
  /** "[HOST:]PORT" or a port; 0 (the default) takes any free port. */
  listen?: string | number;
  /** Serve over TLS (the default) or, with false, cleartext HTTP/2. */
  tls?: boolean;
  /** A PEM certificate and key to serve with instead of a generated certificate. */
  tlsCert?: string;
  tlsKey?: string;
  /** Token authentication: the .p8 key with its key and team identifiers. */
  authKey?: string;
  keyId?: string;
  teamId?: string;
  /** Certificate authentication against this CA file instead of tokens. */
  clientCa?: string;
  /** The device token (64 hexadecimal digits) instead of a random one. */
  deviceToken?: string;
}

/** Where the provider API listens and what a push server needs to reach the device. */
export interface ProviderApi {
  /** "https://127.0.0.1:PORT" (or http:// without TLS). */
  url: string;
  port: number;
  tls: boolean;
  /** The server certificate's PEM text, to trust in the push server's client. */
  certificate?: string;
  /** The file that holds it. */
  certificatePath?: string;
  /** The device token, in hexadecimal. */
  deviceToken: string;
  /** The application's bundle identifier, the topic of its pushes. */
  topic: string;
  /** "development" or "production". */
  environment: string;
  /** Everything the host's start line said. */
  startLine: Record<string, unknown>;
}

/** How `ApnsHost.start(options)` runs the host. */
export interface StartOptions {
  /** The apns-host program; else $APNS_HOST, else the repository's build/tools/apns-host. */
  executable?: string;
  /** The application bundle that holds embedded.mobileprovision. */
  bundle?: string;
  /** The authorization status at start: a system status number or its name. */
  status?: number | SystemAuthorizationStatusName;
  /** The foreground presentation options the host application hands the system. */
  present?: readonly PresentationName[];
  /** Serve APNs's provider API too (true for the defaults). */
  providerApi?: boolean | ProviderApiOptions;
  /** The host's log level on standard error. */
  logLevel?: "debug" | "info" | "error" | "off";
  /** Further command-line arguments, added after the others. */
  args?: readonly string[];
}
