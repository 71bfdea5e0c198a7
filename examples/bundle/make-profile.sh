#!/usr/bin/env bash
# Makes the sample bundle's provisioning profile, embedded.mobileprovision: a development
# profile (aps-environment "development") for the sample application, signed as a CMS
# container (DER) the way a real profile is, with a throw-away self-signed certificate made on
# the spot. Only the openssl command-line tool is needed (scripts/setup.sh installs it).
#
#     bash examples/bundle/make-profile.sh [OUTPUT]    # default: beside this script
#
# The profile is committed; run this again only to change it. Each run signs with a new key, so
# the bytes differ from run to run while the content stays the same.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
output=${1:-$here/embedded.mobileprovision}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cat >"$work/profile.plist" <<'PLIST'
<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>AppIDName</key>
	<string>NimbOrra Sample</string>
	<key>ApplicationIdentifierPrefix</key>
	<array>
	<string>A1B2C3D4E5</string>
	</array>
	<key>CreationDate</key>
	<date>2024-03-01T10:15:30Z</date>
	<key>Platform</key>
	<array>
		<string>iOS</string>
	</array>
	<key>IsXcodeManaged</key>
	<false/>
	<key>Entitlements</key>
	<dict>
		<key>application-identifier</key>
		<string>A1B2C3D4E5.com.nimborra.sample</string>
		<key>aps-environment</key>
		<string>development</string>
		<key>com.apple.developer.team-identifier</key>
		<string>A1B2C3D4E5</string>
		<key>get-task-allow</key>
		<true/>
		<key>keychain-access-groups</key>
		<array>
			<string>A1B2C3D4E5.*</string>
		</array>
	</dict>
	<key>ExpirationDate</key>
	<date>2025-03-01T10:15:30Z</date>
	<key>Name</key>
	<string>NimbOrra Sample Development</string>
	<key>ProvisionedDevices</key>
	<array>
		<string>00008110-000A1B2C3D4E5F60</string>
	</array>
	<key>TeamIdentifier</key>
	<array>
		<string>A1B2C3D4E5</string>
	</array>
	<key>TeamName</key>
	<string>NimbOrra Sample Team</string>
	<key>TimeToLive</key>
	<integer>365</integer>
	<key>UUID</key>
	<string>6f1c2a52-5f0e-4d8e-9a43-2b7c1d9e8a10</string>
	<key>Version</key>
	<integer>1</integer>
</dict>
</plist>
PLIST

openssl req -x509 -newkey rsa:2048 -nodes -subj "/CN=NimbOrra Sample Signer" -days 365 \
  -keyout "$work/key.pem" -out "$work/cert.pem" 2>"$work/req.log" || {
  cat "$work/req.log" >&2
  exit 1
}
# -binary keeps the property list byte for byte (no MIME line-ending conversion).
openssl cms -sign -nodetach -binary -outform DER -in "$work/profile.plist" \
  -signer "$work/cert.pem" -inkey "$work/key.pem" -out "$work/embedded.mobileprovision"
mv "$work/embedded.mobileprovision" "$output"
echo "make-profile: wrote $output"
