// The command "watch": tells each signal of the service as it comes.
#ifndef WATCH_H
#define WATCH_H

#include <QtCore/QObject>
#include <QtDBus/QDBusConnection>

#include "Json.h"

class QDBusMessage;
class QSocketNotifier;

class Watch : public QObject
{
    Q_OBJECT

public:
    Watch(const QDBusConnection &bus, bool json);

    /**
     * Tells whether the service runs, and everything after that, one line each. Returns the exit
     * status when the bus is gone, when nobody reads any more or when nothing can be written; at
     * SIGINT and SIGTERM, the process ends.
     */
    int run();

private Q_SLOTS:
    void begin();
    void signalCame(const QDBusMessage &signal);
    void ownerChanged(const QString &name, const QString &oldOwner, const QString &newOwner);
    void busLost();
    void outputChanged();

private:
    void setOwner(const QString &owner);
    void tell(const QString &event, const QString &text, const JsonObject &details);

    QDBusConnection m_bus;
    const bool m_json;
    QString m_owner; // unique name of the service on the bus; empty while it does not run
    QSocketNotifier *m_output;
};

#endif
