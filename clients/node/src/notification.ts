// Reading a notification's user info, which the bridge carries as JSON text.

/**
 * The notification's user-info dictionary (the whole push payload), parsed from its
 * `userInfoJson`; undefined when that is the empty text, as for a launch record with nothing in
 * it. Throws a SyntaxError for text that is not JSON.
 */
export function userInfo(notification: { userInfoJson: string }): Record<string, unknown> | undefined {
  if (notification.userInfoJson === "") return undefined;
  return JSON.parse(notification.userInfoJson) as Record<string, unknown>;
}
