// One apns-host session: reads the lines of an input, turns each into a bridge call or a phone
// command, and writes what each command answers: the far side's door.
//
// Ids belong to the far side. A call's reply carries its "id", by default the number of far-side
// calls so far; any command may carry an "id" (a string or an integer), and is then answered by
// exactly one line with that id, written after every line the command caused: a call by its
// reply, an inspection by its answer, a refused line by its error, any other command by
// {"id":ID,"done":NAME}. An id still waiting for its answer is refused.
//
// Threads: run() (and with it every command) runs on one thread, the reading thread; it must
// not be the main thread, which has to keep draining the main queue. Replies arrive on the
// plug-in's queue; the ids still waiting for them are guarded by a lock. Commands that touch the
// phone hold it exclusively (Phone::exclusive) once every earlier call has been answered, so
// that what they write comes after what came before them. The session must outlive every call
// it started: run() returns only when all of them have been answered.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "Application.h"
#include "Bridge.h"
#include "Commands.h"
#include "LineReader.h"
#include "Output.h"
#include "Phone.h"

namespace nimborra::host {

// The exit status of a session.
enum class SessionStatus {
    // Every line was accepted.
    accepted = 0,
    // At least one line was refused.
    refused = 1,
    // The input could not be read, or the output could not be written.
    unreadable = 2,
};

class Session {
  public:
    // With `echo`, each command and comment is written before it runs, and runs only once every
    // earlier call has been answered. Every reference must outlive the session.
    Session(OutputWriter& output, Bridge& bridge, Phone& phone, Application& application,
            bool echo);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Runs every line of `input`, then waits until every call has been answered. Stops reading
    // at a read error (reported as readError()) or once the output has failed.
    SessionStatus run(LineReader& input);

    // The errno value of the read error that ended run(), or 0.
    int readError() const { return readError_; }

    // Runs one line, numbered from 1 in its input. False when the line was refused.
    bool runLine(std::string_view line, std::size_t lineNumber);

    // Delivers a push already read and checked (a --push file).
    void push(const PushCommand& command);

    // Blocks until every call started so far has been answered and every push has ended.
    void waitForReplies();

  private:
    // What a command answers: true when accepted; false after writing its refusal.
    bool runCommand(const Command& command, const std::optional<std::string>& id,
                    std::size_t lineNumber);
    void call(const CallCommand& command, const std::optional<std::string>& id);
    bool changePlatform(const PlatformCommand& command, std::string& refusal);
    // Marks `id` as waiting; false when it already is.
    bool claimId(const std::string& id);
    void releaseId(const std::string& id);

    OutputWriter& output_;
    Bridge& bridge_;
    Phone& phone_;
    Application& application_;
    const bool echo_;
    // Far-side calls so far: the default "id".
    std::int64_t callCount_ = 0;
    int readError_ = 0;

    std::mutex idMutex_;
    // The ids of calls still waiting for their reply, as compact JSON.
    std::set<std::string, std::less<>> waitingIds_;
};

}  // namespace nimborra::host
