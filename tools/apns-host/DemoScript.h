// The built-in demo session of `apns-host --demo`: every method of the plug-in once, with
// comments that say what each step shows.
#pragma once

#include <string_view>

namespace nimborra::host {

// The demo's commands, as JSON Lines with "#" comments.
std::string_view demoScript();

}  // namespace nimborra::host
