// @nimborra/apns-host: drive apns-host, the simulated phone of the ApnsService push add-on, from
// Node.js: the plug-in's methods as promises, its events as listeners, the phone as commands.
export { ApnsHost, type ApnsServiceEventName, type ApnsServiceListener } from "./host.js";
export { ApnsHostError, ApnsServiceError, type ApnsHostErrorKind, type ApnsServiceErrorFields } from "./errors.js";
export * from "./generated.js";
export * from "./types.js";
export { userInfo } from "./notification.js";
