// apns-host --describe: one JSON document that describes the far side's protocol: the plug-in's
// methods in dispatch order with their request and response records, every record's fields (in
// order, with their JSON types), the enumerations with their case names and wire numbers, the
// events with their payload records, the session's commands and the output lines.
//
// The methods, records, enumerations and events are read off the add-on's own declarations (its
// method table, the records' coding fields, the enumerations' traits), so the description cannot
// drift from the code. Pure; any thread; never throws except std::bad_alloc.
#pragma once

#include <string>

namespace nimborra::host {

// The document, compact, without a line break.
std::string describeProtocol();

}  // namespace nimborra::host
