#ifndef PLATFORM_H
#define PLATFORM_H

#include <QStringList>

/// The product's power and supervisor events on the session bus.
class Platform
{
public:
    /// Takes its name. Returns why not, or an empty text.
    static QString start();
    /// "suspend", "shutdown", "reboot" and "supervisor-end".
    static QStringList events();
    /**
     * Sends \p event with a \p reason, which supervisor-end does not have; as a \p stranger, from
     * somebody who does not own the platform's name. Returns why not, or an empty text.
     */
    static QString send(const QString &event, const QString &reason, bool stranger);
};

#endif
