// SPDX-License-Identifier: MIT
// The device's log and GLib's, as the tests see them: recorded, line by line.
#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

// One line of the device's log, taken apart. A line that does not carry the common prefix, the tag
// or the buffer has the function "(malformed)" and its whole text as message.
struct LogLine {
    int priority;
    std::string function;
    std::string message;

    bool operator==(const LogLine& other) const {
        return priority == other.priority && function == other.function && message == other.message;
    }
};
std::ostream& operator<<(std::ostream& out, const LogLine& line);

LogLine Debug(const std::string& function, const std::string& message);
LogLine Error(const std::string& function, const std::string& message);

// All lines since the start or the last ClearLog(); from any thread.
std::vector<LogLine> Log();
// Those of one function of the channel.
std::vector<LogLine> LogOf(const std::string& function);
// Those of error priority.
std::vector<LogLine> Errors();
void ClearLog();
// Called on the logging thread for each line from now on, after it was recorded; nothing where
// empty.
void OnLogLine(std::function<void(const LogLine&)> then);

// Holds up the thread that logs a certain line, so that what a test makes happen meanwhile happens
// in that order however long it takes. Uses OnLogLine(). Nobody is held up any more once it is
// gone.
class HeldThread {
public:
    // From here on whoever logs `message` waits at that line.
    explicit HeldThread(const std::string& message);
    ~HeldThread();
    HeldThread(const HeldThread&) = delete;
    HeldThread& operator=(const HeldThread&) = delete;

    // Lets it go on, up to another line, and waits until it is there.
    void GoOnTo(const std::string& message);
    // Lets it go on for good.
    void GoOn();

private:
    struct State;
    const std::shared_ptr<State> m_state;  // shared with whoever is logging
};

// What GLib itself has reported (warnings and criticals) since the start or the last call; they are
// kept off the terminal.
std::vector<std::string> TakeGlibReports();
