#ifndef ERROR_H
#define ERROR_H

#include <QString>

/// An error reply: its D-Bus name and its text.
struct Error
{
    QString name;
    QString text;
};

/// The daemon's error replies.
namespace Errors {

Error invalidArguments();
Error audioInProgress();
Error alreadyExists();
Error notConnected();
Error alreadyConnected();
Error doesNotExist();
Error deviceCreationInProgress();
Error noSuchAdapter();
Error agentNotAvailable();
Error notAvailable();
Error failed(const QString &text);

/// The error called \p name, with or without "org.bluez.Error." in front, and its usual text.
Error named(const QString &name);

} // namespace Errors

#endif
