// What the command tells the shell.
#ifndef EXITSTATUS_H
#define EXITSTATUS_H

enum ExitStatus {
    Done = 0,
    Refused = 1, ///< the service said no, or what it tried has failed
    WrongUsage = 2,
    Unreachable = 3, ///< no bus, or no service on it
    NoAnswer = 4 ///< not in the time allowed
};

#endif
